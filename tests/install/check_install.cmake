cmake_minimum_required(VERSION 3.25)
# Installs the build into a scratch prefix (not the prefix it was configured for), then
# builds the example program against the installed package twice, through
# find_package(OstraKernel) and through pkg-config with nothing else set, and runs both
# on a wave file and on a file that is not one. Then builds the example plug-in both ways,
# installs it into the same prefix, and has the installed tool list it and read a file
# with it.
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

# The example plug-in: built and installed through CMake, built through pkg-config.
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples/sunau -B ${WORK_DIR}/sunau-build -G Ninja
  -DCMAKE_PREFIX_PATH=${prefix})
must("configuring the example plug-in against the installed package")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/sunau-build)
must("building the example plug-in with CMake")
run(${CMAKE_COMMAND} --install ${WORK_DIR}/sunau-build --prefix ${prefix})
must("installing the example plug-in")
run(c++ -shared -fPIC -fvisibility=hidden ${SOURCE_DIR}/examples/sunau/sunau.cpp ${flags}
  -o ${WORK_DIR}/sunau-pc.so)
must("building the example plug-in with pkg-config's flags")

# The installed tool finds it beside the bundled one, its cache in the scratch folder.
set(ENV{XDG_CACHE_HOME} ${WORK_DIR}/xdg-cache)
set(ENV{XDG_CONFIG_HOME} ${WORK_DIR}/xdg-config)
run(${prefix}/bin/ostra plugins --json --rescan)
must("ostra plugins")
set(plugins "${out}")
string(JSON count LENGTH "${plugins}" plugins)
set(found "")
math(EXPR last "${count} - 1")
foreach(i RANGE ${last})
  string(JSON name GET "${plugins}" plugins ${i} name)
  string(JSON path GET "${plugins}" plugins ${i} path)
  string(JSON extensions GET "${plugins}" plugins ${i} readerExtensions)
  if(name STREQUAL "SunAu" AND path MATCHES "/ostra-plugins/sunau.so$" AND extensions STREQUAL "au;snd")
    set(found yes)
  endif()
endforeach()
if(NOT found)
  message(FATAL_ERROR "ostra plugins does not list the example plug-in:\n${plugins}")
endif()

# The bundled media plug-ins also read Sun audio files, with a higher merit; to read one
# with the example, the scratch install goes without their configuration files.
file(REMOVE ${prefix}/lib/sndfile.Fio2007-Config ${prefix}/lib/media.Fio2007-Config)
run(${prefix}/bin/ostra plugins --json --rescan)
must("ostra plugins after removing the media plug-ins")

# A Sun audio file of four 16-bit frames at 8000 Hz, samples 0x0102 0x0304 0x0506 0x0708.
execute_process(COMMAND printf
  "\\056snd\\0\\0\\0\\030\\0\\0\\0\\010\\0\\0\\0\\003\\0\\0\\037\\100\\0\\0\\0\\001\\001\\002\\003\\004\\005\\006\\007\\010"
  OUTPUT_FILE ${WORK_DIR}/tone.au RESULT_VARIABLE rc)
must("writing a Sun audio file")
run(${prefix}/bin/ostra identify --json --read ${WORK_DIR}/tone.au)
must("ostra identify --read on a Sun audio file")
string(JSON plugin GET "${out}" files 0 plugin)
string(JSON pass GET "${out}" files 0 pass)
string(JSON rate GET "${out}" files 0 read streams 0 rate)
string(JSON frames GET "${out}" files 0 read streams 0 framesRead)
if(NOT plugin STREQUAL "SunAu" OR NOT pass STREQUAL "extension" OR NOT rate EQUAL 8000
   OR NOT frames EQUAL 4)
  message(FATAL_ERROR "ostra identify --read on a Sun audio file printed:\n${out}")
endif()
message(STATUS "install check passed:\n${out}")
