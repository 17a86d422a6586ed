# SPDX-License-Identifier: Apache-2.0
# What the pages for newcomers tell them to type and to write, done against an installed tree.
add_test(NAME docs_test COMMAND bash "${CMAKE_CURRENT_SOURCE_DIR}/docs_test.sh"
    "${CMAKE_COMMAND}" "${PROJECT_SOURCE_DIR}" "${PROJECT_BINARY_DIR}" "${CMAKE_GENERATOR}" "${CMAKE_CXX_COMPILER}"
    "${NM_SANITIZE}" README.md docs/tutorial.md docs/own-service.md docs/testing.md)
set_tests_properties(docs_test PROPERTIES
    TIMEOUT 300 LABELS integration
    ENVIRONMENT_MODIFICATION "VEXA_RUNTIME_DIR=unset:;KOLOG_LEVEL=unset:;MIGRATE_THROTTLE=unset:")
