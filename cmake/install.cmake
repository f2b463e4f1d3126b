include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS quarvel_jitreader EXPORT quarvelTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/quarvel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT quarvelTargets NAMESPACE quarvel::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/quarvel)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/quarvelConfig.cmake.in
  ${PROJECT_BINARY_DIR}/quarvelConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/quarvel)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/quarvelConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/quarvelConfig.cmake ${PROJECT_BINARY_DIR}/quarvelConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/quarvel)

configure_file(${PROJECT_SOURCE_DIR}/cmake/quarvel.pc.in ${PROJECT_BINARY_DIR}/quarvel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/quarvel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
