cmake_minimum_required(VERSION 3.25)
# Installs the build into a scratch prefix (not the prefix it was configured for), then
# builds the example program against the installed package twice, through
# find_package(OstraKernel) and through pkg-config with nothing else set, and runs both
# on a wave file and on a file that is not one.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  set(rc ${rc} PARENT_SCOPE)
  set(out "${out}" PARENT_SCOPE)
  set(err "${err}" PARENT_SCOPE)
endfunction()
function(must what)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}\n${err}")
  endif()
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
must("installing")
file(GLOB docs ${prefix}/share/doc/ostrakernel/README.md)
if(NOT docs)
  message(FATAL_ERROR "the documentation page is not installed")
endif()

# The example needs a wave file: the installed tool's demo writes some.
run(${prefix}/bin/ostra demo --dir ${WORK_DIR}/media)
must("ostra demo")
set(wave ${WORK_DIR}/media/signal-pcm16.wav)
file(WRITE ${WORK_DIR}/not-a-wave.wav "these are not samples")

# Through CMake.
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples/wavinfo -B ${WORK_DIR}/cmake-build -G Ninja
  -DCMAKE_PREFIX_PATH=${prefix})
must("configuring the example against the installed package")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
must("building the example with CMake")
set(cmake_program ${WORK_DIR}/cmake-build/wavinfo)

# Through pkg-config, with a plain compiler line.
file(GLOB pcdir ${prefix}/lib*/pkgconfig ${prefix}/lib/*/pkgconfig)
if(NOT pcdir)
  message(FATAL_ERROR "pkg-config file not installed")
endif()
set(ENV{PKG_CONFIG_PATH} ${pcdir})
run(pkg-config --cflags --libs ostrakernel)
must("pkg-config")
string(STRIP "${out}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run(c++ ${SOURCE_DIR}/examples/wavinfo/main.cpp ${flags} -o ${WORK_DIR}/wavinfo-pc)
must("building the example with pkg-config's flags")
set(pc_program ${WORK_DIR}/wavinfo-pc)

foreach(program ${cmake_program} ${pc_program})
  run(${program} ${wave})
  must("${program} on a wave file")
  if(NOT out MATCHES "signal-pcm16.wav: 48000 Hz, 6 channels, 16 Bit" OR NOT out MATCHES "peak")
    message(FATAL_ERROR "${program} printed:\n${out}")
  endif()
  run(${program} ${WORK_DIR}/not-a-wave.wav)
  if(NOT rc EQUAL 1 OR NOT err MATCHES "not-a-wave.wav: .+")
    message(FATAL_ERROR "${program} on a file that is not a wave file: ${rc}\n${err}")
  endif()
endforeach()
message(STATUS "install check passed:\n${out}")
