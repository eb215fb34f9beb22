// A connection that is to be translated, of whichever kind.
#pragma once

#include "PfeNat/PfeNatSwTableProgrammerSm.h"

#include <Netix/IntfId.h>
#include <Netix/IpAddr.h>
#include <Pfe/NatProgrammerConfig.h>
#include <Vexa/InlineList.h>
#include <Vexa/Types.h>

#include <bitset>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace Agent {

// What all connections of an instance share.
struct Settings {
   bool fragmentation = false;
   bool vrfLess = false;
   bool fullConeProgrammed = true;
   std::bitset< 256 > l4Detected;  // by IANA protocol number

   friend bool operator==( Settings const &, Settings const & ) = default;
};

// One copy that the switch makes of a multicast packet.
struct Replication {
   Netix::IntfId intf;           // that the copy leaves by
   Netix::IpAddr sourceAddress;  // that the copy gets; 0 leaves the packet's own

   friend bool operator==( Replication const &, Replication const & ) = default;
};

// The copies of a multicast group, by replication number.
using McastGroup = std::map< U16, Replication >;

// A rule as the programmer's configuration holds it.
template< class ProgrammerKey, class ProgrammerEntry > struct Rule {
   ProgrammerKey key;
   Orla::Ptr< ProgrammerEntry const > entry;
};
using StaticRule = Rule< Pfe::NatProgrammerStaticKey, Pfe::NatProgrammerStaticEntry >;
using TwiceRule = Rule< Pfe::NatProgrammerTwiceKey, Pfe::NatProgrammerTwiceEntry >;
using DynamicRule = Rule< Pfe::NatProgrammerDynamicKey, Pfe::NatProgrammerDynamicEntry >;

struct Connection {
   std::optional< U32 > index = {};  // of the mapping entry; none: it was learned
   U32 line = 0;                     // of the listing that it was learned from; 0: none
   std::variant< StaticRule, TwiceRule, DynamicRule > rule;
   std::shared_ptr< McastGroup const > group = {};  // null: none named
};

bool isMulticast( StaticRule const & rule );
bool isMulticast( TwiceRule const & rule );
inline bool isMulticast( DynamicRule const & ) { return false; }

// Whether these tables are not asked for it: a full-cone connection of a chip that has them elsewhere.
bool isTranslatedElsewhere( Connection const & connection, Settings const & settings );

// The rows that match whole packets: that of the rule's own target or direction, then that of the replies, which
// multicast lacks.
using IngressRows = Vexa::InlineList< Pfe::IngNatTableKey, 2 >;
IngressRows ingressRowsOf( StaticRule const & rule, Settings const & settings );
IngressRows ingressRowsOf( TwiceRule const & rule, Settings const & settings );
IngressRows ingressRowsOf( DynamicRule const & rule, Settings const & settings );
IngressRows ingressRowsOf( Connection const & connection, Settings const & settings );

// One of them for a static connection. That of target source is the same whichever side the connection is written for.
Pfe::IngStaticNatTable::Key ingressRowOf( StaticRule const & rule, Ip::Nat::NatTarget target );

// The row that matches later fragments of the same packets.
Pfe::IngNatTableKey fragmentRowOf( Pfe::IngNatTableKey const & row );

// Whether the row matches whatever the ports.
bool ignoresPorts( Pfe::IngNatTableKey const & row );

// What the rules hold under the key; null: nothing.
inline auto configured( Pfe::NatProgrammerConfig const & rules, Pfe::NatProgrammerStaticKey const & key ) {
   return rules.staticEntry( key );
}
inline auto configured( Pfe::NatProgrammerConfig const & rules, Pfe::NatProgrammerTwiceKey const & key ) {
   return rules.twiceEntry( key );
}
inline auto configured( Pfe::NatProgrammerConfig const & rules, Pfe::NatProgrammerDynamicKey const & key ) {
   return rules.dynamicEntry( key );
}
inline void configure( Pfe::NatProgrammerConfig & rules, StaticRule const & rule ) {
   rules.staticEntryIs( rule.key, rule.entry );
}
inline void configure( Pfe::NatProgrammerConfig & rules, TwiceRule const & rule ) {
   rules.twiceEntryIs( rule.key, rule.entry );
}
inline void configure( Pfe::NatProgrammerConfig & rules, DynamicRule const & rule ) {
   rules.dynamicEntryIs( rule.key, rule.entry );
}
inline void unconfigure( Pfe::NatProgrammerConfig & rules, StaticRule const & rule ) {
   rules.staticEntryDel( rule.key );
}
inline void unconfigure( Pfe::NatProgrammerConfig & rules, TwiceRule const & rule ) { rules.twiceEntryDel( rule.key ); }
inline void unconfigure( Pfe::NatProgrammerConfig & rules, DynamicRule const & rule ) {
   rules.dynamicEntryDel( rule.key );
}

// Whether the programmer is asked for the same by both.
bool isSame( StaticRule const & a, StaticRule const & b );
bool isSame( TwiceRule const & a, TwiceRule const & b );
bool isSame( DynamicRule const & a, DynamicRule const & b );

// A connection in words.
struct ConnectionText {
   std::string_view kind;  // static, twice, dynamic, address-only
   Netix::IntfId intf;
   std::string_view target;  // empty: both
   U8 protocol;              // 0: any
   std::string local;        // the pair that the inside knows
   std::string global;       // the pair that the world knows
   std::string peer;         // the other side of the flow; empty: any
};
ConnectionText textOf( Connection const & connection );

}  // namespace Agent
