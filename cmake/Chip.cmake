# libPfeChip.so: the programs of chip/bpf are compiled for the kernel and carried inside. Without the packages for it the
# library is not built; everything else is, and says that it has no such chip.

find_program( BPF_CLANG NAMES clang-16 clang )
find_program( BPFTOOL NAMES bpftool PATHS /usr/sbin /sbin )
find_path( BPF_INCLUDE_DIR bpf/libbpf.h )
find_library( BPF_LIBRARY bpf )

foreach( needed IN ITEMS BPF_CLANG BPFTOOL BPF_INCLUDE_DIR BPF_LIBRARY )
   if( NOT ${needed} )
      message( NOTICE "The chip in the kernel is not built: its packages are missing (clang-16, bpftool, libbpf-dev)" )
      return()
   endif()
endforeach()

# The kernel's headers name the machine; there is no compiler for BPF whose path holds them.
execute_process( COMMAND ${BPF_CLANG} -print-target-triple OUTPUT_VARIABLE machine OUTPUT_STRIP_TRAILING_WHITESPACE )
string( REPLACE "-pc-" "-" machine "${machine}" )

set( chip_object ${PROJECT_BINARY_DIR}/chip/EbpfPrograms.bpf.o )
set( chip_skeleton ${PROJECT_BINARY_DIR}/chip/EbpfPrograms.skel.h )
file( GLOB chip_bpf_sources CONFIGURE_DEPENDS chip/bpf/*.h )
add_custom_command( OUTPUT ${chip_object}
   COMMAND ${BPF_CLANG} -target bpf -mcpu=v3 -O2 -g -Wall -Wextra -Werror
      -fdebug-prefix-map=${PROJECT_SOURCE_DIR}=. -I${BPF_INCLUDE_DIR} -I/usr/include/${machine}
      -c ${PROJECT_SOURCE_DIR}/chip/bpf/programs.bpf.c -o ${chip_object}
   DEPENDS ${chip_bpf_sources} chip/bpf/programs.bpf.c
   COMMENT "Compiling the pipeline for the kernel" VERBATIM )
add_custom_command( OUTPUT ${chip_skeleton}
   COMMAND ${BPFTOOL} gen skeleton ${chip_object} name EbpfPrograms > ${chip_skeleton}
   DEPENDS ${chip_object} VERBATIM )

pfenat_shared_library( PfeChip chip ${PROJECT_SOURCE_DIR} PfePlatform )
target_sources( PfeChip PRIVATE ${chip_skeleton} )
target_include_directories( PfeChip SYSTEM PRIVATE ${PROJECT_BINARY_DIR}/chip ${BPF_INCLUDE_DIR} )
target_link_libraries( PfeChip PRIVATE ${BPF_LIBRARY} )
