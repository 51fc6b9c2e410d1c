# 64-bit ARM (Debian arm64).
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/arm64.cmake
set(HDRGPU_TARGET_ARCH arm64)
set(HDRGPU_TARGET_TRIPLET aarch64-linux-gnu)
set(HDRGPU_COMPILER_PREFIX aarch64-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
