# SPDX-License-Identifier: Apache-2.0
nm_fuzzer(frame_fuzz SOURCES frame_fuzz.cpp USES vexa_ipc)
