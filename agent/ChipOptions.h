// Which forwarding chip a host has, as the command line says.
#pragma once

#include "agent/chips/KernelChip.h"
#include "agent/chips/SimulatedHardware.h"
#include "agent/host/NatIdStore.h"

#include <memory>
#include <string>

namespace CLI {
class App;
}

namespace Agent {

struct ChipOptions {
   std::string chip = "simulated";
   SimulatedHardware::Settings simulated;
   KernelChipOptions kernel;
   bool detaches = false;  // the chip in the kernel goes on forwarding when the process ends
   // What becomes of it otherwise. `asFound`: it goes if this process made it.
   enum class End { asFound, kept, removed } end = End::asFound;

   bool isInKernel() const { return chip == "ebpf"; }
};

// Values that are no such thing are refused by the parser, with option, value and what is allowed. What only one of the
// chips knows is refused with the other.
void addChipOptions( CLI::App & app, ChipOptions & options );

// The chip of one run.
class ChosenChip {
 public:
   // `store`: of the state folder that a chip in the kernel belongs to; null: nothing is programmed, or it needs none.
   // The options are looked at again at the end. Throws UnusableInput.
   ChosenChip( ChipOptions const & options, NatIdStore const * store, Configuration const & configuration );
   ~ChosenChip();
   ChosenChip( ChosenChip const & ) = delete;
   ChosenChip & operator=( ChosenChip const & ) = delete;

   std::shared_ptr< Asic::Chip > chip() const { return chip_; }
   KernelChip * kernelChip() const { return kernelChip_.get(); }  // null: it is simulated

 private:
   ChipOptions const & options_;
   std::string state_;
   std::shared_ptr< KernelChip > kernelChip_;
   std::shared_ptr< Asic::Chip > chip_;
};

// The command that looks at a chip in the kernel, or takes it away.
struct ChipCommand {
   std::string state;
   std::string bpffs = "/sys/fs/bpf";
   std::string format = "text";
   bool removes = false;
};
void addChipCommand( CLI::App & app, ChipCommand & command );

// Returns the exit status. Throws UnusableInput.
int runChipCommand( ChipCommand const & command );

}  // namespace Agent
