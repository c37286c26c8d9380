# pelmar_add_script_tests(SCRIPT ARGUMENTS...): each function of the bash script whose name is
# Subject.Sentence is a test. The script is given the arguments and the name of the function.
function(pelmar_add_script_tests name)
  set(script ${CMAKE_CURRENT_SOURCE_DIR}/${name})
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${script})
  file(STRINGS ${script} functions REGEX "^[A-Za-z]+\\.[A-Za-z0-9]+\\(\\)$")
  foreach(function IN LISTS functions)
    string(REPLACE "()" "" case ${function})
    add_test(NAME ${case} COMMAND bash ${script} ${ARGN} ${case})
    # A test that cannot run here says why and leaves with this status.
    set_tests_properties(${case} PROPERTIES TIMEOUT 60 SKIP_RETURN_CODE 77)
    list(APPEND cases ${case})
  endforeach()
  set(${name}_cases ${cases} PARENT_SCOPE)
endfunction()
