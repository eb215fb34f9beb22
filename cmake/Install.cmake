# What an installation holds, in two components: `runtime` (libraries, agent, documentation, configurations to try) and
# `development` (headers, CMake package, pkg-config file, projects that embed or port). `cpack` makes a Debian package of
# each in `packages` of the build folder, wherever it is called.

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

set( doc_root ${CMAKE_INSTALL_DATAROOTDIR}/doc )
file( GLOB guides CONFIGURE_DEPENDS docs/*.md docs/*.svg )
install( FILES README.md DESTINATION ${doc_root}/pfe-nat COMPONENT runtime )
install( FILES ${guides} DESTINATION ${doc_root}/pfe-nat/docs COMPONENT runtime )
install( DIRECTORY examples/ DESTINATION ${doc_root}/pfe-nat/examples COMPONENT runtime USE_SOURCE_PERMISSIONS
   PATTERN embedding EXCLUDE PATTERN chip EXCLUDE )
install( DIRECTORY examples/embedding examples/chip DESTINATION ${doc_root}/pfe-nat-dev/examples COMPONENT development )
install( FILES cmake/copyright DESTINATION ${doc_root}/pfe-nat COMPONENT runtime )
install( FILES cmake/copyright DESTINATION ${doc_root}/pfe-nat-dev COMPONENT development )

file( RELATIVE_PATH prefix_from_pkgconfig /${CMAKE_INSTALL_LIBDIR}/pkgconfig / )
configure_file( cmake/pfe-nat.pc.in pfe-nat.pc @ONLY )
install( FILES ${PROJECT_BINARY_DIR}/pfe-nat.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development )

set( CPACK_GENERATOR DEB )
set( CPACK_PACKAGE_NAME pfe-nat )
set( CPACK_PACKAGE_CONTACT "PfeNat maintainers <pfe-nat@localhost>" )
set( CPACK_PACKAGE_DESCRIPTION_SUMMARY "NAT table programmer of a network switch" )
set( CPACK_PACKAGING_INSTALL_PREFIX /usr )
set( CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages )
set( CPACK_STRIP_FILES ON )
set( CPACK_DEB_COMPONENT_INSTALL ON )
set( CPACK_DEBIAN_FILE_NAME DEB-DEFAULT )
set( CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON )
# The libraries lie in the package itself.
set( CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/PfeNat ${PROJECT_BINARY_DIR}/platform ${PROJECT_BINARY_DIR}/chip )
set( CPACK_DEBIAN_RUNTIME_PACKAGE_NAME pfe-nat )
set( CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION net )
set( CPACK_COMPONENT_RUNTIME_DESCRIPTION "Libraries that turn NAT rules into rows of a switch, and nat-agent, which hosts them." )
# The maintainer scripts of the package, as they are added.
file( GLOB runtime_scripts CONFIGURE_DEPENDS cmake/debian/* )
set( CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA "${runtime_scripts}" )
set( CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME pfe-nat-dev )
set( CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel )
set( CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Headers of the NAT table programmer and its platform, and projects that embed or port them." )
set( CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "pfe-nat (= ${PROJECT_VERSION}), libboost1.81-dev" )
set( CPACK_COMPONENTS_ALL runtime development )
include( CPack )
