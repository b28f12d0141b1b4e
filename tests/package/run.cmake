# Installs the library into a prefix of its own and has the foreign project use it.
# Called with -DBUILD=build folder, -DSOURCE=this folder, -DWORK=scratch folder,
# -DGENERATOR=CMake generator, -DCONFIG=build type.
function(run)
  execute_process(COMMAND ${ARGN} COMMAND_ECHO STDOUT RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "failed: ${status}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK})
foreach(component library development)
  run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/prefix --component ${component})
endforeach()
run(${CMAKE_COMMAND} -G ${GENERATOR} -S ${SOURCE} -B ${WORK}/build -DCMAKE_PREFIX_PATH=${WORK}/prefix
    -DCMAKE_BUILD_TYPE=${CONFIG})
run(${CMAKE_COMMAND} --build ${WORK}/build)
file(MAKE_DIRECTORY ${WORK}/site/admin ${WORK}/site/logs)
run(${CMAKE_COMMAND} -E env KP_INSTALLDIR=${WORK}/site ${WORK}/build/foreign guest)
foreach(written admin/guest_prvt.cfg logs/guest.log)
  if(NOT EXISTS ${WORK}/site/${written})
    message(FATAL_ERROR "the foreign program wrote no ${written}")
  endif()
endforeach()

# The same through pkg-config, which must point into the prefix wherever that lies.
file(GLOB_RECURSE pc ${WORK}/prefix/*/kp.pc)
get_filename_component(pcDirectory "${pc}" DIRECTORY)
execute_process(COMMAND ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pcDirectory}
                        pkg-config --cflags --libs kp
                OUTPUT_VARIABLE flags RESULT_VARIABLE status OUTPUT_STRIP_TRAILING_WHITESPACE)
separate_arguments(flags UNIX_COMMAND "${flags}")
run(c++ -std=c++17 ${SOURCE}/main.cpp ${flags} -o ${WORK}/foreign-by-pkg-config)
