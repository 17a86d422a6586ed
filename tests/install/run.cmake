# SPDX-License-Identifier: Apache-2.0
function(run)
    execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY OUTPUT_QUIET)
endfunction()

file(REMOVE_RECURSE "${WORK_DIR}")
run(${CMAKE_COMMAND} --install ${BUILD_TREE} --prefix ${WORK_DIR}/first)
file(RENAME "${WORK_DIR}/first" "${WORK_DIR}/prefix")

run(${CMAKE_COMMAND} -G ${GENERATOR} -S ${CONSUMER} -B ${WORK_DIR}/build
    -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix -DCMAKE_CXX_COMPILER=${COMPILER})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/consumer)

# Each program finds its libraries where it was moved to.
file(GLOB programs "${WORK_DIR}/prefix/${BIN_DIR}/*")
if(NOT programs)
    message(FATAL_ERROR "no programs are installed")
endif()
foreach(program IN LISTS programs)
    run(${program} --help)
endforeach()
