# SPDX-License-Identifier: Apache-2.0
nm_test(samgr_test
    SOURCES samgr_table_test.cpp samgr_profile_test.cpp samgr_load_test.cpp
    USES samgrd_core vexa_testing vexa_samgr vexa_ipc vexa_log vexa_base)
# For its support/.
target_include_directories(samgr_test PRIVATE "${PROJECT_SOURCE_DIR}/tests/integration")
