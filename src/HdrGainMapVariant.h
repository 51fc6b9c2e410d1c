// Specialised fragment stages of the gain-map pass. The registered program
// decides every choice per fragment through uniforms; on a software
// rasteriser both sides of such a branch are executed for every fragment, so
// the draw uses a program whose text keeps only the path the picture takes.
// Every variant computes the general program's values for its picture class
// (the log-domain ones by sums of logarithms, equal but for rounding) and
// reads the same uniforms under the same names, plus its own values.
#ifndef HDR_GAIN_MAP_VARIANT_H
#define HDR_GAIN_MAP_VARIANT_H

#include <cstddef>
#include <cstdint>
#include <string>

struct GainMapVariant {
    int32_t inputCurve = 0;       // inputTrfnType: 0 none, 1 HLG-like, 2 PQ-like, 3 parametric
    bool applyGamma = false;      // noGamma != 1
    bool outputYuv = false;       // bOutputYUV == 1
    bool flatGainChroma = false;  // gain-map U and V planes each hold one value
    bool logDomain = false;       // the gain added in base-2 logarithms (see LogDomainApplies)
    // The gain map's Y, U and V read with one fetch from the RGBA texture of
    // kPackedGainMapSampler instead of three planes (ignored with flat chroma).
    bool packedGain = false;
    // The gain curve is one straight line (GainCurveIsAffine): the cubic
    // pieces give way to one multiply-add. The factory curve is the identity.
    bool affineGainCurve = false;
};

constexpr int kGainMapVariantCount = 4 * 2 * 2 * 2 * 2 * 2 * 2;

// 0 .. kGainMapVariantCount - 1, or -1 for a class no variant covers (an
// input curve outside 0..3, which the general program leaves undefined).
int GainMapVariantIndex(const GainMapVariant& variant);

// The fragment source of the variant. The vertex stage is shared.
std::string GainMapVariantFragmentSource(const GainMapVariant& variant);

// Name of the uniform that carries the flat gain-map chroma's contribution
// to R, G and B in flat-chroma variants.
extern const char* const kFlatGainChromaUniform;

// Name of the sampler through which packed-gain variants read the gain map's
// Y, U and V as the R, G and B of one texture.
extern const char* const kPackedGainMapSampler;

// Name of the vec4 uniform that carries a log-domain variant's constants
// (see LogDomainConstants).
extern const char* const kLogCurveConstantsUniform;

// With no offsets, the HDR value is the input curve's value times the
// gain, so a variant can work in base-2 logarithms: the input curve ends in
// log2 instead of a power, the gain is added instead of multiplied through
// an exp, and the output curve's power becomes one exp2. Per channel that is
// two transcendental functions (four for the PQ-like form) instead of three
// to seven. It applies when
// the offsets of R, G and B are all zero, the output curve's power segment
// has no offset inside (b = 0) and a positive scale, and the input curve's
// form is a product: no offsets in the parametric form (e = f = 0) and a
// positive linear slope, no extra scale in the HLG-like form (f = 0).
bool LogDomainApplies(int32_t inputCurve, const float inTrfn[7], const float trfnInv[7], const float epsilonSdr[3],
                      const float epsilonHdr[3]);

// The constants a log-domain variant takes in kLogCurveConstantsUniform:
// log2 of the output curve's scale a, log2 of its threshold d (minus
// infinity when d is not positive, so that no value falls below it), log2
// of the parametric input curve's linear slope c (0 for other forms), 0.
void LogDomainConstants(int32_t inputCurve, const float inTrfn[7], const float trfnInv[7], float constants[4]);

// True when the gain curve (points p0, p1, p2 at 0, 0.5 and 1, and their
// gradients per half, as the program's curve_gain_point and curve_gain_grad
// hold them) is a straight line: each half's chord equals all three
// gradients. Each cubic half is then that line exactly, beyond [0, 1] too,
// and the curve is p0 + 2 * g0 * value. Compared exactly: the tuning's
// values are whole multiples of 2^-10 and 2^-9.
bool GainCurveIsAffine(const float points[3], const float grads[3]);

// Contribution of constant U and V bytes to the gain map's R, G, B: the
// general program's YUV matrix applied to (0, u/255 - 0.5, v/255 - 0.5).
void FlatGainChromaOffset(uint8_t u, uint8_t v, float rgb[3]);

// True when the first `bytes` bytes of `plane` all equal its first byte
// (false for an empty or null plane). Stops at the first difference.
bool PlaneIsFlat(const uint8_t* plane, size_t bytes);

// True for renderers that run fragment shaders on the CPU (Mesa's llvmpipe
// and softpipe, SwiftShader), given GL_RENDERER: there one filtered fetch of
// four bytes costs what one of a single byte does, so packing the gain map
// (InterleaveGainMapPixels) pays for its interleaving. GPUs are left as
// they are: their texture units fetch either at one per clock, and the
// interleaving would only add CPU time.
bool RendererSamplesOnTheCpu(const char* renderer);

// Writes count pixels of (y, u, v, 255) from the gain map's three planes:
// the packed texture's texels (kPackedGainMapSampler).
void InterleaveGainMapPixels(const uint8_t* y, const uint8_t* u, const uint8_t* v, size_t count, uint8_t* rgba);

// True when every output pixel's centre falls on the centre of one texel of
// a planeWidth x planeHeight plane: the output is the plane's own size, or
// its transposed size when the rotation code (1 or 3) turns it a quarter.
// Filtering then cannot change what is sampled, and the draw may fetch one
// texel instead of four.
bool PlaneMapsOneToOne(int planeWidth, int planeHeight, int outputWidth, int outputHeight, int32_t rotate);

// What the engine knows of the gain map's U and V planes as they were last
// uploaded: whether each holds a single value, and which.
class GainChromaContent {
public:
    // `plane` is 0 for U, 1 for V; `data` holds at least `bytes` bytes.
    void Note(int plane, const uint8_t* data, size_t bytes);
    // The texture was re-defined without data.
    void Forget(int plane);
    bool Flat() const { return flat_[0] && flat_[1]; }
    // The flat chroma's contribution to R, G, B (meaningful when Flat()).
    void Offset(float rgb[3]) const { FlatGainChromaOffset(value_[0], value_[1], rgb); }

private:
    bool flat_[2] = {false, false};
    uint8_t value_[2] = {0, 0};
};

#endif
