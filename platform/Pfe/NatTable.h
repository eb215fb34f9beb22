// The type of a NAT table that is known as a software table alone.
#pragma once

#include <Pfe/EgrNatTables.h>
#include <Pfe/IngDynamicNatTables.h>
#include <Pfe/IngStaticNatTable.h>
#include <Pfe/IngTwiceNatTable.h>

#include <Vexa/Assert.h>

#include <utility>

namespace Pfe {

namespace detail {

template< class Table, class... Others, class Function >
decltype( auto ) visitAmong( Asic::SwTableBase const & table, Vexa::TypeData const & type, Function && function ) {
   if ( &type == &Table::type ) {
      return function( static_cast< Table const & >( table ) );
   }
   if constexpr ( sizeof...( Others ) != 0 ) {
      return visitAmong< Others... >( table, type, std::forward< Function >( function ) );
   } else {
      VEXA_ASSERT( false && "not a NAT table" );
   }
}

}  // namespace detail

// Calls function( table ) with the table as what it is, and returns its result, which has one type for all tables. For
// chips: with `Table` the type that the function is given, Table::keyOf( request.row ) and
// Table::entryOf( *request.version ) are the row's key and entry. Costs a comparison of pointers per type; stops the
// process when the table is none of the nine.
template< class Function > decltype( auto ) visitNatTable( Asic::SwTableBase const & table, Function && function ) {
   return detail::visitAmong< EgrSourceNatUcRewriteTable, EgrDestinationNatUcRewriteTable, IngStaticNatTable,
                              IngTwiceNatTable, IngDynamicSnaptTable, IngDynamicDnaptTable, IngDynamicSnatAddrOnlyTable,
                              IngDynamicDnatAddrOnlyTable, EgrNatMcRewriteTable >(
      table, table.typeData(), std::forward< Function >( function ) );
}

}  // namespace Pfe
