# What the toolchains for Debian's cross compilers have in common; KESP_TRIPLET names the compiler and its folder, and
# KESP_EMULATOR is the command in front of a program that makes it run on the machine that builds.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${KESP_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${KESP_TRIPLET}-g++)
set(CMAKE_FIND_ROOT_PATH /usr/${KESP_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR ${KESP_EMULATOR})
