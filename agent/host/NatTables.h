// The NAT tables of one chip.
#pragma once

#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <Asic/Hardware.h>
#include <Orla/Ptr.h>
#include <Pfe/EgrNatTables.h>
#include <Pfe/IngDynamicNatTables.h>
#include <Pfe/IngStaticNatTable.h>
#include <Pfe/IngTwiceNatTable.h>

#include <tuple>

namespace Agent {

class NatTables {
 public:
   explicit NatTables( Asic::Hardware::Ptr const & hardware ) {
      std::apply( [ & ]( auto &... table ) { ( create( table, hardware ), ... ); }, tables_ );
   }

   template< class Table > Orla::Ptr< Table > const & of() const { return std::get< Orla::Ptr< Table > >( tables_ ); }

   void attachTo( Pfe::NatSwTableProgrammerSm & programmer ) const {
      programmer.egrSourceNatUcRewriteTableIs( of< Pfe::EgrSourceNatUcRewriteTable >() );
      programmer.egrDestinationNatUcRewriteTableIs( of< Pfe::EgrDestinationNatUcRewriteTable >() );
      programmer.egrNatMcRewriteTableIs( of< Pfe::EgrNatMcRewriteTable >() );
      programmer.ingStaticNatTableIs( of< Pfe::IngStaticNatTable >() );
      programmer.ingTwiceNatTableIs( of< Pfe::IngTwiceNatTable >() );
      programmer.ingDynamicSnaptTableIs( of< Pfe::IngDynamicSnaptTable >() );
      programmer.ingDynamicDnaptTableIs( of< Pfe::IngDynamicDnaptTable >() );
      programmer.ingDynamicSnatAddrOnlyTableIs( of< Pfe::IngDynamicSnatAddrOnlyTable >() );
      programmer.ingDynamicDnatAddrOnlyTableIs( of< Pfe::IngDynamicDnatAddrOnlyTable >() );
   }

   // Calls function( table ) for each, in the order in which a packet meets them.
   template< class Function > void forEach( Function && function ) const {
      forEachIngress( function );
      forEachEgress( function );
   }
   template< class Function > void forEachIngress( Function && function ) const {
      function( *of< Pfe::IngTwiceNatTable >() );
      function( *of< Pfe::IngStaticNatTable >() );
      function( *of< Pfe::IngDynamicSnaptTable >() );
      function( *of< Pfe::IngDynamicDnaptTable >() );
      function( *of< Pfe::IngDynamicSnatAddrOnlyTable >() );
      function( *of< Pfe::IngDynamicDnatAddrOnlyTable >() );
   }
   template< class Function > void forEachEgress( Function && function ) const {
      function( *of< Pfe::EgrSourceNatUcRewriteTable >() );
      function( *of< Pfe::EgrDestinationNatUcRewriteTable >() );
      function( *of< Pfe::EgrNatMcRewriteTable >() );
   }

 private:
   template< class Table > static void create( Orla::Ptr< Table > & table, Asic::Hardware::Ptr const & hardware ) {
      table = Orla::make< Table >( hardware );
   }

   std::tuple< Orla::Ptr< Pfe::IngTwiceNatTable >, Orla::Ptr< Pfe::IngStaticNatTable >,
               Orla::Ptr< Pfe::IngDynamicSnaptTable >, Orla::Ptr< Pfe::IngDynamicDnaptTable >,
               Orla::Ptr< Pfe::IngDynamicSnatAddrOnlyTable >, Orla::Ptr< Pfe::IngDynamicDnatAddrOnlyTable >,
               Orla::Ptr< Pfe::EgrSourceNatUcRewriteTable >, Orla::Ptr< Pfe::EgrDestinationNatUcRewriteTable >,
               Orla::Ptr< Pfe::EgrNatMcRewriteTable > >
      tables_;
};

}  // namespace Agent
