# Snap7 (S7 protocol client and server, LGPL-3.0), which Debian does not
# package, built as a shared library from the sources carried by the npm
# package node-snap7. Fetched with npm into the build tree at configure time,
# checked against a pinned hash before it is unpacked, never committed.
set(SNAP7_NPM_PACKAGE node-snap7)
set(SNAP7_NPM_VERSION 1.0.9)
set(SNAP7_SHA256 9f57bac2cf593e102e9a6fdb7eb7c42962413faeaf910259a891f420c46a62dd)

set(_snap7_dir ${CMAKE_BINARY_DIR}/_deps/snap7)
set(_snap7_tgz ${_snap7_dir}/${SNAP7_NPM_PACKAGE}-${SNAP7_NPM_VERSION}.tgz)
set(_snap7_src ${_snap7_dir}/package)

set(_snap7_ok FALSE)
if(EXISTS ${_snap7_tgz})
  file(SHA256 ${_snap7_tgz} _hash)
  if(_hash STREQUAL SNAP7_SHA256)
    set(_snap7_ok TRUE)
  else()
    file(REMOVE ${_snap7_tgz})
  endif()
endif()
if(NOT _snap7_ok)
  find_program(NPM npm)
  if(NOT NPM)
    message(FATAL_ERROR "Snap7 is built from the npm package ${SNAP7_NPM_PACKAGE}@${SNAP7_NPM_VERSION}, and npm was not found: install Node.js's npm (Debian: apt-get install npm).")
  endif()
  file(MAKE_DIRECTORY ${_snap7_dir})
  execute_process(
    COMMAND ${NPM} pack ${SNAP7_NPM_PACKAGE}@${SNAP7_NPM_VERSION}
            --cache ${CMAKE_BINARY_DIR}/_deps/npm-cache --pack-destination ${_snap7_dir}
    RESULT_VARIABLE _npm_rc OUTPUT_QUIET ERROR_VARIABLE _npm_err)
  if(NOT _npm_rc EQUAL 0 OR NOT EXISTS ${_snap7_tgz})
    message(FATAL_ERROR "Could not fetch ${SNAP7_NPM_PACKAGE}@${SNAP7_NPM_VERSION} with npm pack, which Snap7 is built from: ${_npm_err}")
  endif()
  file(SHA256 ${_snap7_tgz} _hash)
  if(NOT _hash STREQUAL SNAP7_SHA256)
    file(REMOVE ${_snap7_tgz})
    message(FATAL_ERROR "${SNAP7_NPM_PACKAGE}@${SNAP7_NPM_VERSION} does not match its pinned SHA-256 (got ${_hash}); refusing to build Snap7 from it.")
  endif()
  file(REMOVE_RECURSE ${_snap7_src})
endif()
if(NOT EXISTS ${_snap7_src}/deps/snap7/src/lib/snap7_libmain.cpp)
  execute_process(COMMAND ${CMAKE_COMMAND} -E tar xzf ${_snap7_tgz}
                  WORKING_DIRECTORY ${_snap7_dir} RESULT_VARIABLE _tar_rc)
  if(NOT _tar_rc EQUAL 0)
    message(FATAL_ERROR "Could not unpack ${_snap7_tgz}.")
  endif()
endif()

set(_s7 ${_snap7_src}/deps/snap7/src)
file(GLOB _snap7_sources ${_s7}/sys/*.cpp ${_s7}/core/*.cpp)
list(APPEND _snap7_sources ${_s7}/lib/snap7_libmain.cpp)

# Only the C API leaves the library.
set(_snap7_map ${_snap7_dir}/snap7.map)
file(WRITE ${_snap7_map} "{ global: Cli_*; Srv_*; Par_*; local: *; };\n")

# Our code includes the public header from a directory of its own.
file(MAKE_DIRECTORY ${_snap7_dir}/include)
configure_file(${_snap7_src}/src/snap7.h ${_snap7_dir}/include/snap7.h COPYONLY)
configure_file(${_snap7_src}/deps/snap7/lgpl-3.0.txt ${CMAKE_BINARY_DIR}/snap7-LICENSE.txt COPYONLY)

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
set_target_properties(snap7 PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
