// Assembles a variant's fragment text from the general program's pieces,
// leaving out the branches its picture class never takes.
#include "HdrGainMapVariant.h"

#include "HdrGainMapShaderText.h"

#include <cstring>

const char* const kFlatGainChromaUniform = "flatGainChroma";

namespace {

const char* const kHeader = HDR_GLSL_FRAGMENT_START
    "uniform vec4 logRatioMin;\n"
    "uniform vec4 logRatioMax;\n"
    "uniform vec4 epsilonSdr;\n"
    "uniform vec4 epsilonHdr;\n"
    "uniform float W;\n"
    "uniform float trfn_inv[7];\n"
    "uniform vec3 curve_gain_point;\n"
    "uniform vec3 curve_gain_grad;\n"
    "\n" HDR_GLSL_YUV_TO_RGB "\n";

const char* const kGainChromaSamplers =
    "uniform mediump sampler2D u_gainmapUSampler;\n"
    "uniform mediump sampler2D u_gainmapVSampler;\n";

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

const char* const kCurves = HDR_GLSL_EOTF
    "\n"
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

const char* const kMainStart =
    "void main()\n"
    "{\n" HDR_GLSL_SAMPLE_MAIN;

const char* const kApplyInputCurve = "\tsdr = vec3(OETF(sdr.r), OETF(sdr.g), OETF(sdr.b));\n";

const char* const kSampleGain = HDR_GLSL_SAMPLE_GAIN;

// The YUV matrix's first column is (1, 1, 1): with constant chroma the gain
// is the luma on every channel plus the chroma's fixed contribution.
const char* const kSampleFlatGain = "\tvec3 gain = vec3(texture(u_gainmapYSampler, vTexcoord).r) + flatGainChroma;\n";

const char* const kShapeGain = HDR_GLSL_SHAPE_GAIN;

const char* const kLogGainWithGamma =
    "\tvec3 logGain = mix(logRatioMin.rgb, logRatioMax.rgb, pow(gain, gainmapGamma.rgb));\n";

const char* const kLogGainWithoutGamma = "\tvec3 logGain = mix(logRatioMin.rgb, logRatioMax.rgb, gain);\n";

const char* const kApplyGain =
    "\tvec3 hdr = (sdr + epsilonSdr.rgb) * exp(logGain * W) - epsilonHdr.rgb;\n"
    "\tvec3 result = vec3(EOTF(hdr.r), EOTF(hdr.g), EOTF(hdr.b));\n";

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
    return ((variant.inputCurve * 2 + (variant.applyGamma ? 1 : 0)) * 2 + (variant.outputYuv ? 1 : 0)) * 2 +
           (variant.flatGainChroma ? 1 : 0);
}

std::string GainMapVariantFragmentSource(const GainMapVariant& variant)
{
    const bool decodesInput = variant.inputCurve >= 1 && variant.inputCurve <= 3;
    std::string text;
    text.reserve(4096);
    text += kHeader;
    text += variant.flatGainChroma ? kFlatGainChromaDeclaration : kGainChromaSamplers;
    if (variant.applyGamma) {
        text += kGammaDeclaration;
    }
    if (decodesInput) {
        text += kInputCurveDeclaration;
        text += kInputCurveStart;
        text += kInputCurveBody[variant.inputCurve];
        text += "}\n\n";
    }
    text += kCurves;
    text += kMainStart;
    if (decodesInput) {
        text += kApplyInputCurve;
    }
    text += variant.flatGainChroma ? kSampleFlatGain : kSampleGain;
    text += kShapeGain;
    text += variant.applyGamma ? kLogGainWithGamma : kLogGainWithoutGamma;
    text += kApplyGain;
    if (variant.outputYuv) {
        text += kYuvOutput;
    }
    text += kMainEnd;
    return text;
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
