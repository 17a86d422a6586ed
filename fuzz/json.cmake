# SPDX-License-Identifier: Apache-2.0
nm_fuzzer(json_fuzz
    SOURCES json_fuzz.cpp
    USES nm_json nm_log vexa_json vexa_log)
