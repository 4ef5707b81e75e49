# What `cmake --install` installs: the library (component "runtime"), and all that is needed to
# build programs with it (component "development"): headers, link, CMake package, pkg-config file.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/vemra-util)
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS vemra-util EXPORT vemra-util-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/vutil
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(EXPORT vemra-util-targets NAMESPACE vemra-util::
  DESTINATION ${package_dir} COMPONENT development)

configure_package_config_file(cmake/vemra-util-config.cmake.in
  ${PROJECT_BINARY_DIR}/vemra-util-config.cmake INSTALL_DESTINATION ${package_dir})
# Within one SONAME, which is the major version, exports are only added.
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/vemra-util-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/vemra-util-config.cmake
  ${PROJECT_BINARY_DIR}/vemra-util-config-version.cmake
  DESTINATION ${package_dir} COMPONENT development)

# The pkg-config file finds the prefix from its own place, so that an installed tree can be moved.
# Not under /usr: there pkg-config must see plain paths, since it prints none that the compiler
# searches by itself. Nor with an absolute library directory, which does not move with the prefix.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr" OR IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(pc_prefix ${CMAKE_INSTALL_PREFIX})
else()
  file(RELATIVE_PATH pc_prefix
    ${CMAKE_INSTALL_PREFIX}/${pkgconfig_dir} ${CMAKE_INSTALL_PREFIX})
  string(PREPEND pc_prefix "\${pcfiledir}/")
endif()
cmake_path(APPEND pc_libdir "\${prefix}" "${CMAKE_INSTALL_LIBDIR}")
cmake_path(APPEND pc_includedir "\${prefix}" "${CMAKE_INSTALL_INCLUDEDIR}")
configure_file(cmake/vemra-util.pc.in ${PROJECT_BINARY_DIR}/vemra-util.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vemra-util.pc
  DESTINATION ${pkgconfig_dir} COMPONENT development)
