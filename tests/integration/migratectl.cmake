# SPDX-License-Identifier: Apache-2.0
add_test(NAME vexa_session_test COMMAND bash "${CMAKE_CURRENT_SOURCE_DIR}/vexa_session_test.sh")
add_test(NAME migratectl_test COMMAND bash "${CMAKE_CURRENT_SOURCE_DIR}/migratectl_test.sh")
add_test(NAME samgrd_test COMMAND bash "${CMAKE_CURRENT_SOURCE_DIR}/samgrd_test.sh")
set_tests_properties(migratectl_test vexa_session_test samgrd_test PROPERTIES
    TIMEOUT 120 LABELS integration
    ENVIRONMENT_MODIFICATION "VEXA_RUNTIME_DIR=unset:;KOLOG_LEVEL=set:error;PATH=path_list_prepend:${PROJECT_BINARY_DIR}/bin")
