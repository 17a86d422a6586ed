# SPDX-License-Identifier: Apache-2.0
# What `cmake --install` lays down, in three components: `libraries`, which programs run with; `development`, which they
# are built with; `programs`, the manager, the service and the tools. What goes with the programs stands in packaging/.
include(CMakePackageConfigHelpers)

set(NM_PACKAGE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/native_migrate")

# `products`: what users run and link, without tests.
add_custom_target(products)
get_property(nm_programs GLOBAL PROPERTY NM_PROGRAMS)
foreach(product IN LISTS nm_programs ITEMS vexa_platform native_migrate vexa_testing)
    if(TARGET ${product})
        add_dependencies(products ${product})
    endif()
endforeach()

foreach(program IN LISTS nm_programs)
    get_property(nm_folder GLOBAL PROPERTY "NM_FOLDER_${program}")
    if(NOT nm_folder STREQUAL "examples")
        install(TARGETS ${program} RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT programs)
    endif()
endforeach()

file(GLOB nm_platform_headers LIST_DIRECTORIES true "${PROJECT_SOURCE_DIR}/platform/*/include/vexa")
install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/" ${nm_platform_headers}
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT development FILES_MATCHING PATTERN "*.h")

# A shared library goes to `libraries`, the link that names it for the linker to `development`.
set(nm_library_places
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT libraries NAMELINK_COMPONENT development
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development)

if(TARGET vexa_testing AND TARGET vexa_platform)
    set_target_properties(vexa_testing PROPERTIES EXPORT_NAME testing)
    # In this tree its users choose between the platform's objects and the shared library; outside there is only one.
    target_link_libraries(vexa_testing INTERFACE $<INSTALL_INTERFACE:vexa::platform>)
    target_include_directories(vexa_testing PUBLIC $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    set(nm_testing vexa_testing)
endif()
if(TARGET vexa_platform)
    install(TARGETS vexa_platform ${nm_testing} EXPORT vexa_targets ${nm_library_places})
    install(EXPORT vexa_targets NAMESPACE vexa:: DESTINATION "${NM_PACKAGE_DIR}" COMPONENT development)
endif()
if(TARGET native_migrate)
    install(TARGETS native_migrate EXPORT native_migrate_targets ${nm_library_places})
    install(EXPORT native_migrate_targets NAMESPACE native_migrate:: DESTINATION "${NM_PACKAGE_DIR}"
        COMPONENT development)

    configure_package_config_file("${CMAKE_CURRENT_LIST_DIR}/native_migrate-config.cmake.in"
        "${PROJECT_BINARY_DIR}/native_migrate-config.cmake" INSTALL_DESTINATION "${NM_PACKAGE_DIR}")
    write_basic_package_version_file("${PROJECT_BINARY_DIR}/native_migrate-config-version.cmake"
        COMPATIBILITY SameMinorVersion)
    install(FILES "${PROJECT_BINARY_DIR}/native_migrate-config.cmake"
        "${PROJECT_BINARY_DIR}/native_migrate-config-version.cmake" DESTINATION "${NM_PACKAGE_DIR}"
        COMPONENT development)

    # The prefix is found from the file's own place, so that an installed tree may be moved.
    file(RELATIVE_PATH NM_PC_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
    foreach(name native_migrate vexa_testing)
        configure_file("${CMAKE_CURRENT_LIST_DIR}/${name}.pc.in" "${PROJECT_BINARY_DIR}/${name}.pc" @ONLY)
        install(FILES "${PROJECT_BINARY_DIR}/${name}.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
            COMPONENT development)
    endforeach()
endif()

add_custom_target(uninstall
    COMMAND ${CMAKE_COMMAND} -DBUILD_TREE=${PROJECT_BINARY_DIR} -P "${CMAKE_CURRENT_LIST_DIR}/uninstall.cmake")
