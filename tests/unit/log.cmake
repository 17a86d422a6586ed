# SPDX-License-Identifier: Apache-2.0
nm_test(log_test
    SOURCES log_format_test.cpp log_sink_test.cpp log_update_test.cpp
    USES vexa_testing nm_log vexa_log)
# For its support/.
target_include_directories(log_test PRIVATE "${PROJECT_SOURCE_DIR}/tests/integration")
