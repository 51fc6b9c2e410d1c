// The gain-map program's two GLSL ES 3.00 sources and the slots its
// attributes and uniforms are registered under.
#ifndef HDR_GENERATE_SHADERS_H
#define HDR_GENERATE_SHADERS_H

extern const char* const kGainMapVertexShader;
extern const char* const kGainMapFragmentShader;

enum GainMapAttributeSlot : int {
    ATTRIBUTE_POSITION = 0,
    ATTRIBUTE_TEXCOORD = 1,
};

// Slots 0..5 are the planes' samplers, in plane order.
enum GainMapUniformSlot : int {
    UNIFORM_MAIN_Y_SAMPLER = 0,
    UNIFORM_LOG_RATIO_MIN = 6,
    UNIFORM_LOG_RATIO_MAX = 7,
    UNIFORM_GAINMAP_GAMMA = 8,
    UNIFORM_EPSILON_SDR = 9,
    UNIFORM_EPSILON_HDR = 10,
    UNIFORM_WEIGHT = 11,
    UNIFORM_NO_GAMMA = 12,
    UNIFORM_OUTPUT_GAMUT_TRANSFORM = 13,
    UNIFORM_TRFN_INV = 14,
    UNIFORM_CURVE_GAIN_POINT = 15,
    UNIFORM_CURVE_GAIN_GRAD = 16,
    UNIFORM_OUTPUT_YUV = 17,
    UNIFORM_INPUT_TRFN_TYPE = 18,
    UNIFORM_IN_TRFN = 19,
    UNIFORM_ROTATE_MATRIX = 20,
    UNIFORM_SLOT_COUNT = 21,
};

#endif
