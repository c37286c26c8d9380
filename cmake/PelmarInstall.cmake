# Installation: libraries, headers, the CMake package, the pkg-config modules and the bus policy's
# templates with the tool that fills them.

include(CMakePackageConfigHelpers)
include(cmake/PelmarPkgConfig.cmake)

get_property(libraries GLOBAL PROPERTY PELMAR_INSTALLED_LIBRARIES)
get_property(headers GLOBAL PROPERTY PELMAR_INSTALLED_HEADERS)
list(REMOVE_DUPLICATES headers)

install(TARGETS ${libraries} EXPORT PelmarDbusLocalTargets)
install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pelmar)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/PelmarDbusLocal)
install(EXPORT PelmarDbusLocalTargets NAMESPACE Pelmar:: DESTINATION ${package_dir})
configure_package_config_file(cmake/PelmarDbusLocalConfig.cmake.in PelmarDbusLocalConfig.cmake
  INSTALL_DESTINATION ${package_dir} PATH_VARS CMAKE_INSTALL_BINDIR NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(PelmarDbusLocalConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/PelmarDbusLocalConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/PelmarDbusLocalConfigVersion.cmake
              cmake/PelmarPolicy.cmake
        DESTINATION ${package_dir})

set(gio "gio-2.0 >= ${PELMAR_GIO_VERSION}")
set(channel "Channel between processes over the D-Bus system bus")
pelmar_pkgconfig_module(pelmar-platform-log "Pelmar's platform log" USES ${gio})
pelmar_pkgconfig_module(pelmar-dbus-local "${channel}, service role"
  REQUIRES ${gio} LIBRARIES pelmar-platform-log)
pelmar_pkgconfig_module(pelmar-dbus-local-client "${channel}, client role"
  REQUIRES ${gio} LIBRARIES pelmar-platform-log DEFINITIONS PELMAR_ROLE_CLIENT)
pelmar_pkgconfig_module(pelmar-endpoint "${channel}, with threads of its own, repair and windows"
  USES ${gio} LIBRARIES pelmar-platform-log)

install(PROGRAMS packaging/dbus/pelmar-policy TYPE BIN)
install(FILES packaging/dbus/pelmar-policy.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES packaging/dbus/channel.conf.in packaging/dbus/limits.conf.in
        DESTINATION ${CMAKE_INSTALL_DATADIR}/pelmar/dbus)
