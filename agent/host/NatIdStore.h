// NAT ids on disk.
#pragma once

#include "agent/basics/Descriptor.h"

#include <Pfe/NatIdInfo.h>
#include <Vexa/HashMap.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct MDB_env;

namespace Agent {

// One folder per configuration: an LMDB environment whose records are id (16 bits, most significant byte first) to the
// text of its match key, and under 0, which is no id, the version of this format and, behind a blank, the store's
// identity; and a file that the process using the folder has locked.
//
// What changed since the last commit reaches the disk in one transaction, or not at all if the process dies before. An
// id that came and went between two commits is not written. Whatever throws, throws UnusableInput and has changed
// nothing in the folder.
class NatIdStore final : private Pfe::NatIdInfo::MatchKeyToNatId::Watcher {
 public:
   // Opens the folder, or creates it (0700, files 0600). Throws when it can not be used or is damaged, when others may
   // write to it, when another process uses it, and when its format is newer than this one.
   explicit NatIdStore( std::string folder );
   ~NatIdStore();

   // Fills `natIdInfo` with the ids of the store, and keeps the store the same as it from then on. Called once. Throws
   // when a record does not hold what it should.
   void natIdInfoIs( Pfe::NatIdInfo::Ptr natIdInfo );

   // Whether an id was given since the last commit: no row may use it before the next one. Ids that were given back may
   // wait, since whoever starts finds nobody who asks for them.
   bool hasNewIds() const { return hasNewIds_; }

   // Writes the changes since the last commit. Throws when the disk does not take them; they are kept, and the next
   // commit writes them as well.
   void commit();

   // Ids that the store held at the start.
   std::size_t restoredCount() const { return restoredCount_; }
   std::string const & folder() const { return folder_; }
   // Drawn at random when the store was made: what the ids mean is known under it alone.
   std::string const & identity() const { return identity_; }

 private:
   struct Change {
      Pfe::NatId id;
      std::optional< Pfe::NatMatchKey > matchKey;  // none: given back
   };

   void onKey( Pfe::NatMatchKey const & key, Pfe::NatId const * previous, Pfe::NatId const * current ) override;
   // Leaves the newest change of each id, in the order of the ids.
   void mergeChanges();
   void write();

   std::string folder_;
   std::string identity_;
   Descriptor lock_;  // while the folder is in use; the kernel gives it back however the process ends
   std::unique_ptr< MDB_env, void ( * )( MDB_env * ) > environment_;
   Pfe::NatIdInfo::Ptr natIdInfo_;
   std::size_t restoredCount_ = 0;
   std::vector< Change > changes_;  // since the last commit
   bool hasNewIds_ = false;
   bool hasVersion_ = false;  // and the identity: the store says them
};

}  // namespace Agent
