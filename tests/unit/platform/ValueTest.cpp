// Every value type of the platform: text, order, equality and hash follow from one description.
#include <Bridging/VlanId.h>
#include <Netix/IntfId.h>
#include <Pfe/EgrNatTables.h>
#include <Pfe/IngDynamicNatTables.h>
#include <Pfe/IngStaticNatTable.h>
#include <Pfe/IngTwiceNatTable.h>
#include <Pfe/NatMatchKey.h>
#include <Pfe/NatProgrammerKeys.h>
#include <Pfe/NatSideTables.h>
#include <Pfe/NatSwTableStatus.h>
#include <tests/support/RandomValue.h>

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

namespace {

using Support::Random;
using Support::randomValue;
using namespace std::string_literals;

// One function for all types and properties: the checker is expensive to compile.
void holdsForRandomSeeds( void ( *property )( U32 seed ) ) { EXPECT_TRUE( rc::check( property ) ); }

template< class T > class EveryValue : public testing::Test {};

using ValueTypes = testing::Types<
   Netix::IpAddr, Netix::IntfId, Netix::VrfId, Netix::IpAndPort, Netix::ConnTuple, Netix::IpAddrWithFullMask,
   Bridging::VlanId, Bridging::VlanIdOrNone, Orla::String, Ip::Nat::StaticKey, Ip::Nat::NatStaticConnection,
   Ip::Nat::TwiceKey, Ip::Nat::NatTwiceConnection, Ip::Nat::NatFilter, Ip::Nat::DynamicConnection, Ip::Nat::DynamicKey,
   Pfe::NatId, Pfe::EgrNatUcRewriteKey, Pfe::EgrNatUcRewriteEntry, Pfe::EgrNatMcRewriteKey, Pfe::EgrNatMcRewriteEntry,
   Pfe::IngStaticNatTableKey, Pfe::IngTwiceNatTableKey, Pfe::IngDynamicSnaptTable::Key, Pfe::IngDynamicDnaptTable::Key,
   Pfe::IngDynamicSnatAddrOnlyTable::Key, Pfe::IngDynamicDnatAddrOnlyTable::Key, Pfe::NatProgrammerStaticKey,
   Pfe::NatProgrammerTwiceKey, Pfe::NatProgrammerDynamicKey, Pfe::NatProgrammerTrapKey, Pfe::NatTrapKey,
   Pfe::NatTrapRule, Pfe::NatSwTableStaticKey, Pfe::NatSwTableStatusEntry, Pfe::StaticNatMatchKey,
   Pfe::TwiceNatMatchKey, Pfe::DynamicNatMatchKey, Pfe::NatMatchKey >;
TYPED_TEST_SUITE( EveryValue, ValueTypes );

TYPED_TEST( EveryValue, ReadsBackFromItsTextAndLeavesWhatFollows ) {
   holdsForRandomSeeds( []( U32 seed ) {
      Random random( seed );
      auto const value = randomValue< TypeParam >( random );
      auto const text = Vexa::stringOf( value );
      RC_ASSERT( Vexa::parseWhole< TypeParam >( text ) == value );
      auto const longer = text + ")rest";
      Vexa::CharRange range( longer );
      RC_ASSERT( Vexa::parse< TypeParam >( range ) == value );
      RC_ASSERT( range.rest() == ")rest" );
   } );
}

TYPED_TEST( EveryValue, OrderEqualityAndHashAgree ) {
   holdsForRandomSeeds( []( U32 seed ) {
      Random random( seed );
      auto const a = randomValue< TypeParam >( random );
      auto const b = random() % 3 == 0 ? a : randomValue< TypeParam >( random );
      auto const c = randomValue< TypeParam >( random );
      bool const equal = Vexa::stringOf( a ) == Vexa::stringOf( b );
      RC_ASSERT( ( a == b ) == equal );
      RC_ASSERT( ( a <=> b == 0 ) == equal );
      RC_ASSERT( Vexa::isEq( a, b ) == equal );
      RC_ASSERT( ( a < b ) == ( b > a ) );
      RC_ASSERT( !( a < b && b < c ) || a < c );
      RC_ASSERT( !equal || Vexa::hash( a, seed ) == Vexa::hash( b, seed ) );
   } );
}

// --- Fixed texts -----------------------------------------------------------------------------------------------------

Netix::IpAddr ip( char const * text ) { return Netix::IpAddr::fromText( text ).value(); }

Netix::IntfId intf( char const * name ) { return Netix::IntfId::fromName( name ).value(); }

// Of a process that groups digits by twos, which reaches every stream made from here on.
class GroupingLocale {
 public:
   GroupingLocale() : before_( std::locale::global( std::locale( std::locale::classic(), new Grouping ) ) ) {}
   ~GroupingLocale() { std::locale::global( before_ ); }

