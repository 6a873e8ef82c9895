# Yocto recipe. Add it to your layer, or name it in conf/local.conf:  BBFILES += "/path/to/checkout/contrib/yocto/*.bb"
SUMMARY = "File-system utilities for embedded Linux devices"
# No licence is granted yet; README says whom to ask.
LICENSE = "CLOSED"

# The sources are the checkout that holds this file. If you copy the recipe, set EXTERNALSRC to the checkout, or replace
# it by a SRC_URI of your own.
inherit externalsrc cmake
EXTERNALSRC ?= "${THISDIR}/../.."

# The distribution sets the optimisation, so the build type adds nothing. The device's loader knows ${libdir}.
EXTRA_OECMAKE = " \
    -DCMAKE_BUILD_TYPE=None \
    -DCMAKE_SKIP_INSTALL_RPATH=ON \
    -DORV_BUILD_EXAMPLES=OFF \
    -DORV_BUILD_TESTS=OFF \
    -DORV_BUILD_TOOLS=OFF \
"

# find_package(OrvFileUtils) also declares the substitutes for the log, which are static libraries.
RDEPENDS:${PN}-dev += "${PN}-staticdev"
