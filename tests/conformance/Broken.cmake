# Ports that break a promise, each by a line of the software tables: the conformance test must say which.
#
# broken_port( name  chip  file  text  replacement  test ): with `replacement` for `text` in that file of platform/Asic,
# over that chip of ours/Chips.cpp, the named test fails.
function( broken_port name chip file text replacement test )
   set( folder ${CMAKE_CURRENT_BINARY_DIR}/broken/${name} )
   set( original ${PROJECT_SOURCE_DIR}/platform/Asic/${file} )
   set_property( DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${original} )
   file( READ ${original} content )
   string( FIND "${content}" "${text}" found )
   if( found EQUAL -1 )
      message( FATAL_ERROR "broken port ${name}: ${original} has no such text: ${text}" )
   endif()
   string( REPLACE "${text}" "${replacement}" content "${content}" )
   file( CONFIGURE OUTPUT ${folder}/Asic/${file} CONTENT "${content}" @ONLY )
   set( sources "" )
   foreach( source IN LISTS breakable_sources )
      cmake_path( GET source FILENAME source_name )
      if( source_name STREQUAL file )
         list( APPEND sources ${folder}/Asic/${file} )
      else()
         list( APPEND sources ${source} )
      endif()
   endforeach()
   add_executable( conformance-${name} ${sources} $<TARGET_OBJECTS:conformance-objects> )
   target_include_directories( conformance-${name} BEFORE PRIVATE ${folder} )
   target_link_libraries( conformance-${name} PRIVATE conformance-platform )
   add_test( NAME conformance.broken.${name} COMMAND conformance-${name} )
   set_tests_properties( conformance.broken.${name} PROPERTIES
      ENVIRONMENT CONFORMANCE_CHIP=${chip} PASS_REGULAR_EXPRESSION "FAILED[^\n]*${test}" )
endfunction()

broken_port( handles-go-when-removal-is-asked-for plain SwTableBase.cpp
   [[   row.letGo( visible );
   row.letGo( refused );]]
   [[   if ( auto * const entry = visible ? row.referringEntryOf( *visible ) : nullptr ) {
      entry->handlesDel();
   }
   row.letGo( visible );
   row.letGo( refused );]]
   Tables.KeepARewriteAsLongAsTheHardwareHoldsARowThatRefersToIt )
broken_port( handles-go-before-response plain Hardware.cpp
   [[   if ( reports ) {
      row.state_ = outcome;]]
   [[   if ( auto * const entry = row.newest ? nullptr : row.referringEntryOf( *version ) ) {
      entry->handlesDel();
   }
   if ( reports ) {
      row.state_ = outcome;]]
   Tables.KeepARewriteAsLongAsTheHardwareHoldsARowThatRefersToIt )
broken_port( failed-write-loses-what-hardware-held plain Hardware.cpp
   [[      if ( outcome == EntryState::settled ) {
         replaced = table->inHardwareIs( row, version );
      }]]
   [[      replaced = table->inHardwareIs( row, outcome == EntryState::settled ? version : nullptr );]]
   Tables.KeepARewriteAsLongAsTheHardwareHoldsARowThatRefersToIt )
broken_port( failed-twin-counts plain Hardware.cpp
   [[return !entry || entry->sendable();]]
   [[return !entry || ( entry->sendable() && !( entry->fragHdl && isFailure( entry->fragHdl->state() ) ) );]]
   Tables.FailARowWhoseRewriteFailedButNotForItsTwinAndSendThemAgain )
broken_port( row-before-twin talkative SettleOrder.h
   [[step = std::max< unsigned >( step, handle.step_ );]]
   [[step = &handle == entry->fragHdl.ptr() ? step : std::max< unsigned >( step, handle.step_ );]]
   Tables.SettleARowNeverBeforeTheRowsThatItRefersTo )
broken_port( oldest-reports-for-newest plain Hardware.cpp
   [[bool const reports = row.lastOperation == static_cast< U32 >( position );]]
   [[static std::map< Row const *, bool > told;
   bool const reports = told.emplace( &row, true ).second;
   if ( row.outstanding == 1 ) {
      told.erase( &row );
   }]]
   Tables.ReportTheNewestWriteLastAndARemovalOnce )
broken_port( overtaken-reports-while-key-is-absent talkative Hardware.cpp
   [[&& ( reports || row.newest )]] ""
   Tables.ReportTheNewestWriteLastAndARemovalOnce )
