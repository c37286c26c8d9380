################################################################################
#
# pelmar
#
################################################################################

# The clone that this file lies in: make BR2_EXTERNAL=.../pelmar/contrib/buildroot
PELMAR_VERSION = 0.2.0
PELMAR_SITE = $(BR2_EXTERNAL_PELMAR_PATH)/../..
PELMAR_SITE_METHOD = local
PELMAR_LICENSE = MIT
PELMAR_LICENSE_FILES = LICENSE
PELMAR_INSTALL_STAGING = YES
PELMAR_DEPENDENCIES = host-pkgconf libglib2
PELMAR_CONF_OPTS = -DPELMAR_BUILD_TESTS=OFF -DPELMAR_BUILD_EXAMPLES=OFF

$(eval $(cmake-package))
