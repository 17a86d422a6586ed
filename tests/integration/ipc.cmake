# SPDX-License-Identifier: Apache-2.0
# The transport between real processes. The program holds the transport's objects, so that its tables can be asked.
nm_test(ipc_processes_test SOURCES ipc_processes_test.cpp USES vexa_ipc LABELS integration)

# By how much a process may grow over many passes. AddressSanitizer keeps up to 256 MiB of freed memory from being used
# again, and ThreadSanitizer's own books grow with each new object; without them it is for the allocator's arenas.
set(slack_mebibytes 4)
if(NM_SANITIZE)
    set(slack_mebibytes 256)
endif()
target_compile_definitions(ipc_processes_test PRIVATE SLACK_MEBIBYTES=${slack_mebibytes})
