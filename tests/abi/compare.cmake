# Compares what the library exports with the reviewed list, or writes that list anew.
# Called with -DNM=nm, -DLIBRARY=the library, -DLIST=the list, and -DUPDATE=1 to write it.
# The list has functions (T), those of the class templates that the library instantiates for its users (W), and class
# data (V), of tables of virtual operations with their size, all by their mangled names. Copies of other inline functions
# depend on the compiler's taste and are no promise.
execute_process(COMMAND ${NM} -D --defined-only --format=posix ${LIBRARY}
                OUTPUT_VARIABLE output RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "cannot read the symbols of ${LIBRARY}")
endif()
string(REPLACE "\n" ";" lines "${output}")
set(symbols)
foreach(line IN LISTS lines)
  if(line MATCHES "^(_ZTV[^ ]+) V [^ ]+ ([0-9a-f]+)")
    list(APPEND symbols "V ${CMAKE_MATCH_1} ${CMAKE_MATCH_2}")
  elseif(line MATCHES "^([^ ]+) ([TV]) ")
    list(APPEND symbols "${CMAKE_MATCH_2} ${CMAKE_MATCH_1}")
  elseif(line MATCHES "^(_ZNK?[0-9]+KP_(Named)?(Link|List)I[^ ]+) W ")
    list(APPEND symbols "W ${CMAKE_MATCH_1}")
  endif()
endforeach()
list(SORT symbols)
if(UPDATE)
  list(JOIN symbols "\n" text)
  file(WRITE ${LIST} "${text}\n")
  return()
endif()

file(STRINGS ${LIST} reviewed)
set(missing ${reviewed})
list(REMOVE_ITEM missing ${symbols})
set(added ${symbols})
list(REMOVE_ITEM added ${reviewed})
if(missing OR added)
  list(JOIN missing "\n  " missing)
  list(JOIN added "\n  " added)
  message(FATAL_ERROR "The exported symbols are not those of ${LIST}.\n"
    "missing (host programs that use them will not start; raise KP_SOVERSION in CMakeLists.txt, or bring them back):\n"
    "  ${missing}\n"
    "added (is each one meant to be public?):\n  ${added}\n"
    "c++filt tells their names. When the change is meant, write the list anew and let it be reviewed:\n"
    "  cmake --build BUILD --target kp-abi-list")
endif()
