# The peers: other libraries that do the same work in the same run.  scripts/bench --peers asks for them; nothing else
# builds or needs them.  A machine that lacks one of them measures the others.

# kl_bench_peer(NAME TARGET SOURCE HEADER [LIBRARY L] [PROGRAM P]): SOURCE, which measures NAME, becomes part of TARGET
# if HEADER and, where they are named, the library and the program are there.  The variable NAME says whether.
function(kl_bench_peer name target source header)
  cmake_parse_arguments(arg "" "LIBRARY;PROGRAM" "" ${ARGN})
  find_path(${name}_header ${header})
  set(parts ${name}_header)
  if(arg_LIBRARY)
    find_library(${name}_library ${arg_LIBRARY})
    list(APPEND parts ${name}_library)
  endif()
  if(arg_PROGRAM)
    find_program(${name}_program ${arg_PROGRAM})
    list(APPEND parts ${name}_program)
  endif()
  set(${name} TRUE)
  foreach(part IN LISTS parts)
    if(NOT ${part})
      set(${name} FALSE)
    endif()
  endforeach()
  set(${name} ${${name}} PARENT_SCOPE)
  if(NOT ${name})
    message(NOTICE "bench: ${name} is missing here (${header} ${ARGN}): the others are measured")
    return()
  endif()
  target_sources(${target} PRIVATE ${source})
  target_include_directories(${target} SYSTEM PRIVATE ${${name}_header})
  if(arg_LIBRARY)
    target_link_libraries(${target} PRIVATE ${${name}_library})
  endif()
endfunction()

# Code that a peer's generator made is compiled as it is, without the warnings of one's own.
set(made "${CMAKE_CURRENT_BINARY_DIR}/peers")
file(MAKE_DIRECTORY "${made}")
target_include_directories(message_bench SYSTEM PRIVATE "${made}")
set(schemas "${CMAKE_CURRENT_SOURCE_DIR}/message/peers")

kl_bench_peer(protobuf message_bench message/peers/protobuf.cpp google/protobuf/message.h
  LIBRARY protobuf PROGRAM protoc)
if(protobuf)
  add_custom_command(OUTPUT "${made}/messages.pb.cc" "${made}/messages.pb.h"
    COMMAND ${protobuf_program} "--proto_path=${schemas}" "--cpp_out=${made}" messages.proto
    DEPENDS message/peers/messages.proto)
  target_sources(message_bench PRIVATE "${made}/messages.pb.cc")
  set_source_files_properties("${made}/messages.pb.cc" PROPERTIES COMPILE_OPTIONS -w)
  set_source_files_properties(message/peers/protobuf.cpp PROPERTIES OBJECT_DEPENDS "${made}/messages.pb.h")
endif()

kl_bench_peer(flatbuffers message_bench message/peers/flatbuffers.cpp flatbuffers/flatbuffers.h PROGRAM flatc)
if(flatbuffers)
  add_custom_command(OUTPUT "${made}/messages_generated.h"
    COMMAND ${flatbuffers_program} --cpp --scoped-enums -o "${made}" "${schemas}/messages.fbs"
    DEPENDS message/peers/messages.fbs)
  set_source_files_properties(message/peers/flatbuffers.cpp PROPERTIES OBJECT_DEPENDS "${made}/messages_generated.h")
endif()

kl_bench_peer(msgpack message_bench message/peers/msgpack.cpp msgpack.hpp)

kl_bench_peer(libev loop_bench loop/libev.cpp ev.h LIBRARY ev)
kl_bench_peer(libuv loop_bench loop/libuv.cpp uv.h LIBRARY uv)
target_sources(loop_bench PRIVATE loop/clock.cpp)
