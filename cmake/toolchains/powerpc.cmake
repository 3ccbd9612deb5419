# Cross build for 32-bit big-endian PowerPC; tests run under user-mode emulation.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR powerpc)
set(KL_MACHINE powerpc-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-ppc;-L;/usr/powerpc-linux-gnu")
include("${CMAKE_CURRENT_LIST_DIR}/cross.cmake")
