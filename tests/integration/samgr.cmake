# SPDX-License-Identifier: Apache-2.0
# A service that behaves as its arguments say, and a client; the test's other processes.
nm_test_program(samgr_peer SOURCES samgr_peer.cpp USES vexa_platform)

nm_test(samgr_integration_test
    SOURCES samgr_test.cpp
    USES vexa_platform
    PROGRAMS samgrd vexa-session samgr_peer
    LABELS integration)
target_compile_definitions(samgr_integration_test PRIVATE
    SAMGRD="$<TARGET_FILE:samgrd>" VEXA_SESSION="$<TARGET_FILE:vexa-session>" SAMGR_PEER="$<TARGET_FILE:samgr_peer>")

# How long the manager may take once all that it has killed has ended. It would wait for a second for what has not, and
# ThreadSanitizer lets every process sleep for a second at its end.
set(end_milliseconds 900)
if(NM_SANITIZE STREQUAL "thread")
    set(end_milliseconds 1900)
endif()
target_compile_definitions(samgr_integration_test PRIVATE END_MILLISECONDS=${end_milliseconds})
