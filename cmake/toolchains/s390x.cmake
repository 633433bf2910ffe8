# IBM Z, 64 bits and big-endian, by Debian's g++-s390x-linux-gnu. qemu-user-static runs the programs.
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(KESP_TRIPLET s390x-linux-gnu)
set(KESP_EMULATOR qemu-s390x-static -L /usr/s390x-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
