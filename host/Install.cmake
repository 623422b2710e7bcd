# What is installed of the host kit: the library for CMake and pkg-config, the tool, and what belongs
# to it.
include(CMakePackageConfigHelpers)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/vexahost)

install(TARGETS vexahost EXPORT vexahost
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library)
install(EXPORT vexahost NAMESPACE vexahost:: FILE vexahostTargets.cmake
  DESTINATION ${package_folder} COMPONENT library)
install(DIRECTORY include/vexahost
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT library)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/src/protocol/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vexahost/protocol COMPONENT library
  FILES_MATCHING PATTERN "*.h")

configure_package_config_file(vexahostConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/vexahostConfig.cmake
  INSTALL_DESTINATION ${package_folder})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/vexahostConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vexahostConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/vexahostConfigVersion.cmake
  DESTINATION ${package_folder} COMPONENT library)

# Relative to itself, so that it is right wherever the installation is moved or staged.
file(RELATIVE_PATH pkgconfig_to_prefix /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" pkgconfig_to_prefix "${pkgconfig_to_prefix}")
set(vexahost_requires "")
if(LIBUSB_INCLUDE AND LIBUSB_LIBRARY)
  set(vexahost_requires libusb-1.0)
endif()
configure_file(vexahost.pc.in ${CMAKE_CURRENT_BINARY_DIR}/vexahost.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vexahost.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT library)

if(VEXA_UNIT_KIT)
  install(TARGETS vexa-host RUNTIME COMPONENT host)
  install(DIRECTORY scripts DESTINATION ${CMAKE_INSTALL_DATADIR}/vexa-host COMPONENT host)
endif()
# What device files look like: that of the virtual unit, and their schema.
install(FILES python/vexahost/devices.json python/vexahost/devices.schema.json
  DESTINATION ${CMAKE_INSTALL_DATADIR}/vexa-host COMPONENT host)
# The folder of plug-ins that Wireshark reads for every user.
install(FILES wireshark/vexa.lua
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/wireshark/plugins COMPONENT host)
