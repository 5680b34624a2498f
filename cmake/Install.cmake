# Installation mirrors the build layout under the prefix (bin/, lib/, plugin/<kind>/) and
# adds what a plug-in author builds against: headers, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

install(DIRECTORY ${CMAKE_SOURCE_DIR}/platform/include/
        DESTINATION ${PM_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")

install(EXPORT BasicServiceTargets
        NAMESPACE BasicService::
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/BasicService)
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/BasicServiceConfig.cmake.in
  ${CMAKE_BINARY_DIR}/BasicServiceConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/BasicService)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/BasicServiceConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
# The armhf toolchain file goes with the SDK: plug-in authors cross-build with it as well.
install(FILES ${CMAKE_SOURCE_DIR}/cmake/plugin-exports.map
              ${CMAKE_SOURCE_DIR}/cmake/toolchain-armhf.cmake
              ${CMAKE_BINARY_DIR}/BasicServiceConfig.cmake
              ${CMAKE_BINARY_DIR}/BasicServiceConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/BasicService)

# The prefix as seen from <libdir>/pkgconfig/, for a .pc file that moves with the prefix.
file(RELATIVE_PATH _pm_pc_up "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" _pm_pc_up "${_pm_pc_up}")
set(PM_PC_PREFIX "\${pcfiledir}/${_pm_pc_up}")
configure_file(${CMAKE_SOURCE_DIR}/cmake/basicservice.pc.in
               ${CMAKE_BINARY_DIR}/basicservice.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/basicservice.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
