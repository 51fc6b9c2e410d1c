# 32-bit ARM, hard-float (Debian armhf), the usual television userland.
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/armhf.cmake
set(HDRGPU_TARGET_ARCH armhf)
set(HDRGPU_TARGET_TRIPLET arm-linux-gnueabihf)
set(HDRGPU_COMPILER_PREFIX arm-linux-gnueabihf)
set(CMAKE_SYSTEM_PROCESSOR arm)
# GCC notes that the passing of some aggregates changed in GCC 7.1; nothing
# here is linked against code built by a compiler that old.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
