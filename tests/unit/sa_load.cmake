# SPDX-License-Identifier: Apache-2.0
nm_test(sa_load_test
    SOURCES sa_load_test.cpp
    USES vexa_testing nm_sa_load nm_log vexa_samgr vexa_ipc vexa_base vexa_log
    TIMEOUT 60)
