# SPDX-License-Identifier: Apache-2.0
foreach(area death restore)
    nm_test(reserve_${area}_test
        SOURCES reserve_${area}_test.cpp
        USES native_migrate vexa_platform vexa_testing vexa_samgr
        PROGRAMS samgrd client_peer migrate_serviced
        LABELS integration)
    target_compile_definitions(reserve_${area}_test PRIVATE
        SAMGRD="$<TARGET_FILE:samgrd>"
        CLIENT_PEER="$<TARGET_FILE:client_peer>"
        MIGRATE_SERVICED="$<TARGET_FILE:migrate_serviced>")
endforeach()
