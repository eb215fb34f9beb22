// NAT ids on disk.
#pragma once

#include "agent/basics/Descriptor.h"

#include <Pfe/NatIdInfo.h>
#include <Vexa/HashMap.h>

#include <cstddef>
#include <memory>
#include <string>

struct MDB_cursor;
struct MDB_env;
struct MDB_txn;

namespace Agent {

// One folder per configuration: an LMDB environment whose records are id (16 bits, most significant byte first) to the
// text of its match key, and a file that the process using the folder has locked.
//
// What changes between two commits reaches the disk in one transaction, or not at all if the process dies before.
// Whatever throws, throws UnusableInput and has changed nothing in the folder.
class NatIdStore final : private Pfe::NatIdInfo::MatchKeyToNatId::Watcher {
 public:
   // Opens the folder, or creates it (0700, files 0600). Throws when it can not be used or is damaged, when others may
   // write to it, and when another process uses it.
   explicit NatIdStore( std::string folder );
   ~NatIdStore();

   // Fills `natIdInfo` with the ids of the store, and keeps the store the same as it from then on. Called once. Throws
   // when a record does not hold what it should.
   void natIdInfoIs( Pfe::NatIdInfo::Ptr natIdInfo );

   // Writes the changes since the last commit. Throws when the disk does not take them.
   void commit();

   // Ids that the store held at the start.
   std::size_t restoredCount() const { return restoredCount_; }
   std::string const & folder() const { return folder_; }

 private:
   void onKey( Pfe::NatMatchKey const & key, Pfe::NatId const * previous, Pfe::NatId const * current ) override;
   void put( Pfe::NatId id, Pfe::NatMatchKey const & matchKey );
   void del( Pfe::NatId id );

   std::string folder_;
   Descriptor lock_;  // while the folder is in use; the kernel gives it back however the process ends
   std::unique_ptr< MDB_env, void ( * )( MDB_env * ) > environment_;
   Pfe::NatIdInfo::Ptr natIdInfo_;
   std::size_t restoredCount_ = 0;
   // The changes since the last commit, and where the next one is written; null: none.
   std::unique_ptr< MDB_txn, void ( * )( MDB_txn * ) > changes_;
   std::unique_ptr< MDB_cursor, void ( * )( MDB_cursor * ) > cursor_;
   std::string text_;   // of the record that is written, for its memory
   std::string fault_;  // of a change; empty: none
};

}  // namespace Agent
