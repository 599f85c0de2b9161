# Debian packages made by CPack from the install rules' components (`cpack -G DEB` in the build
# directory, configured with CMAKE_INSTALL_PREFIX=/usr): one package per audience, each with its own
# synopsis and description, its copyright file and changelog in /usr/share/doc/<package>/, stripped
# binaries, and Depends computed by dpkg-shlibdeps from the binaries (plus the exact version of the
# project's own packages it needs). scripts/sdk-check builds, lints (lintian), installs and purges them.
#
# A new package is one sipc_deb_package() call below (and its component in the install rules):
#   sipc_deb_package(<component> PACKAGE <name> SECTION <section> SYNOPSIS <one line>
#                    DESCRIPTION <paragraph> [DEPENDS <components>...] [RECOMMENDS <text>])
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME sensor-ipcclient)
set(CPACK_PACKAGE_VENDOR "Sensor IPC client maintainers")
set(CPACK_PACKAGE_CONTACT "Sensor IPC client maintainers <maintainers@users.noreply.c-seed-39e9212d.example>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# No CPACK_PACKAGE_DESCRIPTION_SUMMARY: CPack would put it in front of every package's description, and
# every package would have the same synopsis. Each package's first description line is its synopsis.
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# shlibs files, so that packages of applications built against these libraries depend on them.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# The packages' own libraries are not installed while they are being made: dpkg-shlibdeps finds them in
# the build tree and leaves them to the component dependencies.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${PROJECT_BINARY_DIR}/Interface/InterfaceIrdConsumer ${PROJECT_BINARY_DIR}/platform ${PROJECT_BINARY_DIR}/sim)

set(SENSOR_IPC_DEB_SOURCE ${CMAKE_CURRENT_LIST_DIR}/package/debian)
configure_file(${SENSOR_IPC_DEB_SOURCE}/changelog.in ${PROJECT_BINARY_DIR}/debian/changelog @ONLY)
# gzip -9n: the compressed changelog that Debian's policy asks for, the same bytes at every build.
find_program(SENSOR_IPC_GZIP gzip REQUIRED)
# A native package (no Debian revision), so changelog.gz rather than changelog.Debian.gz.
add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/debian/changelog.gz
  COMMAND ${SENSOR_IPC_GZIP} -9nc ${PROJECT_BINARY_DIR}/debian/changelog > ${PROJECT_BINARY_DIR}/debian/changelog.gz
  DEPENDS ${PROJECT_BINARY_DIR}/debian/changelog)
add_custom_target(sensor_ipc_deb_changelog ALL DEPENDS ${PROJECT_BINARY_DIR}/debian/changelog.gz)

set(SENSOR_IPC_DEB_COMPONENTS "")
function(sipc_deb_package component)
  cmake_parse_arguments(ARG "" "PACKAGE;SECTION;SYNOPSIS;DESCRIPTION;RECOMMENDS" "DEPENDS" ${ARGN})
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${ARG_PACKAGE} PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${ARG_SECTION} PARENT_SCOPE)
  set(CPACK_COMPONENT_${upper}_DESCRIPTION "${ARG_SYNOPSIS}\n${ARG_DESCRIPTION}" PARENT_SCOPE)
  set(CPACK_COMPONENT_${upper}_DEPENDS ${ARG_DEPENDS} PARENT_SCOPE)
  if(ARG_RECOMMENDS)
    set(CPACK_DEBIAN_${upper}_PACKAGE_RECOMMENDS "${ARG_RECOMMENDS}" PARENT_SCOPE)
  endif()
  install(FILES ${SENSOR_IPC_DEB_SOURCE}/copyright ${PROJECT_BINARY_DIR}/debian/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${ARG_PACKAGE} COMPONENT ${component})
  # lintian's findings that the package accepts, each with its reason in a comment above it.
  if(EXISTS ${SENSOR_IPC_DEB_SOURCE}/${ARG_PACKAGE}.lintian-overrides)
    install(FILES ${SENSOR_IPC_DEB_SOURCE}/${ARG_PACKAGE}.lintian-overrides
            DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME ${ARG_PACKAGE} COMPONENT ${component})
  endif()
  set(SENSOR_IPC_DEB_COMPONENTS ${SENSOR_IPC_DEB_COMPONENTS} ${component} PARENT_SCOPE)
endfunction()

