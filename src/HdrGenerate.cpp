// The generation engine: its construction, initialisation and teardown, the
// gain-map program's registration, the factory tuning and the draw's
// constants. The input upload, the metadata intake, the draw and the output
// target are in the HdrGenerate*.cpp files of those names; all of them log
// under this file's name.
//
// Texture units: plane i is always sampled from unit GL_TEXTURE0 + i, and
// Draw binds no texture. Every upload therefore binds a plane's texture on
// that plane's own unit and leaves it there; the output texture is handled
// on a unit of its own (OUTPUT_TEXTURE_UNIT), so that nothing done between
// two draws takes a plane's texture off its unit.
#include "HdrGenerate.h"

#include "HdrCommon.h"
#include "HdrFullScreenQuad.h"
#include "HdrGenerateConstants.h"
#include "HdrGenerateShaders.h"
#include "HdrGenerateTransferFunction.h"
#include "HdrOutputImages.h"
#include "HdrThreadContext.h"
#include "TSShaderManager.h"

#include <cstring>
#include <iterator>

HdrGenerate* HdrGenerate::pInstance = nullptr;

namespace {

// Uniform slots 0..20 of the gain-map program, in registration order.
const char* const kUniformNames[] = {
    "u_MainYSampler",    "u_MainUSampler",       "u_MainVSampler", "u_gainmapYSampler",
    "u_gainmapUSampler", "u_gainmapVSampler",    "logRatioMin",    "logRatioMax",
    "gainmapGamma",      "epsilonSdr",           "epsilonHdr",     "W",
    "noGamma",           "outputGamutTransform", "trfn_inv",       "curve_gain_point",
    "curve_gain_grad",   "bOutputYUV",           "inputTrfnType",  "in_trfn",
    "rotateMatrix",
};
static_assert(std::size(kUniformNames) == UNIFORM_SLOT_COUNT, "one name per uniform slot");

GLuint MakeTexelSampler()
{
    GLuint sampler = 0;
    glGenSamplers(1, &sampler);
    glSamplerParameteri(sampler, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glSamplerParameteri(sampler, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glSamplerParameteri(sampler, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glSamplerParameteri(sampler, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    return sampler;
}

}  // namespace

HdrGenerate::HdrGenerate(std::unique_ptr<const OutputImages> images)
    : isGenerated(false),
      isAplPending(false),
      initOption{1920, 1080, nullptr, true, false},
      hdrInfo(),
      shaderManager(nullptr),
      outputTexture(0),
      vertexBuffer(0),
      vertexArray(0),
      indexBuffer(0),
      framebuffer(0),
      bandTexture(0),
      bandFramebuffer(0),
      inputTextures{0, 0, 0, 0, 0, 0},
      mappedPlanes{nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
      pixelBuffers{0, 0, 0, 0, 0, 0},
      uploadFence(nullptr),
      factoryParameter(),
      tbmSurface(nullptr),
      eglImage(nullptr),
      apl(0),
      quadVertices(std::begin(kFullScreenQuad), std::end(kFullScreenQuad)),
      quadIndices{0, 1, 2, 3, 4, 5},
      outputYUV(true),
      isInfoReady(false),
      isPboIdle(true),
      streamedSizes{},
      mappedBytes{},
      bufferBytes{},
      currentPlane(-1),
      streamedGainPlanes(0),
      useSpecialisedPrograms(true),
      packGainMaps(false),
      texelSampler(0),
      outputImages(std::move(images)),
      hasTextureStorage(false),
      textureSizes{0, 0, 0, 0}
{
    const float gainMapMin[4] = {1.0f, 1.0f, 1.0f, 1.0f};
    const float gainMapMax[4] = {2.0f, 2.0f, 2.0f, 1.0f};
    const float gamma[4] = {1.0f, 1.0f, 1.0f, 1.0f};
    const float offset[4] = {0.0f, 0.0f, 0.0f, 1.0f};
    std::memcpy(hdrInfo.gainMapMin, gainMapMin, sizeof gainMapMin);
    std::memcpy(hdrInfo.gainMapMax, gainMapMax, sizeof gainMapMax);
    std::memcpy(hdrInfo.gamma, gamma, sizeof gamma);
    std::memcpy(hdrInfo.offsetSdr, offset, sizeof offset);
    std::memcpy(hdrInfo.offsetHdr, offset, sizeof offset);
    hdrInfo.MDB_V1 = factoryParameter.MDB_V1;
    hdrInfo.MDB_V2 = factoryParameter.MDB_V2;
    hdrInfo.MDB_T1 = factoryParameter.MDB_T1;
    hdrInfo.MDB_T2 = factoryParameter.MDB_T2;
    hdrInfo.GAMMA_MUL = factoryParameter.GAMMA_MUL;
    hdrInfo.GAIN_CURVE_P0 = factoryParameter.GAIN_CURVE_P0;
    hdrInfo.GAIN_CURVE_P1 = factoryParameter.GAIN_CURVE_P1;
    hdrInfo.GAIN_CURVE_P2 = factoryParameter.GAIN_CURVE_P2;
    hdrInfo.GAIN_CURVE_G0 = factoryParameter.GAIN_CURVE_G0;
    hdrInfo.GAIN_CURVE_G1 = factoryParameter.GAIN_CURVE_G1;
    hdrInfo.GAIN_CURVE_G2 = factoryParameter.GAIN_CURVE_G2;
    hdrInfo.gamut = hdr_color_gamut::HDR_COLORGAMUT_BT709;
    hdrInfo.trfn = hdr_transfer_function::HDR_TF_SRGB;
    hdrInfo.outputWidth = 1920;
    hdrInfo.outputHeight = 1080;
}

// Binds no context: GL names go on whatever context is current.
HdrGenerate::~HdrGenerate()
{
    delete shaderManager;
    shaderManager = nullptr;

    if (indexBuffer != 0) {
        glDeleteBuffers(1, &indexBuffer);
    }
    if (vertexBuffer != 0) {
        glDeleteBuffers(1, &vertexBuffer);
    }
    if (vertexArray != 0) {
        glDeleteVertexArrays(1, &vertexArray);
    }
    if (framebuffer != 0) {
        glDeleteFramebuffers(1, &framebuffer);
    }
    DeleteSecondBand();
    if (texelSampler != 0) {
        glDeleteSamplers(1, &texelSampler);
    }
    if (uploadFence != nullptr && !isPboIdle) {
        glDeleteSync(uploadFence);  // issued and never waited on
    }
    glDeleteBuffers(DATA_TYPE_COUNT, pixelBuffers);
    glDeleteTextures(DATA_TYPE_COUNT, inputTextures);
    packedGain.Release();
    // outputTexture and the specialised programs are left to the context,
    // which goes right after the engine.

    planeTable.clear();

    EGLInfo* egl = FindThreadContext();
    if (egl != nullptr) {
        DestroyImageKHR(*outputImages, *egl, eglImage);
    }
    tbm_surface_destroy(tbmSurface);
}

HdrGenerate* HdrGenerate::GetInstance()
{
    if (pInstance == nullptr) {
        pInstance = new HdrGenerate(MakeBuildOutputImages());
    }
    return pInstance;
}

HdrGenerate* HdrGenerate::CreateInstance(std::unique_ptr<const OutputImages> images)
{
    if (pInstance != nullptr || images == nullptr) {
        return nullptr;
    }
    pInstance = new HdrGenerate(std::move(images));
    return pInstance;
}

void HdrGenerate::DestroyInstance()
{
    if (pInstance != nullptr) {
        delete pInstance;
        pInstance = nullptr;
    }
}

int HdrGenerate::Init()
{
    HDR_LOG("HdrGenerate::Init start");
    // Programs built for an earlier set-up belong to that set-up's context.
    variantPrograms.Forget();
    packedGain.Forget();
    packGainMaps = RendererSamplesOnTheCpu(reinterpret_cast<const char*>(glGetString(GL_RENDERER)));
    SetupShaders();  // a failure shows as program 0 at the first use
    glUseProgram(shaderManager->GetProgram());

    glGenVertexArrays(1, &vertexArray);
    glGenBuffers(1, &vertexBuffer);
    glGenBuffers(1, &indexBuffer);
    glBindVertexArray(vertexArray);
    glBindBuffer(GL_ARRAY_BUFFER, vertexBuffer);
    glBufferData(GL_ARRAY_BUFFER, static_cast<GLsizeiptr>(quadVertices.size() * sizeof(float)), quadVertices.data(),
                 GL_STATIC_DRAW);
    glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, indexBuffer);
    glBufferData(GL_ELEMENT_ARRAY_BUFFER, sizeof quadIndices, quadIndices, GL_STATIC_DRAW);

    const GLuint position = static_cast<GLuint>(Attribute(ATTRIBUTE_POSITION));
    glVertexAttribPointer(position, 3, GL_FLOAT, GL_FALSE, 5 * sizeof(float), nullptr);
    glEnableVertexAttribArray(position);
    const GLuint texcoord = static_cast<GLuint>(Attribute(ATTRIBUTE_TEXCOORD));
    // GL takes the byte offset into the bound buffer as a pointer.
    glVertexAttribPointer(texcoord, 2, GL_FLOAT, GL_FALSE, 5 * sizeof(float),
                          reinterpret_cast<const void*>(3 * sizeof(float)));  // NOLINT(performance-no-int-to-ptr)
    glEnableVertexAttribArray(texcoord);

    // Planes are tightly packed 8-bit rows of any width.
    glPixelStorei(GL_UNPACK_ALIGNMENT, 1);

    if (initOption.usePBO) {
        InitPBOTextures();
    } else {
        InitTextures();
    }
    if (!GL_error_check()) {
        HDR_LOG("%d ERROR: GL_error\n", __LINE__);
        return GPU_GENERATE_ERROR_GL;
    }

    glActiveTexture(OUTPUT_TEXTURE_UNIT);
    glGenTextures(1, &outputTexture);
    glBindTexture(GL_TEXTURE_2D, outputTexture);
    glTexParameterf(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameterf(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexParameterf(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameterf(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    glBindTexture(GL_TEXTURE_2D, 0);

    texelSampler = MakeTexelSampler();

    // The streaming mode makes its surface when the first metadata arrives.
    if (!initOption.usePBO && updateTBM() != GPU_GENERATE_SUCCESS) {
        HDR_LOG("%d ERROR: updateTBM error\n", __LINE__);
        return GPU_GENERATE_ERROR_SURFACE;
    }

    const int result = UpdateTexUniform();
    HDR_LOG("HdrGenerate::Init end");
    return result;
}

GLuint HdrGenerate::Program() const
{
    return shaderManager != nullptr ? shaderManager->GetProgram() : 0;
}

// A slot that was never registered (no program) answers 0, like GL's first
// location.
GLint HdrGenerate::Attribute(int slot) const
{
    return shaderManager != nullptr ? shaderManager->GetAttribute(slot) : 0;
}

GLint HdrGenerate::Uniform(int slot) const
{
    return shaderManager != nullptr ? shaderManager->GetUniform(slot) : 0;
}

int HdrGenerate::getHdrTBMSurface()
{
    // Narrowed to 32 bits on purpose: that is what the public interface hands out.
    return static_cast<int>(reinterpret_cast<intptr_t>(tbmSurface));
}

void HdrGenerate::saveToFile()
{}

bool HdrGenerate::SetupShaders()
{
    if (shaderManager == nullptr) {
        shaderManager = new Tessara::TSShaderManager();
    }
    shaderManager->CreateProgram(kGainMapVertexShader, kGainMapFragmentShader);
    if (shaderManager->GetProgram() == 0) {
        return false;
    }

    shaderManager->AddAttribute(ATTRIBUTE_POSITION, "aPosition");
    shaderManager->AddAttribute(ATTRIBUTE_TEXCOORD, "aTexcoord");
    for (int slot = 0; slot < UNIFORM_SLOT_COUNT; ++slot) {
        shaderManager->AddUniform(slot, kUniformNames[slot]);
    }
    return true;
}

int HdrGenerate::UpdateTexUniform()
{
    HDR_LOG("HdrGenerate::UpdateTexUniform start");
    const GLuint program = Program();
    if (program == 0) {
        return GPU_GENERATE_ERROR_NO_PROGRAM;
    }
    glUseProgram(program);
    for (int plane = 0; plane < DATA_TYPE_COUNT; ++plane) {
        glActiveTexture(GL_TEXTURE0 + plane);
        glBindTexture(GL_TEXTURE_2D, inputTextures[plane]);
        const char* sampler = kUniformNames[UNIFORM_MAIN_Y_SAMPLER + plane];
        glUniform1i(Uniform(UNIFORM_MAIN_Y_SAMPLER + plane), plane);
        if (!GL_error_check()) {
            HDR_LOG("%d ERROR: GL_error\n", __LINE__);
            return GPU_GENERATE_ERROR_GL;
        }
        HDR_LOG("HdrGenerate::UpdateTexUniform: %s, %d", sampler, plane);
    }
    // Each plane's texture stays on its unit: Draw binds none.
    HDR_LOG("HdrGenerate::UpdateTexUniform end");
    return GPU_GENERATE_SUCCESS;
}

int HdrGenerate::LoadSettings()
{
    HDR_LOG("HdrGenerate::LoadSettings start");
    // Read into the record in place: a key that fails keeps its fields, and
    // values out of range stay in force for the following draws.
    if (!HdrFactorySettings::GetParameter(factoryParameter)) {
        HDR_LOG("HdrFactorySettings::GetParameter fail ");
        return GPU_GENERATE_ERROR_SETTINGS;
    }
    if (!factoryParameter.CheckValueIllegal("settings")) {
        HDR_LOG("CheckValueIllegal fail ");
        return GPU_GENERATE_ERROR_SETTINGS;
    }
    HDR_LOG("HdrGenerate::LoadSettings end");
    return GPU_GENERATE_SUCCESS;
}

int HdrGenerate::UpdateUniform()
{
    HDR_LOG("HdrGenerate::UpdateUniform start");
    const HdrFactorySettings::Parameter& p = factoryParameter;
    const GainMapConstants k = ComputeGainMapConstants(hdrInfo, p, apl, outputYUV);
    HDR_LOG("Calculate MDB = %.4f, APL = %d,  mdb_t1 = %d, mdb_t2 = %d, mdb_v1_float = %.2f, mdb_v2_float = %.2f",
            k.mdb, apl, p.MDB_T1, p.MDB_T2, k.mdbV1, k.mdbV2);
    HDR_LOG("logRatioMin = %.4f, %.4f, %.4f, %.4f", k.logRatioMin[0], k.logRatioMin[1], k.logRatioMin[2],
            k.logRatioMin[3]);
    HDR_LOG("logRatioMax = %.4f, %.4f, %.4f, %.4f", k.logRatioMax[0], k.logRatioMax[1], k.logRatioMax[2],
            k.logRatioMax[3]);
    HDR_LOG("gainmapGamma = %.4f, %.4f, %.4f, %.4f", k.gainmapGamma[0], k.gainmapGamma[1], k.gainmapGamma[2],
            k.gainmapGamma[3]);
    HDR_LOG("epsilonSdr = %.4f, %.4f, %.4f, %.4f", k.epsilonSdr[0], k.epsilonSdr[1], k.epsilonSdr[2], k.epsilonSdr[3]);
    HDR_LOG("epsilonHdr = %.4f, %.4f, %.4f, %.4f", k.epsilonHdr[0], k.epsilonHdr[1], k.epsilonHdr[2], k.epsilonHdr[3]);

    glUniform4fv(Uniform(UNIFORM_LOG_RATIO_MIN), 1, k.logRatioMin);
    glUniform4fv(Uniform(UNIFORM_LOG_RATIO_MAX), 1, k.logRatioMax);
    glUniform4fv(Uniform(UNIFORM_GAINMAP_GAMMA), 1, k.gainmapGamma);
    glUniform4fv(Uniform(UNIFORM_EPSILON_SDR), 1, k.epsilonSdr);
    glUniform4fv(Uniform(UNIFORM_EPSILON_HDR), 1, k.epsilonHdr);
    glUniform1i(Uniform(UNIFORM_NO_GAMMA), k.noGamma);
    glUniform1f(Uniform(UNIFORM_WEIGHT), k.weight);

    HDR_ASSERT(hdrInfo.gamut == hdr_color_gamut::HDR_COLORGAMUT_BT709 ||
                   hdrInfo.gamut == hdr_color_gamut::HDR_COLORGAMUT_P3 ||
                   hdrInfo.gamut == hdr_color_gamut::HDR_COLORGAMUT_BT2100,
               GPU_GENERATE_ERROR_BAD_INPUT);
    HDR_ASSERT(
        hdrInfo.trfn == hdr_transfer_function::HDR_TF_LINEAR || hdrInfo.trfn == hdr_transfer_function::HDR_TF_HLG ||
            hdrInfo.trfn == hdr_transfer_function::HDR_TF_PQ || hdrInfo.trfn == hdr_transfer_function::HDR_TF_SRGB,
        GPU_GENERATE_ERROR_BAD_INPUT);

    glUniformMatrix3fv(Uniform(UNIFORM_OUTPUT_GAMUT_TRANSFORM), 1, GL_FALSE, k.outputGamutTransform);
    if (k.outputCurveInversion != CurveInversion::kInverted) {
        // Repeated through the checked inversion for its diagnostics only.
        float unused[7];
        skcms_TransferFunction_invert(k.outputCurve, unused);
    }
    glUniform1fv(Uniform(UNIFORM_TRFN_INV), 7, k.trfnInv);
    glUniform3fv(Uniform(UNIFORM_CURVE_GAIN_POINT), 1, k.curveGainPoint);
    glUniform3fv(Uniform(UNIFORM_CURVE_GAIN_GRAD), 1, k.curveGainGrad);

    HDR_LOG("outputYUV: %d", outputYUV);
    glUniform1i(Uniform(UNIFORM_OUTPUT_YUV), k.outputYUV);
    glUniform1i(Uniform(UNIFORM_INPUT_TRFN_TYPE), k.inputTrfnType);
    glUniform1fv(Uniform(UNIFORM_IN_TRFN), 7, k.inTrfn);

    HDR_LOG("rotate angle: %f", k.rotateDegrees);
    if (k.mirror) {
        HDR_LOG("mirror true");
    }
    glUniformMatrix4fv(Uniform(UNIFORM_ROTATE_MATRIX), 1, GL_FALSE, k.rotateMatrix);

    if (!GL_error_check()) {
        HDR_LOG("%d ERROR: GL_error\n", __LINE__);
        return GPU_GENERATE_ERROR_GL;
    }
    HDR_LOG("HdrGenerate::UpdateUniform end");
    return GPU_GENERATE_SUCCESS;
}
