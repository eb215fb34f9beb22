#include <Pfe/IngDynamicNatTables.h>
#include <Pfe/IngStaticNatTable.h>
#include <Pfe/IngTwiceNatTable.h>

namespace [[gnu::visibility( "default" )]] Pfe {

std::ostream & operator<<( std::ostream & out, IngStaticNatEntry const & entry ) {
   out << "egrHdl=" << entry.egrHdl << ", fragHdl=" << entry.fragHdl
       << ", nextHopId=" << Vexa::stringOf( entry.nextHopId ) << ", aclId=" << Vexa::stringOf( entry.aclId )
       << ", filters=[";
   for ( auto const & filter : entry.filters ) {
      out << ' ' << filter;
   }
   return out << ( entry.filters.empty() ? "]" : " ]" );
}

std::ostream & operator<<( std::ostream & out, IngTwiceNatEntry const & entry ) {
   return out << "egrHdl=" << entry.egrHdl << ", fragHdl=" << entry.fragHdl
              << ", nextHopId=" << Vexa::stringOf( entry.nextHopId );
}

std::ostream & operator<<( std::ostream & out, IngDynamicNatEntry const & entry ) {
   return out << "natId=" << Vexa::stringOf( entry.natId ) << ", egrHdl=" << entry.egrHdl
              << ", fragHdl=" << entry.fragHdl << ", nextHopId=" << Vexa::stringOf( entry.nextHopId );
}

}  // namespace Pfe
