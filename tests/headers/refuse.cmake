# Compiles a source without its fault, and with it (-DFAULT), where the message that its first line tells has to come.
# Called with -DCOMPILER=c++, -DINCLUDE=folder of the headers, -DSOURCE=file.
set(compile ${COMPILER} -std=c++17 -fsyntax-only -I${INCLUDE} -Woverloaded-virtual -Werror)
execute_process(COMMAND ${compile} ${SOURCE} RESULT_VARIABLE status ERROR_VARIABLE messages)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "does not compile without its fault:\n${messages}")
endif()
file(STRINGS ${SOURCE} first LIMIT_COUNT 1)
string(REGEX REPLACE "^// " "" expected "${first}")
execute_process(COMMAND ${compile} -DFAULT ${SOURCE} RESULT_VARIABLE status ERROR_VARIABLE messages)
string(FIND "${messages}" "${expected}" place)
if(status EQUAL 0 OR place EQUAL -1)
  message(FATAL_ERROR "the compiler does not say \"${expected}\" but:\n${messages}")
endif()
