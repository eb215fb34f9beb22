// The chip in the kernel: maps and programs, pinned.
#pragma once

#include "chip/EbpfChip.h"
#include "chip/Pins.h"
#include "chip/PortTable.h"

#include <memory>

namespace Ebpf {

class Chip::Pipeline {
 public:
   // Opens the chip, or makes it; attaches nothing. Throws Refusal.
   explicit Pipeline( Settings settings );

   Found found() const { return found_; }
   Pins const & pins() const { return pins_; }
   Settings const & settings() const { return settings_; }
   PortTable & ports() { return *ports_; }

   // Throws Refusal.
   void portsAre( std::vector< Port > ports );
   std::size_t attachAll();

   // What the programs read beside the tables.
   ChipSettings & shared() const { return ( *shared_ )[ 0 ]; }
   std::size_t trapsAre( Pfe::NatTrapConfig const & traps ) const;

 private:
   void openOrMake();
   void make();
   // Puts this version's programs in place of the pinned ones.
   void upgrade();

   Settings settings_;
   Pins pins_;
   Found found_ = Found::nothing;
   std::vector< ResolvedPort > resolved_;
   std::unique_ptr< PortTable > ports_;
   std::unique_ptr< ArrayOf< ChipSettings > > shared_;
   std::unique_ptr< ArrayOf< ChipTrap > > traps_;
};

}  // namespace Ebpf
