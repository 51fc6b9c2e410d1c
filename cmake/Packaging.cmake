# Debian packages through CPack (cpack -G DEB in a build configured with
# -DCMAKE_INSTALL_PREFIX=/usr, so that the library directory is the
# multiarch one):
#   libhdrgpubackend1      the shared library (SONAME libhdrgpubackend.so.1)
#                          and, on plain Linux, the stand-ins for the
#                          platform's buffer manager, system information and
#                          logger, which the library links at run time
#   libhdrgpubackend-dev   the header, the stand-ins' headers, the .so links,
#                          the pkg-config file and the CMake package
#   hdrgpu-convert         the converter
# scripts/package-check.sh builds, installs and tries them.
set(CPACK_PACKAGE_NAME hdrgpubackend)
set(CPACK_PACKAGE_VENDOR "hdrgpubackend")
set(CPACK_PACKAGE_CONTACT "hdrgpubackend maintainers <hdrgpubackend@localhost>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "HDR rendition of gain-map photographs on the GPU (OpenGL ES 3.0)")
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev converter)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Inter-package dependencies carry the exact version built together.
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# dpkg-shlibdeps resolves the converter's link to the library from the build.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${PROJECT_BINARY_DIR}/src ${PROJECT_BINARY_DIR}/platform)

set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "HDR rendition of gain-map photographs on the GPU: shared library")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libhdrgpubackend${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# llvmpipe (or any Mesa driver) behind libEGL for a machine without a GPU.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS "libegl-mesa0, libgl1-mesa-dri")

set(CPACK_COMPONENT_DEV_DESCRIPTION
    "HDR rendition of gain-map photographs on the GPU: development files")
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libhdrgpubackend-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# The pkg-config file names egl and glesv2 as private requirements.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libegl-dev, libgles-dev, pkg-config")

set(CPACK_COMPONENT_CONVERTER_DESCRIPTION
    "Converter from gain-map JPEG photographs to HDR pictures (PNG, PQ PNG, AVIF)")
set(CPACK_COMPONENT_CONVERTER_DEPENDS runtime)
set(CPACK_DEBIAN_CONVERTER_PACKAGE_NAME hdrgpu-convert)
set(CPACK_DEBIAN_CONVERTER_PACKAGE_SECTION graphics)
set(CPACK_DEBIAN_CONVERTER_PACKAGE_RECOMMENDS "libegl-mesa0, libgl1-mesa-dri")

include(CPack)
