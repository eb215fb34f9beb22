// Which device's frames are whose interface's, and which look-ups they need.
#pragma once

#include "chip/Attachments.h"
#include "chip/EbpfChip.h"
#include "chip/Maps.h"
#include "chip/Pins.h"
#include "chip/Rows.h"

#include <array>
#include <unordered_map>
#include <vector>

namespace Ebpf {

// A port as the kernel has it.
struct ResolvedPort {
   ChipPort entry = {};
   Device device = {};
};

// In the namespace that the caller is in. Throws Refusal: a device is absent, two ports share frames, a device has
// several tags and nothing tells by which one a packet leaves.
std::vector< ResolvedPort > resolved( std::vector< Port > const & ports, Hook hook );

// One entry per device that the programs are attached to.
std::vector< Device > devicesOf( std::vector< ResolvedPort > const & ports );

class PortTable {
 public:
   explicit PortTable( Pins const & pins );

   // Throws Refusal when there is no place for one.
   void portsAre( std::vector< ResolvedPort > const & ports );

   // A row more, or less, of that shape. Look-ups follow with the next refresh().
   void rowCame( Shape const & shape );
   void rowWent( Shape const & shape );
   void refresh();

 private:
   struct Counts {
      std::array< U32, chipShapes > entering{};
      std::array< U32, chipShapes > leaving{};
   };

   U32 shapesOf( ChipPort const & port, bool leaving ) const;
   Counts & countsOf( U64 scope );
   U32 placeFor( ChipPort const & port ) const;

   ArrayOf< ChipPort > ports_;
   ArrayOf< ChipSettings > settings_;
   HashOf< U32, U32 > placeOfPort_;
   std::unordered_map< U64, Counts > counts_;  // by scope
   U64 lastScope_ = ~U64{ 0 };
   Counts * lastCounts_ = nullptr;  // of that scope: most rows that follow each other have one
   bool isStale_ = true;
};

}  // namespace Ebpf
