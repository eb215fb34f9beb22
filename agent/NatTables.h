// The NAT tables of one chip.
#pragma once

#include <Asic/Hardware.h>
#include <Orla/Ptr.h>
#include <Pfe/EgrNatTables.h>
#include <Pfe/IngDynamicNatTables.h>
#include <Pfe/IngStaticNatTable.h>
#include <Pfe/IngTwiceNatTable.h>

namespace Agent {

struct NatTables {
   explicit NatTables( Asic::Hardware::Ptr const & hardware )
      : ingTwice( Orla::make< Pfe::IngTwiceNatTable >( hardware ) ),
        ingStatic( Orla::make< Pfe::IngStaticNatTable >( hardware ) ),
        ingDynamicSnapt( Orla::make< Pfe::IngDynamicSnaptTable >( hardware ) ),
        ingDynamicDnapt( Orla::make< Pfe::IngDynamicDnaptTable >( hardware ) ),
        ingDynamicSnatAddrOnly( Orla::make< Pfe::IngDynamicSnatAddrOnlyTable >( hardware ) ),
        ingDynamicDnatAddrOnly( Orla::make< Pfe::IngDynamicDnatAddrOnlyTable >( hardware ) ),
        egrSource( Orla::make< Pfe::EgrSourceNatUcRewriteTable >( hardware ) ),
        egrDestination( Orla::make< Pfe::EgrDestinationNatUcRewriteTable >( hardware ) ),
        egrMc( Orla::make< Pfe::EgrNatMcRewriteTable >( hardware ) ) {}

   // Calls function( table ) for each, in the order in which a packet meets them.
   template< class Function > void forEach( Function && function ) const {
      function( *ingTwice );
      function( *ingStatic );
      function( *ingDynamicSnapt );
      function( *ingDynamicDnapt );
      function( *ingDynamicSnatAddrOnly );
      function( *ingDynamicDnatAddrOnly );
      forEachEgress( function );
   }
   template< class Function > void forEachEgress( Function && function ) const {
      function( *egrSource );
      function( *egrDestination );
      function( *egrMc );
   }

   Orla::Ptr< Pfe::IngTwiceNatTable > ingTwice;
   Orla::Ptr< Pfe::IngStaticNatTable > ingStatic;
   Orla::Ptr< Pfe::IngDynamicSnaptTable > ingDynamicSnapt;
   Orla::Ptr< Pfe::IngDynamicDnaptTable > ingDynamicDnapt;
   Orla::Ptr< Pfe::IngDynamicSnatAddrOnlyTable > ingDynamicSnatAddrOnly;
   Orla::Ptr< Pfe::IngDynamicDnatAddrOnlyTable > ingDynamicDnatAddrOnly;
   Orla::Ptr< Pfe::EgrSourceNatUcRewriteTable > egrSource;
   Orla::Ptr< Pfe::EgrDestinationNatUcRewriteTable > egrDestination;
   Orla::Ptr< Pfe::EgrNatMcRewriteTable > egrMc;
};

}  // namespace Agent
