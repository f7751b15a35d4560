# SPDX-License-Identifier: MIT
# Prints the bus name of the service NAME as sennet_install_service() forms it.
include(${PACKAGE}/SennetInstallService.cmake)
_sennet_service_names("${NAME}" service bus)
execute_process(COMMAND ${CMAKE_COMMAND} -E echo ${bus})
