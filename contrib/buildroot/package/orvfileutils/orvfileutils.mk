################################################################################
#
# orvfileutils
#
################################################################################

# The sources are the checkout that holds this file.
ORVFILEUTILS_VERSION = 0.1.0
ORVFILEUTILS_SITE = $(BR2_EXTERNAL_ORVFILEUTILS_PATH)/../..
ORVFILEUTILS_SITE_METHOD = local
ORVFILEUTILS_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude /build
# No licence is granted yet; README says whom to ask.
ORVFILEUTILS_LICENSE = proprietary
ORVFILEUTILS_REDISTRIBUTE = NO
ORVFILEUTILS_INSTALL_STAGING = YES
ORVFILEUTILS_SUPPORTS_IN_SOURCE_BUILD = NO
ORVFILEUTILS_CONF_OPTS = \
	-DCMAKE_SKIP_INSTALL_RPATH=ON \
	-DORV_BUILD_EXAMPLES=OFF \
	-DORV_BUILD_TESTS=OFF \
	-DORV_BUILD_TOOLS=OFF

$(eval $(cmake-package))
