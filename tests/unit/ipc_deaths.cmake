# SPDX-License-Identifier: Apache-2.0
nm_test(ipc_deaths_test SOURCES ipc_deaths_test.cpp USES vexa_ipc)