# On the host platform everything is built against the substitutes, which the host package carries; on
# the vehicle the platform libraries come with the vehicle's own system.
set(host_depends "")
if(SENSOR_IPC_PLATFORM STREQUAL "host")
  set(host_depends host)
endif()

sipc_deb_package(runtime PACKAGE libsensor-ipcclient${PROJECT_VERSION_MAJOR} SECTION libs
  SYNOPSIS "client library of the vehicle's camera-access service"
  DESCRIPTION "Applications link libsensor_ipcclient.so.${PROJECT_VERSION_MAJOR} to consume the frames of
the vehicle's cameras, radars and lidars (with raw frames paired to processed
ones), copy them into CPU buffers, dump them, read brightness statistics, and
reach the sensors' control functions."
  DEPENDS ${host_depends})
# The loader's cache is refreshed by a trigger, not by maintainer scripts calling ldconfig.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${SENSOR_IPC_DEB_SOURCE}/libsensor-ipcclient3/triggers
    ${SENSOR_IPC_DEB_SOURCE}/libsensor-ipcclient3/postinst ${SENSOR_IPC_DEB_SOURCE}/libsensor-ipcclient3/postrm)

sipc_deb_package(dev PACKAGE libsensor-ipcclient-dev SECTION libdevel
  SYNOPSIS "client library of the vehicle's camera-access service - development files"
  DESCRIPTION "Public headers, the CMake package sensor_ipcclient and the pkg-config
files sensor_ipcclient and sensor_sim for building applications of the
vehicle, and their tests against the simulated vehicle."
  DEPENDS runtime ${host_depends}
  RECOMMENDS "cmake, pkg-config")

if(SENSOR_IPC_PLATFORM STREQUAL "host")
  sipc_deb_package(host PACKAGE sensor-ipcclient-host SECTION libs
    SYNOPSIS "simulated vehicle platform for the sensor IPC client library"
    DESCRIPTION "Substitutes of the vehicle's five platform libraries backed by a simulator
of the camera-access service, so that the library, its tools and applications
run on a PC. They are kept in a private directory and never shadow a real
platform library. Also holds sensor-simd, which serves one simulated vehicle
to several application processes.")
endif()

if(TARGET sensorctl)
  sipc_deb_package(sensorctl PACKAGE sensorctl SECTION utils
    SYNOPSIS "command-line tool for the vehicle's cameras, radars and lidars"
    DESCRIPTION "sensorctl lists the sensors and their status, streams them with live
statistics, dumps frames and converts dumps to PNG, reads and writes
registers and I2C, sets frame sync and reads radar and lidar diagnostics,
through the sensor IPC client library."
    DEPENDS runtime ${host_depends})
endif()

if(TARGET gstsensoripc)
  sipc_deb_package(gstreamer PACKAGE gstreamer1.0-sensoripc SECTION video
    SYNOPSIS "GStreamer source element for the vehicle's cameras, radars and lidars"
    DESCRIPTION "sensoripcsrc pushes the frames of one camera, radar or lidar into GStreamer
pipelines: NV12 without a copy, raw Bayer, GRAY8 and GRAY16, stamped with
their exposure time and frame counter."
    DEPENDS runtime ${host_depends})
endif()

if(TARGET sensoripc_python)
  sipc_deb_package(python PACKAGE python3-sensoripc SECTION python
    SYNOPSIS "Python module over the sensor IPC client library"
    DESCRIPTION "sensoripc: the vehicle's sensors and their control calls, and consumers
whose frames come as read-only numpy views straight onto the frame buffers,
with raw pairing, copies and result codes as exceptions."
    DEPENDS runtime ${host_depends})
  # The extension is built for one Python version: the interpreter of the build.
  string(REPLACE "." ";" sipc_pyver "${SENSOR_IPC_PYTHON_VERSION}")
  list(GET sipc_pyver 0 sipc_pymajor)
  list(GET sipc_pyver 1 sipc_pyminor)
  math(EXPR sipc_pynext "${sipc_pyminor} + 1")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
      "python3 (>= ${SENSOR_IPC_PYTHON_VERSION}), python3 (<< ${sipc_pymajor}.${sipc_pynext}), python3-numpy")
endif()

set(CPACK_COMPONENTS_ALL ${SENSOR_IPC_DEB_COMPONENTS})
include(CPack)
