# SPDX-License-Identifier: Apache-2.0
# The examples, built against an installed tree and run against the installed service.
add_test(NAME examples_test COMMAND bash "${CMAKE_CURRENT_SOURCE_DIR}/examples_test.sh"
    "${CMAKE_COMMAND}" "${PROJECT_SOURCE_DIR}" "${PROJECT_BINARY_DIR}" "${CMAKE_GENERATOR}" "${CMAKE_CXX_COMPILER}"
    "${NM_SANITIZE}")
set_tests_properties(examples_test PROPERTIES
    TIMEOUT 300 LABELS integration
    ENVIRONMENT_MODIFICATION "VEXA_RUNTIME_DIR=unset:;KOLOG_LEVEL=set:error;MIGRATE_THROTTLE=unset:")
