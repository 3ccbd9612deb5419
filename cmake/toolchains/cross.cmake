# The common part of every cross build, for a toolchain file that has set KL_MACHINE.  The libraries are those
# that come with the compiler and those that scripts/cross-libraries puts together.
set(CMAKE_C_COMPILER ${KL_MACHINE}-gcc)
set(CMAKE_CXX_COMPILER ${KL_MACHINE}-g++)
get_filename_component(KL_CROSS_LIBRARIES "${CMAKE_CURRENT_LIST_DIR}/../../build/libraries/${KL_MACHINE}" ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH /usr/${KL_MACHINE} "${KL_CROSS_LIBRARIES}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} "${KL_CROSS_LIBRARIES}/lib/pkgconfig")
# A variable and not an entry of the cache: once the library is there, the client is built.
if(NOT EXISTS "${KL_CROSS_LIBRARIES}/lib/libsmartcols.a")
  set(KL_BUILD_CLIENT OFF)
endif()
