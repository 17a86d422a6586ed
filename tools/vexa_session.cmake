# SPDX-License-Identifier: Apache-2.0
nm_program(vexa-session SOURCES vexa_session.cpp USES vexa_program LINKS CLI11::CLI11)
add_dependencies(vexa-session samgrd)
target_compile_definitions(vexa-session PRIVATE VEXA_VERSION="${PROJECT_VERSION}")
