# SPDX-License-Identifier: Apache-2.0
# A limit or a lock rank that is changed in the code alone.
add_test(NAME doc_tables
    COMMAND bash cmake/doc_tables.sh --check
    WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}")
# An error line that the page for its readers does not explain.
add_test(NAME doc_error_lines
    COMMAND bash cmake/error_lines.sh
    WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}")
# A link to a page, file or heading that has moved.
add_test(NAME doc_links
    COMMAND bash cmake/doc_links.sh
    WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}")
