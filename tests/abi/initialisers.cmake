# The library constructs nothing before main(): a host's static objects may use it, in whatever order they come.
# Looks at what the library was linked from; beside that it has only the compiler's own initialisers.
# Called with -DREADELF=readelf, "-DOBJECTS=the library's object files".
foreach(object IN LISTS OBJECTS)
  execute_process(COMMAND ${READELF} --wide --sections ${object} OUTPUT_VARIABLE sections RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "cannot read the sections of ${object}")
  endif()
  if(sections MATCHES "\\.(init_array|ctors)")
    list(APPEND constructing ${object})
  endif()
endforeach()
if(constructing)
  list(JOIN constructing "\n  " constructing)
  message(FATAL_ERROR "these have static objects with a constructor or an initial value that is not constant:\n  ${constructing}")
endif()
