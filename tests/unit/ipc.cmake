# SPDX-License-Identifier: Apache-2.0
nm_test(ipc_local_test SOURCES ipc_local_test.cpp USES vexa_testing vexa_ipc)
nm_test(ipc_stubs_test
    SOURCES ipc_stubs_test.cpp
    USES vexa_testing nm_ipc nm_json nm_log vexa_samgr vexa_ipc vexa_want vexa_base vexa_log)
foreach(part kernel books connections peers shortage runtime_watch simulation trace)
    nm_test(ipc_${part}_test SOURCES ipc_${part}_test.cpp USES vexa_testing vexa_ipc)
endforeach()
foreach(part stubs kernel books connections peers shortage runtime_watch simulation trace)
    target_include_directories(ipc_${part}_test PRIVATE "${PROJECT_SOURCE_DIR}/tests/integration")  # for its support/
endforeach()
target_link_options(ipc_shortage_test PRIVATE -Wl,--wrap=_Znwm)
foreach(part kernel books connections peers shortage)
    target_link_options(ipc_${part}_test PRIVATE -Wl,--wrap=_ZN4VEXA3ipc8MayLogOfEPKNS0_11CredentialsE)
endforeach()

# For the world, which a fuzzer draws the steps of too, and for what counts memory.
foreach(part peers shortage simulation)
    target_include_directories(ipc_${part}_test PRIVATE "${PROJECT_SOURCE_DIR}/fuzz")
endforeach()
set(steps 1000000)
if(NM_SANITIZE)
    set(steps 100000)
endif()
target_compile_definitions(ipc_simulation_test PRIVATE STEPS=${steps})
