# The installed tree as application teams use it: the CMake package sensor_ipcclient (imported targets
# sensor_ipcclient::sensor_ipcclient, one per platform library and, on the host platform,
# sensor_ipcclient::sensor_sim), the pkg-config files, and the Debian packages made from the same
# install rules. Everything is relocatable: the package finds itself from its own directory.
include(CMakePackageConfigHelpers)

install(EXPORT ${SENSOR_IPC_EXPORT_SET} NAMESPACE sensor_ipcclient:: FILE sensor_ipcclientTargets.cmake
        DESTINATION ${SENSOR_IPC_INSTALL_CMAKEDIR} COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/package/sensor_ipcclientConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/sensor_ipcclientConfig.cmake
  INSTALL_DESTINATION ${SENSOR_IPC_INSTALL_CMAKEDIR}
  PATH_VARS SENSOR_IPC_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
# Version 3 of the library: any 3.x satisfies a request for 3, never 2 or 4.
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/sensor_ipcclientConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/sensor_ipcclientConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/sensor_ipcclientConfigVersion.cmake
        DESTINATION ${SENSOR_IPC_INSTALL_CMAKEDIR} COMPONENT dev)

# pkg-config: the prefix is found from the .pc file's own directory.
file(RELATIVE_PATH SENSOR_IPC_PC_TO_PREFIX /prefix/${SENSOR_IPC_INSTALL_PKGCONFIGDIR} /prefix)
string(REGEX REPLACE "/$" "" SENSOR_IPC_PC_TO_PREFIX "${SENSOR_IPC_PC_TO_PREFIX}")
if(SENSOR_IPC_PLATFORM STREQUAL "host")
  # The substitutes live in a private directory: the application names it in its own RUNPATH.
  set(SENSOR_IPC_PC_PLATFORM_CFLAGS "-I\${includedir}/sensor_ipcclient/platform")
  set(SENSOR_IPC_PC_PLATFORM_LIBS "-L\${platformlibdir} -Wl,-rpath,\${platformlibdir}")
  set(SENSOR_IPC_PC_PLATFORM_LIBDIR "\${prefix}/${SENSOR_IPC_INSTALL_HOSTLIBDIR}")
else()
  # On the vehicle the platform's headers and libraries are the system's.
  set(SENSOR_IPC_PC_PLATFORM_CFLAGS "")
  set(SENSOR_IPC_PC_PLATFORM_LIBS "")
  set(SENSOR_IPC_PC_PLATFORM_LIBDIR "\${libdir}")
endif()
# A program built with plain `pkg-config --cflags --libs sensor_ipcclient` runs without LD_LIBRARY_PATH:
# in /usr the library is in the loader's own directory (and the substitutes' private directory is named
# by the platform rpath above); in any other prefix the library's directory is named too.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(SENSOR_IPC_PC_LIB_RPATH "")
else()
  set(SENSOR_IPC_PC_LIB_RPATH "-Wl,-rpath,\${libdir}")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/package/sensor_ipcclient.pc.in
               ${CMAKE_CURRENT_BINARY_DIR}/sensor_ipcclient.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/sensor_ipcclient.pc
        DESTINATION ${SENSOR_IPC_INSTALL_PKGCONFIGDIR} COMPONENT dev)
if(SENSOR_IPC_PLATFORM STREQUAL "host")
  configure_file(${CMAKE_CURRENT_LIST_DIR}/package/sensor_sim.pc.in
                 ${CMAKE_CURRENT_BINARY_DIR}/sensor_sim.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/sensor_sim.pc
          DESTINATION ${SENSOR_IPC_INSTALL_PKGCONFIGDIR} COMPONENT dev)
endif()

include(SensorIpcDeb)
