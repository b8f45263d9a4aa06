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
# The pkg-config file names its prefix relative to its own folder.
file(RELATIVE_PATH OSTRA_PC_RELATIVE_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" OSTRA_PC_RELATIVE_PREFIX "${OSTRA_PC_RELATIVE_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/ostrakernel.pc.in ${PROJECT_BINARY_DIR}/ostrakernel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ostrakernel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(TARGET ostra)
  install(TARGETS ostra RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

set(CMAKE_INSTALL_DOCDIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/ostrakernel)
# Documentation for those who build on the library: the user's guide and the decision
# documents, and the example programs as source.
install(FILES ${PROJECT_SOURCE_DIR}/docs/using-the-library.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} RENAME README.md)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/design
  FILES_MATCHING PATTERN "*.md" PATTERN "using-the-library.md" EXCLUDE)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
