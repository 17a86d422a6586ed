# SPDX-License-Identifier: Apache-2.0
# How everything is compiled and where it goes. The build tree has the layout of the installed one
# (bin, lib, share), so programs find each other the same way in both.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/lib")
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/lib")
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
set(CMAKE_INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

if(PROJECT_IS_TOP_LEVEL AND NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE Release CACHE STRING "" FORCE)
endif()
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")

find_program(NM_CCACHE ccache)
if(NM_CCACHE AND NOT DEFINED CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_CXX_COMPILER_LAUNCHER "${NM_CCACHE}")
endif()

find_package(Threads REQUIRED)
include(CheckPIESupported)
check_pie_supported()

# Every target of ours links this: the warnings, the hardening and the sanitizers. What is compiled holds no path of the
# machine that compiled it, so that two builds in two folders are equal.
add_library(nm_settings INTERFACE)
target_compile_options(nm_settings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion
    $<$<BOOL:${NM_WERROR}>:-Werror>
    "-ffile-prefix-map=${PROJECT_BINARY_DIR}=build" "-ffile-prefix-map=${PROJECT_SOURCE_DIR}=."
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
# Inline code of ours checks the order of mutexes everywhere or nowhere; a consumer's never does.
target_compile_definitions(nm_settings INTERFACE
    $<$<NOT:$<CONFIG:Release,RelWithDebInfo,MinSizeRel>>:VEXA_CHECK_LOCK_ORDER>)
target_link_libraries(nm_settings INTERFACE Threads::Threads)
if(NM_SANITIZE)
    target_compile_options(nm_settings INTERFACE -fsanitize=${NM_SANITIZE} -fno-sanitize-recover=all
        -fno-omit-frame-pointer -g)
    target_link_options(nm_settings INTERFACE -fsanitize=${NM_SANITIZE})
else()
    target_compile_options(nm_settings INTERFACE -fstack-protector-strong
        $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
    target_link_options(nm_settings INTERFACE -Wl,-z,relro,-z,now,-z,defs)
endif()
