# SPDX-License-Identifier: Apache-2.0
nm_fuzzer(transport_fuzz SOURCES transport_fuzz.cpp USES vexa_ipc)

# For the integration tests' support/.
target_include_directories(transport_fuzz PRIVATE "${PROJECT_SOURCE_DIR}/tests/integration")
