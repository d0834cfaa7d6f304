# cmake --install: the shared library, the public headers, a CMake package
# (find_package(Tellora) -> Tellora::tellora) and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS tellora EXPORT TelloraTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY include/tellora DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT TelloraTargets NAMESPACE Tellora::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Tellora)

configure_package_config_file(cmake/TelloraConfig.cmake.in
  ${PROJECT_BINARY_DIR}/TelloraConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Tellora)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TelloraConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TelloraConfig.cmake
  ${PROJECT_BINARY_DIR}/TelloraConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Tellora)

file(RELATIVE_PATH TELLORA_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
configure_file(cmake/tellora.pc.in ${PROJECT_BINARY_DIR}/tellora.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tellora.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(TARGET tellora_cli)
  install(TARGETS tellora_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
