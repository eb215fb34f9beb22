#include <Asic/Entry.h>

namespace [[gnu::visibility( "default" )]] Asic {

std::ostream & operator<<( std::ostream & out, HandleList const & list ) {
   out << '[';
   bool first = true;
   list.forEach( [ & ]( EntryHandle::PtrConst const & handle, bool ) {
      out << ( first ? " " : ", " ) << handle;
      first = false;
   } );
   return out << ( first ? "]" : " ]" );
}

}  // namespace Asic

namespace [[gnu::visibility( "default" )]] Orla {

std::ostream & operator<<( std::ostream & out, Ptr< Asic::EntryHandle const > const & handle ) {
   if ( !handle ) {
      return out << "none";
   }
   handle->describe( out );
   return out;
}

}  // namespace Orla
