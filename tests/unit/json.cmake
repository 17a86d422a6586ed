# SPDX-License-Identifier: Apache-2.0
nm_test(json_test
    SOURCES json_bind_test.cpp json_context_test.cpp
    USES vexa_testing nm_json nm_log vexa_json vexa_log)
target_link_options(json_test PRIVATE -Wl,--wrap=_ZnwmRKSt9nothrow_t)
