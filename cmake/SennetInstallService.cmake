# SPDX-License-Identifier: MIT
# sennet_install_service(TARGET <target> NAME <service name> USER <user> [GROUP <group>]
#                        [DESCRIPTION <text>] [NOTIFY] [WATCHDOG <seconds>]
#                        [HARDENED [NETWORK] [STATE] [DEVICES <device>...]])
#
# Installs the program of a service and the files with which its first message starts it:
#   <bin>/<program>                                           the target
#   <share>/dbus-1/system.d/<bus name>.conf                   who may own its names and send to it
#   <share>/dbus-1/system-services/<bus name>.service         how the bus starts it
#   <prefix>/lib/systemd/system/<service name>.service        how systemd runs it
#
# NAME is the service name that the program gives to its TCServer. USER is the account that runs the
# program. Only USER may own the service's bus name and those of its activities, which are all names
# below the service name. With GROUP, only members of the group may send to the service; without it,
# everybody may. Install with the prefix /usr: the system bus reads policies only there. With another
# prefix it starts the service and refuses its name.
#
# NOTIFY: systemd waits until the program says that it is ready, which TCWatchdog does. WATCHDOG:
# systemd restarts the program if it has not said within so many seconds that it lives; implies
# NOTIFY. HARDENED takes away what a service of the bus does not need: systemd then refuses it other
# sockets than those of this machine, writing outside of temporary files, devices, capabilities and
# unusual system calls; see systemd.exec(5). NETWORK gives it the Internet protocols, STATE the
# folder /var/lib/<service name>, and DEVICES these devices, for example /dev/ttyS0.

# Returns the lines of the unit that HARDENED adds.
function(_sennet_hardening service network state devices out)
  set(families AF_UNIX)
  if(network)
    string(APPEND families " AF_INET AF_INET6")
  endif()
  set(lines
    "NoNewPrivileges=yes" "CapabilityBoundingSet=" "AmbientCapabilities=" "ProtectSystem=strict"
    "ProtectHome=yes" "PrivateTmp=yes" "PrivateMounts=yes" "ProtectProc=invisible"
    "RestrictAddressFamilies=${families}" "SystemCallArchitectures=native"
    "SystemCallFilter=@system-service" "ProtectKernelTunables=yes" "ProtectKernelModules=yes"
    "ProtectKernelLogs=yes" "ProtectControlGroups=yes" "ProtectClock=yes" "ProtectHostname=yes"
    "RestrictNamespaces=yes" "RestrictSUIDSGID=yes" "RestrictRealtime=yes" "LockPersonality=yes"
    "MemoryDenyWriteExecute=yes" "RemoveIPC=yes" "UMask=0077")
  if(devices)
    list(APPEND lines "DevicePolicy=closed")
    foreach(device IN LISTS devices)
      if(NOT device MATCHES "^(/dev/|char-|block-)[^ ]+$")
        message(FATAL_ERROR "sennet_install_service: ${device} is not a device")
      endif()
      list(APPEND lines "DeviceAllow=${device} rw")
    endforeach()
  else()
    list(APPEND lines "PrivateDevices=yes")
  endif()
  if(NOT network)
    list(APPEND lines "IPAddressDeny=any")
  endif()
  if(state)
    list(APPEND lines "StateDirectory=${service}")
  endif()
  list(JOIN lines "\n" text)
  set(${out} "${text}\n" PARENT_SCOPE)
endfunction()

# Returns the legal form of a service name, as the library makes it, and the bus name.
function(_sennet_service_names name service_out bus_out)
  string(REGEX REPLACE "[^A-Za-z0-9._]" "_" service "${name}")
  set(bus ${service}.message)
  string(LENGTH "${bus}" length)
  if(length GREATER 255 OR NOT bus MATCHES "^[A-Za-z_][A-Za-z0-9_]*([.][A-Za-z_][A-Za-z0-9_]*)+$")
    message(FATAL_ERROR "sennet_install_service: \"${bus}\" is not a bus name")
  endif()
  set(${service_out} ${service} PARENT_SCOPE)
  set(${bus_out} ${bus} PARENT_SCOPE)
