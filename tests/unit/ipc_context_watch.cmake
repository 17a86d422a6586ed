# SPDX-License-Identifier: Apache-2.0
nm_test(ipc_context_watch_test SOURCES ipc_context_watch_test.cpp USES vexa_ipc)

# For its support/.
target_include_directories(ipc_context_watch_test PRIVATE "${PROJECT_SOURCE_DIR}/tests/integration")
