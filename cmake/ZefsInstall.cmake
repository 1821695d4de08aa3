# What `cmake --install` puts in place: the shared library, its headers, and the two ways of finding
# it: a CMake package (zefs::extmap) and a pkg-config file.

include(CMakePackageConfigHelpers)
set(zefs_cmake_dir "${CMAKE_INSTALL_LIBDIR}/cmake/zefs-extmap")

set_target_properties(zefs_extmap PROPERTIES EXPORT_NAME extmap)
install(TARGETS zefs_extmap EXPORT zefs-extmap-targets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/zefs-extmap")
install(DIRECTORY host support table sidefiles
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/zefs-extmap" FILES_MATCHING PATTERN "*.h")

install(EXPORT zefs-extmap-targets NAMESPACE zefs:: DESTINATION "${zefs_cmake_dir}")
configure_package_config_file(cmake/zefs-extmap-config.cmake.in
  "${PROJECT_BINARY_DIR}/zefs-extmap-config.cmake" INSTALL_DESTINATION "${zefs_cmake_dir}")
# While the major version is 0 a minor version may change the interface.
write_basic_package_version_file("${PROJECT_BINARY_DIR}/zefs-extmap-config-version.cmake"
  COMPATIBILITY SameMinorVersion)
install(FILES
  "${PROJECT_BINARY_DIR}/zefs-extmap-config.cmake"
  "${PROJECT_BINARY_DIR}/zefs-extmap-config-version.cmake"
  cmake/FindLMDB.cmake
  DESTINATION "${zefs_cmake_dir}")

# The pkg-config file finds its prefix from where it lies, so that the installed tree can be moved.
file(RELATIVE_PATH zefs_pc_prefix
  "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
configure_file(cmake/zefs-extmap.pc.in "${PROJECT_BINARY_DIR}/zefs-extmap.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/zefs-extmap.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
