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
