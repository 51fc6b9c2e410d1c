# Installs the build into a scratch prefix, then builds and runs a host
# against it twice: through the CMake package and through pkg-config.
foreach(var BUILD_DIR WORK_DIR SOURCE_DIR)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "${var} not set")
  endif()
endforeach()

file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

file(GLOB libs ${prefix}/lib*/libhdrgpubackend.so.1)
if(NOT libs)
  message(FATAL_ERROR "libhdrgpubackend.so.1 (the SONAME link) was not installed")
endif()

# A build for another architecture builds its hosts with the same toolchain.
set(consumer_args)
set(cxx c++)
set(cxx_flags)
if(TOOLCHAIN_FILE)
  # The toolchain searches packages inside its root only: name the package's folder.
  file(GLOB package_dir ${prefix}/lib*/cmake/hdrgpubackend)
  set(consumer_args -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE} -DHDRGPU_SYSROOT=${TARGET_SYSROOT}
      -Dhdrgpubackend_DIR=${package_dir})
  set(cxx ${TARGET_CXX})
  separate_arguments(cxx_flags UNIX_COMMAND "--sysroot=${TARGET_SYSROOT} ${TARGET_LINK_FLAGS}")
endif()
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/consumer -B ${WORK_DIR}/consumer-build
    -DCMAKE_PREFIX_PATH=${prefix} ${consumer_args})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/consumer-build)
run(${WORK_DIR}/consumer-build/consumer)

file(GLOB pcdirs ${prefix}/lib*/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "${pcdirs}")
run(pkg-config --cflags --libs hdrgpubackend)
string(STRIP "${last_output}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run(${cxx} -std=c++17 ${SOURCE_DIR}/consumer/main.cpp ${flags} ${cxx_flags} -o ${WORK_DIR}/consumer-pc)
run(${WORK_DIR}/consumer-pc)
