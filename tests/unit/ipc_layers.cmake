# SPDX-License-Identifier: Apache-2.0
foreach(part kernel books connections peers shortage runtime_watch trace)
    nm_test(ipc_${part}_test SOURCES ipc_${part}_test.cpp USES vexa_ipc)
    # For its support/.
    target_include_directories(ipc_${part}_test PRIVATE "${PROJECT_SOURCE_DIR}/tests/integration")
endforeach()
target_link_options(ipc_shortage_test PRIVATE -Wl,--wrap=_Znwm)