 private:
   struct Grouping final : std::numpunct< char > {
      std::string do_grouping() const override { return "\2"; }
   };
   std::locale before_;
};

TEST( ValueText, IsTheSameEverywhereAndForEver ) {  // it is the form of persisted keys
   GroupingLocale const anywhere;
   Pfe::StaticNatMatchKey const staticKey{ .natIntf = "ethernet5",
                                           .vrfId = 7,
                                           .ipAndPortOld = { ip( "10.0.0.1" ), 80 },
                                           .target = Ip::Nat::NatTarget::destination,
                                           .protocol = 6 };
   struct {
      std::string actual, expected;
   } const rows[] = {
      { Vexa::stringOf( Pfe::NatMatchKey( staticKey ) ),
        "Value('Pfe::NatMatchKey', staticKey=Value('Pfe::StaticNatMatchKey', natIntf='ethernet5', vrfId=7, "
        "ipAndPortOld=Value('Netix::IpAndPort', ip=10.0.0.1, port=80), target=1, protocol=6))" },
      { Vexa::stringOf( Pfe::NatMatchKey( Pfe::TwiceNatMatchKey{ .natIntf = intf( "vlan10" ), .forward = true } ) ),
        "Value('Pfe::NatMatchKey', twiceKey=Value('Pfe::TwiceNatMatchKey', natIntf=vlan10, vrfId=0, "
        "srcIpAndPortOld=Value('Netix::IpAndPort', ip=0.0.0.0, port=0), "
        "dstIpAndPortOld=Value('Netix::IpAndPort', ip=0.0.0.0, port=0), forward=1))" },
      { Vexa::stringOf(
           Pfe::NatMatchKey( Pfe::DynamicNatMatchKey{ .vrfId = Netix::VrfId( 16777215 ), .protocol = 255 } ) ),
        "Value('Pfe::NatMatchKey', dynamicKey=Value('Pfe::DynamicNatMatchKey', vrfId=16777215, "
        "first=Value('Netix::IpAndPort', ip=0.0.0.0, port=0), second=Value('Netix::IpAndPort', ip=0.0.0.0, port=0), "
        "protocol=255))" },
      { Vexa::stringOf( Orla::String( std::string_view( "a'b\\c\n\0\x7f\xc3\xa9", 10 ) ) ),
        "'a\\'b\\\\c\\x0a\\x00\\x7f\xc3\xa9'" },
   };
   for ( auto const & row : rows ) {
      EXPECT_EQ( row.actual, row.expected );
   }
}

TEST( ValueText, ParseErrorsTellThePlaceAndTheReason ) {
   enum Kind { parse, range };
   constexpr auto keyOf = []( char const * rest ) { return "Value('Pfe::NatMatchKey', "s + rest; };
   struct {
      Kind kind;
      std::string text, error;
   } const rows[] = {
      { range, keyOf( "" ), "Invalid string rep for NatMatchKey" },
      { range, keyOf( "staticKey" ), "Invalid string rep for NatMatchKey:  unknown alternative staticKey" },
      { parse, "Value('Pfe::Other', ", "expected \"Pfe::NatMatchKey\" at \"Pfe::Other', \"" },
      { parse, keyOf( "dynamicKey=Value('Pfe::DynamicNatMatchKey', vrfId=x" ),
        "dynamicKey: vrfId: expected a number at \"x\"" },
      { range, keyOf( "dynamicKey=Value('Pfe::DynamicNatMatchKey', vrfId=16777216" ),
        "dynamicKey: vrfId: VrfId::value > 0x00ffffff not allowed" },
      { range,
        keyOf( "dynamicKey=Value('Pfe::DynamicNatMatchKey', vrfId=1, first=Value('Netix::IpAndPort', ip=1.2.3.4, "
               "port=65536" ),
        "dynamicKey: first: port: number out of range at \"65536\"" },
      { parse, keyOf( "twiceKey=Value('Pfe::TwiceNatMatchKey', natIntf=modem1" ),
        "twiceKey: natIntf: unknown interface \"modem1\"" },
      { parse, keyOf( "staticKey=Value('Pfe::StaticNatMatchKey', natIntf='a" ),
        "staticKey: natIntf: quoted text without its closing quote" },
      { parse, keyOf( "staticKey=Value('Pfe::StaticNatMatchKey', natIntf='\\n'" ),
        "staticKey: natIntf: unknown escape in a quoted text" },
      { parse, Vexa::stringOf( Pfe::NatMatchKey() ) + "!", "unexpected text \"!\" at the end" },
   };
   for ( auto const & row : rows ) {
      SCOPED_TRACE( row.text );
      try {
         Vexa::parseWhole< Pfe::NatMatchKey >( row.text );
         ADD_FAILURE() << "was taken";
      } catch ( Vexa::RangeException const & e ) {
         EXPECT_EQ( row.kind, range );
         EXPECT_EQ( e.what(), row.error );
      } catch ( Vexa::ParseException const & e ) {
         EXPECT_EQ( row.kind, parse );
         EXPECT_EQ( e.what(), row.error );
      }
   }
}

// --- Order -----------------------------------------------------------------------------------------------------------

TEST( ValueOrder, IsThatOfTheMembersThenOfTheAlternatives ) {
   Pfe::NatMatchKey const ascending[] = {
      Pfe::StaticNatMatchKey{},
      Pfe::StaticNatMatchKey{ .protocol = 1 },
      Pfe::StaticNatMatchKey{ .target = Ip::Nat::NatTarget::destination },
      Pfe::StaticNatMatchKey{ .ipAndPortOld = { ip( "0.0.0.0" ), 9 } },
      Pfe::StaticNatMatchKey{ .ipAndPortOld = { ip( "0.0.0.1" ), 0 } },
      Pfe::StaticNatMatchKey{ .vrfId = 1 },
      Pfe::StaticNatMatchKey{ .natIntf = "a" },
      Pfe::StaticNatMatchKey{ .natIntf = "a\xff" },  // by the bytes as unsigned numbers, never by the address
      Pfe::StaticNatMatchKey{ .natIntf = "b" },
      Pfe::TwiceNatMatchKey{},
      Pfe::TwiceNatMatchKey{ .natIntf = intf( "ethernet9" ) },
      Pfe::TwiceNatMatchKey{ .natIntf = intf( "vlan1" ) },
      Pfe::DynamicNatMatchKey{},
   };
   for ( std::size_t i = 0; i < std::size( ascending ); ++i ) {
      for ( std::size_t j = 0; j < std::size( ascending ); ++j ) {
         EXPECT_EQ( ascending[ i ] <=> ascending[ j ], i <=> j ) << ascending[ i ] << ascending[ j ];
      }
   }
}

// --- Descriptions ----------------------------------------------------------------------------------------------------

struct Forgetful {
   U32 told = 0;
   Orla::String forgotten;
   static constexpr std::string_view typeName = "Forgetful";
   static constexpr auto attributes() { return std::tuple( Vexa::attr< &Forgetful::told >( "told" ) ); }
};
struct ForgetfulOfItsBase : Asic::EntryBase {
   static constexpr std::size_t undescribedBases = 0;
   U32 told = 0;
   static constexpr std::string_view typeName = "ForgetfulOfItsBase";
   static constexpr auto attributes() { return std::tuple( Vexa::attr< &ForgetfulOfItsBase::told >( "told" ) ); }
};
static_assert( !Vexa::describesEveryMember< Forgetful > );
static_assert( !Vexa::describesEveryMember< ForgetfulOfItsBase > );

// --- Restricted numbers, interfaces, addresses -----------------------------------------------------------------------

TEST( Ranged, TakesBothBoundsAndRefusesWhatLiesBeyondWithItsText ) {
   struct {
      U64 ( *make )( U64 value );
      U64 min, max;
      char const * error;
   } const rows[] = {
      { []( U64 v ) -> U64 { return Pfe::NatId( v ).value(); }, 1, 65535,
        "Pfe::NatId::value < Pfe::NatId::min or > Pfe::NatId::max not allowed" },
      { []( U64 v ) -> U64 { return Bridging::VlanId( v ).value(); }, 1, 4094,
        "Bridging::VlanId::value < 1 or > 4094 not allowed" },
      { []( U64 v ) -> U64 { return Bridging::VlanIdOrNone( v ).value(); }, 0, 4094,
        "Bridging::VlanIdOrNone::value > 4094 not allowed" },
      { []( U64 v ) -> U64 { return Netix::VrfId( v ).value(); }, 0, 0x00ffffff,
        "VrfId::value > 0x00ffffff not allowed" },
   };
   for ( auto const & row : rows ) {
      EXPECT_EQ( row.make( row.min ), row.min );
      EXPECT_EQ( row.make( row.max ), row.max );
      for ( auto const value : { row.min - 1, row.max + 1, row.min + ( U64{ 1 } << 32 ), ~U64{ 0 } } ) {
         SCOPED_TRACE( value );
         try {
            row.make( value );
            ADD_FAILURE() << "was taken";
         } catch ( Vexa::RangeException const & e ) {
            EXPECT_STREQ( e.what(), row.error );
         }
      }
   }
}

TEST( IntfId, FollowsFromTheNameAlone ) {
   GroupingLocale const anywhere;
   struct {
      char const *name, *shortName;
      U32 value;
   } const rows[] = { { "ethernet5", "eth5", 0x01000005 },
                      { "vlan4094", "vl4094", 0x02000ffe },
                      { "port-channel3", "po3", 0x03000003 },
                      { "loopback0", "lo0", 0x04000000 },
                      { "tunnel16777215", "tu16777215", 0x05ffffff } };
   for ( auto const & row : rows ) {
      auto const id = intf( row.name );
      EXPECT_EQ( id.value(), row.value );
      EXPECT_EQ( Vexa::stringOf( id ), row.name );
      EXPECT_EQ( Vexa::stringOf( Netix::ShortName{ id } ), row.shortName );
   }
   for ( auto const * name : { "vlan10", "vlan4106", "vlan10", "tunnel10" } ) {
      EXPECT_EQ( intf( name ).name(), name ) << "names that are kept in one place";
   }
   EXPECT_EQ( Vexa::stringOf( Netix::IntfId() ) + Vexa::stringOf( Netix::ShortName{} ), "nonenone" );
   for ( auto const * refused : { "", "ethernet", "5", "none", "none1", "eth5", "Ethernet5", "ethernet05", "ethernet-5",
                                  "ethernet+5", "ethernet5 ", " ethernet5", "ethernet5/1", "tunnel16777216",
                                  "tunnel4294967296", "vlan99999999999999999999", "port-channel-3" } ) {
      EXPECT_EQ( Netix::IntfId::fromName( refused ), std::nullopt ) << refused;
   }
}

TEST( IpAddr, IsFourPlainNumbersAndNothingElse ) {
   EXPECT_EQ( ip( "1.2.3.4" ).value(), 0x01020304U );
   EXPECT_EQ( ip( "255.255.255.255" ).value(), 0xffffffffU );
   for ( auto const * refused :
         { "", "1", "1.2.3", "1.2.3.", "1.2.3.4.", "1.2.3.4.5", "1.2.3.256", "1.2.3.1234", "01.2.3.4", "1.2.3.00",
           "1.2.3.-1", "1.2.3.+1", " 1.2.3.4", "1.2.3.4 ", "1..3.4", "0x1.2.3.4", "a.b.c.d" } ) {
      EXPECT_EQ( Netix::IpAddr::fromText( refused ), std::nullopt ) << refused;
   }
   EXPECT_FALSE( ip( "223.255.255.255" ).isMulticast() );
   EXPECT_TRUE( ip( "224.0.0.0" ).isMulticast() && ip( "239.255.255.255" ).isMulticast() );
   EXPECT_FALSE( ip( "240.0.0.0" ).isMulticast() );
}

}  // namespace
