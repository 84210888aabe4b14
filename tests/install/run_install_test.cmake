# cmake -P script behind the install.consumers test (see CMakeLists.txt).
cmake_minimum_required(VERSION 3.20)

function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${ARGN}\n${out}\n${err}")
  endif()
  message(STATUS "${what}: ok")
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

# 1. Install the runtime and development components (what a package ships).
foreach(component Runtime Development)
  run("install ${component}" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix}
      --component ${component})
endforeach()
set(libdir ${prefix}/${LIBDIR})
foreach(f
    ${libdir}/libqzinterp3d_halide.so.${VERSION} ${libdir}/libqzinterp3d_halide.so.${SOVERSION}
    ${libdir}/libqzinterp3d_halide.so
    ${libdir}/libqzhalideRuntime.so.${VERSION} ${libdir}/libqzhalideRuntime.so.${SOVERSION}
    ${libdir}/libqzhalideRuntime.so
    ${prefix}/${INCLUDEDIR}/qzinterp3d_halide.h ${prefix}/${INCLUDEDIR}/qzinterp3d/interp3.hpp
    ${libdir}/cmake/qzinterp3d_halide/qzinterp3d_halideConfig.cmake
    ${libdir}/cmake/qzinterp3d_halide/qzinterp3d_halideConfigVersion.cmake
    ${libdir}/cmake/qzinterp3d_halide/qzinterp3d_halideTargets.cmake
    ${libdir}/pkgconfig/qzinterp3d_halide.pc)
  if(NOT EXISTS ${f})
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()

set(sanitize_flags "")
if(SANITIZE)
  set(sanitize_flags "-fsanitize=${SANITIZE}")
endif()

# The consumer must load the installed libraries, not the build tree's.
function(check_uses_installed exe)
  find_program(LDD ldd)
  if(NOT LDD)
    return()
  endif()
  run("ldd ${exe}" ${LDD} ${exe})
  foreach(lib libqzinterp3d_halide.so.${SOVERSION} libqzhalideRuntime.so.${SOVERSION})
    string(REGEX MATCH "${lib} => [^ ]*" line "${last_output}")
    if(NOT line MATCHES "=> ${libdir}/${lib}$")
      message(FATAL_ERROR "${exe} does not load the installed ${lib}: '${line}'")
    endif()
  endforeach()
endfunction()

# 2. CMake: find_package(qzinterp3d_halide) in a separate project.
set(cm ${WORK_DIR}/cmake-consumer)
run("configure the find_package consumer" ${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${cm}
    -G ${GENERATOR} -DCMAKE_BUILD_TYPE=Release
    -DCMAKE_C_COMPILER=${C_COMPILER} -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
    "-DCMAKE_C_FLAGS=${sanitize_flags}" "-DCMAKE_CXX_FLAGS=${sanitize_flags}"
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_FIND_PACKAGE_NO_PACKAGE_REGISTRY=ON
    -DQZ_MINIMAL_SOURCE=${MINIMAL_SOURCE})
file(STRINGS ${cm}/CMakeCache.txt found REGEX "^qzinterp3d_halide_DIR:")
if(NOT found STREQUAL "qzinterp3d_halide_DIR:PATH=${libdir}/cmake/qzinterp3d_halide")
  message(FATAL_ERROR "find_package found another package: ${found}")
endif()
run("build the find_package consumer" ${CMAKE_COMMAND} --build ${cm} -j 2)
foreach(exe consumer_cpp consumer_c)
  run("run ${exe} (find_package)" ${cm}/${exe})
  message(STATUS "${last_output}")
  check_uses_installed(${cm}/${exe})
endforeach()

# 3. pkg-config: plain compiler command lines.
set(ENV{PKG_CONFIG_PATH} ${libdir}/pkgconfig)
run("pkg-config --variable=libdir" ${PKG_CONFIG} --variable=libdir qzinterp3d_halide)
string(STRIP "${last_output}" pc_libdir)
get_filename_component(pc_libdir "${pc_libdir}" REALPATH)
get_filename_component(real_libdir "${libdir}" REALPATH)
if(NOT pc_libdir STREQUAL real_libdir)
  message(FATAL_ERROR "pkg-config libdir is ${pc_libdir}, expected ${real_libdir}")
endif()
run("pkg-config --cflags" ${PKG_CONFIG} --cflags qzinterp3d_halide)
separate_arguments(cflags UNIX_COMMAND "${last_output}")
run("pkg-config --libs" ${PKG_CONFIG} --libs qzinterp3d_halide)
separate_arguments(libs UNIX_COMMAND "${last_output}")
set(pc ${WORK_DIR}/pkg-config-consumer)
file(MAKE_DIRECTORY ${pc})
run("compile consumer.cpp (pkg-config)" ${CXX_COMPILER} -std=c++17 -ffp-contract=off
    ${sanitize_flags} ${cflags} ${CONSUMER_DIR}/consumer.cpp -o ${pc}/consumer_cpp ${libs}
    -Wl,-rpath,${libdir})
run("compile minimal.c (pkg-config)" ${C_COMPILER} -std=c11 -ffp-contract=off
    ${sanitize_flags} ${cflags} ${MINIMAL_SOURCE} -o ${pc}/consumer_c ${libs}
    -Wl,-rpath,${libdir})
foreach(exe consumer_cpp consumer_c)
  run("run ${exe} (pkg-config)" ${pc}/${exe})
  message(STATUS "${last_output}")
  check_uses_installed(${pc}/${exe})
endforeach()
