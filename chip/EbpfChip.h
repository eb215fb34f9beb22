// The forwarding chip that is a Linux kernel: the nine tables are maps in it, and a BPF program is the pipeline.
#pragma once

#include <Asic/Chip.h>
#include <Netix/IntfId.h>
#include <Pfe/NatSideTables.h>
#include <Vexa/Types.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace [[gnu::visibility( "default" )]] Ebpf {

// The machine lacks something, or does not permit it. The text names what, where, and what would help; nothing was left
// behind that was not there before.
class Refusal : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

// An interface of the switch as a device of the kernel.
struct Port {
   Netix::IntfId interface;
   // Name in the chip's network namespace. Where no device has that name, "DEVICE.VLAN" is the frames of DEVICE that
   // carry that tag: it is taken off where they enter, and put on to whatever leaves.
   std::string device;
   U32 vrfId = 0;
   std::optional< U16 > qualifier = {};  // none: dynamic rows do not apply

   friend bool operator==( Port const &, Port const & ) = default;
};

enum class Hook : U8 {
   automatic,  // xdp where every device's driver has it, but not between virtual ones
   tc,         // before and behind the kernel's forwarding
   xdp         // the same, and before it the fast path that forwards by itself
};

// Where the chip's pins are: a folder of its own below a mounted bpffs.
struct Place {
   std::string name;  // unique per NAT id store; no '/' in it
   std::string bpffs = "/sys/fs/bpf";
};

struct Settings {
   Place place;
   std::string store;             // names the NAT id store; with another one the chip is emptied first
   std::string networkNamespace;  // name or path; empty: that of the process
   Hook hook = Hook::automatic;
   U32 rows = 65536;  // that each table has room for; a chip of another size is replaced, and empty
   bool vrfLess = false;
   std::vector< Port > ports;
};

// What a chip holds and has counted. Tables are named as the software tables are.
struct Status {
   struct Table {
      std::string name;
      U64 rows = 0;
      U64 room = 0;
      std::optional< U64 > packets = {};  // of the ingress tables and of copies
      std::optional< U64 > bytes = {};    // from the IP header on
   };
   struct Counter {
      std::string what;
      U64 packets = 0;
      U64 bytes = 0;
   };
   struct Attachment {
      std::string hook;      // "entering", "leaving", "xdp"
      std::string device;    // index and name when it was attached
      bool isAlive = false;  // false: the device is gone
   };

   std::string store;
   std::vector< Table > tables;
   std::vector< Counter > counters;  // misses, traps, errors, packets forwarded by XDP
   std::vector< Counter > drops;     // by reason
   std::vector< Attachment > attachments;
   U64 lastWriteNanoseconds = 0;  // since the Unix epoch; 0: none yet
};

// The folder that holds the pins of the chip in that place.
std::string folderOf( Place const & place );

// Absent when there is no chip in that place. Throws Refusal. Reads only; another process may use the chip.
std::optional< Status > statusOf( Place const & place );

// Takes everything away: programs, tables, pins. False when nothing was there. Throws Refusal.
bool remove( Place const & place );

// How a chip was found.
enum class Found : U8 {
   nothing,      // created
   itself,       // with the rows that it held; programs of another version were replaced under traffic
   otherStore,   // of another NAT id store: emptied
   otherLayout,  // of another version or size of the tables: replaced
   unfinished    // a start that did not come to its end: replaced
};

// Rows, programs and attachments outlive this object, and go on translating; remove() ends them. A chip found holds its
// rows until each is asked for again: what differs is written, the rest stays, and sweep() takes what nobody asked for.
//
// The process needs CAP_BPF, CAP_NET_ADMIN and CAP_PERFMON, and CAP_SYS_ADMIN for another network namespace.
// One object per place.
class Chip final : public Asic::Chip {
 public:
   // Opens or creates the chip and attaches it to its ports. Throws Refusal.
   explicit Chip( Settings settings );
   ~Chip() override;
   Chip( Chip const & ) = delete;
   Chip & operator=( Chip const & ) = delete;

   Found found() const;

   // For the ports from now on. Throws Refusal; the ports are those of before then.
   void portsAre( std::vector< Port > ports );
   // Attaches again where a device came back, or somebody else detached. The number of attachments made.
   std::size_t repairAttachments();

   // Whether twice and dynamic rows apply in every VRF. Only while the tables are empty.
   void vrfLessIs( bool vrfLess );

   // Rules beyond the room that there is are left out; the number of those.
   std::size_t trapsAre( Pfe::NatTrapConfig const & traps );

   // Connections of dynamic rows are tracked by somebody else: packets that open or close one, and ICMP errors, pass by
   // these rows. `until`: nanoseconds of CLOCK_MONOTONIC from which on these rows do not apply any more; 0: none.
   void statesElsewhereIs( bool elsewhere );
   void dynamicRowsLastUntil( U64 until );

   Status status() const;

   // Rows written to, and removed from, the kernel's maps so far. Rows found as they should be are not.
   U64 rowsWritten() const;

   void carryOut( std::span< Asic::ChipRequest const > requests, std::span< Asic::EntryState > outcomes ) override;
   std::size_t batchLimit() const override { return 1024; }
   void sweep() override;
   std::optional< Asic::ChipHits > hitsOf( U32 natId ) const override;

 private:
   class Tables;
   class Pipeline;

   std::unique_ptr< Pipeline > pipeline_;
   std::unique_ptr< Tables > tables_;
};

}  // namespace Ebpf
