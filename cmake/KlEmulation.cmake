# Programs for a processor that is emulated: the kernel cannot start them by name, as the loader and the tests
# do.  So each gets a script of its name in KL_BIN_DIR, which runs it in the emulator.

set(KL_BIN_DIR "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
if(CMAKE_CROSSCOMPILING_EMULATOR)
  set(KL_BIN_DIR "${PROJECT_BINARY_DIR}/emulated")
endif()

# kl_emulate_programs(FOLDER): writes the scripts of all programs that the folder and those below it build.
function(kl_emulate_programs folder)
  if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
    return()
  endif()
  list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
  get_property(targets DIRECTORY "${folder}" PROPERTY BUILDSYSTEM_TARGETS)
  foreach(target IN LISTS targets)
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "EXECUTABLE")
      file(GENERATE OUTPUT "${KL_BIN_DIR}/$<TARGET_FILE_NAME:${target}>"
        CONTENT "#!/bin/sh\nexec ${emulator} '$<TARGET_FILE:${target}>' \"$@\"\n"
        FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
    endif()
  endforeach()
  get_property(folders DIRECTORY "${folder}" PROPERTY SUBDIRECTORIES)
  foreach(below IN LISTS folders)
    kl_emulate_programs("${below}")
  endforeach()
endfunction()

# kl_mend_emulated_netlink(TARGET...): for programs that read the kernel's messages about interfaces.
# tests/support/build/emulated_netlink.cpp says what the emulator leaves undone.
function(kl_mend_emulated_netlink)
  if(NOT CMAKE_CROSSCOMPILING_EMULATOR OR NOT CMAKE_CXX_BYTE_ORDER STREQUAL "BIG_ENDIAN")
    return()
  endif()
  add_library(kl_emulated_netlink OBJECT "${PROJECT_SOURCE_DIR}/tests/support/build/emulated_netlink.cpp")
  target_link_libraries(kl_emulated_netlink PRIVATE kl_build_flags)
  target_link_options(kl_emulated_netlink INTERFACE -Wl,--wrap=recv,--wrap=recvfrom)
  foreach(target IN LISTS ARGN)
    if(TARGET ${target})
      target_link_libraries(${target} PRIVATE kl_emulated_netlink)
    endif()
  endforeach()
endfunction()
