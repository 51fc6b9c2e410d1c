// The gain-map program, as fixed text: every choice (input curve, gamma,
// YUV or RGB output) is made at run time through uniforms.
#include "HdrGenerateShaders.h"

#include "HdrGainMapShaderText.h"

// The position is the row vector (aPosition, 1) times rotateMatrix: the
// rotation and mirror matrix is built for this order.
const char* const kGainMapVertexShader =
    "#version 300 es\n"
    "precision highp float;\n"
    "in vec3 aPosition;\n"
    "in vec2 aTexcoord;\n"
    "out vec2 vTexcoord;\n"
    "uniform mat4 rotateMatrix;\n"
    "void main()\n"
    "{\n"
    "\tvTexcoord = aTexcoord;\n"
    "\tgl_Position = vec4(aPosition, 1.0) * rotateMatrix;\n"
    "}\n";

// Main image and gain map arrive as full-range BT.601 Y, U, V planes. The
// main image is decoded by the input curve (OETF), the gain map shaped by
// the gain curve, and the gain applied in the log domain with weight W
// before the output curve (EOTF) encodes the result. toOutputGamut is kept
// but not called: every accepted gamut renders unconverted. The luma weight
// of red in the YUV output is 0.229.
const char* const kGainMapFragmentShader = HDR_GLSL_FRAGMENT_START
    "uniform mediump sampler2D u_gainmapUSampler;\n"
    "uniform mediump sampler2D u_gainmapVSampler;\n"
    "uniform vec4 logRatioMin;\n"
    "uniform vec4 logRatioMax;\n"
    "uniform vec4 gainmapGamma;\n"
    "uniform vec4 epsilonSdr;\n"
    "uniform vec4 epsilonHdr;\n"
    "uniform float W;\n"
    "uniform int noGamma;\n"
    "uniform mat3 outputGamutTransform;\n"
    "uniform float trfn_inv[7];\n"
    "uniform vec3 curve_gain_point;\n"
    "uniform vec3 curve_gain_grad;\n"
    "uniform int bOutputYUV;\n"
    "uniform int inputTrfnType;\n"
    "uniform float in_trfn[7];\n"
    "\n" HDR_GLSL_YUV_TO_RGB
    "\n"
    "vec3 toOutputGamut(vec3 color)\n"
    "{\n"
    "\treturn outputGamutTransform * color;\n"
    "}\n"
    "\n" HDR_GLSL_OETF_START
    "\tif (inputTrfnType == 1) {\n"
    "\t\tfloat K = f + 1.0;\n"
    "\t\treturn K * sign * (x * a <= 1.0 ? pow(x * a, b) : exp((x - e) * c + d));\n"
    "\t} else if (inputTrfnType == 2) {\n"
    "\t\tfloat K = pow(x, c);\n"
    "\t\treturn sign * pow(max(a + b * K, 0.0) / (d + e * K), f);\n"
    "\t} else if (inputTrfnType == 3) {\n"
    "\t\treturn sign * (x < d ? c * x + f : pow(a * x + b, g) + e);\n"
    "\t}\n"
    "}\n"
    "\n" HDR_GLSL_EOTF
    "\n"
    "float pre_curve(float value)\n"
    "{\n"
    "\tfloat t;\n"
    "\tfloat p0;\n"
    "\tfloat m0;\n"
    "\tfloat p1;\n"
    "\tfloat m1;\n"
    "\tif (value < 0.5) {\n"
    "\t\tt = value * 2.0;\n"
    "\t\tp0 = curve_gain_point.x;\n"
    "\t\tm0 = curve_gain_grad.x;\n"
    "\t\tp1 = curve_gain_point.y;\n"
    "\t\tm1 = curve_gain_grad.y;\n"
    "\t} else {\n"
    "\t\tt = (value - 0.5) * 2.0;\n"
    "\t\tp0 = curve_gain_point.y;\n"
    "\t\tm0 = curve_gain_grad.y;\n"
    "\t\tp1 = curve_gain_point.z;\n"
    "\t\tm1 = curve_gain_grad.z;\n"
    "\t}\n"
    "\tfloat t2 = t * t;\n"
    "\tfloat t3 = t2 * t;\n"
    "\treturn (2.0 * t3 - 3.0 * t2 + 1.0) * p0 + (t3 - 2.0 * t2 + t) * m0\n"
    "\t     + (3.0 * t2 - 2.0 * t3) * p1 - (t2 - t3) * m1;\n"
    "}\n"
    "\n"
    "void main()\n"
    "{\n" HDR_GLSL_SAMPLE_MAIN
    "\tif (inputTrfnType != 0) {\n"
    "\t\tsdr = vec3(OETF(sdr.r), OETF(sdr.g), OETF(sdr.b));\n"
    "\t}\n"
    "\n" HDR_GLSL_SAMPLE_GAIN HDR_GLSL_SHAPE_GAIN
    "\n"
    "\tvec3 logGain;\n"
    "\tif (noGamma == 1) {\n"
    "\t\tlogGain = mix(logRatioMin.rgb, logRatioMax.rgb, gain);\n"
    "\t} else {\n"
    "\t\tlogGain = mix(logRatioMin.rgb, logRatioMax.rgb, pow(gain, gainmapGamma.rgb));\n"
    "\t}\n"
    "\tvec3 hdr = (sdr + epsilonSdr.rgb) * exp(logGain * W) - epsilonHdr.rgb;\n"
    "\n"
    "\tvec3 result = vec3(EOTF(hdr.r), EOTF(hdr.g), EOTF(hdr.b));\n"
    "\tif (bOutputYUV == 1) {\n"
    "\t\tresult = vec3(0.229 * result.r + 0.587 * result.g + 0.114 * result.b,\n"
    "\t\t              -0.169 * result.r - 0.331 * result.g + 0.500 * result.b + 0.5,\n"
    "\t\t              0.500 * result.r - 0.439 * result.g - 0.081 * result.b + 0.5);\n"
    "\t}\n"
    "\tfragColor = vec4(result, 1.0);\n"
    "}\n";
