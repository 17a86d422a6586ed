# SPDX-License-Identifier: Apache-2.0
# The library itself, made of its components, and the names by which other projects know what they may link: the same
# for the installed package and for a project that takes this tree in.
if(TARGET nm_kits AND TARGET vexa_platform)
    nm_shared_library(native_migrate EXPORT_NAME native_migrate
        COMPONENTS ${NM_LIBRARY_COMPONENTS}
        PUBLIC vexa_platform)
    target_include_directories(native_migrate PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

    add_library(native_migrate::native_migrate ALIAS native_migrate)
    add_library(vexa::platform ALIAS vexa_platform)
    # Within this tree users of the testing kit choose what it stands on; for others that is the shared library.
    add_library(nm_testing_kit STATIC EXCLUDE_FROM_ALL $<TARGET_OBJECTS:vexa_testing>)
    set_target_properties(nm_testing_kit PROPERTIES LINKER_LANGUAGE CXX)
    target_include_directories(nm_testing_kit INTERFACE $<TARGET_PROPERTY:vexa_testing,INTERFACE_INCLUDE_DIRECTORIES>)
    target_link_libraries(nm_testing_kit PUBLIC vexa_platform)
    add_library(vexa::testing ALIAS nm_testing_kit)
endif()
