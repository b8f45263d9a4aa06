# Compiler flags, sanitizer settings and the helpers that turn a source folder into
# object libraries (one per instruction set) feeding the kernel library.

if(CMAKE_CXX_COMPILER_LAUNCHER STREQUAL "")
  find_program(OSTRA_CCACHE ccache)
  if(OSTRA_CCACHE)
    set(CMAKE_CXX_COMPILER_LAUNCHER ${OSTRA_CCACHE})
    set(CMAKE_C_COMPILER_LAUNCHER ${OSTRA_CCACHE})
  endif()
endif()

set(OSTRA_WARNINGS -Wall -Wextra -Wno-unused-parameter -Wno-missing-field-initializers)

if(OSTRA_SANITIZE STREQUAL "address")
  set(OSTRA_SAN_FLAGS -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
elseif(OSTRA_SANITIZE STREQUAL "thread")
  set(OSTRA_SAN_FLAGS -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT OSTRA_SANITIZE STREQUAL "")
  message(FATAL_ERROR "OSTRA_SANITIZE must be empty, address or thread")
endif()
# libFuzzer builds instrument every object for coverage; only the fuzz programs link
# the fuzzer's main.
if(OSTRA_BUILD_FUZZ AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  list(APPEND OSTRA_SAN_FLAGS -fsanitize=fuzzer-no-link)
endif()
if(OSTRA_SAN_FLAGS)
  add_compile_options(${OSTRA_SAN_FLAGS})
  add_link_options(${OSTRA_SAN_FLAGS})
endif()

if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
  set(OSTRA_X86_64 ON)
else()
  set(OSTRA_X86_64 OFF)
endif()

# Flags for the instruction-set variant files, by file-name suffix.
set(OSTRA_ISA_sse2 -msse2)
set(OSTRA_ISA_ssse3 -mssse3)
set(OSTRA_ISA_sse41 -msse4.1)
set(OSTRA_ISA_avx -mavx)
set(OSTRA_ISA_avx2 -mavx2 -mfma -mbmi2)
set(OSTRA_ISA_avx512 -mavx512f -mavx512bw -mavx512vl -mavx2 -mfma)
set(OSTRA_ISA_avx512vbmi -mavx512f -mavx512bw -mavx512vl -mavx512vbmi -mavx2 -mfma)
set(OSTRA_ISA_LIST sse2 ssse3 sse41 avx avx2 avx512 avx512vbmi)

set_property(GLOBAL PROPERTY OSTRA_OBJECT_LIBS "")

function(_ostra_object_lib name)
  add_library(${name} OBJECT ${ARGN})
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  target_compile_definitions(${name} PRIVATE OSTRA_BUILDING_KERNEL=1)
  target_compile_options(${name} PRIVATE ${OSTRA_WARNINGS})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}
    ${PROJECT_BINARY_DIR}/generated)
  target_link_libraries(${name} PRIVATE OpenMP::OpenMP_CXX Threads::Threads)
  set_property(GLOBAL APPEND PROPERTY OSTRA_OBJECT_LIBS ${name})
endfunction()

# ostra_add_folder(<name> [RECURSE]): every .cpp of the current folder goes into the
# kernel; files ending in _<isa>.cpp get their own object library compiled with that
# instruction set (x86-64 only: elsewhere they are left out and the plain code stands).
function(ostra_add_folder name)
  cmake_parse_arguments(ARG "RECURSE" "" "" ${ARGN})
  if(ARG_RECURSE)
    file(GLOB_RECURSE srcs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  else()
    file(GLOB srcs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  endif()
  set(plain ${srcs})
  foreach(isa ${OSTRA_ISA_LIST})
    set(isa_srcs ${srcs})
    list(FILTER isa_srcs INCLUDE REGEX "_${isa}\\.cpp$")
    if(isa_srcs)
      list(REMOVE_ITEM plain ${isa_srcs})
      if(OSTRA_X86_64)
        _ostra_object_lib(ostra_${name}_${isa} ${isa_srcs})
        target_compile_options(ostra_${name}_${isa} PRIVATE ${OSTRA_ISA_${isa}})
      endif()
    endif()
  endforeach()
  if(plain)
    _ostra_object_lib(ostra_${name} ${plain})
  endif()
endfunction()

function(ostra_assemble_library)
  get_property(libs GLOBAL PROPERTY OSTRA_OBJECT_LIBS)
  set(objs "")
  foreach(l ${libs})
    list(APPEND objs $<TARGET_OBJECTS:${l}>)
  endforeach()
  set(deps OpenMP::OpenMP_CXX Threads::Threads ${CMAKE_DL_LIBS})
  # Libraries that single folders need (found there), e.g. expat for fileio/, libsoxr and
  # PortAudio for engine/.
  get_property(extra GLOBAL PROPERTY OSTRA_EXTRA_DEPS)
  list(APPEND deps ${extra})

  add_library(ostrakernel SHARED ${objs})
  set_target_properties(ostrakernel PROPERTIES
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    EXPORT_NAME kernel CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  target_include_directories(ostrakernel PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(ostrakernel PRIVATE ${deps})
  # Users of the package get C++20 with the target: the headers need it.
  target_compile_features(ostrakernel PUBLIC cxx_std_20)
  # A sanitized or fuzzing build leaves the runtimes' symbols to the program that loads
  # the library (libFuzzer's coverage hooks live only in the fuzz programs).
  if(NOT OSTRA_SAN_FLAGS)
    target_link_options(ostrakernel PRIVATE -Wl,--no-undefined)
  endif()
  add_library(Ostra::kernel ALIAS ostrakernel)

  # The same objects as a static archive: the test suites link it so that they can
  # reach internal helpers and the fault-injecting platform layer.
  add_library(ostrakernel_static STATIC ${objs})
  target_include_directories(ostrakernel_static PUBLIC ${PROJECT_SOURCE_DIR}/include
    ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR}/generated)
  target_compile_definitions(ostrakernel_static INTERFACE OSTRA_STATIC_KERNEL=1)
  target_link_libraries(ostrakernel_static PUBLIC ${deps})
endfunction()
