// What the conformance test must be told of a platform that it cannot learn from the interfaces. Each platform brings a
// Port.cpp of its own.
#pragma once

#include <Pfe/EgrNatTables.h>
#include <Pfe/IngDynamicNatTables.h>
#include <Pfe/IngStaticNatTable.h>
#include <Pfe/IngTwiceNatTable.h>

#include <memory>

namespace Conformance {

// The tables of one chip, empty at first.
class Port {
 public:
   Port();
   ~Port();
   Port( Port const & ) = delete;
   Port & operator=( Port const & ) = delete;

   // Lets everything settle that has been asked for, and what responses ask for meanwhile. Nothing settles elsewhere.
   // False when something stays outstanding, as a refused removal does.
   bool settle();

   // From now on every write fails.
   void writesFail( bool all );
   // From now on every removal is refused. False: this chip refuses none.
   bool removalsAreRefused( bool all );
   // Sends again what failed.
   void retryFailed();

   Orla::Ptr< Pfe::EgrSourceNatUcRewriteTable > sources;
   Orla::Ptr< Pfe::EgrDestinationNatUcRewriteTable > destinations;
   Orla::Ptr< Pfe::IngStaticNatTable > statics;
   Orla::Ptr< Pfe::IngTwiceNatTable > twices;
   Orla::Ptr< Pfe::IngDynamicSnaptTable > snapt;
   Orla::Ptr< Pfe::IngDynamicDnaptTable > dnapt;
   Orla::Ptr< Pfe::IngDynamicSnatAddrOnlyTable > snat;
   Orla::Ptr< Pfe::IngDynamicDnatAddrOnlyTable > dnat;

 private:
   struct Chip;
   std::unique_ptr< Chip > chip_;
};

}  // namespace Conformance
