# 32-bit x86 (Debian i386): runs natively on an x86-64 machine.
#   cmake -S . -B build-i386 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/i386.cmake
set(HDRGPU_TARGET_ARCH i386)
set(HDRGPU_TARGET_TRIPLET i386-linux-gnu)
set(HDRGPU_COMPILER_PREFIX i686-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(HDRGPU_TARGET_RUNS_NATIVELY ON)
set(HDRGPU_TARGET_LOADER ld-linux.so.2)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
