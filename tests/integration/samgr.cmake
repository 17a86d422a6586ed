# SPDX-License-Identifier: Apache-2.0
nm_test(samgr_integration_test
    SOURCES samgr_test.cpp
    USES vexa_platform
    PROGRAMS samgrd
    LABELS integration)
target_compile_definitions(samgr_integration_test PRIVATE
    SAMGRD="$<TARGET_FILE:samgrd>" SAMGR_PEER="$<TARGET_FILE:samgr_integration_test>")

# How long the manager may take once all that it has killed has ended. It would wait for a second for what has not, and
# ThreadSanitizer lets every process sleep for a second at its end.
set(end_milliseconds 900)
if(NM_SANITIZE STREQUAL "thread")
    set(end_milliseconds 1900)
endif()
target_compile_definitions(samgr_integration_test PRIVATE END_MILLISECONDS=${end_milliseconds})
