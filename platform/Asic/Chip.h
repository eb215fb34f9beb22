// The seam to a forwarding chip: what the software tables hand down, what it answers, and what it may tell beside.
#pragma once

#include <Asic/EntryState.h>
#include <Vexa/Types.h>

#include <cstddef>
#include <optional>
#include <span>

namespace [[gnu::visibility( "default" )]] Asic {

class Row;
class SwTableBase;
struct Version;

// A write or a removal of a row whose turn has come. keyOf( row ) and entryOf( version ) of the row's table give key
// and entry their types. Everything lasts until the request is answered.
struct ChipRequest {
   SwTableBase const & table;
   Row const & row;
   Version const * version;  // what is to be written; null: the row is to be removed
   bool addsRow;             // the chip holds no version of the row yet
   U32 turnsWaited;          // settles since it was asked for
};

// What a chip counted of the packets that a rewrite was applied to.
struct ChipHits {
   U64 packets = 0;
   U64 bytes = 0;                  // of the packets as they came, from the IP header on
   U64 lastPacketNanoseconds = 0;  // since the Unix epoch; 0: none yet
};

// One forwarding chip. The tables keep versions, order, handles, failures and retries; a chip takes rows. Activity
// thread only; nothing here calls back into tables.
class Chip {
 public:
   virtual ~Chip() = default;

   // Carries out all requests, in any order, and answers each in `outcomes`, which is as long: of a write settled,
   // failed or full; of a removal settled, or failed when the chip does not let the row go. After failed and full the
   // chip holds what it held before.
   //
   // The requests of one call are of one kind, writes or removals, and none depends on another: no two are of one row,
   // and what the rows refer to has been carried out in an earlier call. Rewrites come before twins, these before rows
   // that refer to them; removals the other way round.
   virtual void carryOut( std::span< ChipRequest const > requests, std::span< EntryState > outcomes ) = 0;

   // The most requests that one call takes.
   virtual std::size_t batchLimit() const { return 1; }

   // Whether the request may be carried out in this turn.
   virtual bool isReady( ChipRequest const & ) { return true; }

   // A chip that reorders is asked which of the `count` requests that may be carried out now is the next. It takes one
   // at a time.
   virtual bool reorders() const { return false; }
   virtual std::size_t choose( std::size_t /* count */ ) { return 0; }

   // Whether every operation reports, one that a write overtook too, and pending before its outcome.
   virtual bool reportsEverything() const { return false; }

   // Every configured row has been asked for since the chip was opened, and has settled: rows that the chip held before
   // and nobody asked for again go.
   virtual void sweep() {}

   // Of the unicast rewrite under this NAT id; absent when the chip does not count.
   virtual std::optional< ChipHits > hitsOf( U32 /* natId */ ) const { return std::nullopt; }
};

}  // namespace Asic
