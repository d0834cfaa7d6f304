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

# The server, its systemd unit and an example configuration. The unit names
# the installed binary, so it is written at install time, when the prefix
# (cmake --install --prefix) is known.
if(TARGET tellora_server)
  install(TARGETS tellora_server RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES server/dist/tellora-server.conf DESTINATION ${CMAKE_INSTALL_DATADIR}/tellora)
  install(FILES docs/operating.md docs/protocol.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
  install(CODE "
    set(prefix \"\${CMAKE_INSTALL_PREFIX}\")
    set(TELLORA_SERVER_BINARY \"\${prefix}/${CMAKE_INSTALL_BINDIR}/tellora-server\")
    set(TELLORA_EXAMPLE_CONFIG \"\${prefix}/${CMAKE_INSTALL_DATADIR}/tellora/tellora-server.conf\")
    set(TELLORA_DOC_DIR \"\${prefix}/${CMAKE_INSTALL_DOCDIR}\")
    set(unit \"\$ENV{DESTDIR}\${prefix}/lib/systemd/system/tellora-server.service\")
    message(STATUS \"Installing: \${unit}\")
    configure_file(\"${PROJECT_SOURCE_DIR}/server/dist/tellora-server.service.in\" \"\${unit}\" @ONLY)
  ")
endif()
