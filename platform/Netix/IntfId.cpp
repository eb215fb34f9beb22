#include <Netix/IntfId.h>

#include <algorithm>
#include <array>
#include <vector>

namespace [[gnu::visibility( "default" )]] Netix {

namespace {

using namespace std::string_view_literals;

struct KindName {
   IntfKind kind;
   std::string_view name;
   std::string_view shortName;
};

constexpr std::array kindNames{
   KindName{ IntfKind::none, "none"sv, "none"sv },       KindName{ IntfKind::ethernet, "ethernet"sv, "eth"sv },
   KindName{ IntfKind::vlan, "vlan"sv, "vl"sv },         KindName{ IntfKind::portChannel, "port-channel"sv, "po"sv },
   KindName{ IntfKind::loopback, "loopback"sv, "lo"sv }, KindName{ IntfKind::tunnel, "tunnel"sv, "tu"sv } };

constexpr std::string_view nameCharacters = "abcdefghijklmnopqrstuvwxyz-0123456789";

KindName const & nameOf( IntfKind kind ) { return kindNames[ static_cast< std::size_t >( kind ) ]; }

std::string textOf( IntfId intf, std::string_view kindName ) {
   std::string text( kindName );
   if ( intf.kind() != IntfKind::none ) {
      Vexa::append( text, intf.number() );
   }
   return text;
}

// Every rule asks for names, and a switch has few interfaces: the names of one kind, each in the place that its number
// leaves it. Numbers that are a whole block apart take turns, so that what is kept has a bound.
class KeptNames {
 public:
   Orla::String const & of( IntfId intf ) {
      auto & kept = names_[ intf.number() % block ];
      if ( kept.text.empty() || kept.number != intf.number() ) {
         kept = { .number = intf.number(), .text = Orla::String( textOf( intf, nameOf( intf.kind() ).name ) ) };
      }
      return kept.text;
   }

 private:
   static constexpr U32 block = 4096;  // as many as there are VLANs
   struct Kept {
      U32 number = 0;
      Orla::String text;
   };
   std::vector< Kept > names_ = std::vector< Kept >( block );
};

}  // namespace

IntfId::IntfId( Vexa::CharRange & text ) {
   auto const name = text.rest().substr( 0, text.rest().find_first_not_of( nameCharacters ) );
   auto const intf = name == nameOf( IntfKind::none ).name ? IntfId() : fromName( name );
   if ( !intf ) {
      throw Vexa::ParseException( "unknown interface \"" + std::string( name ) + "\"" );
   }
   *this = *intf;
   text.advance( name.size() );
}

std::optional< IntfId > IntfId::fromName( std::string_view name ) {
   auto const digits = name.find_first_of( "0123456789" );
   auto const kind = std::ranges::find( kindNames, name.substr( 0, digits ), &KindName::name );
   if ( digits == name.npos || kind == kindNames.end() || kind->kind == IntfKind::none ) {
      return std::nullopt;
   }
   auto const text = name.substr( digits );
   U32 number = 0;
   auto const [ end, error ] = std::from_chars( text.data(), text.data() + text.size(), number );
   if ( error != std::errc{} || end != text.data() + text.size() || number > maxNumber ||
        ( text.size() > 1 && text[ 0 ] == '0' ) ) {
      return std::nullopt;
   }
   return IntfId( kind->kind, number );
}

std::optional< IntfId > IntfId::fromValue( U32 value ) {
   IntfId intf;
   intf.value_ = value;
   bool const isKnown = static_cast< std::size_t >( intf.kind() ) < kindNames.size();
   return isKnown && ( intf.kind() != IntfKind::none || value == 0 ) ? std::optional( intf ) : std::nullopt;
}

Orla::String IntfId::name() const {
   // Never destroyed, as names may be asked for at exit.
   static auto * const kept = new std::array< std::optional< KeptNames >, kindNames.size() >;
   auto & ofKind = ( *kept )[ static_cast< std::size_t >( kind() ) ];
   return ( ofKind ? *ofKind : ofKind.emplace() ).of( *this );
}

std::ostream & operator<<( std::ostream & out, IntfId intf ) { return out << intf.name().text(); }

std::ostream & operator<<( std::ostream & out, ShortName name ) {
   return out << textOf( name.intf, nameOf( name.intf.kind() ).shortName );
}

}  // namespace Netix
