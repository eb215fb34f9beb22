#include "TableModel.h"

#include <Asic/SwTableWorkaround.h>

#include <algorithm>
#include <sstream>
#include <unordered_map>

namespace Model {

// --- Snapshot --------------------------------------------------------------------------------------------------------

namespace {

// Calls function( key, row, entry that look-ups see, entry that the hardware holds ) for every row that has something
// left; entries are null when absent.
template< class Table, class Function > void forEachRowLeft( Table & table, Function && function ) {
   using Entry = typename Table::Entry;
   auto const inHardware = []( Asic::Row const & row ) {
      return row.inHardware ? &static_cast< Entry const & >( row.entryOf( *row.inHardware ) ) : nullptr;
   };
   table.forEach( [ & ]( auto const & key, Entry const & entry, Asic::EntryHandle const & handle ) {
      auto const & row = static_cast< Asic::Row const & >( handle );
      function( key, row, &entry, inHardware( row ) );
   } );
   std::vector< Asic::Row const * > unseen;
   static_cast< Asic::SwTableBase & >( table ).forEachRow(
      []( void * rows, Asic::Row & row ) {
         if ( !row.newest ) {
            static_cast< std::vector< Asic::Row const * > * >( rows )->push_back( &row );
         }
      },
      &unseen );
   // Whoever is told of a removal, the row's last, finds nothing left of the row.
   std::erase_if( unseen, []( Asic::Row const * row ) {
      return !row->inHardware && row->outstanding == 1 && row->state() == Asic::EntryState::settled;
   } );
   for ( auto const * row : unseen ) {
      std::ostringstream text;
      row->describe( text );
      function( Vexa::parseWhole< typename Table::Key >( text.str() ), *row, static_cast< Entry const * >( nullptr ),
                inHardware( *row ) );
   }
}

template< class Content > Seen< Content > seenOf( Asic::Row const & row ) {
   return { .state = row.state(), .outstanding = row.outstanding != 0, .removalRefused = row.removalRefused };
}

Rewrite contentOf( Pfe::EgrNatUcRewriteEntry const & entry ) {
   return { { entry.srcIp, entry.srcPort }, { entry.dstIp, entry.dstPort } };
}

Rewrite contentOf( Pfe::EgrNatMcRewriteEntry const & entry ) {
   return { { entry.srcIp, 0 }, { entry.dstIp, 0 }, entry.egressIntf };
}

template< class Entry > Carried carriedBy( Entry const & entry ) {
   Carried carried{ entry.nextHopId, 0, {} };
   if constexpr ( requires { entry.aclId; } ) {
      carried.aclId = entry.aclId;
      carried.filters.assign( entry.filters.begin(), entry.filters.end() );
   }
   return carried;
}

}  // namespace

Snapshot::Snapshot( Support::Tables const & tables ) {
   std::unordered_map< Asic::EntryHandle const *, RewriteKey > rewriteOf;
   auto const readRewrites = [ & ]( RewriteTable which, auto & table ) {
      forEachRowLeft( table, [ & ]( auto const & key, Asic::Row const & row, auto const * visible, auto const * held ) {
         RewriteKey name{ which, key.natId.value(), 0 };
         if constexpr ( requires { key.qualifier; } ) {
            name.number = key.qualifier;
         } else {
            name.number = key.replication;
         }
         auto & seen = rewrites[ name ] = seenOf< Rewrite >( row );
         if ( visible ) {
            seen.visible = contentOf( *visible );
         }
         if ( held ) {
            seen.inHardware = contentOf( *held );
         }
         rewriteOf.emplace( &row, name );
      } );
   };
   readRewrites( RewriteTable::source, *tables.all.of< Pfe::EgrSourceNatUcRewriteTable >() );
   readRewrites( RewriteTable::destination, *tables.all.of< Pfe::EgrDestinationNatUcRewriteTable >() );
   readRewrites( RewriteTable::copies, *tables.all.of< Pfe::EgrNatMcRewriteTable >() );
   tables.all.forEachIngress( [ & ]( auto & table ) { readMatches( table, rewriteOf ); } );
}

template< class Table >
void Snapshot::readMatches( Table & table,
                            std::unordered_map< Asic::EntryHandle const *, RewriteKey > const & rewriteOf ) {
   using Key = typename Table::Key;
   using Entry = typename Table::Entry;
   std::unordered_map< Asic::EntryHandle const *, IngressKey > twinOfHandle;
   forEachRowLeft( table,
                   [ & ]( Key const & key, Asic::Row const & row, auto, auto ) { twinOfHandle.emplace( &row, key ); } );
   auto const contentOfMatch = [ & ]( Key const & key, Entry const & entry, bool inHardware ) {
      Match content{ {}, std::nullopt, carriedBy( entry ) };
      auto const fault = [ & ]( char const * what ) { faults.push_back( what + Vexa::stringOf( key ) ); };
      entry.egrHdl.forEach( [ & ]( Asic::EntryHandle::PtrConst const & handle, bool failureCounts ) {
         auto const found = rewriteOf.find( handle.ptr() );
         if ( found == rewriteOf.end() || !rewrites.at( found->second ).visible ) {
            fault( "its rewrite is not in its table: " );
            return;
         }
         content.rewrites.push_back( found->second );
         if ( !failureCounts ) {
            fault( "a failure of its rewrite would not be heard of: " );
         }
         if ( inHardware && !handle->heldByHardware() ) {
            fault( "in the hardware without its rewrite: " );
         }
         if constexpr ( requires { entry.natId; } ) {
            if ( entry.natId != found->second.natId ) {
               fault( "its rewrite has another NAT id than it says: " );
            }
         }
      } );
      if ( entry.fragHdl != Asic::SwTableWorkaround::dontCareHandle( 0 ) ) {
         auto const found = twinOfHandle.find( entry.fragHdl.ptr() );
         if ( found == twinOfHandle.end() ) {
            fault( "its twin is not in the table: " );
            return content;
         }
         content.twin = found->second;
         if ( inHardware && !entry.fragHdl->heldByHardware() && entry.fragHdl->state() == Asic::EntryState::settled ) {
            fault( "in the hardware without its twin: " );
         }
      }
      return content;
   };
   forEachRowLeft( table, [ & ]( Key const & key, Asic::Row const & row, auto const * visible, auto const * held ) {
      auto & seen = matches[ key ] = seenOf< Match >( row );
      if ( visible ) {
         seen.visible = contentOfMatch( key, *visible, false );
      }
      if ( held ) {
         seen.inHardware = contentOfMatch( key, *held, true );
      }
      if ( !visible && !held && !seen.outstanding ) {
         faults.push_back( "nothing is left of it but a holder: " + Vexa::stringOf( key ) );
      }
   } );
}

// --- Expectations ----------------------------------------------------------------------------------------------------

std::set< U32 > ExpectedTables::takenIds() const {
   auto taken = blockedIds_;
   taken.insert( 0 );
   for ( auto const & [ matchKey, id ] : ids ) {
      taken.insert( id );
   }
   return taken;
}

void ExpectedTables::freeIdsAre( U32 last ) {
   blockedIds_.clear();
   auto const taken = takenIds();
   for ( U32 id = last + 1; id <= largestId; ++id ) {
      if ( !taken.contains( id ) ) {
         blockedIds_.insert( id );
      }
   }
}

std::optional< U32 > ExpectedTables::allocate( Pfe::NatMatchKey const & matchKey ) {
   if ( auto const known = ids.find( matchKey ); known != ids.end() ) {
      return known->second;
   }
   auto const taken = takenIds();
   for ( U32 id = 1; id <= largestId; ++id ) {
      if ( !taken.contains( id ) ) {
         return ids[ matchKey ] = id;
      }
   }
   return std::nullopt;
}

// One per replication.
std::vector< Rewrite > ExpectedTables::rewritesOf( Direction const & direction, bool isTwin ) {
   std::vector< Rewrite > rewrites( 1, isTwin ? direction.twinRewrite : direction.rewrite );
   if ( direction.table == RewriteTable::copies ) {
      auto const & names = Support::McastHook().egressIntfs;
      rewrites.resize( names.size(), rewrites[ 0 ] );
      for ( std::size_t i = 0; i < names.size(); ++i ) {
         rewrites[ i ].egressIntf = Support::intf( names[ i ] ).value();
      }
   }
   return rewrites;
}

bool ExpectedTables::write( Direction const & direction, bool isTwin, std::optional< IngressKey > const & twin ) {
   auto const & key = isTwin ? direction.twinKey : direction.key;
   auto const id = allocate( matchKeyOf( key ) );
   if ( !id ) {
      return false;
   }
   Match match{ {}, twin, direction.carried };
   for ( auto const & rewrite : rewritesOf( direction, isTwin ) ) {
      auto const copy = static_cast< U16 >( match.rewrites.size() );
      match.rewrites.push_back(
         { direction.table, *id, direction.table == RewriteTable::copies ? copy : direction.qualifier } );
      rewrites_[ match.rewrites.back() ].push_back( rewrite );
   }
   if ( auto const & acl = direction.aclName; !acl.empty() ) {
      match.carried.aclId = aclIds_.try_emplace( acl, aclIds_.size() + 1 ).first->second;
   }
   matches_[ key ].push_back( std::move( match ) );
   return true;
}

bool ExpectedTables::program( std::vector< Direction > const & directions, bool fragmentationEnabled ) {
   for ( auto const & direction : directions ) {
      std::optional< IngressKey > twin;
      if ( fragmentationEnabled && direction.twin != Direction::Twin::none ) {
         if ( !write( direction, true, std::nullopt ) ) {
            return false;
         }
         if ( direction.twin == Direction::Twin::held ) {
            twin = direction.twinKey;
         }
      }
      if ( !write( direction, false, twin ) ) {
         return false;
      }
      wanted_.insert( direction.key );
   }
   return true;
}

void ExpectedTables::remove( std::vector< Direction > const & directions ) {
   for ( auto const & direction : directions ) {
      wanted_.erase( direction.key );
   }
}

bool ExpectedTables::isAsWanted( Direction const & direction, bool isTwin, Snapshot const & seen ) const {
   auto const & key = isTwin ? direction.twinKey : direction.key;
   auto const row = seen.matches.find( key );
   if ( row == seen.matches.end() || row->second.state != Asic::EntryState::settled ) {
      return false;
   }
   std::vector< Rewrite > asked;
   for ( auto const & rewrite : matches_.at( key ).back().rewrites ) {
      if ( seen.rewrites.at( rewrite ).state != Asic::EntryState::settled ) {
         return false;
      }
      asked.push_back( rewrites_.at( rewrite ).back() );
   }
   return asked == rewritesOf( direction, isTwin );
}

void ExpectedTables::catchUp( Snapshot const & seen ) {
   std::erase_if( matches_, [ & ]( auto const & row ) { return !seen.matches.contains( row.first ); } );
   std::erase_if( rewrites_, [ & ]( auto const & row ) { return !seen.rewrites.contains( row.first ); } );
   std::set< Pfe::NatMatchKey > held;
   for ( auto const & [ key, row ] : seen.matches ) {
      held.insert( matchKeyOf( key ) );
   }
   std::erase_if( ids, [ & ]( auto const & id ) { return !held.contains( id.first ); } );
}

void ExpectedTables::clear() {
   wanted_.clear();
   matches_.clear();
   rewrites_.clear();
}

// --- Comparison ------------------------------------------------------------------------------------------------------

namespace {

std::string nameOf( IngressKey const & key ) { return Vexa::stringOf( key ); }

std::string nameOf( RewriteKey const & key ) {
   return "rewrite " + std::to_string( static_cast< int >( key.table ) ) + ' ' + std::to_string( key.natId ) + '/' +
          std::to_string( key.number );
}

// `asked` holds the contents asked for, the newest last.
template< class Rows, class Asked > void checkContents( Rows const & rows, Asked const & asked, Lines & faults ) {
   for ( auto const & [ key, row ] : rows ) {
      auto const known = asked.find( key );
      if ( known == asked.end() ) {
         faults.push_back( "nobody asked for it: " + nameOf( key ) );
         continue;
      }
      auto const & contents = known->second;
      if ( row.visible && !row.removalRefused && *row.visible != contents.back() ) {
         faults.push_back( "not what was asked for last: " + nameOf( key ) );
      }
      if ( row.inHardware && std::ranges::find( contents, *row.inHardware ) == contents.end() ) {
         faults.push_back( "the hardware holds what was never asked for: " + nameOf( key ) );
      }
      if ( row.visible && !row.outstanding && row.state == Asic::EntryState::settled &&
           row.inHardware != row.visible ) {
         faults.push_back( "settled, but the hardware holds something else: " + nameOf( key ) );
      }
   }
}

}  // namespace

void ExpectedTables::checkIds( Snapshot const & seen, Pfe::NatIdManager const & manager, Lines & faults ) const {
   std::map< Pfe::NatMatchKey, std::set< Pfe::IngNatTableKey > > holders;
   for ( auto const & [ key, row ] : seen.matches ) {
      holders[ matchKeyOf( key ) ].insert( key );
   }
   std::map< Pfe::NatMatchKey, std::set< Pfe::IngNatTableKey > > recorded;
   manager.matchKeyToIngKeySet().forEach( [ & ]( Pfe::NatMatchKey const & matchKey, Pfe::IngKeySet const & set ) {
      auto & keys = recorded[ matchKey ];
      set.entry().forEach( [ & ]( Pfe::IngNatTableKey const & key ) { keys.insert( key ); } );
   } );
   if ( holders != recorded ) {
      faults.push_back( "the key sets are not the rows that hold the ids" );
   }
   std::map< Pfe::NatMatchKey, U32 > persisted;
   manager.natIdInfo()->matchKeyToNatId().forEach(
      [ & ]( Pfe::NatMatchKey const & matchKey, Pfe::NatId id ) { persisted[ matchKey ] = id.value(); } );
   if ( persisted != ids ) {
      faults.push_back( "the persisted ids are not those that rows hold" );
   }
   auto const taken = takenIds();
   for ( U32 id = 0; id <= largestId; ++id ) {
      if ( manager.natIdBitmap()->bit( id ) != taken.contains( id ) ) {
         faults.push_back( "the pool is wrong about id " + std::to_string( id ) );
      }
   }
}

void ExpectedTables::check( Snapshot const & seen, Pfe::NatIdManager const & manager, Lines & faults ) const {
   faults.insert( faults.end(), seen.faults.begin(), seen.faults.end() );
   checkIds( seen, manager, faults );
   checkContents( seen.matches, matches_, faults );
   checkContents( seen.rewrites, rewrites_, faults );
   for ( auto const & key : wanted_ ) {
      auto const row = seen.matches.find( key );
      if ( row == seen.matches.end() || !row->second.visible ) {
         faults.push_back( "a programmed rule's row is missing: " + nameOf( key ) );
      }
   }
   for ( auto const & [ key, row ] : seen.matches ) {
      if ( row.visible && !isFragment( key ) && !wanted_.contains( key ) && !row.removalRefused ) {
         faults.push_back( "a row of no rule: " + nameOf( key ) );
      }
      for ( auto const & rewrite : row.visible ? row.visible->rewrites : std::vector< RewriteKey >() ) {
         if ( auto const id = ids.find( matchKeyOf( key ) ); id == ids.end() || id->second != rewrite.natId ) {
            faults.push_back( "its rewrite has another NAT id: " + nameOf( key ) );
         }
      }
   }
}

void ExpectedTables::checkAtRest( Snapshot const & seen, Lines & faults ) const {
   auto needed = wanted_;
   std::set< RewriteKey > neededRewrites;
   for ( bool twins : { false, true } ) {
      for ( auto const & [ key, row ] : seen.matches ) {
         for ( auto const & content : { row.visible, row.inHardware } ) {
            if ( content && isFragment( key ) == twins && needed.contains( key ) ) {
               neededRewrites.insert( content->rewrites.begin(), content->rewrites.end() );
               if ( content->twin ) {
                  needed.insert( *content->twin );
               }
            }
         }
      }
   }
   for ( auto const & [ key, row ] : seen.matches ) {
      if ( !needed.contains( key ) || !row.visible || row.removalRefused || row.outstanding ) {
         faults.push_back( "left behind: " + nameOf( key ) );
      }
   }
   for ( auto const & [ key, row ] : seen.rewrites ) {
      if ( !neededRewrites.contains( key ) || !row.visible || row.removalRefused || row.outstanding ) {
         faults.push_back( "left behind: " + nameOf( key ) );
      }
   }
}

}  // namespace Model
