# SPDX-License-Identifier: Apache-2.0
nm_fuzzer(parcel_fuzz SOURCES parcel_fuzz.cpp USES vexa_ipc)
nm_fuzzer(want_fuzz SOURCES want_fuzz.cpp USES vexa_want vexa_ipc)
