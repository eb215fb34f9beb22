// The forwarding chip in the Linux kernel, as a host uses it.
#pragma once

#include "agent/configuration/Configuration.h"

#include <Asic/Chip.h>
#include <Pfe/NatSideTables.h>
#include <Vexa/Types.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

// What the command line says of it.
struct KernelChipOptions {
   std::vector< PortDevice > ports;    // in place of the configuration's of the same interface
   std::string networkNamespace;       // empty: that of this process
   std::string hook = "auto";          // tc, xdp
   std::string bpffs = "/sys/fs/bpf";  // where the kernel's file system of pins is mounted
   U32 room = 65536;                   // rows of each table
};

// Of the chip that belongs to a state folder: a name for people and for the file system, the same in every process.
std::string kernelChipName( std::string const & stateFolder );

// Its rows and programs go on translating when the process ends, however it ends, until they are removed. Whatever
// throws, throws UnusableInput, which names what the machine lacks.
class KernelChip : public Asic::Chip {
 public:
   // The interfaces of the configuration from now on; they stay as they are when it throws.
   virtual void portsOf( Configuration const & configuration ) = 0;
   // Only while nothing is programmed.
   virtual void vrfLessIs( bool vrfLess ) = 0;
   // In place of those before. Throws when there are more than the chip has room for.
   virtual void trapsAre( Pfe::NatTrapConfig const & traps ) = 0;
   // Attaches again where a device came back, or where somebody else detached the programs.
   virtual void repair() = 0;

   // How it was found, in words.
   virtual std::string_view found() const = 0;
   // Whether a whole chip was there before this process, though perhaps of another store or size.
   virtual bool wasThere() const = 0;
   // Rows written to the kernel, and removed from it, by this process.
   virtual U64 rowsWritten() const = 0;
};

// The chip of the state folder, which is created when it is not there. `store` names the folder's NAT ids: rows of
// other ones are taken out.
std::shared_ptr< KernelChip > openKernelChip( KernelChipOptions const & options, std::string const & stateFolder,
                                              std::string const & store, Configuration const & configuration );

// Takes it away, with everything that is in the kernel. False: nothing was there.
bool removeKernelChip( std::string const & stateFolder, std::string const & bpffs );

}  // namespace Agent
