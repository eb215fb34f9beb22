// The smallest agent: programs one static rule, shows its rows and its result, and takes it out again.
#include <PfeNat/PfeNatSwTableProgrammerSm.h>

#include <Asic/Hardware.h>

#include <iostream>
#include <set>
#include <sstream>
#include <string>

using namespace Pfe;

int main() {
   // What the agent owns: what is to be programmed, what became of it, the NAT ids, and the tables of the chip.
   auto const config = Orla::make< NatProgrammerConfig >();
   auto const status = Orla::make< NatProgrammerStatus >();
   auto const ids = Orla::make< NatIdInfo >();
   auto const hardware = Orla::make< Asic::Hardware >();
   auto const ingress = Orla::make< IngStaticNatTable >( hardware );
   auto const sources = Orla::make< EgrSourceNatUcRewriteTable >( hardware );
   auto const destinations = Orla::make< EgrDestinationNatUcRewriteTable >( hardware );

   auto const programmer =
      natSwTableProgrammerSmFactory( config, status, Orla::make< Ip::Nat::HwCapabilities >(), ids );
   programmer->ingStaticNatTableIs( ingress );
   programmer->egrSourceNatUcRewriteTableIs( sources );
   programmer->egrDestinationNatUcRewriteTableIs( destinations );
   programmer->programmerModeIs( NatBaseProgrammerSm::Mode::tables );
   programmer->natIdPoolIs( ids );
   programmer->initializedIs( true );
   programmer->replay();

   // A turn of the agent: changes of the configuration, then what the hardware makes of them.
   NatProgrammerStaticEntry::Fields rule;
   rule.intfQualifier = 5;
   rule.connection = { .translated = { *Netix::IpAddr::fromText( "198.51.100.7" ), 443 },
                       .target = Ip::Nat::NatTarget::source,
                       .protocol = 6 };
   NatProgrammerStaticKey const key{ .natIntf = *Netix::IntfId::fromName( "ethernet1" ),
                                     .key = { .ip = *Netix::IpAddr::fromText( "10.10.20.10" ), .port = 8443 } };
   config->staticEntryIs( key, Orla::make< NatProgrammerStaticEntry >( rule ) );
   hardware->settle();
   programmer->atRest();

   std::set< std::string > rows;
   ingress->forEach( [ & ]( IngStaticNatTable::Key const & row, auto const & entry, auto const & ) {
      std::ostringstream text;
      text << row.ipAndPortOld << "\n   becomes " << row.ipAndPortNew << "\n   " << entry << '\n';
      rows.insert( text.str() );
   } );
   for ( auto const & row : rows ) {
      std::cout << row;
   }
   auto const * const outcome = status->staticStatus().find( key );
   bool const programmed = outcome && outcome->result == PfeHelper::NatHwResult::programmed;
   std::cout << ( programmed ? "programmed" : "not programmed" ) << ", NAT ids: " << ids->matchKeyToNatId().count()
             << '\n';

   config->staticEntryDel( key );
   hardware->settle();
   std::cout << "rows after the delete: " << ingress->rowCount() << '\n';

   // Rows hold their responses, these the programmer, and that the tables.
   ingress->clear();
   return programmed ? 0 : 1;
}
