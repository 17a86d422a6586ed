# SPDX-License-Identifier: Apache-2.0
nm_test(migratectl_commands_test
    SOURCES migratectl_test.cpp
    USES migratectl_commands vexa_testing nm_kits nm_sa_load nm_ipc nm_json nm_log vexa_samgr vexa_ipc vexa_want vexa_json
        vexa_base vexa_log)
target_include_directories(migratectl_commands_test PRIVATE "${PROJECT_SOURCE_DIR}/tests/integration")  # for its support/
