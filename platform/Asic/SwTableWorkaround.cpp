#include <Asic/SwTableWorkaround.h>

#include <map>
#include <memory>

namespace [[gnu::visibility( "default" )]] Asic {
namespace SwTableWorkaround {

namespace {

// Settled for ever: a row that refers to it never waits.
class DontCareHandle final : public EntryHandle {
 public:
   DontCareHandle() { state_ = EntryState::settled; }

   bool heldByHardware() const override { return true; }
   void describe( std::ostream & out ) const override { out << "dontCare"; }

 private:
   void lastUserGone() const override {}  // owned by the map below
};

}  // namespace

EntryHandle::PtrConst dontCareHandle( U32 index ) {
   // Never destroyed: handles may be dropped while the process exits.
   static auto * const handles = new std::map< U32, DontCareHandle >;
   return EntryHandle::PtrConst( &( *handles )[ index ] );
}

}  // namespace SwTableWorkaround
}  // namespace Asic
