# Checks the shipped library: soname, the platform libraries it needs, and that its dynamic symbol table
# holds exactly the facades and the exported sensor order (nothing of the client object, tables, logger
# or buffer utilities).
# Variables: LIB (path of libsensor_ipcclient.so.3), NM, READELF.
execute_process(COMMAND ${READELF} -d ${LIB} OUTPUT_VARIABLE dynamic RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "readelf failed on ${LIB}")
endif()
if(NOT dynamic MATCHES "Library soname: \\[libsensor_ipcclient\\.so\\.3\\]")
  message(FATAL_ERROR "SONAME is not libsensor_ipcclient.so.3:\n${dynamic}")
endif()
foreach(needed libnvscibuf.so.1 libimage-stream.so.3 libCameraAccess.so.3 libCameraSharedMem.so.3 libvexalog.so.1)
  string(REPLACE "." "\\." pattern "${needed}")
  if(NOT dynamic MATCHES "Shared library: \\[${pattern}\\]")
    message(FATAL_ERROR "NEEDED entry ${needed} missing:\n${dynamic}")
  endif()
endforeach()
if(dynamic MATCHES "sensor_sim")
  message(FATAL_ERROR "the library must not depend on the simulator:\n${dynamic}")
endif()

execute_process(COMMAND ${NM} -D --defined-only -C ${LIB} OUTPUT_VARIABLE symbols RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIB}")
endif()
string(REPLACE "\n" ";" lines "${symbols}")
set(names "")
foreach(line IN LISTS lines)
  if(line STREQUAL "")
    continue()
  endif()
  string(REGEX REPLACE "^[0-9a-fA-F]* *[A-Za-z] " "" name "${line}")
  list(APPEND names "${name}")
  if(NOT name MATCHES "^vexa::cameraipcclient::CCameraIpcClient::"
     AND NOT name MATCHES "^vexa::sensor_access::SensorIpcClient::"
     AND NOT name STREQUAL "vexa::sensor_access::g_sensorOrderId")
    message(FATAL_ERROR "unexpected exported symbol: ${line}")
  endif()
endforeach()

foreach(required
    "vexa::sensor_access::g_sensorOrderId"
    "vexa::cameraipcclient::CCameraIpcClient::CCameraIpcClient(vexa::cameraipcclient::AppType)"
    "vexa::sensor_access::SensorIpcClient::SensorIpcClient(vexa::cameraipcclient::AppType)"
    "vexa::sensor_access::SensorIpcClient::getRadarLev2FaultInfo(unsigned short, unsigned short, unsigned short*, unsigned short&, unsigned long&)")
  list(FIND names "${required}" found)
  if(found EQUAL -1)
    message(FATAL_ERROR "missing exported symbol: ${required}\nexported:\n${symbols}")
  endif()
endforeach()
message(STATUS "exports: ${symbols}")
