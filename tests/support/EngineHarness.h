// Drives the generation engine the way its public entry points will: the
// calling thread's render context, the generator in the direct mode, planes
// uploaded through the engine, and the picture read back through the buffer
// manager's map, exactly as a host sees it. The gain-map program's uniforms
// are set directly by the test.
#ifndef HDRGPU_TEST_ENGINE_HARNESS_H
#define HDRGPU_TEST_ENGINE_HARNESS_H

#include <EGL/egl.h>

#include <array>
#include <cstdint>
#include <vector>

namespace hdrtest {

// Every uniform of the gain-map program, as the shader receives it.
struct GainMapUniforms {
    std::array<float, 4> logRatioMin{{0, 0, 0, 1}};
    std::array<float, 4> logRatioMax{{0, 0, 0, 1}};
    std::array<float, 4> gainmapGamma{{1, 1, 1, 1}};
    std::array<float, 4> epsilonSdr{{0, 0, 0, 1}};
    std::array<float, 4> epsilonHdr{{0, 0, 0, 1}};
    float W = 0.0f;
    int noGamma = 1;
    std::array<float, 9> outputGamutTransform{{1, 0, 0, 0, 1, 0, 0, 0, 1}};
    // Identity encoding: g 1, a 1, b 0, c 1, d 0, e 0, f 0.
    std::array<float, 7> trfn_inv{{1, 1, 0, 1, 0, 0, 0}};
    // Identity gain curve: points 0, 0.5, 1 with slope 0.5 per unit of t.
    std::array<float, 3> curve_gain_point{{0.0f, 0.5f, 1.0f}};
    std::array<float, 3> curve_gain_grad{{0.5f, 0.5f, 0.5f}};
    int bOutputYUV = 0;
    int inputTrfnType = 0;
    std::array<float, 7> in_trfn{{1, 1, 0, 1, 0, 0, 0}};
    // Column-major 4x4, identity.
    std::array<float, 16> rotateMatrix{{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}};
};

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
    // comes with the first Intake. ok() tells whether that worked.
    EngineHarness(int outputWidth, int outputHeight, EGLDisplay display, bool streaming = false);
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

    // Fills the surface with a sentinel, sets every uniform, draws one pass
    // over the output and puts the picture into the surface. Returns 0, or
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
