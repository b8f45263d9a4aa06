include(CMakePackageConfigHelpers)

install(TARGETS ostrakernel EXPORT OstraKernelTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ostra DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT OstraKernelTargets NAMESPACE Ostra::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/OstraKernel)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/OstraKernelConfig.cmake.in
  ${PROJECT_BINARY_DIR}/OstraKernelConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/OstraKernel)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/OstraKernelConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/OstraKernelConfig.cmake
  ${PROJECT_BINARY_DIR}/OstraKernelConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/OstraKernel)
configure_file(${PROJECT_SOURCE_DIR}/cmake/ostrakernel.pc.in ${PROJECT_BINARY_DIR}/ostrakernel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ostrakernel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(TARGET ostra)
  install(TARGETS ostra RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
