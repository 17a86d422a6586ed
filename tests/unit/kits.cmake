# SPDX-License-Identifier: Apache-2.0
nm_test(kits_test
    SOURCES kits_recovery_test.cpp kits_requests_test.cpp kits_reserve_test.cpp
    USES migrate_service migrate_engine vexa_testing nm_kits nm_ipc nm_json nm_log vexa_samgr vexa_ipc vexa_want vexa_base vexa_log)
target_include_directories(kits_test PRIVATE "${PROJECT_SOURCE_DIR}/tests/integration")  # for its support/
