# Shared part of the Debian cross toolchains. The including file sets
# HDRGPU_TARGET_ARCH (Debian architecture), HDRGPU_TARGET_TRIPLET (multiarch
# directory), HDRGPU_COMPILER_PREFIX (prefix of the cross compiler's name)
# and CMAKE_SYSTEM_PROCESSOR.
#
# The target's libraries come from a private root made out of Debian's
# packages for that architecture (scripts/make-sysroot.sh); host tools such as
# glslangValidator keep being found on the build machine. Test programs run
# through scripts/target-run.sh (natively for i386, under qemu-user for ARM),
# which CTest and GoogleTest's test discovery use as the emulator.
set(CMAKE_SYSTEM_NAME Linux)

if(NOT HDRGPU_SYSROOT)
  if(DEFINED ENV{HDRGPU_SYSROOT})
    set(HDRGPU_SYSROOT "$ENV{HDRGPU_SYSROOT}")
  else()
    set(HDRGPU_SYSROOT "/opt/hdrgpu-sysroot/${HDRGPU_TARGET_ARCH}")
  endif()
endif()
if(NOT EXISTS "${HDRGPU_SYSROOT}/usr/include")
  message(FATAL_ERROR "No ${HDRGPU_TARGET_ARCH} root at ${HDRGPU_SYSROOT}: run scripts/make-sysroot.sh ${HDRGPU_TARGET_ARCH}")
endif()
# Try-compiles run in their own projects: hand the choice down to them.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES HDRGPU_SYSROOT)

set(CMAKE_C_COMPILER ${HDRGPU_COMPILER_PREFIX}-gcc)
set(CMAKE_CXX_COMPILER ${HDRGPU_COMPILER_PREFIX}-g++)
set(CMAKE_SYSROOT "${HDRGPU_SYSROOT}")
set(CMAKE_LIBRARY_ARCHITECTURE ${HDRGPU_TARGET_TRIPLET})

set(CMAKE_FIND_ROOT_PATH "${HDRGPU_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config answers from the root only.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${HDRGPU_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${HDRGPU_SYSROOT}/usr/lib/${HDRGPU_TARGET_TRIPLET}/pkgconfig:${HDRGPU_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# Libraries the root's libraries need (libxml2 -> ICU, Mesa -> ...) are
# resolved at link time through the root's multiarch directories.
set(_hdrgpu_rpath_link
    "-Wl,-rpath-link,${HDRGPU_SYSROOT}/usr/lib/${HDRGPU_TARGET_TRIPLET}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_hdrgpu_rpath_link}")
# A target the build machine executes itself (i386 on x86-64): programs take
# the root's dynamic loader and libraries directly, so that they, and the
# programs they start (the converter's command-line tests), run as they are.
# The search path is an RPATH (not a RUNPATH) in the libraries as well, so
# that it reaches the libraries they load in turn (Mesa's driver).
if(HDRGPU_TARGET_RUNS_NATIVELY)
  set(_hdrgpu_root_rpath
      " -Wl,--disable-new-dtags -Wl,-rpath,${HDRGPU_SYSROOT}/usr/lib/${HDRGPU_TARGET_TRIPLET}")
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT
    " -Wl,--dynamic-linker=${HDRGPU_SYSROOT}/usr/lib/${HDRGPU_TARGET_TRIPLET}/${HDRGPU_TARGET_LOADER}"
    "${_hdrgpu_root_rpath}")
  string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT "${_hdrgpu_root_rpath}")
endif()
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_hdrgpu_rpath_link}")

get_filename_component(_hdrgpu_source_root "${CMAKE_CURRENT_LIST_DIR}/../.." ABSOLUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR
    "${_hdrgpu_source_root}/scripts/target-run.sh;${HDRGPU_TARGET_ARCH};${HDRGPU_SYSROOT}")
