// Assembles a variant's fragment text from the general program's pieces,
// leaving out the branches its picture class never takes.
#include "HdrGainMapVariant.h"

#include "HdrGainMapShaderText.h"

#include <cmath>
#include <cstring>
#include <limits>

const char* const kFlatGainChromaUniform = "flatGainChroma";
const char* const kLogCurveConstantsUniform = "logCurveConstants";
const char* const kPackedGainMapSampler = "u_gainmapYuvSampler";

namespace {

const char* const kHeader = HDR_GLSL_FRAGMENT_START
    "uniform vec4 logRatioMin;\n"
    "uniform vec4 logRatioMax;\n"
    "uniform float W;\n"
    "uniform float trfn_inv[7];\n"
    "uniform vec3 curve_gain_point;\n"
    "uniform vec3 curve_gain_grad;\n"
    "\n" HDR_GLSL_YUV_TO_RGB "\n";

const char* const kGainChromaSamplers =
    "uniform mediump sampler2D u_gainmapUSampler;\n"
    "uniform mediump sampler2D u_gainmapVSampler;\n";

const char* const kPackedGainDeclaration = "uniform mediump sampler2D u_gainmapYuvSampler;\n";

const char* const kFlatGainChromaDeclaration = "uniform vec3 flatGainChroma;\n";

const char* const kGammaDeclaration = "uniform vec4 gainmapGamma;\n";

const char* const kInputCurveDeclaration = "uniform float in_trfn[7];\n";

const char* const kInputCurveStart = HDR_GLSL_OETF_START;

const char* const kInputCurveBody[4] = {
    "",
    "\tfloat K = f + 1.0;\n"
    "\treturn K * sign * (x * a <= 1.0 ? pow(x * a, b) : exp((x - e) * c + d));\n",
    "\tfloat K = pow(x, c);\n"
    "\treturn sign * pow(max(a + b * K, 0.0) / (d + e * K), f);\n",
    "\treturn sign * (x < d ? c * x + f : pow(a * x + b, g) + e);\n",
};

const char* const kOffsetDeclarations =
    "uniform vec4 epsilonSdr;\n"
    "uniform vec4 epsilonHdr;\n";

const char* const kLogCurveDeclaration = "uniform vec4 logCurveConstants;\n";

// log2 of the input curve's magnitude, with one logarithm per call: where
// the form has two segments, the segment picks the logarithm's argument
// rather than which of two logarithms to take. GLSL leaves log2 of zero
// undefined; 1e-30 stands in for it, a value whose every power the output
// curve takes is far below one output code.
const char* const kLogInputCurveStart =
    "float logOETF(float x)\n"
    "{\n"
    "\tfloat g = in_trfn[0];\n"
    "\tfloat a = in_trfn[1];\n"
    "\tfloat b = in_trfn[2];\n"
    "\tfloat c = in_trfn[3];\n"
    "\tfloat d = in_trfn[4];\n"
    "\tfloat e = in_trfn[5];\n"
    "\tfloat f = in_trfn[6];\n"
    "\tx = abs(x);\n";

const char* const kLogInputCurveBody[4] = {
    "",
    "\treturn x * a <= 1.0 ? b * log2(max(x * a, 1.0e-30)) : ((x - e) * c + d) * 1.442695041;\n",
    "\tfloat K = pow(x, c);\n"
    "\treturn f * log2(max(max(a + b * K, 0.0) / (d + e * K), 1.0e-30));\n",
    "\tbool linear = x < d;\n"
    "\treturn (linear ? 1.0 : g) * log2(max(linear ? x : a * x + b, 1.0e-30)) + (linear ? logCurveConstants.z : "
    "0.0);\n",
};

// The output curve of a magnitude given as its log2; one exp2 per call.
const char* const kLogOutputCurve =
    "float logEOTF(float l)\n"
    "{\n"
    "\tbool linear = l < logCurveConstants.y;\n"
    "\tfloat v = exp2(linear ? l : trfn_inv[0] * (logCurveConstants.x + l));\n"
    "\treturn linear ? trfn_inv[3] * v + trfn_inv[6] : v + trfn_inv[5];\n"
    "}\n"
    "\n";

const char* const kGainCurve =
    "float pre_curve(float value)\n"
    "{\n"
    "\tbool low = value < 0.5;\n"
    "\tfloat t = low ? value * 2.0 : (value - 0.5) * 2.0;\n"
    "\tfloat p0 = low ? curve_gain_point.x : curve_gain_point.y;\n"
    "\tfloat m0 = low ? curve_gain_grad.x : curve_gain_grad.y;\n"
    "\tfloat p1 = low ? curve_gain_point.y : curve_gain_point.z;\n"
    "\tfloat m1 = low ? curve_gain_grad.y : curve_gain_grad.z;\n"
    "\tfloat t2 = t * t;\n"
    "\tfloat t3 = t2 * t;\n"
    "\treturn (2.0 * t3 - 3.0 * t2 + 1.0) * p0 + (t3 - 2.0 * t2 + t) * m0\n"
    "\t     + (3.0 * t2 - 2.0 * t3) * p1 - (t2 - t3) * m1;\n"
    "}\n"
    "\n";

// The straight-line curve in the same function's name and uniforms.
const char* const kAffineGainCurve =
    "float pre_curve(float value)\n"
    "{\n"
    "\treturn curve_gain_point.x + 2.0 * curve_gain_grad.x * value;\n"
    "}\n"
    "\n";

const char* const kMainStart =
    "void main()\n"
    "{\n" HDR_GLSL_SAMPLE_MAIN;

const char* const kApplyInputCurve = "\tsdr = vec3(OETF(sdr.r), OETF(sdr.g), OETF(sdr.b));\n";

// Without offsets the HDR value keeps the sign of the main image's value.
const char* const kLogSdr = "\tvec3 sdrSign = vec3(1.0) - 2.0 * vec3(lessThan(sdr, vec3(0.0)));\n";
const char* const kLogSdrDecoded = "\tvec3 logSdr = vec3(logOETF(sdr.r), logOETF(sdr.g), logOETF(sdr.b));\n";
const char* const kLogSdrLinear = "\tvec3 logSdr = log2(max(abs(sdr), vec3(1.0e-30)));\n";

const char* const kSampleGain = HDR_GLSL_SAMPLE_GAIN;

// The YUV matrix's first column is (1, 1, 1): with constant chroma the gain
// is the luma on every channel plus the chroma's fixed contribution.
const char* const kSampleFlatGain = "\tvec3 gain = vec3(texture(u_gainmapYSampler, vTexcoord).r) + flatGainChroma;\n";

// One bilinear fetch of four bytes costs what one of a single byte does: the
// three planes' values at once, filtered alike.
const char* const kSamplePackedGain =
    "\tvec3 gain = yuvToRgb * (texture(u_gainmapYuvSampler, vTexcoord).rgb - vec3(0.0, 0.5, 0.5));\n";

const char* const kShapeGain = HDR_GLSL_SHAPE_GAIN;

const char* const kLogGainWithGamma =
    "\tvec3 logGain = mix(logRatioMin.rgb, logRatioMax.rgb, pow(gain, gainmapGamma.rgb));\n";

const char* const kLogGainWithoutGamma = "\tvec3 logGain = mix(logRatioMin.rgb, logRatioMax.rgb, gain);\n";

const char* const kApplyGain =
    "\tvec3 hdr = (sdr + epsilonSdr.rgb) * exp(logGain * W) - epsilonHdr.rgb;\n"
    "\tvec3 result = vec3(EOTF(hdr.r), EOTF(hdr.g), EOTF(hdr.b));\n";

// exp(logGain * W) as a power of two: log2(e) = 1.442695041.
const char* const kApplyLogGain =
    "\tvec3 logHdr = logSdr + logGain * (W * 1.442695041);\n"
    "\tvec3 result = sdrSign * vec3(logEOTF(logHdr.r), logEOTF(logHdr.g), logEOTF(logHdr.b));\n";

// The red luma weight 0.229 is the general program's, kept on purpose.
const char* const kYuvOutput =
    "\tresult = vec3(0.229 * result.r + 0.587 * result.g + 0.114 * result.b,\n"
    "\t              -0.169 * result.r - 0.331 * result.g + 0.500 * result.b + 0.5,\n"
    "\t              0.500 * result.r - 0.439 * result.g - 0.081 * result.b + 0.5);\n";

const char* const kMainEnd =
    "\tfragColor = vec4(result, 1.0);\n"
    "}\n";

}  // namespace

