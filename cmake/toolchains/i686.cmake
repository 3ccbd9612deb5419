# Cross build for 32-bit little-endian x86.  A 64-bit kernel runs what comes out, with the libraries that lie
# beside the compiler.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(KL_MACHINE i686-linux-gnu)
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-Wl,--dynamic-linker=/usr/i686-linux-gnu/lib/ld-linux.so.2 -Wl,-rpath,/usr/i686-linux-gnu/lib")
include("${CMAKE_CURRENT_LIST_DIR}/cross.cmake")
