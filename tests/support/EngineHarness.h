// Drives the generation engine the way its public entry points will: the
// calling thread's render context, the generator in the direct mode, planes
// uploaded through the engine, and the picture read back through the buffer
// manager's map, exactly as a host sees it. The gain-map program's uniforms
// are set directly by the test.
#ifndef HDRGPU_TEST_ENGINE_HARNESS_H
#define HDRGPU_TEST_ENGINE_HARNESS_H

#include "GainMapUniforms.h"

#include <EGL/egl.h>

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

class OutputImages;

namespace hdrtest {

// Six full-size 8-bit planes, rows tightly packed, row 0 first.
struct Planes {
    int mainWidth = 0;
    int mainHeight = 0;
    int gainWidth = 0;
    int gainHeight = 0;
    std::vector<uint8_t> main[3];  // Y, U, V
    std::vector<uint8_t> gain[3];  // Y, U, V
};

struct Rgba8 {
    uint8_t r, g, b, a;
};

class EngineHarness {
public:
    // Makes the calling thread's render context on the test display and
    // initialises the generator: in the direct mode with an output surface of
    // outputWidth x outputHeight, or in the streaming mode, whose surface
    // comes with the first Intake. ok() tells whether that worked. images,
    // when given, is the kind of output image the engine is built with
    // (otherwise this build's).
    EngineHarness(int outputWidth, int outputHeight, EGLDisplay display, bool streaming = false);
    EngineHarness(int outputWidth, int outputHeight, EGLDisplay display, bool streaming,
                  std::unique_ptr<const OutputImages> images);
    // Destroys the generator and the registry.
    ~EngineHarness();
    EngineHarness(const EngineHarness&) = delete;
    EngineHarness& operator=(const EngineHarness&) = delete;

    bool ok() const { return ok_; }
    int width() const { return width_; }
    int height() const { return height_; }

    // Uploads the planes through the engine's direct-mode upload; returns its
    // result code (0 on success).
    int Upload(const Planes& planes);

    // Streaming mode: the metadata intake for planes' sizes and an output of
    // outputWidth x outputHeight (the output surface made anew, the upload
    // buffers mapped for the next picture). Returns the first failing result.
    int Intake(const Planes& planes, int outputWidth, int outputHeight);

    // Streaming mode: writes the six planes one by one between
    // UpdateDataBegin and UpdateDataEnd into the mapped buffers.
    bool Stream(const Planes& planes);
    // The same for one plane (0 to 5: main Y, U, V, gain Y, U, V).
    bool StreamPlane(const Planes& planes, int plane);

    // Fills the surface with a sentinel, sets every uniform, draws the output
    // as the engine does (pass by pass where its output images need that)
    // and puts the picture into the surface. Returns 0, or
    // 11 on a GL error.
    int Draw(const GainMapUniforms& uniforms);

    // The surface's pixels in row order (row 0 first), decoded from the
    // surface format's byte order into R, G, B, A, read through
    // tbm_surface_map. Empty when the surface cannot be mapped.
    std::vector<Rgba8> ReadSurface() const;

    // The byte written into every byte of the surface before a draw.
    static constexpr uint8_t kSentinel = 0xA7;

private:
    int width_;
    int height_;
    bool ok_ = false;
};

}  // namespace hdrtest

#endif