int GainMapVariantIndex(const GainMapVariant& variant)
{
    if (variant.inputCurve < 0 || variant.inputCurve > 3) {
        return -1;
    }
    const int withoutCurve =
        ((((variant.packedGain ? 4 : 0) + variant.inputCurve) * 2 + (variant.applyGamma ? 1 : 0)) * 2 +
         (variant.outputYuv ? 1 : 0)) *
            4 +
        (variant.flatGainChroma ? 2 : 0) + (variant.logDomain ? 1 : 0);
    return withoutCurve * 2 + (variant.affineGainCurve ? 1 : 0);
}

std::string GainMapVariantFragmentSource(const GainMapVariant& variant)
{
    const bool decodesInput = variant.inputCurve >= 1 && variant.inputCurve <= 3;
    const bool packedGain = variant.packedGain && !variant.flatGainChroma;
    std::string text;
    text.reserve(4096);
    text += kHeader;
    if (variant.flatGainChroma) {
        text += kFlatGainChromaDeclaration;
    } else {
        text += packedGain ? kPackedGainDeclaration : kGainChromaSamplers;
    }
    if (variant.applyGamma) {
        text += kGammaDeclaration;
    }
    if (decodesInput) {
        text += kInputCurveDeclaration;
    }
    text += variant.logDomain ? kLogCurveDeclaration : kOffsetDeclarations;
    if (decodesInput) {
        text += variant.logDomain ? kLogInputCurveStart : kInputCurveStart;
        text += (variant.logDomain ? kLogInputCurveBody : kInputCurveBody)[variant.inputCurve];
        text += "}\n\n";
    }
    if (variant.logDomain) {
        text += kLogOutputCurve;
    } else {
        text += HDR_GLSL_EOTF "\n";
    }
    text += variant.affineGainCurve ? kAffineGainCurve : kGainCurve;
    text += kMainStart;
    if (variant.logDomain) {
        text += kLogSdr;
        text += decodesInput ? kLogSdrDecoded : kLogSdrLinear;
    } else if (decodesInput) {
        text += kApplyInputCurve;
    }
    if (variant.flatGainChroma) {
        text += kSampleFlatGain;
    } else {
        text += packedGain ? kSamplePackedGain : kSampleGain;
    }
    text += kShapeGain;
    text += variant.applyGamma ? kLogGainWithGamma : kLogGainWithoutGamma;
    text += variant.logDomain ? kApplyLogGain : kApplyGain;
    if (variant.outputYuv) {
        text += kYuvOutput;
    }
    text += kMainEnd;
    return text;
}

