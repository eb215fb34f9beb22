// The programmed rows as text.
#include <tests/support/Programmer.h>
#include <tests/support/TableText.h>

#include <Asic/SwTableWorkaround.h>

#include <map>
#include <sstream>

namespace Support {

namespace {

using Ip::Nat::NatTarget;

std::string stateSuffix( Asic::EntryHandle const & handle ) {
   return handle.state() == Asic::EntryState::settled ? "" : " (" + std::string( stateText( handle.state() ) ) + ")";
}

// What of an ingress key its twin is named by, and what stands around that.
struct KeyText {
   std::string before, translation, after;
};

std::string vrfText( U32 vrfId ) { return vrfId == 0 ? " " : " vrf " + std::to_string( vrfId ) + ' '; }

KeyText described( Pfe::IngStaticNatTable::Key const & key ) {
   std::ostringstream before;
   before << ( key.target == NatTarget::source ? "source " : "destination " )
          << Netix::ShortName{ intf( key.natIntf.text() ) } << vrfText( key.vrfId );
   return { before.str(), textOf( key.ipAndPortOld ) + " > " + textOf( key.ipAndPortNew ),
            " proto " + std::to_string( key.protocol ) + ( key.mcast ? " mcast" : "" ) +
               ( key.fragment ? " fragment" : "" ) };
}

KeyText described( Pfe::IngTwiceNatTable::Key const & key ) {
   std::ostringstream before;
   before << ( key.forward ? "forward " : "reverse " ) << Netix::ShortName{ key.natIntf } << vrfText( key.vrfId );
   return { before.str(),
            textOf( key.srcIpAndPortOld ) + ", " + textOf( key.dstIpAndPortOld ) + " > " +
               textOf( key.srcIpAndPortNew ) + ", " + textOf( key.dstIpAndPortNew ),
            std::string( key.mcast ? " mcast" : "" ) + ( key.fragment ? " fragment" : "" ) };
}

template< class Tag > KeyText described( Pfe::IngDynamicNaptKey< Tag > const & key ) {
   constexpr bool isSource = std::is_same_v< Tag, Pfe::IngDynamicSnaptTableTraits >;
   return { ( isSource ? "snapt q" : "dnapt q" ) + std::to_string( key.intfQualifier ) + vrfText( key.vrfId.value() ),
            textOf( { key.firstIp, key.firstPort } ) + ", " + textOf( { key.secondIp, key.secondPort } ),
            " proto " + std::to_string( key.protocol ) + ( key.l4Detected ? " l4" : "" ) +
               ( key.fragment ? " fragment" : "" ) };
}

template< class Tag > KeyText described( Pfe::IngDynamicAddrOnlyKey< Tag > const & key ) {
   constexpr bool isSource = std::is_same_v< Tag, Pfe::IngDynamicSnatAddrOnlyTableTraits >;
   return { ( isSource ? "snat q" : "dnat q" ) + std::to_string( key.intfQualifier ) + vrfText( key.vrfId.value() ),
            Vexa::stringOf( key.ip ), "" };
}

class Text {
 public:
   explicit Text( Tables const & tables ) {
      unicast( "source ", *tables.source );
      unicast( "destination ", *tables.destination );
      tables.multicast->forEach( [ & ]( auto const & key, auto const & entry, Asic::EntryHandle const & handle ) {
         rewrite( "copy " + Vexa::stringOf( key.natId ) + '/' + std::to_string( key.replication ),
                  Vexa::stringOf( entry.srcIp ) + " > " + Vexa::stringOf( entry.dstIp ) + " by " +
                     std::to_string( entry.egressIntf & Netix::IntfId::maxNumber ),
                  handle );
      } );
      std::ranges::sort( rewrites_ );
      ingress( *tables.ingress );
      ingress( *tables.twice );
      ingress( *tables.snapt );
      ingress( *tables.dnapt );
      ingress( *tables.snat );
      ingress( *tables.dnat );
      std::ranges::sort( rows_ );
      rows_.insert( rows_.end(), rewrites_.begin(), rewrites_.end() );
   }

   Lines const & lines() const { return rows_; }

 private:
   void rewrite( std::string const & name, std::string const & content, Asic::EntryHandle const & handle ) {
      nameOf_[ &handle ] = name;
      rewrites_.push_back( name + " | " + content + stateSuffix( handle ) );
   }

   template< class Table > void unicast( std::string const & side, Table const & table ) {
      table.forEach( [ & ]( auto const & key, auto const & entry, Asic::EntryHandle const & handle ) {
         rewrite( side + Vexa::stringOf( key.natId ) + '/' + std::to_string( key.qualifier ),
                  textOf( Netix::IpAndPort{ entry.srcIp, entry.srcPort } ) + " > " +
                     textOf( Netix::IpAndPort{ entry.dstIp, entry.dstPort } ),
                  handle );
      } );
   }

   template< class Table > void ingress( Table const & table ) {
      std::map< Asic::EntryHandle const *, std::string > twinOf{
         { Asic::SwTableWorkaround::dontCareHandle( 0 ).ptr(), "none" } };
      table.forEach( [ & ]( auto const & key, auto const &, Asic::EntryHandle const & handle ) {
         twinOf[ &handle ] = described( key ).translation;
      } );
      table.forEach( [ & ]( auto const & key, auto const & entry, Asic::EntryHandle const & handle ) {
         auto const text = described( key );
         std::ostringstream out;
         out << text.before << text.translation << text.after << " |";
         entry.egrHdl.forEach( [ & ]( Asic::EntryHandle::PtrConst const & rewrite, bool failureCounts ) {
            out << ' ' << nameOf_[ rewrite.ptr() ] << ( failureCounts ? "" : " (failure ignored)" );
         } );
         out << " | twin " << twinOf[ entry.fragHdl.ptr() ] << " |";
         if constexpr ( requires { entry.natId; } ) {
            out << " natId " << entry.natId;
         }
         out << " nextHop " << entry.nextHopId;
         if constexpr ( requires { entry.aclId; } ) {
            out << " acl " << entry.aclId;
            for ( auto const & filter : entry.filters ) {
               out << " filter " << filter.source.address << '/' << filter.source.mask;
            }
         }
         rows_.push_back( out.str() + stateSuffix( handle ) );
      } );
   }

   std::map< Asic::EntryHandle const *, std::string > nameOf_;
   Lines rewrites_;
   Lines rows_;
};

}  // namespace

Lines Tables::text() const { return Text( *this ).lines(); }

}  // namespace Support
