# Each layer of kp-capture includes only itself and those below it, and none of them what stands at the root.
#
#   cmake -DPROGRAMS=DIR -P layers.cmake

cmake_policy(SET CMP0057 NEW)  # if(... IN_LIST ...)

set(layers common records capture/packet capture/source capture/tcp capture/http capture/pipeline capture/output
           capture/control)

set(faults "")
set(below "")
foreach(layer IN LISTS layers)
  list(APPEND below ${layer})
  file(GLOB files RELATIVE ${PROGRAMS} ${PROGRAMS}/${layer}/*.h ${PROGRAMS}/${layer}/*.cpp)
  if(NOT files)
    message(FATAL_ERROR "no files in ${PROGRAMS}/${layer}")
  endif()
  foreach(file IN LISTS files)
    file(STRINGS ${PROGRAMS}/${file} lines REGEX "^#include \"")
    foreach(line IN LISTS lines)
      string(REGEX REPLACE "^#include \"([^\"]*)\".*" "\\1" header "${line}")
      if(header MATCHES "^kp/")
        continue()
      endif()
      # Those of common and records are named from programs/ or their own folder, those of the engine from
      # programs/capture/.
      if(NOT header MATCHES "/")
        set(path ${layer}/${header})
      elseif(header MATCHES "^(common|records)/")
        set(path ${header})
      else()
        set(path capture/${header})
      endif()
      get_filename_component(owner ${path} DIRECTORY)
      if(NOT EXISTS ${PROGRAMS}/${path})
        list(APPEND faults "${file}: \"${header}\" is not found")
      elseif(NOT owner IN_LIST below)
        list(APPEND faults "${file}: \"${header}\" belongs to no layer below")
      endif()
    endforeach()
  endforeach()
endforeach()
if(faults)
  list(JOIN faults "\n  " text)
  message(FATAL_ERROR "Includes that cross the layers:\n  ${text}")
endif()
