# Headers of descriptions.  This file is also part of the installed package kl.

# KL_GEN names a klgen that runs on the machine that builds; a build for another processor gives it.
set(KL_GEN "" CACHE FILEPATH "The klgen that runs while building; without it the one that is built or installed")

# kl_describe(TARGET FILE...): makes NAME.kl.h of each description NAME.toml when it has changed, and lets the sources of
# the target, and of those that link it, include it.
function(kl_describe target)
  set(generator "${KL_GEN}")
  set(run "${KL_GEN}")
  if(NOT generator AND (TARGET klgen OR KL_GEN_IS_BUILT))
    # By its file, because what is built for another processor that this machine runs needs no emulator.
    set(generator klgen)
    set(run ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:klgen>)
  elseif(NOT generator)
    get_filename_component(kl_above "${CMAKE_CURRENT_FUNCTION_LIST_DIR}/../../.." ABSOLUTE)
    find_program(KL_INSTALLED_GEN klgen HINTS "${kl_above}/bin" "${kl_above}/../bin" REQUIRED)
    set(generator "${KL_INSTALLED_GEN}")
    set(run "${KL_INSTALLED_GEN}")
  endif()
  set(folder "${CMAKE_CURRENT_BINARY_DIR}/${target}.described")
  file(MAKE_DIRECTORY "${folder}")
  foreach(file IN LISTS ARGN)
    get_filename_component(file "${file}" ABSOLUTE)
    get_filename_component(name "${file}" NAME_WLE)
    add_custom_command(OUTPUT "${folder}/${name}.kl.h"
      COMMAND ${run} header "${file}" --output "${folder}/${name}.kl.h"
      DEPENDS "${file}" ${generator} COMMENT "Making ${name}.kl.h" VERBATIM)
    target_sources(${target} PRIVATE "${folder}/${name}.kl.h")
  endforeach()
  target_include_directories(${target} PUBLIC "$<BUILD_INTERFACE:${folder}>")
endfunction()
