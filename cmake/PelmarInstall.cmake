# Installation: libraries, headers, the CMake package and the pkg-config modules.

include(CMakePackageConfigHelpers)

get_property(libraries GLOBAL PROPERTY PELMAR_INSTALLED_LIBRARIES)
get_property(headers GLOBAL PROPERTY PELMAR_INSTALLED_HEADERS)
list(REMOVE_DUPLICATES headers)

install(TARGETS ${libraries} EXPORT PelmarDbusLocalTargets)
install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pelmar)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/PelmarDbusLocal)
install(EXPORT PelmarDbusLocalTargets NAMESPACE Pelmar:: DESTINATION ${package_dir})
configure_package_config_file(cmake/PelmarDbusLocalConfig.cmake.in PelmarDbusLocalConfig.cmake
  INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(PelmarDbusLocalConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/PelmarDbusLocalConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/PelmarDbusLocalConfigVersion.cmake
        DESTINATION ${package_dir})

# The modules find the prefix from where they lie, so that an installed tree can be moved.
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH pc_prefix /${pkgconfig_dir} /)
foreach(module IN ITEMS pelmar-dbus-local pelmar-dbus-local-client)
  configure_file(cmake/${module}.pc.in ${module}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${module}.pc DESTINATION ${pkgconfig_dir})
endforeach()
