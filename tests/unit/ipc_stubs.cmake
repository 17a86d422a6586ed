# SPDX-License-Identifier: Apache-2.0
nm_test(ipc_stubs_test
    SOURCES ipc_stubs_test.cpp
    USES vexa_testing nm_ipc nm_json nm_log vexa_samgr vexa_ipc vexa_want vexa_base vexa_log)
target_include_directories(ipc_stubs_test PRIVATE "${PROJECT_SOURCE_DIR}/tests/integration")  # for its support/
