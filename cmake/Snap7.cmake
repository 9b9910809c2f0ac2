# Snap7 (S7 protocol client and server, LGPL-3.0), which Debian does not
# package, built as a shared library from the sources carried by the npm
# package node-snap7. Fetched with npm into the build tree at configure time,
# checked against a pinned hash before it is unpacked, never committed.
#
# Gives the target `snap7`: link it and include <snap7.h>. Only the C API
# (Cli_*, Srv_*, Par_*) leaves the library. The licence texts go next to it.
include_guard(GLOBAL)

set(SNAP7_NPM_PACKAGE node-snap7)
set(SNAP7_NPM_VERSION 1.0.9)
set(SNAP7_SHA256 9f57bac2cf593e102e9a6fdb7eb7c42962413faeaf910259a891f420c46a62dd)

find_package(Threads REQUIRED)

set(_snap7_dir ${CMAKE_BINARY_DIR}/_deps/snap7)
set(_snap7_tgz ${_snap7_dir}/${SNAP7_NPM_PACKAGE}-${SNAP7_NPM_VERSION}.tgz)
set(_snap7_pkg ${_snap7_dir}/package)
set(_snap7_stamp ${_snap7_dir}/unpacked.stamp)

# A tarball already here is used only if it still has the pinned hash.
set(_snap7_have FALSE)
if(EXISTS ${_snap7_tgz})
  file(SHA256 ${_snap7_tgz} _snap7_hash)
  if(_snap7_hash STREQUAL SNAP7_SHA256)
    set(_snap7_have TRUE)
  else()
    file(REMOVE ${_snap7_tgz})
  endif()
endif()

if(NOT _snap7_have)
  # The npm that comes with the machine's Node.js, looked for beside node first.
  find_program(NODE_EXECUTABLE NAMES node nodejs)
  set(_snap7_npm_hints)
  if(NODE_EXECUTABLE)
    get_filename_component(_snap7_node_real ${NODE_EXECUTABLE} REALPATH)
    get_filename_component(_snap7_node_bin ${_snap7_node_real} DIRECTORY)
    get_filename_component(_snap7_node_dir ${NODE_EXECUTABLE} DIRECTORY)
    list(APPEND _snap7_npm_hints ${_snap7_node_dir} ${_snap7_node_bin})
  endif()
  find_program(NPM_EXECUTABLE npm HINTS ${_snap7_npm_hints})
  if(NOT NPM_EXECUTABLE)
    message(FATAL_ERROR "Building Snap7 needs npm to fetch the ${SNAP7_NPM_PACKAGE} package, and there is none: install Debian's npm package (apt-get install npm).")
  endif()

  # npm pack does not create its destination.
  file(MAKE_DIRECTORY ${_snap7_dir} ${CMAKE_BINARY_DIR}/_deps/npm-cache)
  message(STATUS "Fetching ${SNAP7_NPM_PACKAGE}@${SNAP7_NPM_VERSION} with ${NPM_EXECUTABLE} pack")
  execute_process(
    COMMAND ${NPM_EXECUTABLE} pack ${SNAP7_NPM_PACKAGE}@${SNAP7_NPM_VERSION}
            --cache ${CMAKE_BINARY_DIR}/_deps/npm-cache
            --pack-destination ${_snap7_dir}
            --ignore-scripts
    WORKING_DIRECTORY ${_snap7_dir}
    RESULT_VARIABLE _snap7_npm_rc
    OUTPUT_VARIABLE _snap7_npm_out
    ERROR_VARIABLE _snap7_npm_err)
  if(NOT _snap7_npm_rc EQUAL 0 OR NOT EXISTS ${_snap7_tgz})
    message(NOTICE "npm pack said:\n${_snap7_npm_err}")
    message(FATAL_ERROR "npm pack could not fetch ${SNAP7_NPM_PACKAGE}@${SNAP7_NPM_VERSION}, which Snap7 is built from (exit status ${_snap7_npm_rc}; npm's own output is above).")
  endif()
  file(SHA256 ${_snap7_tgz} _snap7_hash)
  if(NOT _snap7_hash STREQUAL SNAP7_SHA256)
    file(REMOVE ${_snap7_tgz})
    message(FATAL_ERROR "The ${SNAP7_NPM_PACKAGE}@${SNAP7_NPM_VERSION} tarball npm fetched has SHA-256 ${_snap7_hash}, not the pinned ${SNAP7_SHA256}, so it was deleted and Snap7 is not built from it.")
  endif()
