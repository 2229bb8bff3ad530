# Run by ctest: install, build the example against the install, run it.
cmake_minimum_required(VERSION 3.18)

function(run_step what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}\n${err}")
  endif()
  message(STATUS "${what}: ok")
  set(step_output "${out}" PARENT_SCOPE)
endfunction()

set(prefix ${WORK_DIR}/prefix)
set(app_build ${WORK_DIR}/example-build)
set(run_dir ${WORK_DIR}/run)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${run_dir})

run_step("install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# Nothing of the source tree may be needed: only the prefix is given.
set(args -S ${EXAMPLE_DIR} -B ${app_build} -G ${GENERATOR} -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
         -DCMAKE_BUILD_TYPE=${BUILD_TYPE} "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}"
         "-DCMAKE_EXE_LINKER_FLAGS=${CXX_FLAGS}")
if(TOOLCHAIN_FILE)
  # A cross toolchain confines package searches to its sysroot; name the
  # package's directory directly.
  list(APPEND args -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE} -DTAVRO_SYSROOT=${SYSROOT}
                   -DTAVRO_DIR=${prefix}/${LIBDIR}/cmake/TAVRO)
else()
  list(APPEND args -DCMAKE_PREFIX_PATH=${prefix})
endif()
run_step("configure the example" ${CMAKE_COMMAND} ${args})
run_step("build the example" ${CMAKE_COMMAND} --build ${app_build})

# Without CMake: pkg-config alone gives the flags, for C and for C++.
run_step("pkg-config" ${CMAKE_COMMAND} -E env PKG_CONFIG_LIBDIR=${prefix}/${LIBDIR}/pkgconfig
         ${PKG_CONFIG} --cflags --libs TAVRO)
string(STRIP "${step_output}" pc_flags)
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
separate_arguments(san_flags UNIX_COMMAND "${CXX_FLAGS}")
set(rpath -Wl,-rpath,${prefix}/${LIBDIR})
run_step("build the C example with pkg-config" ${C_COMPILER} -std=c11 -Wall -Wextra -Werror -pedantic ${san_flags}
         ${EXAMPLE_DIR}/UseTavroC.c -o ${app_build}/UseTavroC ${pc_flags} ${rpath})
run_step("build the C++ example with pkg-config" ${CXX_COMPILER} -std=c++17 -Wall -Wextra -Werror ${san_flags}
         ${EXAMPLE_DIR}/UseTavro.cpp -o ${app_build}/UseTavroPc ${pc_flags} ${rpath})

string(REPLACE "|" ";" emulator "${EMULATOR}")
foreach(app UseTavro UseTavroC UseTavroPc)
  execute_process(COMMAND ${emulator} ${app_build}/${app} WORKING_DIRECTORY ${run_dir}
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0 OR NOT out MATCHES "(UseTavro|UseTavroC): ok")
    message(FATAL_ERROR "${app} failed (${rc}):\n${out}\n${err}")
  endif()
  message(STATUS "run ${app}: ok")
endforeach()
