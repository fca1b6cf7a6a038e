# Examples and tools see the library as a host does: the public header and the shared
# library.
function(zyn_add_programs folder)
  file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cpp)
  foreach(source IN LISTS sources)
    get_filename_component(name ${source} NAME_WE)
    string(REPLACE "zyn_" "zyn-" name ${name})
    add_executable(${name} ${source})
    target_link_libraries(${name} PRIVATE zyncore)
    target_compile_options(${name} PRIVATE -Wall -Wextra)
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/${folder})
  endforeach()
endfunction()
zyn_add_programs(examples)
zyn_add_programs(tools)

# The timer reports every node of both kinds of network.
add_test(NAME zyn_bench COMMAND ${CMAKE_COMMAND} -E env bash ${PROJECT_SOURCE_DIR}/tests/check_zyn_bench.sh
         $<TARGET_FILE:zyn-bench> ${PROJECT_SOURCE_DIR}/bench/layers ${CMAKE_CROSSCOMPILING_EMULATOR})
