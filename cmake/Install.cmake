# What an installation holds, in two components: `runtime` (libraries, agent) and `development` (headers, CMake package,
# pkg-config file). `cpack` in the build folder makes a Debian package of each.

include( CMakePackageConfigHelpers )

install( TARGETS PfePlatform PfeNat EXPORT PfeNat
   LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development )
set_target_properties( PfeNat PfePlatform PROPERTIES INSTALL_RPATH "$ORIGIN" )
if( TARGET nat-agent )
   install( TARGETS nat-agent RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime )
   set_target_properties( nat-agent PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}" )
   install( FILES agent/configuration/pfe-nat.yang agent/reports/report.schema.json DESTINATION ${CMAKE_INSTALL_DATADIR}/pfe-nat COMPONENT runtime )
endif()

install( DIRECTORY PfeNat DESTINATION ${installed_headers} COMPONENT development FILES_MATCHING PATTERN *.h )
set( replaced "" )  # a port's headers take the place of those with the same names
if( PFENAT_PLATFORM )
   file( GLOB_RECURSE headers RELATIVE ${PFENAT_PLATFORM} CONFIGURE_DEPENDS ${PFENAT_PLATFORM}/*.h )
   foreach( header IN LISTS headers )
      list( APPEND replaced REGEX /platform/${header}$ EXCLUDE )
   endforeach()
   install( DIRECTORY ${PFENAT_PLATFORM}/ DESTINATION ${installed_headers}/platform COMPONENT development FILES_MATCHING PATTERN *.h )
endif()
install( DIRECTORY platform/ DESTINATION ${installed_headers}/platform COMPONENT development
   FILES_MATCHING PATTERN *.h ${replaced} )
set( conformance_folder ${CMAKE_INSTALL_DATADIR}/pfe-nat/conformance )
install( FILES tests/conformance/ConformanceTest.cpp tests/conformance/Port.h tests/conformance/ChipPort.h
   tests/conformance/ChipPort.cpp DESTINATION ${conformance_folder} COMPONENT development )

if( TARGET PfeChip )
   install( TARGETS PfeChip EXPORT PfeNat
      LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development )
   set_target_properties( PfeChip PROPERTIES INSTALL_RPATH "$ORIGIN" )
   install( FILES chip/EbpfChip.h DESTINATION ${installed_headers}/chip COMPONENT development )
endif()

set( package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/PfeNat )
install( EXPORT PfeNat NAMESPACE PfeNat:: FILE PfeNatTargets.cmake DESTINATION ${package_folder} COMPONENT development )
configure_package_config_file( cmake/PfeNatConfig.cmake.in PfeNatConfig.cmake INSTALL_DESTINATION ${package_folder}
   PATH_VARS conformance_folder )
write_basic_package_version_file( PfeNatConfigVersion.cmake COMPATIBILITY SameMinorVersion )
install( FILES ${PROJECT_BINARY_DIR}/PfeNatConfig.cmake ${PROJECT_BINARY_DIR}/PfeNatConfigVersion.cmake
   DESTINATION ${package_folder} COMPONENT development )

file( RELATIVE_PATH prefix_from_pkgconfig /${CMAKE_INSTALL_LIBDIR}/pkgconfig / )
configure_file( cmake/pfe-nat.pc.in pfe-nat.pc @ONLY )
install( FILES ${PROJECT_BINARY_DIR}/pfe-nat.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development )

set( CPACK_GENERATOR DEB )
set( CPACK_PACKAGE_NAME pfe-nat )
set( CPACK_PACKAGE_CONTACT "PfeNat maintainers <pfe-nat@localhost>" )
set( CPACK_PACKAGE_DESCRIPTION_SUMMARY "NAT table programmer of a network switch" )
set( CPACK_PACKAGING_INSTALL_PREFIX /usr )
set( CPACK_DEB_COMPONENT_INSTALL ON )
set( CPACK_DEBIAN_FILE_NAME DEB-DEFAULT )
set( CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON )
# The libraries lie in the package itself.
set( CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/PfeNat ${PROJECT_BINARY_DIR}/platform ${PROJECT_BINARY_DIR}/chip )
set( CPACK_DEBIAN_RUNTIME_PACKAGE_NAME pfe-nat )
set( CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME pfe-nat-dev )
set( CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "pfe-nat (= ${PROJECT_VERSION}), libboost1.81-dev" )
set( CPACK_COMPONENTS_ALL runtime development )
include( CPack )
