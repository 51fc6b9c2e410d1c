// Every uniform of the gain-map program as plain values, shared by the
// engine harness (which sets them) and the constants model (which computes
// them); nothing here needs EGL or GL.
#ifndef HDRGPU_TEST_GAIN_MAP_UNIFORMS_H
#define HDRGPU_TEST_GAIN_MAP_UNIFORMS_H

#include <array>

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

}  // namespace hdrtest

#endif
