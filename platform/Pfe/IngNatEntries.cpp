#include <Pfe/IngDynamicNatTables.h>
#include <Pfe/IngStaticNatTable.h>
#include <Pfe/IngTwiceNatTable.h>

namespace [[gnu::visibility( "default" )]] Pfe {

std::ostream & operator<<( std::ostream & out, IngStaticNatEntry const & entry ) {
   out << "egrHdl=" << entry.egrHdl << ", fragHdl=" << entry.fragHdl << ", nextHopId=" << entry.nextHopId
       << ", aclId=" << entry.aclId << ", filters=[";
   for ( auto const & filter : entry.filters ) {
      out << ' ' << filter;
   }
   return out << ( entry.filters.empty() ? "]" : " ]" );
}

std::ostream & operator<<( std::ostream & out, IngTwiceNatEntry const & entry ) {
   return out << "egrHdl=" << entry.egrHdl << ", fragHdl=" << entry.fragHdl << ", nextHopId=" << entry.nextHopId;
}

std::ostream & operator<<( std::ostream & out, IngDynamicNatEntry const & entry ) {
   return out << "natId=" << entry.natId << ", egrHdl=" << entry.egrHdl << ", fragHdl=" << entry.fragHdl
              << ", nextHopId=" << entry.nextHopId;
}

}  // namespace Pfe
