# The pkg-config modules. They find the prefix from where they lie, so that an installed tree can be
# moved.

# pelmar_pkgconfig_module(LIBRARY DESCRIPTION
#                         [REQUIRES MODULES...]     what its headers use
#                         [USES MODULES...]         what only its code uses
#                         [LIBRARIES LIBRARIES...]  those of ours that its code uses, in link order
#                         [DEFINITIONS NAMES...])   what its users have to be compiled with
#
# A shared library brings along what its code uses. An archive does not, so that its users link that
# too, whether they ask pkg-config for --static or not.
function(pelmar_pkgconfig_module pc_name pc_description)
  cmake_parse_arguments(arg "" "" "REQUIRES;USES;LIBRARIES;DEFINITIONS" ${ARGN})
  set(pc_requires ${arg_REQUIRES})
  set(pc_libs ${pc_name})
  get_target_property(type ${pc_name} TYPE)
  if(type STREQUAL "SHARED_LIBRARY")
    set(pc_requires_private ${arg_USES})
    set(pc_libs_private ${arg_LIBRARIES})
  else()
    list(APPEND pc_requires ${arg_USES})
    list(APPEND pc_libs ${arg_LIBRARIES})
  endif()

  set(pc_definitions ${arg_DEFINITIONS})
  list(TRANSFORM pc_definitions PREPEND -D)
  list(TRANSFORM pc_libs PREPEND -l)
  list(TRANSFORM pc_libs_private PREPEND -l)
  list(JOIN pc_requires ", " pc_requires)
  list(JOIN pc_requires_private ", " pc_requires_private)
  foreach(words IN ITEMS pc_libs pc_libs_private pc_definitions)
    list(JOIN ${words} " " ${words})
  endforeach()

  set(folder ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
  file(RELATIVE_PATH pc_prefix /${folder}/ /)
  string(REGEX REPLACE "/$" "" pc_prefix ${pc_prefix})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/pelmar.pc.in ${pc_name}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${pc_name}.pc DESTINATION ${folder})
endfunction()
