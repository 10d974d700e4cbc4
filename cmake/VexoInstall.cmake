# cmake --install: headers, library, CMake package (find_package(vexo), target vexo::vexo), vexo.pc.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS vexo EXPORT vexoTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/vexo DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT vexoTargets NAMESPACE vexo:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vexo)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/vexoConfig.cmake.in
  ${PROJECT_BINARY_DIR}/vexoConfig.cmake INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vexo)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vexoConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vexoConfig.cmake ${PROJECT_BINARY_DIR}/vexoConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vexo)

# Relative to its own folder, so that an installed tree may be moved.
file(RELATIVE_PATH VEXO_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(${PROJECT_SOURCE_DIR}/cmake/vexo.pc.in ${PROJECT_BINARY_DIR}/vexo.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vexo.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
