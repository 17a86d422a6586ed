# SPDX-License-Identifier: Apache-2.0
# With this, programs of an older version are stopped before the libraries under them are replaced.
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_BREAKS
    "native-migrate (<< ${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
