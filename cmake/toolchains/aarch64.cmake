# Cross build for 64-bit ARM; tests run under user-mode emulation.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(KL_MACHINE aarch64-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-aarch64;-L;/usr/aarch64-linux-gnu")
include("${CMAKE_CURRENT_LIST_DIR}/cross.cmake")
