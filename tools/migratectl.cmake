# SPDX-License-Identifier: Apache-2.0
# The commands stand apart from main, so that a test can run them against a service of its own.
nm_component(migratectl_commands STATIC
    SOURCES
        migratectl_notices.cpp
        migratectl_output.cpp
        migratectl_progress_view.cpp
        migratectl_rows.cpp
        migratectl_run.cpp
        migratectl_show.cpp
        migratectl_table.cpp
        migratectl_text.cpp
        migratectl_watch.cpp
    USES nm_json_binding vexa_program vexa_json vexa_samgr vexa_want vexa_ipc vexa_log vexa_base
    LINKS CLI11::CLI11)
target_compile_definitions(migratectl_commands PRIVATE VEXA_VERSION="${PROJECT_VERSION}")
nm_program(migratectl SOURCES migratectl.cpp USES migratectl_commands nm_json_binding native_migrate vexa_platform)
