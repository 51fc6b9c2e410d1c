// The specialised gain-map programs, built the first time a picture class
// needs one and kept until the engine goes. They take their uniform values
// from the registered program just before each draw, so the registered
// program stays the one place where the constants are set and read.
#ifndef HDR_GAIN_MAP_VARIANT_PROGRAMS_H
#define HDR_GAIN_MAP_VARIANT_PROGRAMS_H

#include "HdrGainMapVariant.h"

#include <GLES3/gl3.h>

#include <array>

class GainMapVariantPrograms {
public:
    GainMapVariantPrograms() = default;
    ~GainMapVariantPrograms() = default;  // GL names go with Release(), on the owner's context
    GainMapVariantPrograms(const GainMapVariantPrograms&) = delete;
    GainMapVariantPrograms& operator=(const GainMapVariantPrograms&) = delete;

    // The variant's program with the registered program's uniform values
    // and the flat chroma offset loaded, current on return; 0 (and a log
    // line) when it cannot be built, in which case the registered program
    // is left current. The vertex stage is `vertexSource`, with its two
    // attributes bound to the registered program's locations.
    GLuint Prepare(const GainMapVariant& variant, GLuint registeredProgram, const char* vertexSource,
                   GLint positionLocation, GLint texcoordLocation, const float flatChroma[3]);

    // Deletes every program built so far (the owner's context current).
    void Release();

    // Drops every program without a GL call: for when the engine is set up
    // again on another context, where the old names mean nothing.
    void Forget();

    // How many programs have been built (for tests).
    int BuiltCount() const;

private:
    GLuint Build(const GainMapVariant& variant, const char* vertexSource, GLint positionLocation,
                 GLint texcoordLocation);

    std::array<GLuint, kGainMapVariantCount> programs_{};
    std::array<bool, kGainMapVariantCount> failed_{};
};

// Copies the value of every active uniform of `to` that `from` also has
// (same name and type) from `from` into `to`; `to` must be current.
void CopyUniformValues(GLuint from, GLuint to);

#endif
