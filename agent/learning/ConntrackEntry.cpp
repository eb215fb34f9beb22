#include "agent/learning/ConntrackEntry.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <optional>

namespace Agent {

namespace {

using namespace std::string_view_literals;

enum class Family : U8 { unknown, ipv4, ipv6 };
// What follows the addresses of a direction.
enum class Layer4 : U8 { nothing, ports, query, greKeys };

struct KnownProtocol {
   std::string_view name;
   U8 number;
   Layer4 layer4;
};
constexpr KnownProtocol knownProtocols[] = { { "icmp", 1, Layer4::query },     { "tcp", 6, Layer4::ports },
                                             { "udp", 17, Layer4::ports },     { "dccp", 33, Layer4::ports },
                                             { "icmpv6", 58, Layer4::query },  { "sctp", 132, Layer4::ports },
                                             { "udplite", 136, Layer4::ports } };

// Numbers that may follow the two directions; other attributes are texts.
struct NumberedAttribute {
   std::string_view name;
   U64 max;
   std::string_view allowed;
};
constexpr U64 max16 = std::numeric_limits< U16 >::max();
constexpr U64 max32 = std::numeric_limits< U32 >::max();
constexpr U64 max64 = std::numeric_limits< U64 >::max();
constexpr std::string_view wholeNumber = "a whole number behind the =";
constexpr NumberedAttribute numberedAttributes[] = {
   { "mark", max32, wholeNumber },    { "zone", max16, "zone= and a number from 0 to 65535" },
   { "use", max32, wholeNumber },     { "id", max32, wholeNumber },
   { "secmark", max32, wholeNumber }, { "delta-time", max64, wholeNumber } };
constexpr std::string_view namesOfDirections[] = { "src", "dst", "sport", "dport", "type", "code", "srckey", "dstkey" };

template< class Allowed > bool consistsOf( std::string_view text, Allowed allowed ) {
   return !text.empty() && std::ranges::all_of( text, allowed );
}
bool isBlank( char c ) { return c == ' ' || c == '\t' || c == '\r'; }
bool isDigit( char c ) { return c >= '0' && c <= '9'; }
bool isCapital( char c ) { return ( c >= 'A' && c <= 'Z' ) || isDigit( c ) || c == '_'; }
bool isNameCharacter( char c ) { return ( c >= 'a' && c <= 'z' ) || isDigit( c ) || c == '-' || c == '_'; }

std::optional< U64 > numberIn( std::string_view text, int base = 10 ) {
   U64 number = 0;
   auto const [ end, error ] = std::from_chars( text.data(), text.data() + text.size(), number, base );
   return error == std::errc{} && end == text.data() + text.size() ? std::optional( number ) : std::nullopt;
}

bool isIpv6Address( std::string_view text ) {
   std::array< char, INET6_ADDRSTRLEN > copy{};
   if ( text.size() >= copy.size() || text.find( '\0' ) != text.npos ) {
      return false;
   }
   std::ranges::copy( text, copy.begin() );
   in6_addr address{};
   return inet_pton( AF_INET6, copy.data(), &address ) == 1;
}

class Parser {
 public:
   explicit Parser( std::string_view line ) : line_( line ) { next(); }

   ConntrackEntry parse() {
      takeLayer3();
      takeProtocol();
      takeTimeoutAndState();
      takeDirection( flow_.original );
      takeFlags();
      takeDirection( flow_.reply );
      if ( layer4_ == Layer4::query ) {
         // Listed with the source of either direction, but it is chosen by, and answered to, the host that asks.
         std::swap( flow_.reply.source.port, flow_.reply.destination.port );
      }
      takeAttributes();
      return { .isIpv4 = family_ == Family::ipv4, .flow = flow_ };
   }

 private:
   [[noreturn]] void fail( std::string_view allowed ) const { throw ConntrackFault{ at_, token_, allowed }; }

