# SPDX-License-Identifier: Apache-2.0
# The migration client across processes, with the reference service behind it.
set(uses native_migrate vexa_platform vexa_testing vexa_samgr vexa_want)

nm_test(client_migration_test
    SOURCES client_migration_test.cpp USES ${uses} PROGRAMS samgrd migrate_serviced LABELS integration)

# Not linked with the libraries: it loads and unloads them.
nm_test(client_unload_test
    SOURCES client_unload_test.cpp LINKS ${CMAKE_DL_LIBS} PROGRAMS samgrd migrate_serviced native_migrate LABELS integration)
foreach(piece vexa_base vexa_ipc vexa_want)
    target_include_directories(client_unload_test PRIVATE $<TARGET_PROPERTY:${piece},INTERFACE_INCLUDE_DIRECTORIES>)
endforeach()

foreach(area unload migration)
    target_compile_definitions(client_${area}_test PRIVATE
        SAMGRD="$<TARGET_FILE:samgrd>"
        MIGRATE_SERVICED="$<TARGET_FILE:migrate_serviced>" NATIVE_MIGRATE="$<TARGET_FILE:native_migrate>")
endforeach()
