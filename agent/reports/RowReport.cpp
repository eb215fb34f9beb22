#include "agent/basics/Text.h"
#include "agent/reports/HostReport.h"
#include "agent/reports/InOrder.h"

#include <concepts>
#include <tuple>
#include <utility>

namespace Agent {

namespace {

using Kind = Table::Kind;

template< Vexa::Described Entry > std::string actionOf( Entry const & entry, NatTables const & ) {
   return fieldsOf( entry );
}

template< std::derived_from< Asic::ReferringEntry > Entry >
std::string actionOf( Entry const & entry, NatTables const & tables ) {
   std::string action;
   entry.egrHdl.forEach( [ & ]( Asic::EntryHandle::PtrConst const & handle, bool ) {
      tables.forEachEgress( [ & ]( auto const & table ) {
         if ( auto const key = keyOf( table, *handle ) ) {
            action += ( action.empty() ? "" : ", " ) + fieldsOf( *key );
         }
      } );
   } );
   auto const add = [ & ]( char const * name, U64 number ) {
      action += number == 0 ? "" : std::string( " " ) + name + "=" + std::to_string( number );
   };
   add( "nextHopId", entry.nextHopId );
   if constexpr ( std::is_same_v< Entry, Pfe::IngStaticNatTable::Entry > ) {
      add( "aclId", entry.aclId );
      add( "filters", entry.filters.size() );
   }
   return action;
}

template< class Key > struct KeyOrder {
   using Item = Key const *;
   using Mark = Key;
   static Mark mark( Item item ) { return *item; }
   static bool isBefore( Item a, Item b ) { return *a < *b; }
   static bool isBehind( Item item, Mark const & mark ) { return mark < *item; }
};

// Of one table, in the order of their keys.
template< class SwTable > class RowsOf {
 public:
   RowsOf( Host const & host, bool onlyFailed )
      : tables_( host.tables() ), inOrder_( host, [ this, onlyFailed ]( auto const & take ) {
           tables_.template of< SwTable >()->forEach( [ & ]( auto const & key, auto const &, auto const & handle ) {
              if ( !onlyFailed || Asic::isFailure( handle.state() ) ) {
                 take( &key );
              }
           } );
        } ) {}
   RowsOf( RowsOf const & ) = delete;
   RowsOf & operator=( RowsOf const & ) = delete;

   // False when there is none any more.
   bool next( Table & rows ) {
      auto const item = inOrder_.next();
      if ( !item ) {
         return false;
      }
      auto const & table = *tables_.of< SwTable >();
      auto const & key = **item;
      rows.cell( table.name() );
      rows.cell( fieldsOf( key ) );
      rows.cell( actionOf( *table.entry( key ), tables_ ) );
      rows.cell( stateText( table.entryHandle( key )->state() ) );
      return true;
   }
   void rewind() { inOrder_.rewind(); }

 private:
   NatTables const & tables_;
   InOrder< KeyOrder< typename SwTable::Key > > inOrder_;
};

// Of all tables, in the order in which a packet meets them.
class Rows final : public RowSource {
 public:
   Rows( Host const & host, bool onlyFailed )
      : twice_( host, onlyFailed ),
        static_( host, onlyFailed ),
        snapt_( host, onlyFailed ),
        dnapt_( host, onlyFailed ),
        snat_( host, onlyFailed ),
        dnat_( host, onlyFailed ),
        sourceRewrites_( host, onlyFailed ),
        destinationRewrites_( host, onlyFailed ),
        multicastRewrites_( host, onlyFailed ) {}

   std::vector< Table::Column > columns() const override {
      return { { "table" }, { "row" }, { "action" }, { "state" } };
   }

   bool next( Table & rows ) override {
      bool hasMore = true;
      for ( int i = 0; i < rowsOfAPiece && hasMore; ++i ) {
         hasMore = twice_.next( rows ) || static_.next( rows ) || snapt_.next( rows ) || dnapt_.next( rows ) ||
                   snat_.next( rows ) || dnat_.next( rows ) || sourceRewrites_.next( rows ) ||
                   destinationRewrites_.next( rows ) || multicastRewrites_.next( rows );
      }
      return hasMore;
   }

   void rewind() override {
      auto const all = std::tie( twice_, static_, snapt_, dnapt_, snat_, dnat_, sourceRewrites_, destinationRewrites_,
                                 multicastRewrites_ );
      std::apply( []( auto &... rows ) { ( rows.rewind(), ... ); }, all );
   }

 private:
   RowsOf< Pfe::IngTwiceNatTable > twice_;
   RowsOf< Pfe::IngStaticNatTable > static_;
   RowsOf< Pfe::IngDynamicSnaptTable > snapt_;
   RowsOf< Pfe::IngDynamicDnaptTable > dnapt_;
   RowsOf< Pfe::IngDynamicSnatAddrOnlyTable > snat_;
   RowsOf< Pfe::IngDynamicDnatAddrOnlyTable > dnat_;
   RowsOf< Pfe::EgrSourceNatUcRewriteTable > sourceRewrites_;
   RowsOf< Pfe::EgrDestinationNatUcRewriteTable > destinationRewrites_;
   RowsOf< Pfe::EgrNatMcRewriteTable > multicastRewrites_;
};

// A row that holds a NAT id.
struct HolderOrder {
   struct Item {
      Pfe::NatId id;
      Pfe::IngNatTableKey const * row = nullptr;
   };
   using Mark = std::pair< Pfe::NatId, Pfe::IngNatTableKey >;
   static Mark mark( Item item ) { return { item.id, *item.row }; }
   static bool isBefore( Item a, Item b ) { return std::tie( a.id, *a.row ) < std::tie( b.id, *b.row ); }
   static bool isBehind( Item item, Mark const & mark ) {
      return std::tie( mark.first, mark.second ) < std::tie( item.id, *item.row );
   }
};

class Holders final : public RowSource {
 public:
   explicit Holders( Host const & host )
      : inOrder_( host, [ &host ]( auto const & take ) {
           auto const & holders = host.programmer().natIdManager()->matchKeyToIngKeySet();
           host.natIdInfo().matchKeyToNatId().forEach( [ & ]( Pfe::NatMatchKey const & matchKey, Pfe::NatId id ) {
              if ( auto const * const rows = holders.find( matchKey ) ) {
                 rows->entry().forEach( [ & ]( Pfe::IngNatTableKey const & row ) { take( { id, &row } ); } );
              }
           } );
        } ) {}

   std::vector< Table::Column > columns() const override { return { { "natId", Kind::number }, { "holder" } }; }

   bool next( Table & rows ) override {
      for ( int i = 0; i < rowsOfAPiece; ++i ) {
         auto const holder = inOrder_.next();
         if ( !holder ) {
            return false;
         }
         rows.number( holder->id.value() );
         rows.cell( fieldsOf( *holder->row ) );
      }
      return true;
   }

   void rewind() override { inOrder_.rewind(); }

 private:
   InOrder< HolderOrder > inOrder_;
};

}  // namespace

void reportRows( Report & report, Host const & host, Selection const & selection ) {
   report.line( "" );
   report.rows( "rows", selected( std::make_unique< Rows >( host, false ), selection ) );
}

void reportFailedRows( Report & report, Host const & host ) {
   report.rows( "failedRows", std::make_unique< Rows >( host, true ) );
}

void reportNatIds( Report & report, Host const & host, Selection const & selection ) {
   report.line( "" );
   report.rows( "natIds", selected( std::make_unique< Holders >( host ), selection ) );
}

}  // namespace Agent
