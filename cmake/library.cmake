# One object build serves the shared library, the static library and the tests.
file(GLOB_RECURSE zyn_sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/*.cpp)
add_library(zyn_objects OBJECT ${zyn_sources})
set_target_properties(zyn_objects PROPERTIES POSITION_INDEPENDENT_CODE ON)
target_include_directories(zyn_objects PUBLIC ${PROJECT_SOURCE_DIR}/include
                                       PRIVATE ${PROJECT_SOURCE_DIR}/src)
target_compile_definitions(zyn_objects PRIVATE ZYN_BUILDING)
target_compile_options(zyn_objects PRIVATE
  -fno-exceptions -fno-rtti -fno-threadsafe-statics -fvisibility=hidden
  -ffp-contract=off ${ZYN_WARNINGS}
  # Constants and scratch are aligned by hand; errno of mathematics is not read.
  -fno-math-errno)

# The foundation (src/base) needs no more than plain x86-64, so that a host can load the
# library, ask for its version and allocate on any processor; all else is built for the
# vectors of 256 bits. src/base comes first in the list of objects: of inline functions
# that both use, the linker keeps the first copy.
set(ZYN_VECTOR_FLAGS -mavx2 -mfma)
set(zyn_vector_sources ${zyn_sources})
list(FILTER zyn_vector_sources EXCLUDE REGEX "/src/base/")
set_property(SOURCE ${zyn_vector_sources} APPEND PROPERTY COMPILE_OPTIONS ${ZYN_VECTOR_FLAGS})
# Kernels whose loops lie on cache lines as they did when they were measured, whatever code is in
# front of them: else they take up to 5 % longer.
set(zyn_blocked_sources ${zyn_sources})
list(FILTER zyn_blocked_sources INCLUDE REGEX "/kernels/blocked/")
set_property(SOURCE ${zyn_blocked_sources} APPEND PROPERTY COMPILE_OPTIONS -falign-functions=64)
# Kernels that are written for wider vectors; the compiler's own stay at 256 bits.
add_compile_definitions(ZYN_VECTOR_BITS=${ZYN_VECTOR_BITS})
if(ZYN_VECTOR_BITS EQUAL 512)
  set(zyn_wide_sources ${zyn_sources})
  list(FILTER zyn_wide_sources INCLUDE REGEX "/kernels/(blocked|gemm)/|/zyn_general_tile.cpp")
  set_property(SOURCE ${zyn_wide_sources} APPEND PROPERTY COMPILE_OPTIONS
    -mavx512f -mavx512bw -mavx512vl -mavx512dq -mprefer-vector-width=256)
elseif(NOT ZYN_VECTOR_BITS EQUAL 256)
  message(FATAL_ERROR "ZYN_VECTOR_BITS is 256 or 512, not ${ZYN_VECTOR_BITS}")
endif()
# The unrolled kernels take minutes to compile with every check of the sanitizers: those of
# addresses and of integer arithmetic stay.
if(CMAKE_CXX_FLAGS MATCHES "fsanitize=address")
  set(zyn_kernel_sources ${zyn_sources})
  list(FILTER zyn_kernel_sources INCLUDE REGEX "/cg/cpu/kernels/")
  set_property(SOURCE ${zyn_kernel_sources} APPEND_STRING PROPERTY COMPILE_FLAGS
    " -fno-sanitize=null,alignment,pointer-overflow,object-size -mllvm -asan-instrumentation-with-call-threshold=300")
endif()

# Exactly the exports that exports.txt names, whatever else is visible.
set(zyn_exports ${PROJECT_SOURCE_DIR}/src/exports.txt)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${zyn_exports})
file(STRINGS ${zyn_exports} zyn_export_names REGEX "^zyn_")
set(zyn_data_exports zyn_error_string zyn_darray_str_type)

add_library(zyncore SHARED $<TARGET_OBJECTS:zyn_objects>)
target_include_directories(zyncore INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:include>)
set_target_properties(zyncore PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
# The library has no C++ runtime in it: linking as C leaves libstdc++ out.
set_target_properties(zyncore PROPERTIES LINKER_LANGUAGE C)

if(WIN32)
  set(zyn_def "EXPORTS\n")
  foreach(name IN LISTS zyn_export_names)
    if(name IN_LIST zyn_data_exports)
      string(APPEND zyn_def "  ${name} DATA\n")
    else()
      string(APPEND zyn_def "  ${name}\n")
    endif()
  endforeach()
  set(zyn_def_file ${PROJECT_BINARY_DIR}/zyncore.def)
  file(WRITE ${zyn_def_file} "${zyn_def}")
  target_sources(zyncore PRIVATE ${zyn_def_file})
  target_link_options(zyncore PRIVATE -static -static-libgcc)
  set_target_properties(zyncore PROPERTIES PREFIX "")
else()
  string(REPLACE ";" "; " zyn_globals "${zyn_export_names}")
  set(zyn_map_file ${PROJECT_BINARY_DIR}/zyncore.map)
  file(WRITE ${zyn_map_file} "{ global: ${zyn_globals}; local: *; };\n")
  target_link_options(zyncore PRIVATE -Wl,--version-script=${zyn_map_file})
  if(NOT CMAKE_CXX_FLAGS MATCHES "fsanitize")
    target_link_options(zyncore PRIVATE -Wl,--no-undefined)
  endif()
endif()

add_library(zyncore_static STATIC $<TARGET_OBJECTS:zyn_objects>)
target_include_directories(zyncore_static INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:include>)
target_compile_definitions(zyncore_static INTERFACE ZYN_STATIC)
set_target_properties(zyncore_static PROPERTIES OUTPUT_NAME zyncore_static)

# The convolution kernels ask OpenMP's runtime for the calling thread's number.
foreach(library zyncore zyncore_static)
  target_link_libraries(${library} PUBLIC $<BUILD_INTERFACE:gomp> $<INSTALL_INTERFACE:gomp>)
  if(UNIX)
    target_link_libraries(${library} PUBLIC m)
  endif()
endforeach()
