// The generation engine's draw: the program the picture's class takes, the
// sampling of planes that map texel for texel onto the output, and the pass
// into the output surface with its constants.
#define HDR_LOG_FILE "HdrGenerate.cpp"

#include "HdrCommon.h"
#include "HdrGenerate.h"
#include "HdrGenerateShaders.h"

GLuint HdrGenerate::DrawProgram(GLuint registered)
{
    if (!useSpecialisedPrograms) {
        return registered;
    }
    GLint noGamma = 0;
    glGetUniformiv(registered, Uniform(UNIFORM_NO_GAMMA), &noGamma);
    GainMapVariant variant;
    variant.inputCurve = static_cast<int32_t>(hdrInfo.trfn);
    variant.applyGamma = noGamma != 1;
    variant.outputYuv = outputYUV;
    variant.flatGainChroma = gainChroma.Flat();
    variant.packedGain = !variant.flatGainChroma && packedGain.Current();
    variant.affineGainCurve = ReadAffineGainCurve(registered);
    GainMapVariantValues values;
    values.packedGainUnit = static_cast<GLint>(PACKED_GAIN_TEXTURE_UNIT - GL_TEXTURE0);
    gainChroma.Offset(values.flatChroma);
    variant.logDomain = ReadLogDomainConstants(registered, variant.inputCurve, values.logCurves);
    const GLuint program =
        variantPrograms.Prepare(variant, registered, kGainMapVertexShader, Attribute(ATTRIBUTE_POSITION),
                                Attribute(ATTRIBUTE_TEXCOORD), values);
    return program != 0 ? program : registered;
}

void HdrGenerate::BindTexelSampler(bool bind)
{
    for (int plane = 0; plane < DATA_TYPE_COUNT; ++plane) {
        const DataInfo size = PlaneOf(plane);
        const bool oneToOne =
            PlaneMapsOneToOne(size.width, size.height, hdrInfo.outputWidth, hdrInfo.outputHeight, hdrInfo.outputRotate);
        glBindSampler(static_cast<GLuint>(plane), bind && oneToOne ? texelSampler : 0);
    }
    // The packed gain map needs no texel sampler: a gain map sampled texel
    // for texel is never packed.
}

int HdrGenerate::Draw()
{
    HDR_LOG("HdrGenerate::Draw start");
    // Any failure below leaves no surface to hand out.
    isGenerated = false;
    const GLuint program = Program();
    if (program == 0) {
        return GPU_GENERATE_ERROR_NO_PROGRAM;
    }
    glUseProgram(program);

    const int result = UpdateUniform();
    if (result != GPU_GENERATE_SUCCESS) {
        return result;
    }
    DrawProgram(program);

    glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
    BindTexelSampler(true);
    // The metadata's output size, whatever the surface's own size.
    const bool stored = DrawIntoSurface(hdrInfo.outputWidth, hdrInfo.outputHeight);
    BindTexelSampler(false);
    glUseProgram(program);  // the registered program stays the current one between calls
    // The surface is complete when the host gets control back.
    glFinish();
    HDR_LOG("HdrGenerate::Draw Draw finish");

    if (!stored) {
        HDR_LOG("%d ERROR: GL_error\n", __LINE__);
        return GPU_GENERATE_ERROR_GL;
    }
    if (!GL_error_check()) {
        HDR_LOG("%d ERROR: GL_error\n", __LINE__);
        return GPU_GENERATE_ERROR_GL;
    }
    isGenerated = true;
    HDR_LOG("HdrGenerate::Draw end");
    return GPU_GENERATE_SUCCESS;
}
