# SPDX-License-Identifier: Apache-2.0
# The functions that every folder's CMakeLists.txt is written with.
#
#   nm_component(<target> [STATIC] SOURCES ... [INCLUDE <public folder>...] [USES <component>...] [HIDES <component>...]
#                [LINKS <library>...])
#     An object library (STATIC, or vexa_testing: an archive). It compiles with its own folder, the public folders of
#     what it USES and, in the library, with include/. Without INCLUDE its own folder is its public one. It also uses what
#     it HIDES, whose folders it does not show to those that use it.
#   nm_program(<target> SOURCES ... [USES <component or library>...] [LINKS <library>...])
#     A program in bin, installed. Platform components are linked as libvexa_platform, others as objects.
#   nm_test(<name> SOURCES ... [USES <component or library>...] [LINKS <library>...]
#           [PROGRAMS <program target>...] [TIMEOUT <seconds>] [LABELS <label>...] [SERIAL])
#     A GoogleTest program, main included, run by ctest. Components are linked as objects, so that hidden classes can
#     be tested, and their private headers are in reach. Where vexa_platform or native_migrate is named, that shared
#     library stands for all its components. PROGRAMS are built first and found on PATH.
#   nm_test_program(<target> SOURCES ... [USES ...] [LINKS ...] [PROGRAMS ...])
#     A program that tests run, in tests/bin beside them; linked as a test is, without a main of ours.
#   nm_bench(<name> SOURCES ... [USES ...] [LINKS ...] [PROGRAMS ...])   a Google Benchmark program, main included
#   nm_fuzzer(<name> SOURCES ... [USES ...] [LINKS ...])                 a libFuzzer program
#
# USES is transitive: name what the sources include. What may be used stands in IncludeRules.cmake.

# What the two shared libraries are made of.
list(TRANSFORM NM_TRANSPORT_LAYERS PREPEND vexa_ipc_ OUTPUT_VARIABLE nm_transport)
set(NM_PLATFORM_COMPONENTS
    vexa_base vexa_log vexa_json vexa_ipc_objects ${nm_transport} vexa_ipc vexa_want vexa_samgr)
set(NM_LIBRARY_COMPONENTS nm_log nm_json_binding nm_json nm_ipc nm_kits nm_sa_load)

# Adds the folders that have a CMakeLists.txt.
function(nm_add_folders)
    foreach(folder IN LISTS ARGN)
        if(EXISTS "${CMAKE_CURRENT_SOURCE_DIR}/${folder}/CMakeLists.txt")
            add_subdirectory(${folder})
        endif()
    endforeach()
endfunction()

function(nm_interface target)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "FOLDER" "INCLUDE")
    add_library(${target} INTERFACE)
    target_include_directories(${target} INTERFACE ${ARG_INCLUDE})
    set_property(GLOBAL PROPERTY "NM_FOLDER_${target}" ${ARG_FOLDER})
endfunction()

# The components reached from the given ones, each once, themselves included; other libraries are left out.
function(nm_closure out)
    set(todo ${ARGN})
    set(seen)
    get_property(components GLOBAL PROPERTY NM_COMPONENTS)
    while(todo)
        list(POP_FRONT todo target)
        if(target IN_LIST components AND NOT target IN_LIST seen)
            list(APPEND seen ${target})
            get_property(uses GLOBAL PROPERTY "NM_USES_${target}")
            list(APPEND todo ${uses})
        endif()
    endwhile()
    set(${out} ${seen} PARENT_SCOPE)
endfunction()

# Within one folder of the rules, targets see each other's private headers.
function(nm_see_own_folder target)
    get_property(folder GLOBAL PROPERTY "NM_FOLDER_${target}")
    foreach(used IN LISTS ARGN)
        get_property(used_folder GLOBAL PROPERTY "NM_FOLDER_${used}")
        if(used_folder STREQUAL folder)
            target_include_directories(${target} PRIVATE $<TARGET_PROPERTY:${used},INCLUDE_DIRECTORIES>)
        endif()
    endforeach()
endfunction()

function(nm_register target)
    set_property(GLOBAL PROPERTY "NM_USES_${target}" ${ARGN})
    nm_rule_folder(folder "${CMAKE_CURRENT_SOURCE_DIR}")
    set_property(GLOBAL PROPERTY "NM_FOLDER_${target}" ${folder})
    nm_check_uses(${target} ${folder} ${ARGN})
    foreach(used IN LISTS ARGN)
        if(NOT TARGET ${used} AND NOT used MATCHES "^(vexa_platform|native_migrate)$")
            message(FATAL_ERROR "${target}: uses ${used}, which no folder before it defines.")
        endif()
    endforeach()
endfunction()

# The library's own folders, service/ and tools/ may include include/; the platform may not.
function(nm_add_public out target)
    set(uses ${ARGN})
    nm_rule_folder(folder "${CMAKE_CURRENT_SOURCE_DIR}")
    if(NOT folder MATCHES "^platform")
        list(APPEND uses nm_public)
    endif()
    list(REMOVE_DUPLICATES uses)
    set(${out} ${uses} PARENT_SCOPE)
