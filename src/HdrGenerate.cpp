// The generation engine: its construction, initialisation and teardown, the
// gain-map program's registration, the input upload (direct and streaming)
// and the output target.
//
// Texture units: plane i is always sampled from unit GL_TEXTURE0 + i, and
// Draw binds no texture. Every upload therefore binds a plane's texture on
// that plane's own unit and leaves it there; the output texture is handled
// on a unit of its own (kOutputTextureUnit), so that nothing done between
// two draws takes a plane's texture off its unit.
#include "HdrGenerate.h"

#include "HdrCommon.h"
#include "HdrContext.h"
#include "HdrFullScreenQuad.h"
#include "HdrGenerateShaders.h"
#include "HdrGenerateTransferFunction.h"
#include "HdrPlaneLimits.h"
#include "HdrRender.h"
#include "TSShaderManager.h"

#include <glm/gtc/matrix_transform.hpp>
#include <glm/gtc/type_ptr.hpp>
#include <glm/mat4x4.hpp>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>

HdrGenerate* HdrGenerate::pInstance = nullptr;

namespace {

constexpr GLenum kOutputTextureUnit = GL_TEXTURE0 + DATA_TYPE_COUNT;

// Uniform slots 0..20 of the gain-map program, in registration order.
const char* const kUniformNames[] = {
    "u_MainYSampler", "u_MainUSampler", "u_MainVSampler", "u_gainmapYSampler", "u_gainmapUSampler",
    "u_gainmapVSampler", "logRatioMin", "logRatioMax", "gainmapGamma", "epsilonSdr", "epsilonHdr",
    "W", "noGamma", "outputGamutTransform", "trfn_inv", "curve_gain_point", "curve_gain_grad",
    "bOutputYUV", "inputTrfnType", "in_trfn", "rotateMatrix",
};

// w x h as the 32-bit signed product the upload works with, wrapping like
// the hardware's arithmetic instead of overflowing.
int32_t Product32(int32_t width, int32_t height)
{
    return static_cast<int32_t>(static_cast<uint32_t>(width) * static_cast<uint32_t>(height));
}

void SetSamplingParameters()
{
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
}

}  // namespace

HdrGenerate::HdrGenerate()
    : isGenerated(false),
      isAplPending(false),
      initOption{1920, 1080, nullptr, true, false},
      hdrInfo(),
      hasTextureStorage(false),
      textureSizes{0, 0, 0, 0},
      shaderManager(nullptr),
      outputTexture(0),
      vertexBuffer(0),
      vertexArray(0),
      indexBuffer(0),
      framebuffer(0),
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
      currentPlane(-1)
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
    if (uploadFence != nullptr && !isPboIdle) {
        glDeleteSync(uploadFence);  // issued and never waited on
    }
    glDeleteBuffers(DATA_TYPE_COUNT, pixelBuffers);
    glDeleteTextures(DATA_TYPE_COUNT, inputTextures);
    // outputTexture is left to the context, which goes right after the engine.

    planeSamplers.clear();
    planeTable.clear();

    HdrRender* render = HdrRender::GetInstance();
    HdrRender::HdrContext* context = render->findContext();
    if (context != render->ContextsEnd()) {
        DestroyImageKHR(context->egl, eglImage);
    }
    tbm_surface_destroy(tbmSurface);
}

