# SPDX-License-Identifier: Apache-2.0
# Frames are copied as they stand in memory, and the peers of a runtime directory share their layout.
if(NOT CMAKE_SIZEOF_VOID_P EQUAL 8 OR NOT CMAKE_CXX_BYTE_ORDER STREQUAL "LITTLE_ENDIAN")
    message(FATAL_ERROR "native_migrate is for 64-bit little-endian Linux only.")
endif()