endfunction()

function(nm_component target)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "STATIC" "" "SOURCES;INCLUDE;USES;HIDES;LINKS")
    nm_add_public(uses ${target} ${ARG_USES})
    if(ARG_STATIC OR target STREQUAL "vexa_testing")
        add_library(${target} STATIC)
    else()
        add_library(${target} OBJECT)
    endif()
    if(NOT ARG_SOURCES)
        # Headers alone: the target still needs something to compile.
        set(ARG_SOURCES "${CMAKE_CURRENT_BINARY_DIR}/${target}_headers_only.cpp")
        file(CONFIGURE OUTPUT "${ARG_SOURCES}" CONTENT "// Headers only.\n")
    endif()
    target_sources(${target} PRIVATE ${ARG_SOURCES})
    nm_register(${target} ${uses} ${ARG_HIDES})
    set_property(GLOBAL APPEND PROPERTY NM_COMPONENTS ${target})
    nm_closure(closure ${target})
    list(APPEND closure nm_public)
    set_property(GLOBAL PROPERTY "NM_CLOSURE_${target}" ${closure})
    set_property(GLOBAL PROPERTY "NM_LINKS_${target}" ${ARG_LINKS})
    set_property(GLOBAL PROPERTY "NM_INCLUDE_${target}" ${ARG_INCLUDE})

    if(NOT ARG_INCLUDE)
        set(ARG_INCLUDE ".")
    endif()
    foreach(directory IN LISTS ARG_INCLUDE)
        cmake_path(ABSOLUTE_PATH directory BASE_DIRECTORY "${CMAKE_CURRENT_SOURCE_DIR}" NORMALIZE)
        target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${directory}>)
    endforeach()
    target_include_directories(${target} PRIVATE $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}>)
    foreach(used IN LISTS uses)
        target_include_directories(${target} PUBLIC
            $<BUILD_INTERFACE:$<TARGET_PROPERTY:${used},INTERFACE_INCLUDE_DIRECTORIES>>)
    endforeach()
    foreach(hidden IN LISTS ARG_HIDES)
        target_include_directories(${target} PRIVATE $<TARGET_PROPERTY:${hidden},INTERFACE_INCLUDE_DIRECTORIES>)
    endforeach()
    nm_see_own_folder(${target} ${uses})
    target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:nm_settings> ${ARG_LINKS})
endfunction()

# Links into an executable what it uses: components as objects, or the shared library that holds them.
# LIBRARIES are the shared libraries to link for their components even when they are not named.
function(nm_link target)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "LIBRARIES;USES;LINKS")
    set(libraries ${ARG_LIBRARIES})
    foreach(used IN LISTS ARG_USES)
        if(used MATCHES "^(vexa_platform|native_migrate)$")
            list(APPEND libraries ${used})
        endif()
    endforeach()
    if("native_migrate" IN_LIST libraries)
        list(APPEND libraries vexa_platform)
    endif()
    list(REMOVE_DUPLICATES libraries)

    nm_closure(closure ${ARG_USES})
    get_property(components GLOBAL PROPERTY NM_COMPONENTS)
    set(statics)
    foreach(used IN LISTS ARG_USES)
        if(used IN_LIST components)
            target_include_directories(${target} PRIVATE $<TARGET_PROPERTY:${used},INTERFACE_INCLUDE_DIRECTORIES>)
        endif()
    endforeach()
    foreach(component IN LISTS closure)
        get_target_property(type ${component} TYPE)
        if(type STREQUAL "STATIC_LIBRARY")
            list(APPEND statics ${component})
        elseif("vexa_platform" IN_LIST libraries AND component IN_LIST NM_PLATFORM_COMPONENTS)
            continue()
        elseif("native_migrate" IN_LIST libraries AND component IN_LIST NM_LIBRARY_COMPONENTS
                AND NOT component IN_LIST ARG_USES)
            continue()
        else()
            target_sources(${target} PRIVATE $<TARGET_OBJECTS:${component}>)
        endif()
        get_property(links GLOBAL PROPERTY "NM_LINKS_${component}")
        target_link_libraries(${target} PRIVATE ${links})
    endforeach()
    foreach(used IN LISTS ARG_USES)
        if(NOT used IN_LIST components AND NOT used IN_LIST libraries)
            target_link_libraries(${target} PRIVATE ${used})
        endif()
    endforeach()
    target_link_libraries(${target} PRIVATE nm_settings ${statics} ${libraries} ${ARG_LINKS})
endfunction()

function(nm_program target)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "SOURCES;USES;LINKS")
    nm_add_public(uses ${target} ${ARG_USES})
    add_executable(${target} ${ARG_SOURCES})
    nm_register(${target} ${uses})
    set_property(GLOBAL APPEND PROPERTY NM_PROGRAMS ${target})
    nm_closure(closure ${uses})
    list(APPEND closure nm_public)
    set_property(GLOBAL PROPERTY "NM_CLOSURE_${target}" ${closure})
    target_include_directories(${target} PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}")
    nm_see_own_folder(${target} ${uses})
    nm_link(${target} LIBRARIES vexa_platform USES ${uses} LINKS ${ARG_LINKS})
