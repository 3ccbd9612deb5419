# The three kinds of targets: a folder of the library, a program beside it, a test.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/lib")
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/lib")

# The version as companions register with it: major and minor number, 'f' for a final release, and its number, a byte each.
math(EXPR kl_version_word
  "${PROJECT_VERSION_MAJOR} << 24 | ${PROJECT_VERSION_MINOR} << 16 | 0x66 << 8 | ${PROJECT_VERSION_PATCH}"
  OUTPUT_FORMAT HEXADECIMAL)
set(kl_version_word ${kl_version_word}u)

# The flags that every file of this project is compiled with.
add_library(kl_build_flags INTERFACE)
target_compile_options(kl_build_flags INTERFACE
  -Wall -Wextra -Wconversion -Wshadow -Wnon-virtual-dtor $<$<BOOL:${KL_WARNINGS_ARE_ERRORS}>:-Werror>
  -fno-omit-frame-pointer)
# In tests clang looks as closely as g++ does: a list of plain numbers may be walked as sizes.
define_property(TARGET PROPERTY KL_SIGNS_MAY_CHANGE INHERITED)
target_compile_options(kl_build_flags INTERFACE
  $<$<AND:$<CXX_COMPILER_ID:Clang>,$<BOOL:$<TARGET_PROPERTY:KL_SIGNS_MAY_CHANGE>>>:-Wno-sign-conversion>)
# Programs that are inlined into one function each, such as tests and fuzz targets, make g++ 12 see overruns in vectors
# of known size that are none; where several sources are compiled as one, it takes them for a header that others include.
set(kl_false_alarms)
foreach(alarm array-bounds stringop-overflow stringop-overread restrict subobject-linkage)
  list(APPEND kl_false_alarms $<$<CXX_COMPILER_ID:GNU>:-Wno-${alarm}>)
