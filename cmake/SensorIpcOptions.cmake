# Warnings and sanitizers applied to every target of the project.
add_compile_options(-Wall -Wextra)
if(SENSOR_IPC_WERROR)
  add_compile_options(-Werror)
endif()

if(SENSOR_IPC_SANITIZE)
  add_compile_options(-fsanitize=${SENSOR_IPC_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${SENSOR_IPC_SANITIZE})
  if(SENSOR_IPC_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=all)
  endif()
endif()
