# What is installed of the host kit: the library for CMake projects, the tool, and what belongs to it.
include(CMakePackageConfigHelpers)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/vexahost)

# The packet format is the service's, in an archive of its own.
set_target_properties(vexa_packet PROPERTIES OUTPUT_NAME vexahost-packet EXPORT_NAME packet)
set_target_properties(vexa_source_root PROPERTIES EXPORT_NAME source_root)
install(TARGETS vexahost vexa_packet vexa_source_root EXPORT vexahost
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library)
install(EXPORT vexahost NAMESPACE vexahost:: FILE vexahostTargets.cmake
  DESTINATION ${package_folder} COMPONENT library)
install(DIRECTORY include/vexahost
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT library)
install(FILES ${PROJECT_SOURCE_DIR}/src/mux/Packet.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vexahost/mux COMPONENT library)

configure_package_config_file(vexahostConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/vexahostConfig.cmake
  INSTALL_DESTINATION ${package_folder})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/vexahostConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vexahostConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/vexahostConfigVersion.cmake
  DESTINATION ${package_folder} COMPONENT library)

install(TARGETS vexa-host RUNTIME COMPONENT host)
install(DIRECTORY scripts DESTINATION ${CMAKE_INSTALL_DATADIR}/vexa-host COMPONENT host)
# The folder of plug-ins that Wireshark reads for every user.
install(FILES wireshark/vexa.lua
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/wireshark/plugins COMPONENT host)
