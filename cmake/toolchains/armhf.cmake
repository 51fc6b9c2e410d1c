# 32-bit ARM, hard-float (Debian armhf), the usual television userland.
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/armhf.cmake
set(HDRGPU_TARGET_ARCH armhf)
set(HDRGPU_TARGET_TRIPLET arm-linux-gnueabihf)
set(HDRGPU_COMPILER_PREFIX arm-linux-gnueabihf)
set(CMAKE_SYSTEM_PROCESSOR arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