endfunction()

# Also what tests, benchmarks and fuzzers have in common: everything may be used, private headers are in reach.
function(nm_test_program target)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "SOURCES;USES;LINKS;PROGRAMS")
    add_executable(${target} ${ARG_SOURCES})
    nm_register(${target} ${ARG_USES})
    target_include_directories(${target} PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}")
    nm_closure(closure ${ARG_USES})
    foreach(component IN LISTS closure)
        target_include_directories(${target} PRIVATE $<TARGET_PROPERTY:${component},INCLUDE_DIRECTORIES>)
    endforeach()
    nm_link(${target} USES ${ARG_USES} nm_public LINKS ${ARG_LINKS})
    target_compile_definitions(${target} PRIVATE NM_TEST_DATA_DIR="${PROJECT_SOURCE_DIR}/tests/data")
    set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/tests/bin")
    if(ARG_PROGRAMS)
        add_dependencies(${target} ${ARG_PROGRAMS})
    endif()
endfunction()

# The runtime directory and log level of whoever runs the tests stay out of them: a test that makes no runtime
# directory of its own reaches no manager.
function(nm_isolate_test name)
    set(environment
        VEXA_RUNTIME_DIR=unset:
        KOLOG_LEVEL=unset:
        XDG_RUNTIME_DIR=set:${PROJECT_BINARY_DIR}/no-runtime-dir
        PATH=path_list_prepend:${PROJECT_BINARY_DIR}/bin)
    set_tests_properties(${name} PROPERTIES ENVIRONMENT_MODIFICATION "${environment}")
endfunction()

function(nm_test name)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "SERIAL" "TIMEOUT" "SOURCES;USES;LINKS;PROGRAMS;LABELS")
    nm_test_program(${name} SOURCES ${ARG_SOURCES} USES ${ARG_USES} LINKS ${ARG_LINKS} GTest::gmock_main
        PROGRAMS ${ARG_PROGRAMS})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 120)
    endif()
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES
        TIMEOUT ${ARG_TIMEOUT}
        LABELS "${ARG_LABELS}"
        RUN_SERIAL "${ARG_SERIAL}")
    nm_isolate_test(${name})
endfunction()

function(nm_bench name)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "SOURCES;USES;LINKS;PROGRAMS")
    nm_test_program(${name} SOURCES ${ARG_SOURCES} USES ${ARG_USES} PROGRAMS ${ARG_PROGRAMS}
        LINKS ${ARG_LINKS} benchmark::benchmark_main benchmark::benchmark)
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bench")
endfunction()

function(nm_fuzzer name)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "SOURCES;USES;LINKS")
    nm_test_program(${name} SOURCES ${ARG_SOURCES} USES ${ARG_USES} LINKS ${ARG_LINKS})
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/fuzz")
endfunction()

# Before 1.0 a minor version may break the interface, so its number is part of the library's name.
set(NM_SOVERSION ${PROJECT_VERSION_MAJOR})
if(NM_SOVERSION EQUAL 0)
    set(NM_SOVERSION 0.${PROJECT_VERSION_MINOR})
endif()

# A shared library made of components. PUBLIC lists the shared libraries its users see too.
function(nm_shared_library target)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "EXPORT_NAME" "COMPONENTS;PUBLIC;LINKS")
    add_library(${target} SHARED)
    set(links)
    foreach(component IN LISTS ARG_COMPONENTS)
        if(TARGET ${component})
            target_sources(${target} PRIVATE $<TARGET_OBJECTS:${component}>)
            get_property(component_links GLOBAL PROPERTY "NM_LINKS_${component}")
            list(APPEND links ${component_links})
        endif()
    endforeach()
    list(REMOVE_DUPLICATES links)
    target_link_libraries(${target} PUBLIC ${ARG_PUBLIC} PRIVATE $<BUILD_INTERFACE:nm_settings> ${links} ${ARG_LINKS})
    # The code stays mapped once loaded: death recipients and singletons that are never destroyed point into it.
    target_link_options(${target} PRIVATE -Wl,-z,nodelete)
    string(TOUPPER "${target}_${NM_SOVERSION}" node)
    set(map "${CMAKE_CURRENT_BINARY_DIR}/${target}.map")
    configure_file("${PROJECT_SOURCE_DIR}/cmake/exports.map.in" "${map}" @ONLY)
    target_link_options(${target} PRIVATE "-Wl,--version-script=${map}")
    set_property(TARGET ${target} PROPERTY LINK_DEPENDS "${map}")
    # Its headers need no more than this, whatever the library itself is compiled as.
    target_compile_features(${target} INTERFACE cxx_std_17)
    set_target_properties(${target} PROPERTIES
        LINKER_LANGUAGE CXX
        VERSION ${PROJECT_VERSION}
        SOVERSION ${NM_SOVERSION}
        INSTALL_RPATH "$ORIGIN"
        EXPORT_NAME ${ARG_EXPORT_NAME})
endfunction()
