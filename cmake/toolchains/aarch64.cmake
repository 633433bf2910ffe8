# 64-bit ARM by Debian's g++-aarch64-linux-gnu. qemu-user-static runs the programs.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(KESP_TRIPLET aarch64-linux-gnu)
set(KESP_EMULATOR qemu-aarch64-static -L /usr/aarch64-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
