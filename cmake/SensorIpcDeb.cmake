# Debian packages made by CPack from the install rules' components (`cpack -G DEB` in the build
# directory, configured with CMAKE_INSTALL_PREFIX=/usr):
#   libsensor-ipcclient3     runtime    the library
#   libsensor-ipcclient-dev  dev        headers, CMake package, pkg-config files, link names
#   sensor-ipcclient-host    host       the substitutes and the simulator, in their private directory
#   sensorctl                sensorctl  the command-line tool
#   gstreamer1.0-sensoripc   gstreamer  the GStreamer element sensoripcsrc
#   python3-sensoripc        python     the Python module sensoripc
# The Depends lines come from dpkg-shlibdeps (C and C++ runtime, the tools' libraries) and from the
# component dependencies below (exact version of each other).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME sensor-ipcclient)
set(CPACK_PACKAGE_VENDOR "Sensor IPC client maintainers")
set(CPACK_PACKAGE_CONTACT "Sensor IPC client maintainers <maintainers@users.noreply.c-seed-39e9212d.example>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Client library of the vehicle's camera-access service")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# shlibs files, so that packages of applications built against these libraries depend on them.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# The packages' own libraries are not installed while they are being made: dpkg-shlibdeps finds them in
# the build tree and leaves them to the component dependencies.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${PROJECT_BINARY_DIR}/Interface/InterfaceIrdConsumer ${PROJECT_BINARY_DIR}/platform ${PROJECT_BINARY_DIR}/sim)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libsensor-ipcclient${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Client library of the vehicle's camera-access service
 Consumes the frames of the vehicle's cameras, radars and lidars (with raw frames paired to processed
 ones), copies them into CPU buffers, dumps them, and reaches the sensors' control functions.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libsensor-ipcclient-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_RECOMMENDS "cmake, pkg-config")
set(CPACK_COMPONENT_DEV_DESCRIPTION "Sensor IPC client library: development files
 Public headers, the CMake package sensor_ipcclient and the pkg-config files for building applications.")
set(CPACK_COMPONENT_DEV_DEPENDS runtime)

set(CPACK_DEBIAN_SENSORCTL_PACKAGE_NAME sensorctl)
set(CPACK_DEBIAN_SENSORCTL_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_SENSORCTL_DESCRIPTION "Command-line tool over the sensor IPC client library
 Lists sensors and their status, streams with live statistics, dumps and converts frames, reads and
 writes registers and I2C, sets frame sync and reads radar and lidar diagnostics.")
set(CPACK_COMPONENT_SENSORCTL_DEPENDS runtime)

set(CPACK_DEBIAN_GSTREAMER_PACKAGE_NAME gstreamer1.0-sensoripc)
set(CPACK_DEBIAN_GSTREAMER_PACKAGE_SECTION video)
set(CPACK_COMPONENT_GSTREAMER_DESCRIPTION "GStreamer source element over the sensor IPC client library
 sensoripcsrc pushes the frames of one camera, radar or lidar into GStreamer pipelines: NV12 without a
 copy, raw Bayer, GRAY8 and GRAY16, stamped with their exposure time and frame counter.")
set(CPACK_COMPONENT_GSTREAMER_DEPENDS runtime)

if(SENSOR_IPC_PLATFORM STREQUAL "host")
  set(CPACK_DEBIAN_HOST_PACKAGE_NAME sensor-ipcclient-host)
  set(CPACK_DEBIAN_HOST_PACKAGE_SECTION libs)
  set(CPACK_COMPONENT_HOST_DESCRIPTION "Simulated vehicle platform for the sensor IPC client library
 Substitutes of the vehicle's five platform libraries backed by a simulator of the camera-access
 service, kept in a private directory so that they never shadow a real platform library.")
  # The library and the development files are built against the substitutes.
  set(CPACK_COMPONENT_RUNTIME_DEPENDS host)
  list(APPEND CPACK_COMPONENT_DEV_DEPENDS host)
  list(APPEND CPACK_COMPONENT_SENSORCTL_DEPENDS host)
  list(APPEND CPACK_COMPONENT_GSTREAMER_DEPENDS host)
  set(CPACK_COMPONENTS_ALL runtime dev host sensorctl gstreamer)
else()
  # On the vehicle the platform libraries come with the vehicle's own system.
  set(CPACK_COMPONENTS_ALL runtime dev sensorctl gstreamer)
endif()
if(NOT TARGET gstsensoripc)
  list(REMOVE_ITEM CPACK_COMPONENTS_ALL gstreamer)
endif()

# python3-sensoripc (component python): the Python module, for Debian's python3 with its numpy.
if(TARGET sensoripc_python)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-sensoripc)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
  # The extension is built for one Python version: the interpreter of the build.
  string(REPLACE "." ";" sipc_pyver "${SENSOR_IPC_PYTHON_VERSION}")
  list(GET sipc_pyver 0 sipc_pymajor)
  list(GET sipc_pyver 1 sipc_pyminor)
  math(EXPR sipc_pynext "${sipc_pyminor} + 1")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
      "python3 (>= ${SENSOR_IPC_PYTHON_VERSION}), python3 (<< ${sipc_pymajor}.${sipc_pynext}), python3-numpy")
  set(CPACK_COMPONENT_PYTHON_DESCRIPTION "Python module over the sensor IPC client library
 sensoripc: the vehicle's sensors and their control calls, and consumers whose frames come as read-only
 numpy views straight onto the frame buffers, with raw pairing, copies and result codes as exceptions.")
  set(CPACK_COMPONENT_PYTHON_DEPENDS runtime)
  if(SENSOR_IPC_PLATFORM STREQUAL "host")
    list(APPEND CPACK_COMPONENT_PYTHON_DEPENDS host)
  endif()
  list(APPEND CPACK_COMPONENTS_ALL python)
endif()
if(NOT TARGET sensorctl)
  list(REMOVE_ITEM CPACK_COMPONENTS_ALL sensorctl)
endif()

include(CPack)
