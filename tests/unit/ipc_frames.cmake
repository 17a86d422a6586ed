# SPDX-License-Identifier: Apache-2.0
nm_test(ipc_frames_test SOURCES ipc_frames_test.cpp USES vexa_ipc)

# For its support/.
target_include_directories(ipc_frames_test PRIVATE "${PROJECT_SOURCE_DIR}/tests/integration")
