# SPDX-License-Identifier: Apache-2.0
# A limit or a lock rank that is changed in the code alone.
add_test(NAME doc_tables
    COMMAND bash cmake/doc_tables.sh --check
    WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}")
