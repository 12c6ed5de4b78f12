# Installs the build tree BUILD_DIR into WORK_DIR/prefix, builds the host
# example in EXAMPLE_DIR against it and runs it on IMAGE. Fails on any step.
file(REMOVE_RECURSE ${WORK_DIR})

function(run_step what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${what} failed (${result}):\n${out}\n${err}")
  endif()
  set(step_output "${out}${err}" PARENT_SCOPE)
endfunction()

run_step("install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix)
run_step("configure the host" ${CMAKE_COMMAND} -S ${EXAMPLE_DIR} -B ${WORK_DIR}/build
         -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix -DCMAKE_BUILD_TYPE=Release)
run_step("build the host" ${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run_step("run the host" ${WORK_DIR}/build/host_example ${IMAGE})
if(NOT step_output MATCHES "name:readme.txt")
  message(FATAL_ERROR "the host did not list readme.txt:\n${step_output}")
endif()
message(STATUS "${step_output}")
