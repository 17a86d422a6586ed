# SPDX-License-Identifier: Apache-2.0
nm_fuzzer(log_format_fuzz
    SOURCES log_format_fuzz.cpp
    USES vexa_log)