endfunction()

function(sennet_install_service)
  cmake_parse_arguments(PARSE_ARGV 0 arg "NOTIFY;HARDENED;NETWORK;STATE"
    "TARGET;NAME;USER;GROUP;DESCRIPTION;WATCHDOG" "DEVICES")
  foreach(required TARGET NAME USER)
    if("${arg_${required}}" STREQUAL "")
      message(FATAL_ERROR "sennet_install_service: ${required} is missing")
    endif()
  endforeach()
  if(arg_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "sennet_install_service: unknown arguments: ${arg_UNPARSED_ARGUMENTS}")
  endif()
  foreach(account USER GROUP)
    if(arg_${account} AND NOT arg_${account} MATCHES "^[A-Za-z0-9_][A-Za-z0-9_.-]*$")
      message(FATAL_ERROR "sennet_install_service: ${account} is not the name of an account")
    endif()
  endforeach()
  if((arg_NETWORK OR arg_STATE OR arg_DEVICES) AND NOT arg_HARDENED)
    message(FATAL_ERROR "sennet_install_service: NETWORK, STATE and DEVICES open what HARDENED closes")
  endif()
  if(DEFINED arg_WATCHDOG AND NOT arg_WATCHDOG MATCHES "^[1-9][0-9]*$")
    message(FATAL_ERROR "sennet_install_service: WATCHDOG takes a number of seconds")
  endif()
  _sennet_service_names("${arg_NAME}" service bus)
  set(unit_type dbus)
  set(unit_lines "")
  if(arg_NOTIFY OR arg_WATCHDOG)
    set(unit_type notify)
    string(APPEND unit_lines "NotifyAccess=main\n")
  endif()
  if(arg_WATCHDOG)
    string(APPEND unit_lines "WatchdogSec=${arg_WATCHDOG}\n")
  endif()
  if(arg_HARDENED)
    _sennet_hardening(${service} ${arg_NETWORK} ${arg_STATE} "${arg_DEVICES}" hardening)
    string(APPEND unit_lines "${hardening}")
  endif()
  if(NOT arg_DESCRIPTION)
    set(arg_DESCRIPTION "${service}")
  endif()
  string(REPLACE "%" "%%" description "${arg_DESCRIPTION}")
  set(senders "context=\"default\"")
  if(arg_GROUP)
    set(senders "group=\"${arg_GROUP}\"")
  endif()
  include(GNUInstallDirs)
  # The path of the program is known only at the installation, where these are replaced.
  cmake_path(APPEND exec "@CMAKE_INSTALL_PREFIX@" "${CMAKE_INSTALL_BINDIR}" "@program@")

  set(templates ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/service)
  set(out ${CMAKE_CURRENT_BINARY_DIR}/sennet-services)
  set(system_dir ${CMAKE_INSTALL_DATADIR}/dbus-1)
  configure_file(${templates}/policy.conf.in ${out}/${bus}.conf @ONLY)
  configure_file(${templates}/activation.service.in ${out}/${bus}.service.in @ONLY)
  configure_file(${templates}/unit.service.in ${out}/${service}.service.in @ONLY)
  install(TARGETS ${arg_TARGET} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES ${out}/${bus}.conf DESTINATION ${system_dir}/system.d)
  cmake_path(APPEND activation_dir "\${CMAKE_INSTALL_PREFIX}" "${system_dir}" system-services)
  # Written directly to the destination: in the build folder, root would leave files that the owner
  # of the folder cannot replace.
  install(CODE "
    set(program $<TARGET_FILE_NAME:${arg_TARGET}>)
    foreach(file IN ITEMS
        \"${activation_dir}/${bus}.service\"
        \"\${CMAKE_INSTALL_PREFIX}/lib/systemd/system/${service}.service\")
      set(installed \"\$ENV{DESTDIR}\${file}\")
      message(STATUS \"Installing: \${installed}\")
      cmake_path(GET file FILENAME name)
      configure_file(\"${out}/\${name}.in\" \"\${installed}\" @ONLY
        FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
      list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${file}\")
    endforeach()")
endfunction()
