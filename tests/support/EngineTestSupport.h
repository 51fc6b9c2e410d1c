// Shared pieces of the engine tests: a bound registry for the calling
// thread, plane patterns, and reading a texture back.
#ifndef HDRGPU_TEST_ENGINE_TEST_SUPPORT_H
#define HDRGPU_TEST_ENGINE_TEST_SUPPORT_H

#include "EngineHarness.h"

#include <GLES3/gl3.h>

#include <cstdint>
#include <vector>

namespace hdrtest {

// A plane of width x height bytes: value(x, y) = (x * a + y * b + c) mod 256.
std::vector<uint8_t> Pattern(int width, int height, int a, int b, int c);

// Six planes of the given sizes with distinct patterns (seed varies them).
Planes MakePlanes(int mainWidth, int mainHeight, int gainWidth, int gainHeight, int seed);

// The bytes of an R8 texture of width x height, read through a framebuffer
// (needs a current context).
std::vector<uint8_t> ReadRedTexture(GLuint texture, int width, int height);

// Every texel of an RGBA8 texture as four bytes, row 0 first (context current).
std::vector<uint8_t> ReadRgbaTexture(GLuint texture, int width, int height);

}  // namespace hdrtest

#endif
