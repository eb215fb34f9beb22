// What the programmed tables do to a packet, told without any knowledge of how rows are made.
#pragma once

#include <tests/support/Programmer.h>

#include <vector>

namespace Support {

struct Packet {
   enum class Part : U8 { whole, firstFragment, laterFragment };  // later fragments have no ports

   Netix::IntfId inIntf;
   Netix::IntfId outIntf;
   U16 inQualifier = 0;  // of the interfaces
   U16 outQualifier = 0;
   U32 vrfId = 0;
   U8 protocol = 6;
   Netix::IpAndPort source;
   Netix::IpAndPort destination;
   Part part = Part::whole;

   friend auto operator<=>( Packet const &, Packet const & ) = default;
};
std::ostream & operator<<( std::ostream & out, Packet const & packet );

struct Walked {
   std::vector< Packet > packets;            // what leaves; several for multicast
   std::vector< Pfe::IngNatTableKey > rows;  // that matched
   bool ambiguous = false;                   // two rows match equally well; nothing was chosen between them
};

// Walks the packet through what the hardware holds: first the rows that apply where it enters, then those that apply
// where it leaves; twice rows before static ones before learned ones, address-only last.
Walked walk( Tables const & tables, Packet const & packet );

}  // namespace Support
