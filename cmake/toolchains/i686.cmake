# 32-bit x86 by Debian's g++-i686-linux-gnu. An x86-64 machine runs the programs itself, by the loader of that C library.
set(CMAKE_SYSTEM_PROCESSOR i686)
set(KESP_TRIPLET i686-linux-gnu)
set(KESP_EMULATOR /usr/i686-linux-gnu/lib/ld-linux.so.2 --library-path /usr/i686-linux-gnu/lib)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
