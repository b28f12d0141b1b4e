# Runs an example and compares its exit status and all that it says.
# Called with -DEXAMPLE=its name, -DPROGRAM=its path, -DWORK=scratch folder.

# check(status input output [arguments...]): the output is that of both streams; what the variable
# mask matches in it becomes N.
function(check status input output)
  file(WRITE ${WORK}/input "${input}")
  execute_process(COMMAND ${PROGRAM} ${ARGN} INPUT_FILE ${WORK}/input WORKING_DIRECTORY ${WORK}
                  RESULT_VARIABLE gotStatus OUTPUT_VARIABLE got ERROR_VARIABLE got)
  if(DEFINED mask)
    string(REGEX REPLACE "${mask}" "N" got "${got}")
  endif()
  if(NOT gotStatus STREQUAL status OR NOT got STREQUAL output)
    message(FATAL_ERROR "${EXAMPLE} ${ARGN} ended with ${gotStatus}, not ${status}, and said\n"
                        "${got}\nnot\n${output}")
  endif()
endfunction()

# check_file(name content): what an example has written.
function(check_file name content)
  file(READ ${WORK}/${name} got)
  if(NOT got STREQUAL content)
    message(FATAL_ERROR "${EXAMPLE} wrote into ${name}\n${got}\nnot\n${content}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})

if(EXAMPLE STREQUAL "byte_stream")
  set(lines "ferry\nharbour lights\n\ntide\nno end")
  check(0 "${lines}" "ferry (put together)\nharbour lights (put together)\n (in place)\n\
tide (put together)\nno end (without a line feed)\n" 1)
  check(0 "${lines}" "ferry (in place)\nharbour lights (put together)\n (in place)\n\
tide (put together)\nno end (without a line feed)\n" 8)
  check(0 "${lines}" "ferry (in place)\nharbour lights (in place)\n (in place)\n\
tide (in place)\nno end (without a line feed)\n" 100)
  check(0 "four\n" "four (in place)\n" 5)  # The last buffer is full, and one without a byte follows.
  check(0 "" "")
  check(2 "" "usage: byte_stream [BYTES]\n" none)

elseif(EXAMPLE STREQUAL "front_end_client")
  check(2 "" "usage: front_end_client HOST PORT PASSWORD\n" localhost)
  check(1 "" "front_end_client: Connection refused\n" 127.0.0.1 1 secret)

elseif(EXAMPLE STREQUAL "messages")
  set(ENV{KP_INSTALLDIR} ${WORK})
  check(1 "" "messages: KP_INSTALLDIR must name a directory with logs/ in it\n")
  file(MAKE_DIRECTORY ${WORK}/logs)
  check(0 "" "filter tcp
  settings does not know it
  filter deals with it
clients 9
  settings does not know it
  filter does not know it
  days does not know it
  clients deals with it
midnight 1
  settings does not know it
  filter does not know it
  days does not know it
  clients does not know it
  nobody deals with it
")
  file(STRINGS ${WORK}/logs/messages.log log)
  if(NOT log MATCHES "^[^;]* - nobody deals with the message midnight 1$")
    message(FATAL_ERROR "the log says ${log}")
  endif()

elseif(EXAMPLE STREQUAL "options")
  file(WRITE ${WORK}/site.cfg "# of the harbour\ndevice = eth0\ndays=30\n")
  check(0 "" "eth0\n" site.cfg device)
  check(0 "" "" site.cfg days 7)
  check(0 "" "" site.cfg filter "tcp port 80")
  check_file(site.cfg "device=eth0\ndays=7\nfilter=tcp port 80\n")
  check(0 "" "tcp port 80\n" site.cfg filter)
  check(1 "" "options: there is no colour\n" site.cfg colour)
  check(1 "" "options: a file cannot hold such a days\n" site.cfg days "7 # a week")
  check(1 "" "options: cannot read none.cfg\n" none.cfg days)
  check(2 "" "usage: options FILE NAME [VALUE]\n" site.cfg)
  string(REPEAT x 248 long)
  check(0 "" "" site.cfg filter "${long}")  # The longest line that a file can hold.
  check(0 "" "${long}\n" site.cfg filter)
  check(1 "" "options: a file cannot hold such a filter\n" site.cfg filter "${long}x")

elseif(EXAMPLE STREQUAL "reset_thread")
  # A time zone in which it is noon: no midnight comes while this runs.
  string(TIMESTAMP hour "%H" UTC)
  math(EXPR west "1${hour} - 112")
  set(ENV{TZ} "NOON${west}")
  set(mask "^[34][0-9][0-9][0-9][0-9]")
  check(0 "one\ntwo\n" "N seconds to midnight\n2 visits since midnight or the start\n")
  check(0 "one\n\nthree\n" "N seconds to midnight\n1 visits since midnight or the start\n")

elseif(EXAMPLE STREQUAL "thread_pool")
  file(WRITE ${WORK}/one "ferry  harbour\n\tlights")
  file(WRITE ${WORK}/none "\n")
  string(REPEAT "word " 100000 words)
  file(WRITE ${WORK}/many "${words}")
  check(0 "" "       3 one\n       0 none\n  100000 many\n  100003 in all\n" one none many)
  set(output "")
  set(files "")
  foreach(i RANGE 1 40)  # More tasks than workers.
    list(APPEND files one)
    string(APPEND output "       3 one\n")
  endforeach()
  check(0 "" "${output}     120 in all\n" ${files})
  check(1 "" "thread_pool: cannot read all of lost\n       0 lost\n       3 one\n       3 in all\n"
        lost one)
  check(2 "" "usage: thread_pool FILE...\n")

else()
  message(FATAL_ERROR "no test of ${EXAMPLE}")
endif()