endif()

# Unpacked afresh unless this very tarball was unpacked completely before.
set(_snap7_unpacked FALSE)
if(EXISTS ${_snap7_stamp})
  file(READ ${_snap7_stamp} _snap7_stamped)
  if(_snap7_stamped STREQUAL SNAP7_SHA256)
    set(_snap7_unpacked TRUE)
  endif()
endif()
if(NOT _snap7_unpacked)
  file(REMOVE ${_snap7_stamp})
  file(REMOVE_RECURSE ${_snap7_pkg})
  execute_process(COMMAND ${CMAKE_COMMAND} -E tar xzf ${_snap7_tgz}
                  WORKING_DIRECTORY ${_snap7_dir}
                  RESULT_VARIABLE _snap7_tar_rc)
  if(NOT _snap7_tar_rc EQUAL 0)
    message(FATAL_ERROR "cmake -E tar could not unpack ${_snap7_tgz}.")
  endif()
endif()

set(_s7 ${_snap7_pkg}/deps/snap7/src)
foreach(_f ${_snap7_pkg}/src/snap7.h ${_snap7_pkg}/deps/snap7/lgpl-3.0.txt
           ${_snap7_pkg}/deps/snap7/gpl.txt ${_s7}/lib/snap7_libmain.cpp)
  if(NOT EXISTS ${_f})
    message(FATAL_ERROR "The unpacked ${SNAP7_NPM_PACKAGE} package lacks ${_f}, so Snap7 cannot be built from it.")
  endif()
endforeach()
if(NOT _snap7_unpacked)
  file(WRITE ${_snap7_stamp} ${SNAP7_SHA256})
endif()

file(GLOB _snap7_sources ${_s7}/sys/*.cpp ${_s7}/core/*.cpp)
list(APPEND _snap7_sources ${_s7}/lib/snap7_libmain.cpp)

# Only the C API leaves the library (written only when it changes, so that
# re-configuring does not relink).
set(_snap7_map ${_snap7_dir}/snap7.map)
file(CONFIGURE OUTPUT ${_snap7_map}
     CONTENT "{\n  global: Cli_*; Srv_*; Par_*;\n  local: *;\n};\n")

# Our code includes the public header from a directory of its own, as a
# SYSTEM directory: the header is not ours to keep free of our warnings.
file(MAKE_DIRECTORY ${_snap7_dir}/include)
configure_file(${_snap7_pkg}/src/snap7.h ${_snap7_dir}/include/snap7.h COPYONLY)

add_library(snap7 SHARED ${_snap7_sources})
target_include_directories(snap7 PRIVATE ${_s7}/sys ${_s7}/core ${_s7}/lib)
target_include_directories(snap7 SYSTEM INTERFACE ${_snap7_dir}/include)
target_compile_options(snap7 PRIVATE -w)
if(DS_SANITIZE STREQUAL "address")
  # It reads misaligned words out of frames on purpose.
  target_compile_options(snap7 PRIVATE -fno-sanitize=alignment)
endif()
target_link_options(snap7 PRIVATE -Wl,--version-script=${_snap7_map})
target_link_libraries(snap7 PRIVATE Threads::Threads)
set_target_properties(snap7 PROPERTIES
  LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}
  LINK_DEPENDS ${_snap7_map})

# Its licence beside it: the LGPL-3.0 and, as the LGPL requires of whoever
# passes the library on, the GPL-3.0 it adds its permissions to.
file(READ ${_snap7_pkg}/deps/snap7/lgpl-3.0.txt _snap7_lgpl)
file(READ ${_snap7_pkg}/deps/snap7/gpl.txt _snap7_gpl)
file(WRITE ${_snap7_dir}/LICENSE.txt "${_snap7_lgpl}\n\n${_snap7_gpl}")
configure_file(${_snap7_dir}/LICENSE.txt ${CMAKE_BINARY_DIR}/snap7-LICENSE.txt COPYONLY)
