# SPDX-License-Identifier: Apache-2.0
nm_test(service_engine_test
    SOURCES service_disk.cpp service_engine_test.cpp service_store_test.cpp service_tree_test.cpp
    USES migrate_engine vexa_testing nm_json nm_log vexa_json vexa_log vexa_base
    LINKS PkgConfig::SQLITE)

nm_test(service_requests_test
    SOURCES service_callbacks_test.cpp service_disk.cpp service_requests_test.cpp service_scenarios_test.cpp
    USES migrate_service migrate_engine vexa_testing nm_ipc nm_json nm_log vexa_ipc vexa_samgr vexa_want vexa_json
        vexa_log vexa_base
    LINKS PkgConfig::SQLITE)

# For its support/.
foreach(area engine requests)
    target_include_directories(service_${area}_test PRIVATE "${PROJECT_SOURCE_DIR}/tests/integration")
endforeach()

# The whole of it: manager, service, library and command line, with a death in the middle.
add_test(NAME service_demo COMMAND bash "${PROJECT_SOURCE_DIR}/tools/demo.sh")
set_tests_properties(service_demo PROPERTIES
    TIMEOUT 120 LABELS integration
    ENVIRONMENT_MODIFICATION "VEXA_RUNTIME_DIR=unset:;KOLOG_LEVEL=unset:;MIGRATE_THROTTLE=unset:;PATH=path_list_prepend:${PROJECT_BINARY_DIR}/bin")
