# SPDX-License-Identifier: Apache-2.0
nm_program(migratectl
    SOURCES
        migratectl.cpp
        migratectl_migration.cpp
        migratectl_output.cpp
        migratectl_progress_view.cpp
        migratectl_reserve.cpp
        migratectl_watch.cpp
    USES native_migrate vexa_platform
    LINKS CLI11::CLI11)
target_compile_definitions(migratectl PRIVATE VEXA_VERSION="${PROJECT_VERSION}")
