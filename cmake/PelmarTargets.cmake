# How this project's own targets are compiled. Nothing of it reaches the users of the libraries.

function(pelmar_compile_options target)
  target_compile_features(${target} PUBLIC cxx_std_17)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wconversion -Wshadow
                         $<$<BOOL:${PELMAR_WARNINGS_AS_ERRORS}>:-Werror>)
endfunction()

# pelmar_add_library(NAME EXPORT_NAME SOURCES...): a library that is installed as Pelmar::EXPORT_NAME,
# with the folders of its public headers given by pelmar_public_headers.
function(pelmar_add_library target export_name)
  add_library(${target} ${ARGN})
  add_library(Pelmar::${export_name} ALIAS ${target})
  pelmar_compile_options(${target})
  set_target_properties(${target} PROPERTIES
    EXPORT_NAME ${export_name}
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  # One of our shared libraries finds another beside it, wherever the prefix is moved.
  if(NOT DEFINED CMAKE_INSTALL_RPATH)
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN")
  endif()
  target_link_options(${target} PRIVATE LINKER:--as-needed)
  set_property(GLOBAL APPEND PROPERTY PELMAR_INSTALLED_LIBRARIES ${target})
endfunction()

# pelmar_public_headers(TARGET HEADERS...): headers that users of the target include by base name.
function(pelmar_public_headers target)
  foreach(header IN LISTS ARGN)
    get_filename_component(folder ${header} DIRECTORY)
    target_include_directories(${target} PUBLIC
      $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/${folder}>)
    set_property(GLOBAL APPEND PROPERTY PELMAR_INSTALLED_HEADERS
                 ${CMAKE_CURRENT_SOURCE_DIR}/${header})
  endforeach()
  target_include_directories(${target} PUBLIC
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/pelmar>)
endfunction()
