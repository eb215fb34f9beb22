// The framework's ordered collection.
#pragma once

#include <Vexa/Types.h>

#include <set>

namespace Vexa {

// Keys in their order, with a version that counts changes: a walk that finds it changed goes on with findNext().
template< class Key > class OrderedSet {
 public:
   std::size_t count() const { return keys_.size(); }
   U64 version() const { return version_; }

   // Adding a key that is there, or removing one that is not, is no change.
   void is( Key const & key ) { version_ += keys_.insert( key ).second; }
   void del( Key const & key ) { version_ += keys_.erase( key ); }

   using Iterator = typename std::set< Key >::const_iterator;
   Iterator begin() const { return keys_.begin(); }
   Iterator end() const { return keys_.end(); }

   // The first key after `key`, whether that is in the set or not.
   Iterator findNext( Key const & key ) const { return keys_.upper_bound( key ); }

 private:
   std::set< Key > keys_;
   U64 version_ = 0;
};

}  // namespace Vexa
