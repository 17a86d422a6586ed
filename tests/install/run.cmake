# SPDX-License-Identifier: Apache-2.0
function(run)
    execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY OUTPUT_QUIET)
endfunction()
function(no_match what text pattern)
    if(text MATCHES "(${pattern})")
        message(SEND_ERROR "${what}: ${CMAKE_MATCH_1}")
    endif()
endfunction()

file(REMOVE_RECURSE "${WORK_DIR}")
run(${CMAKE_COMMAND} --install ${BUILD_TREE} --prefix ${WORK_DIR}/first)
file(RENAME "${WORK_DIR}/first" "${WORK_DIR}/prefix")
set(configure ${CMAKE_COMMAND} -G ${GENERATOR} -DCMAKE_CXX_COMPILER=${COMPILER} -S ${CONSUMER})

# By find_package.
run(${configure} -B ${WORK_DIR}/build -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/consumer)

# By pkg-config.
set(ENV{PKG_CONFIG_PATH} "${WORK_DIR}/prefix/${LIB_DIR}/pkgconfig")
execute_process(COMMAND pkg-config --cflags --libs vexa_testing OUTPUT_VARIABLE flags COMMAND_ERROR_IS_FATAL ANY)
separate_arguments(flags UNIX_COMMAND "${flags}")
run(${COMPILER} -std=c++17 ${CONSUMER}/main.cpp -o ${WORK_DIR}/by_pkg_config ${flags}
    -Wl,-rpath,${WORK_DIR}/prefix/${LIB_DIR})
run(${WORK_DIR}/by_pkg_config)

# By taking the tree in: the same names, no tests, and no warning that is an error. The libraries are not built once more:
# the program is linked as that build would, with those of this one.
set(taken_in "${WORK_DIR}/taken_in")
run(${configure} -B ${taken_in} -DSOURCE_TREE=${SOURCE_TREE} -DCMAKE_EXPORT_COMPILE_COMMANDS=ON)
file(READ "${taken_in}/compile_commands.json" commands)
no_match("compiled for who takes the tree in" "${commands}" "-Werror|/tests/unit/[^ ]*")
if(GENERATOR STREQUAL "Ninja")
    file(GLOB objects RELATIVE "${SOURCE_TREE}/platform/testing" "${SOURCE_TREE}/platform/testing/*.cpp")
    list(TRANSFORM objects REPLACE "(.+)"
        "_deps/native_migrate-build/platform/testing/CMakeFiles/vexa_testing.dir/\\1.o")
    run(ninja -C ${taken_in} CMakeFiles/consumer.dir/main.cpp.o ${objects})
    file(COPY "${BUILD_TREE}/lib/" DESTINATION "${taken_in}/_deps/native_migrate-build/lib"
        FILES_MATCHING PATTERN "*.so*")
    execute_process(COMMAND ninja -C ${taken_in} -t commands consumer OUTPUT_VARIABLE commands)
    string(REGEX MATCHALL "[^\n]*(qc [^ ]*libnm_testing_kit| -o consumer )[^\n]*" links "${commands}")
    foreach(link IN LISTS links)
        execute_process(COMMAND sh -c "${link}" WORKING_DIRECTORY "${taken_in}" COMMAND_ERROR_IS_FATAL ANY)
    endforeach()
    run(${taken_in}/consumer)
endif()

# Each program finds its libraries where it was moved to.
file(GLOB programs "${WORK_DIR}/prefix/${BIN_DIR}/*")
if(NOT programs)
    message(FATAL_ERROR "no programs are installed")
endif()
foreach(program IN LISTS programs)
    run(${program} --help)
endforeach()

# Nothing that is installed names the machine that built it, and the libraries export no instance of std's templates.
file(GLOB libraries "${WORK_DIR}/prefix/${LIB_DIR}/*.so")
foreach(library IN LISTS libraries)
    execute_process(COMMAND nm -DC --defined-only ${library} OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
    no_match("${library} exports" "${symbols}" " [A-Za-z] (typeinfo for |vtable for |[a-z]+ )?std::[^\n]*")
endforeach()
execute_process(COMMAND grep -rlF ${SOURCE_TREE} ${WORK_DIR}/prefix OUTPUT_VARIABLE naming)
no_match("has a path of the build" "${naming}" "${WORK_DIR}/prefix[^\n]*")

# What is installed can be removed again, except configuration. Other tests install from the same tree, but never by
# components, which leave lists of their own.
foreach(component libraries development programs)
    run(${CMAKE_COMMAND} --install ${BUILD_TREE} --prefix ${WORK_DIR}/native_migrate --component ${component})
endforeach()
run(${CMAKE_COMMAND} -DBUILD_TREE=${BUILD_TREE} -DKIND=_ -P ${SOURCE_TREE}/cmake/uninstall.cmake)
file(GLOB_RECURSE left "${WORK_DIR}/native_migrate/*")
no_match("left" "${left}" "${WORK_DIR}/native_migrate/[^e;][^;]*")
if(NOT EXISTS "${WORK_DIR}/native_migrate/etc/default/samgrd")
    message(SEND_ERROR "configuration has been removed")
endif()
