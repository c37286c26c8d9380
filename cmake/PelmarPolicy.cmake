# pelmar_install_policy(CHANNEL <name>
#                       SERVICE_USER <user> | SERVICE_GROUP <group>
#                       CLIENT_USER <user> | CLIENT_GROUP <group>)
#
# Installs the system bus's policy for a channel, org.vaska.Pelmar.<name>.conf, to
# share/dbus-1/system.d: the user, or the members of the group, may be that side of the channel, and
# nobody else. The bus looks there only below /usr, so that is the prefix to install to.
function(pelmar_install_policy)
  set(options CHANNEL SERVICE_USER SERVICE_GROUP CLIENT_USER CLIENT_GROUP)
  cmake_parse_arguments(PARSE_ARGV 0 arg "" "${options}" "")
  if(arg_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "pelmar_install_policy does not know ${arg_UNPARSED_ARGUMENTS}")
  endif()

  set(file ${CMAKE_CURRENT_BINARY_DIR}/org.vaska.Pelmar.${arg_CHANNEL}.conf)
  set(command --output ${file})
  foreach(option IN LISTS options)
    if(DEFINED arg_${option})
      string(TOLOWER --${option} word)
      string(REPLACE _ - word ${word})
      list(APPEND command ${word} "${arg_${option}}")
    endif()
  endforeach()
  get_property(tool GLOBAL PROPERTY PELMAR_POLICY_TOOL)
  execute_process(COMMAND sh ${tool} ${command} RESULT_VARIABLE result ERROR_VARIABLE errors)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "pelmar_install_policy cannot make a policy\n${errors}")
  endif()

  if(NOT CMAKE_INSTALL_DATADIR)
    set(CMAKE_INSTALL_DATADIR share)
  endif()
  install(FILES ${file} DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/system.d)
endfunction()
