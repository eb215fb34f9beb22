#include "PfeNat/PfeNatSwTableProgrammerSm/EgrMcastEntry.h"

#include <Vexa/Assert.h>
#include <Vexa/Exception.h>

namespace [[gnu::visibility( "default" )]] Pfe {

namespace {

template< class T > T parsedAttribute( Vexa::CharRange & text, char const * name ) try {
   return Vexa::parse< T >( text );
} catch ( Vexa::Exception const & ) {
   Vexa::rethrowFromDeserializeAttr( name );
}

void requireIndex( unsigned int index, std::size_t count ) {
   if ( index >= count ) {
      throw Vexa::VectorOutOfRangeException( "Pfe::EgrMcastEntry::entry: index " + std::to_string( index ) + " of " +
                                             std::to_string( count ) );
   }
}

void requireAny( std::size_t count ) {
   if ( count == 0 ) {
      throw Vexa::EmptyVectorException( "Pfe::EgrMcastEntry::entry is empty" );
   }
}

}  // namespace

EgrMcastEntry::EgrMcastInfo::EgrMcastInfo( Vexa::CharRange & text ) {
   text.require( "Value('Pfe::EgrMcastEntry::EgrMcastInfo', key=" );
   key_ = parsedAttribute< EgrNatMcRewriteTable::Key >( text, "key" );
   text.require( ", entry=" );
   entry_ = parsedAttribute< EgrNatMcRewriteTable::Entry >( text, "entry" );
   text.require( ")" );
}

std::ostream & operator<<( std::ostream & out, EgrMcastEntry::EgrMcastInfo const & info ) {
   return out << "Value('Pfe::EgrMcastEntry::EgrMcastInfo', key=" << info.key_ << ", entry=" << info.entry_ << ')';
}

std::span< Vexa::Attribute< EgrMcastEntry::EgrMcastInfo > const > EgrMcastEntry::EgrMcastInfo::attributeTable() {
   static constexpr Vexa::Attribute< EgrMcastInfo > table[] = {
      Vexa::readOnlyAttribute< EgrMcastInfo, &EgrMcastInfo::key >( "key" ),
      Vexa::readOnlyAttribute< EgrMcastInfo, &EgrMcastInfo::entry >( "entry" ) };
   return table;
}

std::span< Vexa::Attribute< EgrMcastEntry > const > EgrMcastEntry::attributeTable() {
   // The list is taken away from its end only.
   static constexpr Vexa::Attribute< EgrMcastEntry > table[] = {
      Vexa::collectionAttribute< EgrMcastEntry, &EgrMcastEntry::entry, &EgrMcastEntry::entryIs,
                                 &EgrMcastEntry::entryPop >( "entry" ),
      Vexa::attribute< EgrMcastEntry, &EgrMcastEntry::valid, &EgrMcastEntry::validIs >( "valid" ) };
   return table;
}

EgrMcastEntry::EgrMcastEntry( Vexa::CharRange & ) {
   VEXA_ASSERT( "No String constructor for EgrMcastEntry - has collection" == nullptr );
}

EgrMcastEntry::EgrMcastInfo const & EgrMcastEntry::entry( unsigned int index ) const {
   requireIndex( index, entry_.size() );
   return entry_[ index ];
}

void EgrMcastEntry::entryIs( unsigned int index, EgrMcastInfo const & info ) {
   requireIndex( index, entry_.size() );
   entry_[ index ] = info;
}

EgrMcastEntry::EgrMcastInfo const & EgrMcastEntry::entryFirst() const {
   requireAny( entry_.size() );
   return entry_.front();
}

EgrMcastEntry::EgrMcastInfo const & EgrMcastEntry::entryLast() const {
   requireAny( entry_.size() );
   return entry_.back();
}

EgrMcastEntry::EgrMcastInfo EgrMcastEntry::entryPop() {
   requireAny( entry_.size() );
   auto const last = entry_.back();
   entry_.pop_back();
   return last;
}

std::ostream & operator<<( std::ostream & out, EgrMcastEntry const & value ) {
   out << "Value('Pfe::EgrMcastEntry', entry=[";
   char const * separator = " ";
   for ( auto const & info : value.entry_ ) {
      out << separator << info;
      separator = ", ";
   }
   out << ( value.entry_.empty() ? "]" : " ]" ) << ", valid=";
   Vexa::write( out, value.valid_ );
   return out << ')';
}

}  // namespace Pfe
