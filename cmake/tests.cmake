# One test program for everything that can share a process; tests/process_*.cpp each
# become a program of their own, for state that lives as long as the process.
file(GLOB zyn_test_sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/test_*.cpp
     ${PROJECT_SOURCE_DIR}/tests/support/*.cpp)
file(GLOB zyn_process_tests CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/process_*.cpp)

if(WIN32)
  # Debian ships GoogleTest's sources; the cross build makes its own.
  set(gtest_force_shared_crt ON)
  set(INSTALL_GTEST OFF)
  set(BUILD_GMOCK OFF)
  add_subdirectory(/usr/src/googletest ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
  add_library(zyn_gtest INTERFACE)
  target_link_libraries(zyn_gtest INTERFACE gtest gtest_main)
else()
  find_package(GTest REQUIRED)
  add_library(zyn_gtest INTERFACE)
  target_link_libraries(zyn_gtest INTERFACE GTest::gtest GTest::gtest_main)
endif()

function(zyn_test_program name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE zyncore_static zyn_gtest)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/tests)
  # Compiled more often than run: -O1.
  target_compile_options(${name} PRIVATE ${ZYN_WARNINGS} -mavx2 -mfma -ffp-contract=off
    $<$<CONFIG:Release>:-O1>)
endfunction()
function(zyn_add_test_program name)
  zyn_test_program(${name} ${ARGN})
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES TIMEOUT 900)
endfunction()

# The large one runs in two halves beside each other. What all its files begin with is compiled once.
zyn_add_test_program(zyncore_tests ${zyn_test_sources})
target_precompile_headers(zyncore_tests PRIVATE <gtest/gtest.h> <algorithm> <string> <vector>)
add_test(NAME zyncore_tests_second COMMAND zyncore_tests)
set_tests_properties(zyncore_tests PROPERTIES
  ENVIRONMENT "GTEST_TOTAL_SHARDS=2;GTEST_SHARD_INDEX=0")
set_tests_properties(zyncore_tests_second PROPERTIES TIMEOUT 900
  ENVIRONMENT "GTEST_TOTAL_SHARDS=2;GTEST_SHARD_INDEX=1")
# What the width of the vectors could change, for a second build of another width.
zyn_test_program(kernel_tests tests/test_conv.cpp tests/test_conv_kernels.cpp
                 tests/test_vector_width.cpp tests/support/capture.cpp)
set_target_properties(kernel_tests PROPERTIES EXCLUDE_FROM_ALL ON)
foreach(source IN LISTS zyn_process_tests)
  get_filename_component(name ${source} NAME_WE)
  zyn_add_test_program(${name} ${source})
endforeach()

# The built library exports what exports.txt names, which is what the header
# declares, and needs nothing but system libraries.
# Sanitizers add runtimes and symbols of their own.
if(NOT CMAKE_CXX_FLAGS MATCHES "fsanitize|coverage")
  add_test(NAME exports COMMAND ${CMAKE_COMMAND} -E env bash ${PROJECT_SOURCE_DIR}/tests/check_exports.sh
           $<TARGET_FILE:zyncore> ${zyn_exports} ${PROJECT_SOURCE_DIR}/include)
endif()
# The header is C99 and C++ by itself.
add_library(zyn_header_c OBJECT ${PROJECT_SOURCE_DIR}/tests/header_c99.c)
target_include_directories(zyn_header_c PRIVATE ${PROJECT_SOURCE_DIR}/include)
target_compile_options(zyn_header_c PRIVATE -std=c99 -pedantic -Wall -Wextra -Werror)

# The example runs, and finds the known faces of two photos (passed over without
# ZYN_MODEL_DIR).
add_test(NAME faces COMMAND ${CMAKE_COMMAND} -E env bash ${PROJECT_SOURCE_DIR}/tests/check_faces.sh
         $<TARGET_FILE:detect_faces> $<TARGET_FILE:zyn-quant> ${CMAKE_CROSSCOMPILING_EMULATOR})
# The examples that need no model run and say what they should.
add_test(NAME examples COMMAND ${CMAKE_COMMAND} -E env bash ${PROJECT_SOURCE_DIR}/tests/check_examples.sh
         $<TARGET_FILE:landmarks> $<TARGET_FILE:track_faces> $<TARGET_FILE:face_app> ${CMAKE_CROSSCOMPILING_EMULATOR})
# The timer reports every node of both kinds of network.
add_test(NAME zyn_bench COMMAND ${CMAKE_COMMAND} -E env bash ${PROJECT_SOURCE_DIR}/tests/check_zyn_bench.sh
         $<TARGET_FILE:zyn-bench> ${PROJECT_SOURCE_DIR}/bench/layers ${CMAKE_CROSSCOMPILING_EMULATOR})
# The tools on network files, beside numpy (passed over without it).
add_test(NAME network_tools COMMAND ${CMAKE_COMMAND} -E env bash ${PROJECT_SOURCE_DIR}/tests/check_network_tools.sh
         $<TARGET_FILE_DIR:zyn-run> ${PROJECT_SOURCE_DIR} ${CMAKE_CROSSCOMPILING_EMULATOR})
# The page's table of reports is that of the sources.
add_test(NAME report_sites COMMAND ${CMAKE_COMMAND} -E env bash ${PROJECT_SOURCE_DIR}/tests/check_report_sites.sh)
# The Python package on the built library (native builds; sanitizers would have to be in the
# interpreter too).
if(NOT CMAKE_CROSSCOMPILING AND NOT CMAKE_CXX_FLAGS MATCHES "fsanitize|coverage")
  add_test(NAME python COMMAND /usr/bin/python3 -B -m unittest discover -s ${PROJECT_SOURCE_DIR}/tests/python)
  set_tests_properties(python PROPERTIES TIMEOUT 900
    ENVIRONMENT "ZYN_LIBRARY=$<TARGET_FILE:zyncore>;PYTHONPATH=${PROJECT_SOURCE_DIR}/python")
endif()
# What is installed serves a C and a C++ host (sanitizers would have to be linked into the hosts
# too).
if(NOT CMAKE_CXX_FLAGS MATCHES "fsanitize|coverage")
  add_test(NAME install COMMAND ${CMAKE_COMMAND} -E env bash ${PROJECT_SOURCE_DIR}/tests/check_install.sh
           ${CMAKE_COMMAND} ${PROJECT_BINARY_DIR} ${PROJECT_SOURCE_DIR} ${PROJECT_VERSION}
           ${CMAKE_TOOLCHAIN_FILE} ${CMAKE_CROSSCOMPILING_EMULATOR})
endif()
