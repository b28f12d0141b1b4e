# Has projects of somebody else's use the library: installed by components and moved, static, and as a part of them.
# Called with -DBUILD=build folder, -DROOT=the library's sources, -DSOURCE=this folder, -DWORK=scratch folder,
# -DGENERATOR=CMake generator, -DCONFIG=build type.
function(run)
  execute_process(COMMAND ${ARGN} COMMAND_ECHO STDOUT RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "failed: ${status}")
  endif()
endfunction()

# try(program): what the foreign program is to do.
function(try program)
  file(REMOVE_RECURSE ${WORK}/site)
  file(MAKE_DIRECTORY ${WORK}/site/admin ${WORK}/site/logs)
  run(${CMAKE_COMMAND} -E env KP_INSTALLDIR=${WORK}/site ${program} guest)
  foreach(written admin/guest_prvt.cfg logs/guest.log)
    if(NOT EXISTS ${WORK}/site/${written})
      message(FATAL_ERROR "the foreign program wrote no ${written}")
    endif()
  endforeach()
endfunction()

# use_installed(prefix name flags...): by find_package(), and by pkg-config with these flags.
function(use_installed prefix name)
  run(${CMAKE_COMMAND} -G ${GENERATOR} -S ${SOURCE} -B ${WORK}/${name} -DCMAKE_PREFIX_PATH=${prefix}
      -DCMAKE_BUILD_TYPE=${CONFIG})
  run(${CMAKE_COMMAND} --build ${WORK}/${name})
  try(${WORK}/${name}/foreign)
  file(GLOB_RECURSE pc ${prefix}/*/kp.pc)
  get_filename_component(pcDirectory "${pc}" DIRECTORY)
  execute_process(COMMAND ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pcDirectory}
                          pkg-config --cflags --libs ${ARGN} kp
                  OUTPUT_VARIABLE flags RESULT_VARIABLE status OUTPUT_STRIP_TRAILING_WHITESPACE)
  separate_arguments(flags UNIX_COMMAND "${flags}")
  get_filename_component(libraries "${pcDirectory}" DIRECTORY)
  run(c++ -std=c++17 ${SOURCE}/main.cpp ${flags} -Wl,-rpath,${libraries} -o ${WORK}/${name}/by-pkg-config)
  try(${WORK}/${name}/by-pkg-config)
endfunction()

file(REMOVE_RECURSE ${WORK})

# By components: each has its own, and what was installed may be moved.
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/library --component library)
file(GLOB_RECURSE files RELATIVE ${WORK}/library ${WORK}/library/*)
foreach(file ${files})
  if(NOT file MATCHES "^lib(/[^/]*-linux-gnu)?/libkp\\.so\\.[0-9.]+$")
    message(FATAL_ERROR "the component of the library has ${file}")
  endif()
endforeach()
foreach(component library development programs)
  run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/prefix --component ${component})
endforeach()
file(RENAME ${WORK}/prefix ${WORK}/moved)
use_installed(${WORK}/moved installed)
if(EXISTS ${WORK}/moved/bin)
  run(${WORK}/moved/bin/kp-query --version)
endif()

# Below another project: static, unless that says otherwise, and not installed, unless it asks for that.
run(${CMAKE_COMMAND} -G ${GENERATOR} -S ${SOURCE}/subproject -B ${WORK}/shared -DKP_SOURCE=${ROOT}
    -DBY=add_subdirectory -DBUILD_SHARED_LIBS=ON)
file(STRINGS ${WORK}/shared/CMakeCache.txt options REGEX "^KP_(INSTALL|BUILD_[A-Z]+|PACKAGE|WERROR):BOOL=(ON|TRUE|1)$")
if(options)
  message(FATAL_ERROR "below another project these are on: ${options}")
endif()
run(${CMAKE_COMMAND} -G ${GENERATOR} -S ${SOURCE}/subproject -B ${WORK}/static -DKP_SOURCE=${ROOT}
    -DBY=FetchContent -DKP_INSTALL=ON)
run(${CMAKE_COMMAND} --build ${WORK}/static)
try(${WORK}/static/foreign)
run(${CMAKE_COMMAND} --install ${WORK}/static --prefix ${WORK}/prefix-of-static)
use_installed(${WORK}/prefix-of-static installed-static --static)
