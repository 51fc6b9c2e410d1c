// The specialised gain-map programs, built the first time a picture class
// needs one and kept until the engine goes. They take their uniform values
// from the registered program just before each draw, so the registered
// program stays the one place where the constants are set and read.
#ifndef HDR_GAIN_MAP_VARIANT_PROGRAMS_H
#define HDR_GAIN_MAP_VARIANT_PROGRAMS_H

#include "HdrGainMapVariant.h"

#include <GLES3/gl3.h>

#include <array>
#include <vector>

// A uniform (or array element) two programs both have: its location in each
// and its type.
struct SharedUniform {
    GLint from = -1;
    GLint to = -1;
    GLenum type = 0;
};

// What a variant takes besides the registered program's uniforms.
struct GainMapVariantValues {
    float flatChroma[3] = {0.0f, 0.0f, 0.0f};       // flat-chroma variants (FlatGainChromaOffset)
    float logCurves[4] = {0.0f, 0.0f, 0.0f, 0.0f};  // log-domain variants (LogDomainConstants)
    GLint packedGainUnit = 0;                       // packed-gain variants: the packed texture's unit
};

class GainMapVariantPrograms {
public:
    GainMapVariantPrograms() = default;
    ~GainMapVariantPrograms() = default;  // GL names go with Release(), on the owner's context
    GainMapVariantPrograms(const GainMapVariantPrograms&) = delete;
    GainMapVariantPrograms& operator=(const GainMapVariantPrograms&) = delete;

    // The variant's program with the registered program's uniform values
    // and its own values loaded, current on return; 0 (and a log
    // line) when it cannot be built, in which case the registered program
    // is left current. The vertex stage is `vertexSource`, with its two
    // attributes bound to the registered program's locations.
    GLuint Prepare(const GainMapVariant& variant, GLuint registeredProgram, const char* vertexSource,
                   GLint positionLocation, GLint texcoordLocation, const GainMapVariantValues& values);

    // Deletes every program built so far (the owner's context current).
    void Release();

    // Drops every program without a GL call: for when the engine is set up
    // again on another context, where the old names mean nothing.
    void Forget();

    // How many programs have been built, and whether variant's is one of
    // them (for tests).
    int BuiltCount() const;
    bool Built(const GainMapVariant& variant) const;

private:
    GLuint Build(const GainMapVariant& variant, const char* vertexSource, GLint positionLocation,
                 GLint texcoordLocation);

    std::array<GLuint, kGainMapVariantCount> programs_{};
    std::array<bool, kGainMapVariantCount> failed_{};
    // Per variant: the uniforms it shares with the registered program it
    // last took values from (looked up by name once, not every draw), that
    // program, and where its own values go.
    std::array<std::vector<SharedUniform>, kGainMapVariantCount> shared_{};
    std::array<GLuint, kGainMapVariantCount> sharedWith_{};
    std::array<GLint, kGainMapVariantCount> flatChromaLocation_{};
    std::array<GLint, kGainMapVariantCount> logCurvesLocation_{};
    std::array<GLint, kGainMapVariantCount> packedGainLocation_{};
};

// Every active uniform of `to` that `from` also has, by name (each array
// element by its own name, as locations need not be consecutive).
std::vector<SharedUniform> FindSharedUniforms(GLuint from, GLuint to);

// Copies the values of `shared` from `from` into the current program.
void CopySharedUniforms(GLuint from, const std::vector<SharedUniform>& shared);

// Whether the registered program's current offsets and curves let a
// picture with input curve `inputCurve` be drawn in logarithms
// (LogDomainApplies); if so, the constants that takes, in `constants`.
bool ReadLogDomainConstants(GLuint registered, int32_t inputCurve, float constants[4]);

// Whether the registered program's current gain curve is a straight line
// (GainCurveIsAffine); false when its curve uniforms cannot be read.
bool ReadAffineGainCurve(GLuint registered);

#endif
