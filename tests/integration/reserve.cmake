# SPDX-License-Identifier: Apache-2.0
nm_test(reserve_death_test
    SOURCES reserve_death_test.cpp
    USES native_migrate vexa_platform vexa_testing vexa_samgr
    PROGRAMS samgrd client_peer
    LABELS integration)
target_compile_definitions(reserve_death_test PRIVATE
    SAMGRD="$<TARGET_FILE:samgrd>" CLIENT_PEER="$<TARGET_FILE:client_peer>")
