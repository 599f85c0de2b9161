# Installs the project into a scratch prefix and builds a program that includes only the installed
# public headers and links only the installed library.
# Variables: BUILD_DIR, PREFIX, CXX, SOURCE, PLATFORM_LIBDIR (where the linker finds the platform
# libraries that the library needs: a cross linker does not follow the library's RUNPATH).
file(REMOVE_RECURSE ${PREFIX})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX} RESULT_VARIABLE rc
                OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "install failed")
endif()
file(GLOB_RECURSE headers RELATIVE ${PREFIX}/include/sensor_ipcclient ${PREFIX}/include/sensor_ipcclient/*.h)
message(STATUS "installed headers: ${headers}")
execute_process(
  COMMAND ${CXX} -std=c++17 -Wall -Wextra -Werror -I${PREFIX}/include/sensor_ipcclient ${SOURCE}
          -L${PREFIX}/lib -lsensor_ipcclient -Wl,-rpath-link,${PLATFORM_LIBDIR} -o ${PREFIX}/public_headers_app
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "a program using only the installed headers does not build:\n${out}\n${err}")
endif()
