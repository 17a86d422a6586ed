# SPDX-License-Identifier: Apache-2.0
# The transport between real processes. The program holds the transport's objects, so that its tables can be asked.
nm_test(ipc_processes_test SOURCES ipc_processes_test.cpp USES vexa_ipc LABELS integration)
