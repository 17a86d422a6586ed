# SPDX-License-Identifier: Apache-2.0
nm_test(ipc_local_test
    SOURCES ipc_local_test.cpp
    USES vexa_testing vexa_ipc)
