# SPDX-License-Identifier: Apache-2.0
nm_test(want_test SOURCES want_test.cpp USES vexa_testing vexa_want vexa_ipc)
