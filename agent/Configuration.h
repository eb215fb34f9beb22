// What a configuration file asks for.
#pragma once

#include <IpNat/NatStatic.h>
#include <Netix/IntfId.h>
#include <Netix/IpAddr.h>
#include <Pfe/IngStaticNatTable.h>
#include <Pfe/NatProgrammerConfig.h>
#include <Vexa/Types.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Agent {

// One copy that the switch makes of a multicast packet.
struct Replication {
   Netix::IntfId intf;           // that the copy leaves by
   Netix::IpAddr sourceAddress;  // that the copy gets; 0 leaves the packet's own
};

// The copies of a multicast group, by replication number.
using McastGroup = std::map< U16, Replication >;

// One mapping entry, in the order of the file.
struct StaticConnection {
   U32 index = 0;
   Pfe::NatProgrammerStaticKey key;
   Pfe::NatProgrammerStaticEntry::PtrConst entry = {};
   std::shared_ptr< McastGroup const > group = {};  // null: none named
};

bool isMulticast( StaticConnection const & connection );

// The ingress row for one target of the connection, as it matches whole packets; a multicast connection has that of its
// own target only. The row for target source tells connections apart, whichever of their sides they are written for.
Pfe::IngStaticNatTable::Key ingressRowOf( StaticConnection const & connection, Ip::Nat::NatTarget target );

struct Configuration {
   std::string file;
   U32 instanceId = 0;
   std::string instanceName;  // empty: none given
   bool enabled = true;       // false: nothing is to be programmed
   std::vector< StaticConnection > connections;
   // The same connections, and the settings that all share, as the programmer reads them.
   Pfe::NatProgrammerConfig::Ptr rules;
};

// The entry of the file that derives the row; null when none does, as for fragment rows, which entries share.
StaticConnection const * connectionOf( Pfe::IngStaticNatTable::Key const & row, Configuration const & configuration );

// Reads a file in the names of RFC 8512 and of pfe-nat.yang, encoded by RFC 7951. The whole file is checked before
// anything is made of it.
// Throws UnusableInput with a line per fault: file, JSON pointer (line and column where the text is no JSON), value,
// and what is allowed.
Configuration configurationFrom( std::string const & file );

}  // namespace Agent
