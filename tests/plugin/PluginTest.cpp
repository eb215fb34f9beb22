// The library as an agent may load it at run time: nothing of it is linked, everything is found by name.

#include <Asic/Hardware.h>
#include <IpNat/HwCapabilities.h>
#include <Pfe/EgrNatTables.h>
#include <Pfe/IngStaticNatTable.h>
#include <Pfe/NatBaseProgrammerSm.h>
#include <Pfe/NatSwTableStatus.h>
#include <Vexa/MemoryManager.h>
#include <Vexa/Type.h>

#include <gtest/gtest.h>

#include <any>
#include <cstdlib>
#include <dlfcn.h>
#include <vector>

namespace {

using namespace Pfe;

template< class T > void attach( Orla::Entity & programmer, std::string_view attribute, Orla::Ptr< T > const & value ) {
   EXPECT_EQ( Vexa::attributeWrite( programmer, attribute, value ), Vexa::AttrResult::done ) << attribute;
}

NatProgrammerStaticKey const key{ .natIntf = *Netix::IntfId::fromName( "ethernet1" ),
                                  .key = { .aclName = {}, .ip = *Netix::IpAddr::fromText( "10.0.0.1" ), .port = 80 } };

NatProgrammerStaticEntry::PtrConst ruleOnVlan( U16 vlanId ) {
   NatProgrammerStaticEntry::Fields fields;
   fields.vlanId = vlanId;
   fields.connection.translated = { *Netix::IpAddr::fromText( "192.0.2.1" ), 8080 };
   return Orla::make< NatProgrammerStaticEntry const >( fields );
}

Orla::Ptr< Orla::Entity > constructed( std::string_view name, std::vector< std::any > const & arguments ) {
   auto const * const type = Vexa::typeOf( name );
   auto const made = type ? type->construct( arguments ) : Orla::Ptr< Orla::Entity >();
   EXPECT_TRUE( made ) << name;
   return made;
}

TEST( Plugin, IsDrivenFromLoadingToAProgrammedRuleByNamesAlone ) {
   setenv( "AGENT_PROCESS_NAME", "forwarding-agent", 1 );
   ASSERT_EQ( Vexa::typeOf( "Pfe::NatSwTableProgrammerSm" ), nullptr ) << "the library is linked already";
   auto * const library = dlopen( PFENAT_LIBRARY, RTLD_NOW | RTLD_LOCAL );
   ASSERT_NE( library, nullptr ) << dlerror();
   EXPECT_NE( Vexa::moduleOf( "PfeNatSwTableProgrammerSm" ), nullptr );
   EXPECT_EQ( Vexa::memoryManagerAgentName(), "forwarding-agent" );

   auto const config = Orla::make< NatProgrammerConfig >();
   auto const status = Orla::make< NatProgrammerStatus >();
   auto const natIdInfo = Orla::make< NatIdInfo >();
   auto const hardware = Orla::make< Asic::Hardware >();
   auto const ingress = Orla::make< IngStaticNatTable >( hardware );

   std::vector< std::any > const tooFew{ NatProgrammerConfig::PtrConst( config ) };
   EXPECT_FALSE( Vexa::typeOf( "Pfe::NatSwTableProgrammerSm" )->construct( tooFew ) );
   std::vector< std::any > const arguments{ NatProgrammerConfig::PtrConst( config ), status,
                                            Orla::Ptr< Ip::Nat::HwCapabilities const >(), natIdInfo };
   auto const programmer = constructed( "Pfe::NatSwTableProgrammerSm", arguments );

   attach( *programmer, "ingStaticNatTable", ingress );
   attach( *programmer, "egrSourceNatUcRewriteTable", Orla::make< EgrSourceNatUcRewriteTable >( hardware ) );
   attach( *programmer, "egrDestinationNatUcRewriteTable", Orla::make< EgrDestinationNatUcRewriteTable >( hardware ) );
   EXPECT_EQ( Vexa::attributeWrite( *programmer, "programmerMode", NatBaseProgrammerSm::Mode::tables ),
              Vexa::AttrResult::done );
   EXPECT_EQ( Vexa::attributeWrite( *programmer, "initialized", true ), Vexa::AttrResult::done );
   EXPECT_EQ( Vexa::attributeWrite( *programmer, "natIdInfo", natIdInfo ), Vexa::AttrResult::notSupported );
   EXPECT_EQ( Vexa::attributeWrite( *programmer, "noSuchThing", true ), Vexa::AttrResult::noSuchAttribute );
   std::any result;
   EXPECT_EQ( Vexa::attributeCall( *programmer, "replay", {}, result ), Vexa::AttrResult::done );

   config->staticEntryIs( key, ruleOnVlan( 0 ) );
   EXPECT_EQ( status->staticStatus().find( key ), nullptr ) << "nothing has settled yet";
   hardware->settle();
   ASSERT_NE( status->staticStatus().find( key ), nullptr );
   EXPECT_EQ( status->staticStatus().find( key )->result, PfeHelper::NatHwResult::programmed );
   EXPECT_EQ( ingress->rowCount(), 2U );
   ingress->clear();
   EXPECT_EQ( dlclose( library ), 0 );  // what it registered stays valid
}

TEST( Plugin, OffersInterfaceModeByNames ) {
   ASSERT_NE( dlopen( PFENAT_LIBRARY, RTLD_NOW | RTLD_LOCAL ), nullptr ) << dlerror();
   for ( auto const * module : { "PfeNatProgrammerIntfModeSm", "PfeNatProgrammerConfigSm", "PfeNatSwTableSm" } ) {
      EXPECT_NE( Vexa::moduleOf( module ), nullptr ) << module;
   }
   auto const config = Orla::make< NatProgrammerConfig >();
   auto const swTableConfig = Orla::make< NatSwTableConfig >();
   auto const swTableStatus = Orla::make< NatSwTableStatus >();
   config->staticEntryIs( key, ruleOnVlan( 10 ) );
   std::vector< std::any > const arguments{ NatProgrammerConfig::PtrConst( config ),
                                            Orla::make< NatProgrammerStatus >(), swTableConfig,
                                            NatSwTableStatus::PtrConst( swTableStatus ) };
   auto const programmer = constructed( "Pfe::NatProgrammerIntfModeSm", arguments );
   constructed( "Pfe::NatSwTableSm", { NatSwTableConfig::PtrConst( swTableConfig ), swTableStatus } );
   constructed( "Pfe::NatProgrammerStaticMap", {} );
   EXPECT_EQ( swTableConfig->staticEntry().count(), 2U );

   std::any result;
   EXPECT_EQ( Vexa::attributeRead( *programmer, "natSwTableConfig", result ), Vexa::AttrResult::done );
   EXPECT_EQ( std::any_cast< NatSwTableConfig::Ptr >( result ), swTableConfig );
   EXPECT_EQ( Vexa::attributeRead( *programmer, "rangeErrorCount", result ), Vexa::AttrResult::done );
   EXPECT_EQ( std::any_cast< std::size_t >( result ), 0U );
   config->staticEntryDel( key );
   EXPECT_EQ( swTableConfig->staticEntry().count(), 0U );
}

}  // namespace
