# Fails when the recorded channel calls anything that the recorder does not see.
execute_process(COMMAND ${NM} --undefined-only ${OBJECT}
  OUTPUT_VARIABLE undefined COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "U (g|pthread)_[a-z0-9_]+" calls "${undefined}")
list(FILTER calls EXCLUDE REGEX "^U (g_variant_.*|pthread_mutex_(init|destroy|trylock))$")
if(calls)
  message(FATAL_ERROR "not recorded: ${calls}; add them to recorded_calls and to the recorder")
endif()
if(NOT undefined MATCHES "__wrap_g_bus_get_sync")
  message(FATAL_ERROR "nothing is recorded in ${OBJECT}")
endif()
