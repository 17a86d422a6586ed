# SPDX-License-Identifier: Apache-2.0
nm_test(ipc_simulation_test SOURCES ipc_simulation_test.cpp USES vexa_ipc)

# For the world, which a fuzzer draws the steps of too, and the integration tests' support/.
target_include_directories(ipc_simulation_test PRIVATE "${PROJECT_SOURCE_DIR}/fuzz" "${PROJECT_SOURCE_DIR}/tests/integration")
set(steps 1000000)
if(NM_SANITIZE)
    set(steps 100000)
endif()
target_compile_definitions(ipc_simulation_test PRIVATE STEPS=${steps})