bool LogDomainApplies(int32_t inputCurve, const float inTrfn[7], const float trfnInv[7], const float epsilonSdr[3],
                      const float epsilonHdr[3])
{
    for (int c = 0; c < 3; ++c) {
        if (epsilonSdr[c] != 0.0f || epsilonHdr[c] != 0.0f) {
            return false;
        }
    }
    for (int i = 0; i < 7; ++i) {
        if (!std::isfinite(trfnInv[i])) {
            return false;
        }
    }
    if (trfnInv[2] != 0.0f || !(trfnInv[1] > 0.0f)) {
        return false;
    }
    switch (inputCurve) {
    case 0:
    case 2:
        return true;
    case 1:
        return inTrfn[6] == 0.0f;
    case 3:
        return inTrfn[5] == 0.0f && inTrfn[6] == 0.0f && inTrfn[3] > 0.0f;
    default:
        return false;
    }
}

void LogDomainConstants(int32_t inputCurve, const float inTrfn[7], const float trfnInv[7], float constants[4])
{
    constants[0] = std::log2(trfnInv[1]);
    constants[1] = trfnInv[4] > 0.0f ? std::log2(trfnInv[4]) : -std::numeric_limits<float>::infinity();
    constants[2] = inputCurve == 3 && inTrfn[3] > 0.0f ? std::log2(inTrfn[3]) : 0.0f;
    constants[3] = 0.0f;
}