HdrGenerate* HdrGenerate::GetInstance()
{
    if (pInstance == nullptr) {
        pInstance = new HdrGenerate();
    }
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
    SetupShaders();  // a failure shows as program 0 at the first use
    glUseProgram(shaderManager->GetProgram());

    glGenVertexArrays(1, &vertexArray);
    glGenBuffers(1, &vertexBuffer);
    glGenBuffers(1, &indexBuffer);
    glBindVertexArray(vertexArray);
    glBindBuffer(GL_ARRAY_BUFFER, vertexBuffer);
    glBufferData(GL_ARRAY_BUFFER, static_cast<GLsizeiptr>(quadVertices.size() * sizeof(float)),
                 quadVertices.data(), GL_STATIC_DRAW);
    glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, indexBuffer);
    glBufferData(GL_ELEMENT_ARRAY_BUFFER, sizeof quadIndices, quadIndices, GL_STATIC_DRAW);

    const GLuint position = static_cast<GLuint>(attribLocations["POSITION"]);
    glVertexAttribPointer(position, 3, GL_FLOAT, GL_FALSE, 5 * sizeof(float), nullptr);
    glEnableVertexAttribArray(position);
    const GLuint texcoord = static_cast<GLuint>(attribLocations["TEXCOORD_0"]);
    glVertexAttribPointer(texcoord, 2, GL_FLOAT, GL_FALSE, 5 * sizeof(float),
                          reinterpret_cast<const void*>(3 * sizeof(float)));
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

    glActiveTexture(kOutputTextureUnit);
    glGenTextures(1, &outputTexture);
    glBindTexture(GL_TEXTURE_2D, outputTexture);
    glTexParameterf(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameterf(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexParameterf(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameterf(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    glBindTexture(GL_TEXTURE_2D, 0);

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

int HdrGenerate::getHdrTBMSurface()
{
    // Narrowed to 32 bits on purpose: that is what the public interface hands out.
    return static_cast<int>(reinterpret_cast<intptr_t>(tbmSurface));
}

void HdrGenerate::saveToFile() {}

bool HdrGenerate::SetupShaders()
{
    if (shaderManager == nullptr) {
        shaderManager = new Tessara::TSShaderManager();
    }
    shaderManager->CreateProgram(kGainMapVertexShader, kGainMapFragmentShader);
    if (shaderManager->GetProgram() == 0) {
        return false;
    }

    shaderManager->AddAttribute(0, "aPosition");
    shaderManager->AddAttribute(1, "aTexcoord");
    const int uniformCount = static_cast<int>(std::size(kUniformNames));
    for (int slot = 0; slot < uniformCount; ++slot) {
        shaderManager->AddUniform(slot, kUniformNames[slot]);
    }

    attribLocations["POSITION"] = shaderManager->GetAttribute(0);
    attribLocations["TEXCOORD_0"] = shaderManager->GetAttribute(1);
    for (int slot = 0; slot < uniformCount; ++slot) {
        uniformLocations[kUniformNames[slot]] = shaderManager->GetUniform(slot);
    }
    for (int plane = 0; plane < DATA_TYPE_COUNT; ++plane) {
        planeSamplers[plane] = kUniformNames[plane];
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
        const std::string& sampler = planeSamplers[plane];
        glUniform1i(uniformLocations[sampler], plane);
        if (!GL_error_check()) {
            HDR_LOG("%d ERROR: GL_error\n", __LINE__);
            return GPU_GENERATE_ERROR_GL;
        }
        HDR_LOG("HdrGenerate::UpdateTexUniform: %s, %d", sampler.c_str(), plane);
    }
    // Each plane's texture stays on its unit: Draw binds none.
    HDR_LOG("HdrGenerate::UpdateTexUniform end");
    return GPU_GENERATE_SUCCESS;
}

void HdrGenerate::InitTextures()
{
    HDR_LOG("HdrGenerate::InitTextures start");
    for (int plane = 0; plane < DATA_TYPE_COUNT; ++plane) {
        glActiveTexture(GL_TEXTURE0 + plane);
        glGenTextures(1, &inputTextures[plane]);
        glBindTexture(GL_TEXTURE_2D, inputTextures[plane]);
        if (hasTextureStorage) {
            const int* size = plane < GAINMAP_Y ? &textureSizes[0] : &textureSizes[2];
            glTexStorage2D(GL_TEXTURE_2D, 1, GL_R8, size[0], size[1]);
        }
        SetSamplingParameters();
    }
    HDR_LOG("HdrGenerate::InitTextures end");
}

void HdrGenerate::InitPBOTextures()
{
    // Logs the same lines as the direct mode's initialisation.
    HDR_LOG("HdrGenerate::InitTextures start");
    for (int plane = 0; plane < DATA_TYPE_COUNT; ++plane) {
        glGenBuffers(1, &pixelBuffers[plane]);
        glBindBuffer(GL_PIXEL_UNPACK_BUFFER, pixelBuffers[plane]);
        glGenTextures(1, &inputTextures[plane]);
        glActiveTexture(GL_TEXTURE0 + plane);
        glUniform1i(uniformLocations[planeSamplers[plane]], plane);
        glBindTexture(GL_TEXTURE_2D, inputTextures[plane]);
        SetSamplingParameters();
        glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
    }
    HDR_LOG("HdrGenerate::InitTextures end");
}

int32_t HdrGenerate::ComputeApl(const uint8_t* plane, int32_t available, int width, int height)
{
    int32_t count = Product32(width, height);
    if (count > available) {
        // Never read past what the plane holds.
        HDR_LOG("%d ERROR: APL over %d bytes, only %d available\n", __LINE__, count, available);
        count = available;
    }
    uint64_t sum = 0;
    int32_t level = 0;
    if (count >= 1 && plane != nullptr) {
        for (int32_t i = 0; i < count; ++i) {
            sum += plane[i];
        }
        level = static_cast<int32_t>(static_cast<int64_t>(sum) / count);
    }
    HDR_LOG("Calculate APL = %d, apl = %llu, w = %d, h = %d", level, static_cast<unsigned long long>(sum), width,
            height);
    return level;
}

int HdrGenerate::UpdateTextures()
{
    HDR_LOG("HdrGenerate::UpdateTextures start");
    if (hdrInfo.nMainImageWidth < 1 || hdrInfo.nMainImageHeight < 1 || hdrInfo.nGainMapWidth < 1 ||
        hdrInfo.nGainMapHeight < 1) {
        HDR_LOG("%d ERROR: Input data's size is wrong\n", __LINE__);
        return GPU_GENERATE_ERROR_BAD_INPUT;
    }
    if (!HdrPlaneSizesAccepted(hdrInfo)) {
        return GPU_GENERATE_ERROR_BAD_INPUT;
    }

    if (initOption.usePBO) {
        // The planes reached their textures through UpdateDataEnd; prepare
        // the buffers for the next picture.
        HDR_LOG("optimized !!!!!!!!!!!!!!!!!!!!!!!!\n");
        UpdatePBOs();
        // A buffer that could not be mapped leaves the host nowhere to write
        // the next picture: fail the intake rather than hand out a null.
        for (uint8_t* mapping : mappedPlanes) {
            if (mapping == nullptr) {
                HDR_LOG("%d ERROR: GL_error\n", __LINE__);
                return GPU_GENERATE_ERROR_GL;
            }
        }
    } else {
        for (const uint8_t* data : {hdrInfo.mainImagePlanes[0], hdrInfo.mainImagePlanes[1],
                                    hdrInfo.mainImagePlanes[2], hdrInfo.gainMapPlanes[0],
                                    hdrInfo.gainMapPlanes[1], hdrInfo.gainMapPlanes[2]}) {
            if (data == nullptr) {
                HDR_LOG("%d ERROR: Input date is nullptr\n", __LINE__);
                return GPU_GENERATE_ERROR_BAD_INPUT;
            }
        }
        for (int plane = 0; plane < DATA_TYPE_COUNT; ++plane) {
            glActiveTexture(GL_TEXTURE0 + plane);
            glBindTexture(GL_TEXTURE_2D, inputTextures[plane]);
            const bool isMain = plane < GAINMAP_Y;
            DataInfo& entry = planeTable[plane];
            entry.data = isMain ? hdrInfo.mainImagePlanes[plane] : hdrInfo.gainMapPlanes[plane - GAINMAP_Y];
            entry.width = isMain ? hdrInfo.nMainImageWidth : hdrInfo.nGainMapWidth;
            entry.height = isMain ? hdrInfo.nMainImageHeight : hdrInfo.nGainMapHeight;
            if (entry.data == nullptr) {
                HDR_LOG("%d No data\n", __LINE__);
                return GPU_GENERATE_ERROR_BAD_INPUT;
            }
            if (hasTextureStorage) {
                glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, entry.width, entry.height, GL_RED, GL_UNSIGNED_BYTE,
                                entry.data);
            } else {
                glTexImage2D(GL_TEXTURE_2D, 0, GL_RED, entry.width, entry.height, 0, GL_RED, GL_UNSIGNED_BYTE,
                             entry.data);
            }
            if (!GL_error_check()) {
                HDR_LOG("%d ERROR: GL_error\n", __LINE__);
                return GPU_GENERATE_ERROR_GL;
            }
        }
        const DataInfo& luma = planeTable[MAIN_Y];
        apl = ComputeApl(luma.data, Product32(luma.width, luma.height), luma.width, luma.height);
    }
    HDR_LOG("HdrGenerate::UpdateTextures end");
    return GPU_GENERATE_SUCCESS;
}

void HdrGenerate::UpdatePBOs()
{
    HDR_LOG("HdrGenerate::UpdatePBOs start");
    for (int plane = 0; plane < DATA_TYPE_COUNT; ++plane) {
        const bool isMain = plane < GAINMAP_Y;
        const int32_t width = isMain ? hdrInfo.nMainImageWidth : hdrInfo.nGainMapWidth;
        const int32_t height = isMain ? hdrInfo.nMainImageHeight : hdrInfo.nGainMapHeight;
        const int32_t bytes = Product32(width, height);

        glBindBuffer(GL_PIXEL_UNPACK_BUFFER, pixelBuffers[plane]);
        glBufferData(GL_PIXEL_UNPACK_BUFFER, bytes, nullptr, GL_STREAM_DRAW);
        glActiveTexture(GL_TEXTURE0 + plane);
        glBindTexture(GL_TEXTURE_2D, inputTextures[plane]);
        // A texture already of this size keeps what it holds: it is the
        // picture just streamed, not yet drawn. Re-defining it from the new,
        // undefined buffer would lose it on drivers that do not recycle
        // buffer storage.
        if (streamedSizes[plane][0] != width || streamedSizes[plane][1] != height) {
            glTexImage2D(GL_TEXTURE_2D, 0, GL_RED, width, height, 0, GL_RED, GL_UNSIGNED_BYTE, nullptr);
            streamedSizes[plane][0] = width;
            streamedSizes[plane][1] = height;
        }
        mappedPlanes[plane] =
            static_cast<uint8_t*>(glMapBufferRange(GL_PIXEL_UNPACK_BUFFER, 0, bytes, GL_MAP_WRITE_BIT));
        mappedBytes[plane] = mappedPlanes[plane] != nullptr ? bytes : 0;
        glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
    }
    isAplPending = false;

    HDR_LOG("HdrGenerate::UpdatePBOs glFenceSync");
    if (!isPboIdle && uploadFence != nullptr) {
        glDeleteSync(uploadFence);  // replaced before anyone waited on it
    }
    uploadFence = glFenceSync(GL_SYNC_GPU_COMMANDS_COMPLETE, 0);
    if (!GL_error_check()) {
        HDR_LOG("%d ERROR: GL_error\n", __LINE__);
        // Some plane was not defined: hand out no buffer, so that the intake
        // fails and no picture is drawn from it.
        for (int plane = 0; plane < DATA_TYPE_COUNT; ++plane) {
            glBindBuffer(GL_PIXEL_UNPACK_BUFFER, pixelBuffers[plane]);
            if (mappedPlanes[plane] != nullptr) {
                glUnmapBuffer(GL_PIXEL_UNPACK_BUFFER);
            }
            mappedPlanes[plane] = nullptr;
            mappedBytes[plane] = 0;
            streamedSizes[plane][0] = streamedSizes[plane][1] = 0;
        }
        glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
    }
    glFlush();
    isPboIdle = false;
    HDR_LOG("HdrGenerate::UpdatePBOs end");
}

int HdrGenerate::UpdatePBOsFinished()
{
    HDR_LOG("HdrGenerate::UpdatePBOsFinished start");
    if (uploadFence == nullptr) {
        return GPU_GENERATE_SUCCESS;
    }
    int result = GPU_GENERATE_SUCCESS;
    switch (glClientWaitSync(uploadFence, GL_SYNC_FLUSH_COMMANDS_BIT, 1000000000ull)) {
    case GL_WAIT_FAILED:
        HDR_LOG("%d ERROR: UpdatePBOsFinished faild\n", __LINE__);
        result = GPU_GENERATE_ERROR_FENCE_WAIT;
        break;
    case GL_TIMEOUT_EXPIRED:
        HDR_LOG("%d ERROR: UpdatePBOsFinished timeout\n", __LINE__);
        result = GPU_GENERATE_ERROR_FENCE_TIMEOUT;
        break;
    case GL_ALREADY_SIGNALED:
    case GL_CONDITION_SATISFIED:
        HDR_LOG("UpdatePBOsFinished success\n");
        break;
    default:
        break;
    }
    // The handle is kept after deletion; isPboIdle guards against a second wait.
    glDeleteSync(uploadFence);
    if (!GL_error_check()) {
        HDR_LOG("%d ERROR: GL_error\n", __LINE__);
    }
    HDR_LOG("HdrGenerate::UpdatePBOsFinished end");
    return result;
}

bool HdrGenerate::UpdateDataBegin(int plane)
{
    if (plane < 0 || plane >= DATA_TYPE_COUNT) {
        HDR_LOG("%d ERROR: no such plane: %d\n", __LINE__, plane);
        return false;
    }
    const GLuint program = Program();
    if (program == 0) {
        return false;
    }
    if (!HdrRender::GetInstance()->Bind()) {
        HDR_LOG("%d ERROR: no context\n", __LINE__);
        return false;
    }
    glUseProgram(program);
    if (!isPboIdle) {
        if (UpdatePBOsFinished() != GPU_GENERATE_SUCCESS) {
            return false;  // the context stays bound
        }
        isPboIdle = true;
    }
    glActiveTexture(GL_TEXTURE0 + plane);
    glBindTexture(GL_TEXTURE_2D, inputTextures[plane]);
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, pixelBuffers[plane]);
    currentPlane = plane;
    if (!GL_error_check()) {
        HDR_LOG("%d ERROR: GL_error\n", __LINE__);
        return false;
    }
    if (plane == MAIN_Y) {
        isAplPending = true;
    }
    return true;
}

bool HdrGenerate::UpdateDataEnd(int width, int height)
{
    if (isAplPending) {
        apl = ComputeApl(mappedPlanes[MAIN_Y], mappedBytes[MAIN_Y], width, height);
        isAplPending = false;
    }
    glUnmapBuffer(GL_PIXEL_UNPACK_BUFFER);
    if (currentPlane >= 0) {
        // The mapping is gone with the unmap; the next metadata intake maps anew.
        mappedPlanes[currentPlane] = nullptr;
        mappedBytes[currentPlane] = 0;
        currentPlane = -1;
    }
    // From the bound buffer: the data argument is an offset into it.
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, width, height, GL_RED, GL_UNSIGNED_BYTE, nullptr);
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
    if (!GL_error_check()) {
        HDR_LOG("%d ERROR: GL_error\n", __LINE__);
        return false;
    }
    if (!HdrRender::GetInstance()->Unbind()) {
        HDR_LOG("%d ERROR: no context\n", __LINE__);
        return false;
    }
    return true;
}

int HdrGenerate::updateTBM()
{
    HDR_LOG("updateTBM start");
    HdrRender* render = HdrRender::GetInstance();
    HdrRender::HdrContext* context = render->findContext();
    if (context == render->ContextsEnd()) {
        HDR_LOG("%d ERROR: no context\n", __LINE__);
        return GPU_GENERATE_ERROR_NO_CONTEXT;
    }

    DestroyImageKHR(context->egl, eglImage);
    eglImage = nullptr;
    tbm_surface_destroy(tbmSurface);
    tbmSurface = nullptr;

    glActiveTexture(kOutputTextureUnit);
    glBindTexture(GL_TEXTURE_2D, outputTexture);
    int width;
    int height;
    if (initOption.usePBO) {
        width = hdrInfo.outputWidth;
        height = hdrInfo.outputHeight;
        HDR_LOG("Create new tbm surface PBO {%d x %d} >>>>>>>>>>>>>>>>>>>>>>>>>", width, height);
    } else {
        width = initOption.surfaceWidth;
        height = initOption.surfaceHeight;
        HDR_LOG("Create new tbm surface {%d x %d} >>>>>>>>>>>>>>>>>>>>>>>>>", width, height);
    }
    tbmSurface = tbm_surface_create(width, height, TBM_FORMAT_RGBA8888);
    if (tbmSurface == nullptr) {
        return GPU_GENERATE_ERROR_SURFACE;
    }

    eglImage = PrepareTBMEglTexture(context->egl, static_cast<void*>(tbmSurface), nullptr);
    if (eglImage == nullptr) {
        HDR_LOG("%d ERROR: PrepareTBMEglTexture fail\n", __LINE__);
        return GPU_GENERATE_ERROR_EGL_IMAGE;
    }
    HDR_LOG("EGL image handle = %p>>.", eglImage);

    if (framebuffer != 0) {
        glDeleteFramebuffers(1, &framebuffer);
    }
    glBindTexture(GL_TEXTURE_2D, 0);
    glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, outputTexture, 0);

    switch (glCheckFramebufferStatus(GL_FRAMEBUFFER)) {
    case GL_FRAMEBUFFER_COMPLETE:
        glClearColor(0.0f, 0.0f, 0.0f, 1.0f);
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
        HDR_LOG("updateTBM end");
        return GPU_GENERATE_SUCCESS;
    case GL_FRAMEBUFFER_UNDEFINED:
        HDR_SECURE_LOG("[SECURE_LOG] GL_FRAMEBUFFER_UNDEFINED");
        break;
    case GL_FRAMEBUFFER_INCOMPLETE_ATTACHMENT:
        HDR_SECURE_LOG("[SECURE_LOG] GL_FRAMEBUFFER_INCOMPLETE_ATTACHMENT");
        break;
    case GL_FRAMEBUFFER_INCOMPLETE_MISSING_ATTACHMENT:
        HDR_SECURE_LOG("[SECURE_LOG] GL_FRAMEBUFFER_INCOMPLETE_MISSING_ATTACHMENT");
        break;
    case GL_FRAMEBUFFER_UNSUPPORTED:
        HDR_SECURE_LOG("[SECURE_LOG] GL_FRAMEBUFFER_UNSUPPORTED");
        break;
    case GL_FRAMEBUFFER_INCOMPLETE_MULTISAMPLE:
        HDR_SECURE_LOG("[SECURE_LOG] GL_FRAMEBUFFER_INCOMPLETE_MULTISAMPLE");
        break;
    default:
        HDR_SECURE_LOG("[SECURE_LOG] GL_FRAMEBUFFER_ERROR_UNKNOWN");
        break;
    }
    return GPU_GENERATE_ERROR_GL;
}

