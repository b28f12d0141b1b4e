# A host under the thread sanitizer uses the library as it is installed: no report, and one when the host has a race.
# Called with -DCOMPILER=c++, -DINCLUDE=folder of the headers, -DLIBRARY=the library, -DSOURCE=this folder,
# -DWORK=scratch folder.
file(MAKE_DIRECTORY ${WORK})
get_filename_component(folder ${LIBRARY} DIRECTORY)
foreach(race "" -DRACE)
  set(program ${WORK}/host${race})
  execute_process(COMMAND ${COMPILER} -std=c++17 -g -O1 -fsanitize=thread ${race} -I${INCLUDE} ${SOURCE}/host.cpp
                          ${LIBRARY} -Wl,-rpath,${folder} -pthread -o ${program}
                  RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "the host does not build")
  endif()
  execute_process(COMMAND ${CMAKE_COMMAND} -E env "TSAN_OPTIONS=exitcode=66" ${program}
                  RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE reports)
  if(race STREQUAL "" AND NOT status EQUAL 0)
    message(FATAL_ERROR "a correct host ended with ${status}:\n${output}${reports}")
  elseif(race AND NOT reports MATCHES "data race")
    message(FATAL_ERROR "a race of the host was not reported (${status})")
  endif()
endforeach()
