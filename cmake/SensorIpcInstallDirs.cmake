# Where the installed tree puts each part, and the RUNPATHs that let installed binaries find their
# libraries from any prefix. The host substitutes carry the vehicle's sonames, so they (and the simulator
# behind them) live in a private directory that only our own RUNPATHs name, never in the plain library
# directory where they could shadow a real platform library.
set(SENSOR_IPC_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/sensor_ipcclient)
set(SENSOR_IPC_INSTALL_HOSTLIBDIR ${CMAKE_INSTALL_LIBDIR}/sensor_ipcclient/host)
set(SENSOR_IPC_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/sensor_ipcclient)
set(SENSOR_IPC_INSTALL_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(SENSOR_IPC_EXPORT_SET sensor_ipcclient_targets)

# sipc_set_install_rpath(<target> <dir of the target> <dirs to search>...): RUNPATH of the installed
# target made of $ORIGIN-relative paths (all directories relative to the install prefix). RUNPATH rather
# than RPATH, so that LD_LIBRARY_PATH still wins for a user who wants to point at other libraries.
function(sipc_set_install_rpath target from)
  set(paths "")
  foreach(dir IN LISTS ARGN)
    file(RELATIVE_PATH rel /prefix/${from} /prefix/${dir})
    if(rel STREQUAL "")
      list(APPEND paths "$ORIGIN")
    else()
      list(APPEND paths "$ORIGIN/${rel}")
    endif()
  endforeach()
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "${paths}")
  target_link_options(${target} PRIVATE -Wl,--enable-new-dtags)
endfunction()
