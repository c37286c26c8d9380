# Builds the clone that this file lies in. Copy or link it into a layer and set EXTERNALSRC there if
# the layer is elsewhere. Needs CMake 3.21: Yocto 4.0 (kirkstone) or later.
SUMMARY = "Channel between processes over the D-Bus system bus"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=f0dff17c6daf424de63956ee0009bfb7"

DEPENDS = "glib-2.0"
RRECOMMENDS:${PN} = "dbus"

inherit cmake pkgconfig externalsrc
EXTERNALSRC ?= "${THISDIR}/../.."
EXTRA_OECMAKE = "-DBUILD_SHARED_LIBS=ON -DPELMAR_BUILD_TESTS=OFF -DPELMAR_BUILD_EXAMPLES=OFF"

# What makes the policies is needed where they are packaged, not on the device.
FILES:${PN}-dev += "${bindir}/pelmar-policy ${datadir}/pelmar"

# pelmar_install_policy() of the applications runs it from their sysroot.
SYSROOT_DIRS += "${bindir}"
