# SPDX-License-Identifier: Apache-2.0
# Compiles what it tests anew: the order of mutexes is checked here in every configuration.
nm_test(base_test
    SOURCES base_lock_rank_test.cpp "${PROJECT_SOURCE_DIR}/platform/base/lock_rank.cpp"
        "${PROJECT_SOURCE_DIR}/platform/base/refbase.cpp")
target_include_directories(base_test PRIVATE "${PROJECT_SOURCE_DIR}/platform/base/include")
target_compile_definitions(base_test PRIVATE VEXA_CHECK_LOCK_ORDER)
