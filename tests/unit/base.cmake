# SPDX-License-Identifier: Apache-2.0
nm_test(base_test
    SOURCES base_lock_rank_test.cpp
    USES vexa_base)
