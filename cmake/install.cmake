# What a host finds: the libraries, the header, a CMake package, zyncore.pc and the pages.
include(CMakePackageConfigHelpers)
install(TARGETS zyncore EXPORT zyncore-targets RUNTIME LIBRARY ARCHIVE)
install(TARGETS zyncore_static EXPORT zyncore-targets ARCHIVE)
install(FILES ${PROJECT_SOURCE_DIR}/include/zyncore.h ${PROJECT_SOURCE_DIR}/include/zyncore_net.h
              ${PROJECT_SOURCE_DIR}/include/zyncore_face.h TYPE INCLUDE)
install(EXPORT zyncore-targets NAMESPACE zyncore:: FILE zyncore-config.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zyncore)

write_basic_package_version_file(${PROJECT_BINARY_DIR}/zyncore-config-version.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zyncore-config-version.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zyncore)

# Paths are relative to the file, so that the tree can be moved.
file(RELATIVE_PATH zyn_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(${PROJECT_SOURCE_DIR}/cmake/zyncore.pc.in ${PROJECT_BINARY_DIR}/zyncore.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zyncore.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md
              ${PROJECT_SOURCE_DIR}/LICENSE TYPE DOC)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/ TYPE DOC)

# The Python package finds the library in the folders around it.
if(ZYN_PYTHON)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/python/zyncore DESTINATION lib/python3/dist-packages
          PATTERN __pycache__ EXCLUDE)
endif()
