// Pieces of GLSL text that the registered gain-map program and its
// specialised variants share word for word. Macros, so that each program's
// text is still one string literal assembled by the compiler.
#ifndef HDR_GAIN_MAP_SHADER_TEXT_H
#define HDR_GAIN_MAP_SHADER_TEXT_H

// The fragment stage's opening: version, precision, its varying and output,
// and the samplers of the main image's planes and of the gain map's luma.
#define HDR_GLSL_FRAGMENT_START                   \
    "#version 300 es\n"                           \
    "precision highp float;\n"                    \
    "in vec2 vTexcoord;\n"                        \
    "out vec4 fragColor;\n"                       \
    "uniform mediump sampler2D u_MainYSampler;\n" \
    "uniform mediump sampler2D u_MainUSampler;\n" \
    "uniform mediump sampler2D u_MainVSampler;\n" \
    "uniform mediump sampler2D u_gainmapYSampler;\n"

// The full-range BT.601 matrix both images are decoded with.
#define HDR_GLSL_YUV_TO_RGB                               \
    "const mat3 yuvToRgb = mat3(1.0, 1.0, 1.0,\n"         \
    "                           0.0, -0.344136, 1.772,\n" \
    "                           1.402, -0.714136, 0.0);\n"

// The input curve's opening: its seven parameters, the sign kept apart.
#define HDR_GLSL_OETF_START                  \
    "float OETF(float x)\n"                  \
    "{\n"                                    \
    "\tfloat g = in_trfn[0];\n"              \
    "\tfloat a = in_trfn[1];\n"              \
    "\tfloat b = in_trfn[2];\n"              \
    "\tfloat c = in_trfn[3];\n"              \
    "\tfloat d = in_trfn[4];\n"              \
    "\tfloat e = in_trfn[5];\n"              \
    "\tfloat f = in_trfn[6];\n"              \
    "\tfloat sign = x < 0.0 ? -1.0 : 1.0;\n" \
    "\tx = abs(x);\n"

// The output curve, whole.
#define HDR_GLSL_EOTF                                                \
    "float EOTF(float x)\n"                                          \
    "{\n"                                                            \
    "\tfloat g = trfn_inv[0];\n"                                     \
    "\tfloat a = trfn_inv[1];\n"                                     \
    "\tfloat b = trfn_inv[2];\n"                                     \
    "\tfloat c = trfn_inv[3];\n"                                     \
    "\tfloat d = trfn_inv[4];\n"                                     \
    "\tfloat e = trfn_inv[5];\n"                                     \
    "\tfloat f = trfn_inv[6];\n"                                     \
    "\tfloat sign = x < 0.0 ? -1.0 : 1.0;\n"                         \
    "\tx = abs(x);\n"                                                \
    "\treturn sign * (x < d ? c * x + f : pow(a * x + b, g) + e);\n" \
    "}\n"

// The main image sampled and turned into RGB.
#define HDR_GLSL_SAMPLE_MAIN                                               \
    "\tvec3 mainYuv = vec3(texture(u_MainYSampler, vTexcoord).r,\n"        \
    "\t                    texture(u_MainUSampler, vTexcoord).r - 0.5,\n"  \
    "\t                    texture(u_MainVSampler, vTexcoord).r - 0.5);\n" \
    "\tvec3 sdr = yuvToRgb * mainYuv;\n"

// The gain map's three planes sampled and turned into RGB.
#define HDR_GLSL_SAMPLE_GAIN                                                  \
    "\tvec3 gainYuv = vec3(texture(u_gainmapYSampler, vTexcoord).r,\n"        \
    "\t                    texture(u_gainmapUSampler, vTexcoord).r - 0.5,\n"  \
    "\t                    texture(u_gainmapVSampler, vTexcoord).r - 0.5);\n" \
    "\tvec3 gain = yuvToRgb * gainYuv;\n"

// The gain curve applied per channel, then clamped.
#define HDR_GLSL_SHAPE_GAIN                                                     \
    "\tgain = vec3(pre_curve(gain.r), pre_curve(gain.g), pre_curve(gain.b));\n" \
    "\tgain = clamp(gain, 0.0, 1.0);\n"

#endif
