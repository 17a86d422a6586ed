# SPDX-License-Identifier: Apache-2.0
nm_test(load_starts_test
    SOURCES load_starts_test.cpp
    USES native_migrate vexa_platform vexa_testing vexa_samgr vexa_log
    PROGRAMS samgrd client_peer
    LABELS integration)
target_compile_definitions(load_starts_test PRIVATE
    SAMGRD="$<TARGET_FILE:samgrd>" CLIENT_PEER="$<TARGET_FILE:client_peer>")
