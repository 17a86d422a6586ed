# SPDX-License-Identifier: Apache-2.0
# The library itself, made of its components.
if(TARGET nm_kits AND TARGET vexa_platform)
    nm_shared_library(native_migrate EXPORT_NAME native_migrate
        COMPONENTS ${NM_LIBRARY_COMPONENTS}
        PUBLIC vexa_platform)
    target_include_directories(native_migrate PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
endif()
