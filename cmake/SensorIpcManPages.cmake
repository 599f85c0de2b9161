# Man pages made by help2man from the programs' own --help and --version output, so that a page says
# exactly what the program says (one source). They need help2man (scripts/setup installs it) and a
# program that runs on the build machine: none in a cross or sanitizer build, where a status line says so.
find_program(SENSOR_IPC_HELP2MAN help2man)
find_program(SENSOR_IPC_GZIP gzip)

# sipc_add_man_page(<target> NAME <one-line description> COMPONENT <install component>
#                   [HELP_OPTION <option>]): <program>.1.gz into share/man/man1.
function(sipc_add_man_page target)
  cmake_parse_arguments(ARG "" "NAME;COMPONENT;HELP_OPTION" "" ${ARGN})
  if(NOT ARG_HELP_OPTION)
    set(ARG_HELP_OPTION --help)
  endif()
  get_target_property(program ${target} OUTPUT_NAME)
  if(NOT program)
    set(program ${target})
  endif()
  if(NOT SENSOR_IPC_BUILD_MAN_PAGES)
    return()
  elseif(CMAKE_CROSSCOMPILING OR SENSOR_IPC_SANITIZE)
    message(STATUS "No man page of ${program} in a cross or sanitizer build")
    return()
  elseif(NOT SENSOR_IPC_HELP2MAN OR NOT SENSOR_IPC_GZIP)
    message(STATUS "help2man not found: no man page of ${program} (scripts/setup installs it)")
    return()
  endif()
  set(page ${CMAKE_CURRENT_BINARY_DIR}/${program}.1)
  # gzip -n: no name or time stamp inside, so that the same page gives the same file.
  add_custom_command(OUTPUT ${page}.gz
    COMMAND ${SENSOR_IPC_HELP2MAN} --no-info --no-discard-stderr --section=1 --name=${ARG_NAME}
            --help-option=${ARG_HELP_OPTION} --version-option=--version --output=${page} $<TARGET_FILE:${target}>
    COMMAND ${SENSOR_IPC_GZIP} -9nf ${page}
    DEPENDS ${target}
    COMMENT "Man page of ${program}"
    VERBATIM)
  add_custom_target(${target}_man_page ALL DEPENDS ${page}.gz)
  install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT ${ARG_COMPONENT})
endfunction()