   void next() {
      at_ += token_.size();
      while ( at_ < line_.size() && isBlank( line_[ at_ ] ) ) {
         ++at_;
      }
      auto end = at_;
      while ( end < line_.size() && !isBlank( line_[ end ] ) ) {
         ++end;
      }
      token_ = line_.substr( at_, end - at_ );
   }

   bool names( std::string_view name ) const {
      return token_.size() > name.size() && token_[ name.size() ] == '=' && token_.starts_with( name );
   }

   U64 takeNumber( std::string_view text, U64 max, std::string_view allowed, int base = 10 ) {
      auto const number = numberIn( text, base );
      if ( !number || *number > max ) {
         fail( allowed );
      }
      next();
      return *number;
   }

   U64 takeNamed( std::string_view name, U64 max, std::string_view allowed ) {
      if ( !names( name ) ) {
         fail( allowed );
      }
      return takeNumber( token_.substr( name.size() + 1 ), max, allowed );
   }

   U16 takePort( std::string_view name, std::string_view allowed ) {
      return static_cast< U16 >( takeNamed( name, max16, allowed ) );
   }

   void takeLayer3() {
      if ( token_ == "ipv4" || token_ == "ipv6" ) {
         family_ = token_ == "ipv4" ? Family::ipv4 : Family::ipv6;
         next();
         if ( token_ != ( family_ == Family::ipv4 ? "2" : "10" ) ) {
            fail( "the family's number: ipv4 2, ipv6 10" );
         }
         next();
      }
   }

   void takeProtocol() {
      constexpr std::string_view allowed =
         "an entry as conntrack -L lists it, plain or with -o extended, which begins with a protocol's name and number";
      if ( !consistsOf( token_, &isNameCharacter ) ) {
         fail( allowed );
      }
      auto const name = token_;
      next();
      auto const digits = token_;
      auto const number = numberIn( digits );
      auto const known = std::ranges::find( knownProtocols, name, &KnownProtocol::name );
      if ( !number || *number > 255 || ( known != std::end( knownProtocols ) && known->number != *number ) ) {
         fail( "the number of the protocol named before it" );
      }
      next();
      auto const protocol = static_cast< U8 >( *number );
      flow_.original.protocol = flow_.reply.protocol = protocol;
      auto const numbered = std::ranges::find( knownProtocols, protocol, &KnownProtocol::number );
      layer4_ = numbered == std::end( knownProtocols ) ? Layer4::nothing : numbered->layer4;
   }

   // Offloaded flows have neither; GRE may list two timeouts of its own.
   void takeTimeoutAndState() {
      constexpr std::string_view allowed = "src= and an address, or timeout and state before it";
      if ( consistsOf( token_, &isDigit ) ) {
         takeNumber( token_, max64, allowed );
      }
      if ( consistsOf( token_, &isCapital ) ) {
         next();
      }
      for ( auto const name : { "timeout"sv, "stream_timeout"sv } ) {
         if ( names( name ) ) {
            auto const value = token_.substr( name.size() + 1 );
            takeNumber( value.substr( 0, value.find( ',' ) ), max64, allowed );
         }
      }
   }

   Netix::IpAddr takeAddress( std::string_view name ) {
      bool const isSource = name == "src";
      constexpr std::string_view allowed[] = { "dst= and an address of the entry's family",
                                               "src= and an address of the entry's family" };
      if ( !names( name ) ) {
         fail( allowed[ isSource ] );
      }
      auto const text = token_.substr( name.size() + 1 );
      auto const address = Netix::IpAddr::fromText( text );
      auto const family = address ? Family::ipv4 : isIpv6Address( text ) ? Family::ipv6 : Family::unknown;
      if ( family == Family::unknown || ( family_ != Family::unknown && family != family_ ) ) {
         fail( allowed[ isSource ] );
      }
      family_ = family;
      next();
      return address.value_or( Netix::IpAddr() );
   }

