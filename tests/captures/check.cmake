# Makes an installation in WORK and has one of the scripts, CHECK, check kp-capture in it.
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})
file(WRITE ${WORK}/password "secret\n")
execute_process(
  COMMAND ${CONFIGURE} --dir ${WORK} --range 10.0.0.0/24 --password-file ${WORK}/password --port 24871
  COMMAND_ERROR_IS_FATAL ANY OUTPUT_QUIET)
execute_process(
  COMMAND ${CMAKE_COMMAND} -E env PYTHONDONTWRITEBYTECODE=1
          ${PYTHON} ${CMAKE_CURRENT_LIST_DIR}/${CHECK}.py --check ${CAPTURE} ${WORK}
  COMMAND_ERROR_IS_FATAL ANY)
file(REMOVE_RECURSE ${WORK})