endforeach()
if(KL_SANITIZE)
  target_compile_options(kl_build_flags INTERFACE -fsanitize=${KL_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(kl_build_flags INTERFACE -fsanitize=${KL_SANITIZE})
  # The check of virtual tables opens a pipe each time, for which some tests leave no descriptor.
  target_compile_options(kl_build_flags INTERFACE -fno-sanitize=vptr)
endif()
# Of the checks of undefined behaviour three concern every pointer that is followed: with them the compiler is busy half
# as long again with tests, and what they see there the kernel or the address sanitizer sees as well.
define_property(TARGET PROPERTY KL_FOLLOWS_POINTERS_UNCHECKED INHERITED)
if(KL_SANITIZE MATCHES "undefined")
  target_compile_options(kl_build_flags INTERFACE
    $<$<BOOL:$<TARGET_PROPERTY:KL_FOLLOWS_POINTERS_UNCHECKED>>:-fno-sanitize=null,alignment,object-size>)
endif()

# Lines that run are counted in the library, and in the tests that see its internals, since an inline function runs as
# the linker meets it first.
set(kl_coverage_flags)
if(KL_COVERAGE)
  set(kl_coverage_flags --coverage -fprofile-update=atomic -fprofile-abs-path)
  target_link_options(kl_build_flags INTERFACE --coverage)
endif()

configure_file("${PROJECT_SOURCE_DIR}/cmake/fixed_paths.h.in" "${PROJECT_BINARY_DIR}/generated/fixed_paths.h" @ONLY)

# True where what is built may be shipped.
set(kl_is_shipped $<CONFIG:RelWithDebInfo,Release>)

# kl_component(NAME [APART|BOTH] SOURCE...): one room of the library, or a part of one.  Its sources see the public
# headers, the fixed paths and, by their path from lib/, the internal headers of their own room and of those below it.
# APART: what few programs need goes into an archive, libkl_nonshared.a, of which a program takes what it uses.
# BOTH: functions without data of their own that what lies apart shares with the library are in either.
function(kl_component name)
  cmake_parse_arguments(arg "APART;BOTH" "" "" ${ARGN})
  add_library(kl_${name} OBJECT ${arg_UNPARSED_ARGUMENTS})
  target_link_libraries(kl_${name} PRIVATE kl_build_flags)
  target_include_directories(kl_${name} PRIVATE
    "${PROJECT_SOURCE_DIR}/include" "${PROJECT_SOURCE_DIR}/lib" "${PROJECT_BINARY_DIR}/generated")
  # Nobody replaces one function of the library by another of its name, so its own calls may be direct and inlined.
  # It throws nothing and lets no exception pass, so it carries no code to clean up after one and no tables to find its way.
  target_compile_options(kl_${name} PRIVATE
    -fno-semantic-interposition -fno-exceptions -fno-unwind-tables -fno-asynchronous-unwind-tables ${kl_coverage_flags})
  # Memory is given back by its address alone, as the allocator takes it: nobody works out the size, which takes 1 KiB.
  target_compile_options(kl_${name} PRIVATE -fno-sized-deallocation)
  # Sections that the linker finds unused go.
  target_compile_options(kl_${name} PRIVATE -ffunction-sections)
  # Memory counts for more than time in most of the library: of some 100 sources about 20 run for each message
  # (kl_often_runs).  Even in those only the starts of loops are worth being aligned for.
  if(NOT CMAKE_UNITY_BUILD)
    target_compile_options(kl_${name} PRIVATE $<${kl_is_shipped}:-Os>)
    target_compile_options(kl_${name} PRIVATE
      "$<${kl_is_shipped}:SHELL:-include \"${PROJECT_SOURCE_DIR}/lib/base/std_string.h\">")
  endif()
  target_compile_options(kl_${name} PRIVATE
    $<$<CXX_COMPILER_ID:GNU>:-falign-functions=1> $<$<CXX_COMPILER_ID:GNU>:-falign-jumps=1>
    $<$<CXX_COMPILER_ID:GNU>:-falign-labels=1>)
  set_target_properties(kl_${name} PROPERTIES
    POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  if(NOT arg_APART)
    set_property(GLOBAL APPEND PROPERTY KL_COMPONENTS kl_${name})
  endif()
  if(arg_APART OR arg_BOTH)
    set_property(GLOBAL APPEND PROPERTY KL_COMPONENTS_APART kl_${name})
  endif()
endfunction()

# kl_often_runs(SOURCE...): the sources of this folder on the road of a message, a timer or a log line,
# which are compiled to be fast, as the whole library is where several sources are compiled as one: then nothing is
# shipped, and a source with options of its own would stay by itself.  A function that rarely runs in such a source is
# marked [[gnu::cold]].  Nothing there gains by vectors.
function(kl_often_runs)
  if(NOT CMAKE_UNITY_BUILD)
    set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS
      "$<${kl_is_shipped}:-O2>;-fno-tree-vectorize;-fno-tree-slp-vectorize")
  endif()
endfunction()

# kl_program(NAME SOURCE...): a program that uses the library as any user would.  Its includes are
# relative to its own folder.
function(kl_program name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE kl kl_build_flags)
  target_include_directories(${name} PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}")
  set_target_properties(${name} PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
endfunction()

# kl_service(NAME [CONFIGURED] SOURCE... [DEFINITIONS DEFINITION...]): a companion, kl-NAME.  Everything but its main.cpp
# is an archive, kl_NAME_core, so that the tests can take it apart; DEFINITIONS are the archive's own.  With CONFIGURED
# the program reads a configuration file, for which kl-NAME.toml is the example.
function(kl_service name)
  cmake_parse_arguments(arg "CONFIGURED" "" "DEFINITIONS" ${ARGN})
  add_library(kl_${name}_core STATIC ${arg_UNPARSED_ARGUMENTS})
  target_link_libraries(kl_${name}_core PUBLIC kl kl_service_common PRIVATE kl_build_flags)
  target_include_directories(kl_${name}_core PUBLIC "${CMAKE_CURRENT_SOURCE_DIR}")
  target_compile_definitions(kl_${name}_core PRIVATE ${arg_DEFINITIONS})

  kl_program(kl-${name} main.cpp)
  target_link_libraries(kl-${name} PRIVATE kl_${name}_core)
  install(TARGETS kl-${name} RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
  install(FILES "${PROJECT_SOURCE_DIR}/docs/man/kl-${name}.8" DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
  if(arg_CONFIGURED)
    target_compile_definitions(kl-${name} PRIVATE
      KL_CONFIGURATION_FILE="${CMAKE_INSTALL_FULL_SYSCONFDIR}/kl/kl-${name}.toml")
    install(FILES kl-${name}.toml DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
  endif()
endfunction()