   void takeDirection( Netix::ConnTuple & tuple ) {
      tuple.source.ip = takeAddress( "src" );
      tuple.destination.ip = takeAddress( "dst" );
      takeLayer4( tuple );
      for ( bool more = true; more; ) {
         more = false;
         for ( auto const name : { "zone-orig"sv, "zone-reply"sv, "packets"sv, "bytes"sv } ) {
            if ( names( name ) ) {
               takeNamed( name, name.starts_with( "zone" ) ? max16 : max64, wholeNumber );
               more = true;
            }
         }
      }
   }

   void takeLayer4( Netix::ConnTuple & tuple ) {
      constexpr std::string_view type = "type= and a number from 0 to 255";
      constexpr std::string_view code = "code= and a number from 0 to 255";
      if ( layer4_ == Layer4::nothing && names( "sport" ) ) {
         layer4_ = Layer4::ports;
      } else if ( layer4_ == Layer4::nothing && names( "srckey" ) ) {
         layer4_ = Layer4::greKeys;
      }
      switch ( layer4_ ) {
      case Layer4::nothing: return;
      case Layer4::ports:
         tuple.source.port = takePort( "sport", "sport= and a number from 0 to 65535" );
         tuple.destination.port = takePort( "dport", "dport= and a number from 0 to 65535" );
         return;
      case Layer4::query:
         takeNamed( "type", 255, type );
         takeNamed( "code", 255, code );
         tuple.source.port = takePort( "id", "id= and a number from 0 to 65535" );
         return;
      case Layer4::greKeys:
         tuple.source.port = takeKey( "srckey", "srckey=0x and a hexadecimal number up to ffff" );
         tuple.destination.port = takeKey( "dstkey", "dstkey=0x and a hexadecimal number up to ffff" );
         return;
      }
   }

   U16 takeKey( std::string_view name, std::string_view allowed ) {
      if ( !names( name ) || !token_.substr( name.size() + 1 ).starts_with( "0x" ) ) {
         fail( allowed );
      }
      return static_cast< U16 >( takeNumber( token_.substr( name.size() + 3 ), max16, allowed, 16 ) );
   }

   // [ASSURED] and its like. Times of start and stop hold blanks.
   void takeFlags() {
      while ( token_.starts_with( '[' ) ) {
         auto const end = line_.find( ']', at_ );
         auto const content = line_.substr( at_ + 1, end - at_ - 1 );
         bool const isTime = content.starts_with( "start=" ) || content.starts_with( "stop=" );
         if ( end == line_.npos || !( isTime || consistsOf( content, &isCapital ) ) ) {
            fail( "a flag in capitals, as in [ASSURED], or [start=...]" );
         }
         token_ = line_.substr( at_, end + 1 - at_ );
         next();
      }
   }

   void takeAttributes() {
      constexpr std::string_view allowed =
         "a flag in brackets or an attribute, as in mark=0, behind the two directions";
      for ( takeFlags(); !token_.empty(); takeFlags() ) {
         auto const name = token_.substr( 0, token_.find( '=' ) );
         auto const numbered = std::ranges::find( numberedAttributes, name, &NumberedAttribute::name );
         if ( name.size() == token_.size() || !consistsOf( name, &isNameCharacter ) ||
              std::ranges::find( namesOfDirections, name ) != std::end( namesOfDirections ) ) {
            fail( allowed );
         } else if ( numbered != std::end( numberedAttributes ) ) {
            takeNamed( name, numbered->max, numbered->allowed );
         } else {
            next();
         }
      }
   }

   std::string_view line_;
   std::size_t at_ = 0;
   std::string_view token_;
   Family family_ = Family::unknown;
   Layer4 layer4_ = Layer4::nothing;
   TrackedFlow flow_;
};

}  // namespace

ConntrackEntry conntrackEntryFrom( std::string_view line ) { return Parser( line ).parse(); }

bool reachesUseCount( std::string_view line ) { return line.find( " use=" ) != line.npos; }

}  // namespace Agent