bool GainCurveIsAffine(const float points[3], const float grads[3])
{
    const float slope = grads[0];
    return points[1] - points[0] == slope && points[2] - points[1] == slope && grads[1] == slope && grads[2] == slope;
}

void FlatGainChromaOffset(uint8_t u, uint8_t v, float rgb[3])
{
    const float cu = static_cast<float>(u) / 255.0f - 0.5f;
    const float cv = static_cast<float>(v) / 255.0f - 0.5f;
    rgb[0] = 1.402f * cv;
    rgb[1] = -0.344136f * cu - 0.714136f * cv;
    rgb[2] = 1.772f * cu;
}

bool PlaneMapsOneToOne(int planeWidth, int planeHeight, int outputWidth, int outputHeight, int32_t rotate)
{
    const bool quarterTurn = rotate == 1 || rotate == 3;
    const int width = quarterTurn ? planeHeight : planeWidth;
    const int height = quarterTurn ? planeWidth : planeHeight;
    return width > 0 && height > 0 && outputWidth == width && outputHeight == height;
}

bool RendererSamplesOnTheCpu(const char* renderer)
{
    if (renderer == nullptr) {
        return false;
    }
    for (const char* name : {"llvmpipe", "softpipe", "SwiftShader"}) {
        if (std::strstr(renderer, name) != nullptr) {
            return true;
        }
    }
    return false;
}

void InterleaveGainMapPixels(const uint8_t* y, const uint8_t* u, const uint8_t* v, size_t count, uint8_t* rgba)
{
    // A whole texel as one 32-bit word, which the compiler vectorises; byte
    // by byte it does not.
    for (size_t i = 0; i < count; ++i) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
        const uint32_t texel = uint32_t{y[i]} << 24 | uint32_t{u[i]} << 16 | uint32_t{v[i]} << 8 | 0xFFu;
#else
        const uint32_t texel = uint32_t{y[i]} | uint32_t{u[i]} << 8 | uint32_t{v[i]} << 16 | 0xFF000000u;
#endif
        std::memcpy(rgba + 4 * i, &texel, sizeof texel);
    }
}

bool PlaneIsFlat(const uint8_t* plane, size_t bytes)
{
    if (plane == nullptr || bytes == 0) {
        return false;
    }
    // Once the first block is known to hold one value, every later block is
    // compared with it by memcmp, which runs at memory speed.
    const uint8_t first = plane[0];
    constexpr size_t kBlock = 4096;
    size_t head = bytes < kBlock ? bytes : kBlock;
    for (size_t i = 0; i < head; ++i) {
        if (plane[i] != first) {
            return false;
        }
    }
    for (size_t offset = head; offset < bytes; offset += kBlock) {
        const size_t length = bytes - offset < kBlock ? bytes - offset : kBlock;
        if (std::memcmp(plane + offset, plane, length) != 0) {
            return false;
        }
    }
    return true;
}

void GainChromaContent::Note(int plane, const uint8_t* data, size_t bytes)
{
    if (plane < 0 || plane > 1) {
        return;
    }
    flat_[plane] = PlaneIsFlat(data, bytes);
    value_[plane] = flat_[plane] ? data[0] : 0;
}

void GainChromaContent::Forget(int plane)
{
    if (plane >= 0 && plane <= 1) {
        flat_[plane] = false;
        value_[plane] = 0;
    }
}