bool HdrGenerate::CopyOutputToSurface()
{
    return CopyImageToSurface(eglImage, framebuffer);
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
    constexpr float ln2 = 0.6931472f;

    // Maximum display boost, blended by the picture's level between the two
    // thresholds; a linear ratio.
    const float mdb_v1_float = static_cast<float>(p.MDB_V1) * 0.0078125f;
    const float mdb_v2_float = static_cast<float>(p.MDB_V2) * 0.0078125f;
    float mdb;
    if (apl < p.MDB_T1) {
        mdb = mdb_v1_float;
    } else if (apl > p.MDB_T2 || p.MDB_T1 == p.MDB_T2) {
        mdb = mdb_v2_float;
    } else {
        // 32-bit differences, wrapping instead of overflowing on illegal tuning.
        const int32_t rise = static_cast<int32_t>(static_cast<uint32_t>(apl) - static_cast<uint32_t>(p.MDB_T1));
        const int32_t run =
            static_cast<int32_t>(static_cast<uint32_t>(p.MDB_T2) - static_cast<uint32_t>(p.MDB_T1));
        mdb = static_cast<float>(rise) * (mdb_v2_float - mdb_v1_float) / static_cast<float>(run) + mdb_v1_float;
    }
    HDR_LOG("Calculate MDB = %.4f, APL = %d,  mdb_t1 = %d, mdb_t2 = %d, mdb_v1_float = %.2f, mdb_v2_float = %.2f",
            mdb, apl, p.MDB_T1, p.MDB_T2, mdb_v1_float, mdb_v2_float);

    // The log2 metadata in natural logarithms, through the linear ratio.
    float logRatioMin[4];
    float logRatioMax[4];
    float gainmapGamma[4];
    float epsilonSdr[4];
    float epsilonHdr[4];
    const float gammaMul = static_cast<float>(p.GAMMA_MUL);
    for (int c = 0; c < 3; ++c) {
        logRatioMin[c] = std::log(std::exp(ln2 * hdrInfo.gainMapMin[c]));
        logRatioMax[c] = std::log(std::exp(ln2 * hdrInfo.gainMapMax[c]));
        gainmapGamma[c] = 1.0f / (hdrInfo.gamma[c] * gammaMul * 0.0078125f);
    }
    logRatioMin[3] = 1.0f;
    logRatioMax[3] = 1.0f;
    gainmapGamma[3] = 1.0f;
    std::memcpy(epsilonSdr, hdrInfo.offsetSdr, sizeof epsilonSdr);
    std::memcpy(epsilonHdr, hdrInfo.offsetHdr, sizeof epsilonHdr);
    const int noGamma = gainmapGamma[0] == 1.0f && gainmapGamma[1] == 1.0f && gainmapGamma[2] == 1.0f ? 1 : 0;

    HDR_LOG("logRatioMin = %.4f, %.4f, %.4f, %.4f", logRatioMin[0], logRatioMin[1], logRatioMin[2],
            logRatioMin[3]);
    HDR_LOG("logRatioMax = %.4f, %.4f, %.4f, %.4f", logRatioMax[0], logRatioMax[1], logRatioMax[2],
            logRatioMax[3]);
    HDR_LOG("gainmapGamma = %.4f, %.4f, %.4f, %.4f", gainmapGamma[0], gainmapGamma[1], gainmapGamma[2],
            gainmapGamma[3]);
    HDR_LOG("epsilonSdr = %.4f, %.4f, %.4f, %.4f", epsilonSdr[0], epsilonSdr[1], epsilonSdr[2], epsilonSdr[3]);
    HDR_LOG("epsilonHdr = %.4f, %.4f, %.4f, %.4f", epsilonHdr[0], epsilonHdr[1], epsilonHdr[2], epsilonHdr[3]);

    glUniform4fv(uniformLocations["logRatioMin"], 1, logRatioMin);
    glUniform4fv(uniformLocations["logRatioMax"], 1, logRatioMax);
    glUniform4fv(uniformLocations["gainmapGamma"], 1, gainmapGamma);
    glUniform4fv(uniformLocations["epsilonSdr"], 1, epsilonSdr);
    glUniform4fv(uniformLocations["epsilonHdr"], 1, epsilonHdr);
    glUniform1i(uniformLocations["noGamma"], noGamma);

    // The weight of the gain: 0 shows the SDR rendition, 1 the full HDR one.
    const float capMinLin = std::exp(ln2 * hdrInfo.hdrCapacityMin);
    const float capMaxLin = std::exp(ln2 * hdrInfo.hdrCapacityMax);
    const float boost = std::min(std::exp2(hdrInfo.hdrCapacityMax), mdb);
    float weight = (std::log(boost) - std::log(capMinLin)) / (std::log(capMaxLin) - std::log(capMinLin));
    if (weight > 1.0f) {
        weight = 1.0f;
    } else if (weight < 0.0f) {
        weight = 0.0f;
    }
    glUniform1f(uniformLocations["W"], weight);

    HDR_ASSERT(hdrInfo.gamut == hdr_color_gamut::HDR_COLORGAMUT_BT709 || hdrInfo.gamut == hdr_color_gamut::HDR_COLORGAMUT_P3 || hdrInfo.gamut == hdr_color_gamut::HDR_COLORGAMUT_BT2100, GPU_GENERATE_ERROR_BAD_INPUT);
    HDR_ASSERT(hdrInfo.trfn == hdr_transfer_function::HDR_TF_LINEAR || hdrInfo.trfn == hdr_transfer_function::HDR_TF_HLG || hdrInfo.trfn == hdr_transfer_function::HDR_TF_PQ || hdrInfo.trfn == hdr_transfer_function::HDR_TF_SRGB, GPU_GENERATE_ERROR_BAD_INPUT);

    // Every accepted gamut renders unconverted.
    const float identity3[9] = {1.0f, 0.0f, 0.0f, 0.0f, 1.0f, 0.0f, 0.0f, 0.0f, 1.0f};
    glUniformMatrix3fv(uniformLocations["outputGamutTransform"], 1, GL_FALSE, identity3);

    // The output curve: the inverse of sRGB scaled to the display boost
    // (scaling the output by K multiplies a and b by K^(1/2.4), c, e, f by K).
    const float boostRoot = std::pow(boost, 0.41666666f);
    const float scaledSrgb[7] = {2.4f,     boostRoot * 0.94786733f, boostRoot * 0.052132703f, 0.07739938f * boost,
                                 0.04045f, 0.0f * boost,            0.0f * boost};
    float trfnInv[7];
    if (!skcms_TransferFunction_invert(scaledSrgb, trfnInv)) {
        const float inverseSrgb[7] = {0.41666666f, 1.1372833f, -0.0f, 12.92f, 0.0031308f, -0.054969788f, -0.0f};
        std::memcpy(trfnInv, inverseSrgb, sizeof trfnInv);
    }
    glUniform1fv(uniformLocations["trfn_inv"], 7, trfnInv);

    const float curvePoint[3] = {static_cast<float>(p.GAIN_CURVE_P0) * 0.0009765625f,
                                 static_cast<float>(p.GAIN_CURVE_P1) * 0.0009765625f,
                                 static_cast<float>(p.GAIN_CURVE_P2) * 0.0009765625f};
    const float curveGrad[3] = {static_cast<float>(p.GAIN_CURVE_G0) * 0.001953125f,
                                static_cast<float>(p.GAIN_CURVE_G1) * 0.001953125f,
                                static_cast<float>(p.GAIN_CURVE_G2) * 0.001953125f};
    glUniform3fv(uniformLocations["curve_gain_point"], 1, curvePoint);
    glUniform3fv(uniformLocations["curve_gain_grad"], 1, curveGrad);

    HDR_LOG("outputYUV: %d", outputYUV);
    glUniform1i(uniformLocations["bOutputYUV"], outputYUV ? 1 : 0);
    glUniform1i(uniformLocations["inputTrfnType"], static_cast<int32_t>(hdrInfo.trfn));

    // The input curve; a negative g marks the HLG-like (-3) and PQ-like (-2)
    // forms. Linear input is not decoded, so it sends the identity.
    static const float kInputCurves[4][7] = {
        {1.0f, 1.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f},
        {-3.0f, 2.0f, 2.0f, 5.5918164f, 0.28466892f, 0.55991071f, 0.0f},
        {-2.0f, -0.8359375f, 1.0f, 0.012683313f, 18.8515625f, -18.6875f, 6.2773948f},
        {2.4f, 0.94786727f, 0.0521327f, 0.07739938f, 0.04045f, 0.0f, 0.0f},
    };
    glUniform1fv(uniformLocations["in_trfn"], 7, kInputCurves[static_cast<int32_t>(hdrInfo.trfn)]);

    // Rotation about the screen normal, then the optional mirror, for the
    // vertex stage's row-vector product.
    static const float kRotationDegrees[3] = {-90.0f, -180.0f, -270.0f};
    const float angle = hdrInfo.outputRotate >= 1 && hdrInfo.outputRotate <= 3
                            ? kRotationDegrees[hdrInfo.outputRotate - 1]
                            : 0.0f;
    HDR_LOG("rotate angle: %f", angle);
    glm::mat4 rotation = glm::rotate(glm::mat4(1.0f), angle * 0.017453292f, glm::vec3(0.0f, 0.0f, 1.0f));
    if (hdrInfo.outputMirror) {
        rotation = rotation * glm::rotate(glm::mat4(1.0f), 3.1415927f, glm::vec3(0.0f, 1.0f, 0.0f));
        HDR_LOG("mirror true");
    }
    glUniformMatrix4fv(uniformLocations["rotateMatrix"], 1, GL_FALSE, glm::value_ptr(rotation));

    if (!GL_error_check()) {
        HDR_LOG("%d ERROR: GL_error\n", __LINE__);
        return GPU_GENERATE_ERROR_GL;
    }
    HDR_LOG("HdrGenerate::UpdateUniform end");
    return GPU_GENERATE_SUCCESS;
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

    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    // The metadata's output size, whatever the surface's own size.
    glViewport(0, 0, hdrInfo.outputWidth, hdrInfo.outputHeight);
    glBindVertexArray(vertexArray);
    glDrawElements(GL_TRIANGLES, 6, GL_UNSIGNED_INT, nullptr);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    // The surface is complete when the host gets control back.
    glFinish();
    HDR_LOG("HdrGenerate::Draw Draw finish");

    if (!CopyOutputToSurface()) {
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

uint8_t** HdrGenerate::setHdrInfo(HdrInfo* _hdrInfo)
{
    HDR_ASSERT(_hdrInfo != nullptr, nullptr);
    std::memcpy(&hdrInfo, _hdrInfo, sizeof hdrInfo);

    // The direct mode always renders unrotated, unmirrored BT.709 / sRGB at
    // the size it was initialised with, whatever the record says.
    if (!initOption.usePBO) {
        hdrInfo.outputRotate = 0;
        hdrInfo.outputMirror = false;
        hdrInfo.gamut = hdr_color_gamut::HDR_COLORGAMUT_BT709;
        hdrInfo.trfn = hdr_transfer_function::HDR_TF_SRGB;
        hdrInfo.outputWidth = initOption.surfaceWidth;
        hdrInfo.outputHeight = initOption.surfaceHeight;
    }

    const HdrInfo& h = hdrInfo;
    HDR_LOG("nMainImageWidth = %d", h.nMainImageWidth);
    HDR_LOG("nMainImageHeight = %d", h.nMainImageHeight);
    HDR_LOG("nGainMapWidth = %d", h.nGainMapWidth);
    HDR_LOG("nGainMapHeight = %d", h.nGainMapHeight);
    HDR_LOG("hdrCapacityMin = %.2f", h.hdrCapacityMin);
    HDR_LOG("hdrCapacityMax = %.2f", h.hdrCapacityMax);
    HDR_LOG("gainMapMin = [%.2f, %.2f, %.2f, %.2f]", h.gainMapMin[0], h.gainMapMin[1], h.gainMapMin[2],
            h.gainMapMin[3]);
    HDR_LOG("gainMapMax = [%.2f, %.2f, %.2f, %.2f]", h.gainMapMax[0], h.gainMapMax[1], h.gainMapMax[2],
            h.gainMapMax[3]);
    HDR_LOG("gamma = [%.2f, %.2f, %.2f, %.2f]", h.gamma[0], h.gamma[1], h.gamma[2], h.gamma[3]);
    HDR_LOG("offsetSdr = [%.2f, %.2f, %.2f, %.2f]", h.offsetSdr[0], h.offsetSdr[1], h.offsetSdr[2],
            h.offsetSdr[3]);
    HDR_LOG("offsetHdr = [%.2f, %.2f, %.2f, %.2f]", h.offsetHdr[0], h.offsetHdr[1], h.offsetHdr[2],
            h.offsetHdr[3]);
    // The record's own tuning fields, not the factory parameters that are used.
    HDR_LOG("MDB_V1 = %d", h.MDB_V1);
    HDR_LOG("MDB_V2 = %d", h.MDB_V2);
    HDR_LOG("MDB_T1 = %d", h.MDB_T1);
    HDR_LOG("MDB_T2 = %d", h.MDB_T2);
    HDR_LOG("GAMMA_MUL = %d", h.GAMMA_MUL);
    HDR_LOG("GAIN_CURVE_P0 = %d", h.GAIN_CURVE_P0);
    HDR_LOG("GAIN_CURVE_P1 = %d", h.GAIN_CURVE_P1);
    HDR_LOG("GAIN_CURVE_P2 = %d", h.GAIN_CURVE_P2);
    HDR_LOG("GAIN_CURVE_G0 = %d", h.GAIN_CURVE_G0);
    HDR_LOG("GAIN_CURVE_G1 = %d", h.GAIN_CURVE_G1);
    HDR_LOG("GAIN_CURVE_G2 = %d", h.GAIN_CURVE_G2);
    HDR_LOG("gamut = %d", static_cast<int32_t>(h.gamut));
    HDR_LOG("trfn = %d", static_cast<int32_t>(h.trfn));
    HDR_LOG("outputRotate = %d", h.outputRotate);
    HDR_LOG("outputMirror = %d", h.outputMirror ? 1 : 0);
    HDR_LOG("outputWidth = %d", h.outputWidth);
    HDR_LOG("outputHeight = %d", h.outputHeight);

    const GLuint program = Program();
    if (program == 0) {
        return nullptr;
    }
    glUseProgram(program);

    if (initOption.usePBO) {
        if (!HdrOutputSizeAccepted(h.outputWidth, h.outputHeight)) {
            return nullptr;
        }
        // A new surface for every picture, whether or not its size changed.
        if (updateTBM() != GPU_GENERATE_SUCCESS) {
            HDR_LOG("%d ERROR: updateTBM error\n", __LINE__);
            return nullptr;
        }
    } else {
        HDR_LOG("Not PBO texture");
        for (int plane = 0; plane < DATA_TYPE_COUNT; ++plane) {
            const bool isMain = plane < GAINMAP_Y;
            DataInfo& entry = planeTable[plane];
            entry.width = isMain ? h.nMainImageWidth : h.nGainMapWidth;
            entry.height = isMain ? h.nMainImageHeight : h.nGainMapHeight;
            entry.data = isMain ? h.mainImagePlanes[plane] : h.gainMapPlanes[plane - GAINMAP_Y];
        }
    }

    if (UpdateTextures() != GPU_GENERATE_SUCCESS) {
        HDR_LOG("%d ERROR: UpdateTextures error\n", __LINE__);
        return nullptr;
    }
    if (!GL_error_check()) {
        HDR_LOG("%d ERROR: GL_error\n", __LINE__);
        return nullptr;
    }
    return mappedPlanes;
}
