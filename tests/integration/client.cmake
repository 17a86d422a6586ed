# SPDX-License-Identifier: Apache-2.0
# The migration client across processes, with the manager's peer or the reference service behind it.
set(uses native_migrate vexa_platform vexa_testing vexa_samgr vexa_want)

# Its requests have the five seconds in which the library wants a service started, hundreds of times in a row, so it
# doesn't share the machine with other tests.
nm_test(client_death_test
    SOURCES client_death_test.cpp USES ${uses} PROGRAMS samgrd samgr_peer LABELS integration SERIAL)

# Starting a process costs many times as much under a sanitizer.
set(instant_deaths 500)
if(NM_SANITIZE)
    set(instant_deaths 50)
endif()

nm_test(client_migration_test
    SOURCES client_migration_test.cpp USES ${uses} PROGRAMS samgrd migrate_serviced LABELS integration)

# Not linked with the libraries: it loads and unloads them.
nm_test(client_unload_test
    SOURCES client_unload_test.cpp LINKS ${CMAKE_DL_LIBS} PROGRAMS samgrd migrate_serviced native_migrate LABELS integration)
foreach(piece vexa_base vexa_ipc vexa_want)
    target_include_directories(client_unload_test PRIVATE $<TARGET_PROPERTY:${piece},INTERFACE_INCLUDE_DIRECTORIES>)
endforeach()

foreach(area death unload migration)
    target_compile_definitions(client_${area}_test PRIVATE
        SAMGRD="$<TARGET_FILE:samgrd>" SAMGR_PEER="$<TARGET_FILE:samgr_peer>" INSTANT_DEATHS=${instant_deaths}
        MIGRATE_SERVICED="$<TARGET_FILE:migrate_serviced>" NATIVE_MIGRATE="$<TARGET_FILE:native_migrate>")
endforeach()
