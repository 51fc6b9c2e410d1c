#include "EngineHarness.h"

#include "HdrGenerate.h"
#include "HdrOutputImages.h"
#include "HdrRender.h"
#include "TSShaderManager.h"

#include <GLES3/gl3.h>
#include <tbm_surface.h>

#include <cstring>

namespace hdrtest {

namespace {

GLint Location(const char* name)
{
    return glGetUniformLocation(HdrGenerate::GetInstance()->shaderManager->GetProgram(), name);
}

}  // namespace

EngineHarness::EngineHarness(int outputWidth, int outputHeight, EGLDisplay display, bool streaming)
    : EngineHarness(outputWidth, outputHeight, display, streaming, nullptr)
{}

EngineHarness::EngineHarness(int outputWidth, int outputHeight, EGLDisplay display, bool streaming,
                             std::unique_ptr<const OutputImages> images)
    : width_(outputWidth), height_(outputHeight)
{
    HdrGenerate::DestroyInstance();
    HdrRender::DestroyInstance();
    HdrRender* render = HdrRender::GetInstance();
    render->SetEGLDisplay(display);
    if (render->Init() != 0 || !render->Bind()) {
        return;
    }
    if (images != nullptr && HdrGenerate::CreateInstance(std::move(images)) == nullptr) {
        return;
    }
    HdrGenerate* engine = HdrGenerate::GetInstance();
    engine->initOption = GpuGenerateHdrInitOption{outputWidth, outputHeight, display, false, streaming};
    engine->outputYUV = false;
    engine->hdrInfo.outputWidth = outputWidth;
    engine->hdrInfo.outputHeight = outputHeight;
    const int result = engine->Init();
    ok_ = render->Unbind() && result == 0;
}

EngineHarness::~EngineHarness()
{
    HdrGenerate::DestroyInstance();
    HdrRender::DestroyInstance();
}

int EngineHarness::Upload(const Planes& planes)
{
    HdrRender* render = HdrRender::GetInstance();
    if (!render->Bind()) {
        return 3;
    }
    HdrInfo& info = HdrGenerate::GetInstance()->hdrInfo;
    info.nMainImageWidth = planes.mainWidth;
    info.nMainImageHeight = planes.mainHeight;
    info.nGainMapWidth = planes.gainWidth;
    info.nGainMapHeight = planes.gainHeight;
    for (int i = 0; i < 3; ++i) {
        info.mainImagePlanes[i] = planes.main[i].empty() ? nullptr : planes.main[i].data();
        info.gainMapPlanes[i] = planes.gain[i].empty() ? nullptr : planes.gain[i].data();
    }
    const int result = HdrGenerate::GetInstance()->UpdateTextures();
    return render->Unbind() ? result : 3;
}

int EngineHarness::Intake(const Planes& planes, int outputWidth, int outputHeight)
{
    HdrRender* render = HdrRender::GetInstance();
    if (!render->Bind()) {
        return 3;
    }
    HdrGenerate* engine = HdrGenerate::GetInstance();
    HdrInfo& info = engine->hdrInfo;
    info.nMainImageWidth = planes.mainWidth;
    info.nMainImageHeight = planes.mainHeight;
    info.nGainMapWidth = planes.gainWidth;
    info.nGainMapHeight = planes.gainHeight;
    info.outputWidth = outputWidth;
    info.outputHeight = outputHeight;
    glUseProgram(engine->shaderManager->GetProgram());
    int result = engine->updateTBM();
    if (result == 0) {
        result = engine->UpdateTextures();
    }
    if (result == 0) {
        width_ = outputWidth;
        height_ = outputHeight;
    }
    return render->Unbind() ? result : 3;
}

bool EngineHarness::Stream(const Planes& planes)
{
    for (int plane = 0; plane < 6; ++plane) {
        if (!StreamPlane(planes, plane)) {
            return false;
        }
    }
    return true;
}

bool EngineHarness::StreamPlane(const Planes& planes, int plane)
{
    HdrGenerate* engine = HdrGenerate::GetInstance();
    const bool isMain = plane < 3;
    const std::vector<uint8_t>& bytes = isMain ? planes.main[plane] : planes.gain[plane - 3];
    int width = isMain ? planes.mainWidth : planes.gainWidth;
    int height = isMain ? planes.mainHeight : planes.gainHeight;
    if (!engine->UpdateDataBegin(plane)) {
        return false;
    }
    uint8_t* target = engine->mappedPlanes[plane];
    if (target == nullptr || bytes.size() != static_cast<size_t>(width) * height) {
        engine->UpdateDataEnd(width, height);
        return false;
    }
    std::memcpy(target, bytes.data(), bytes.size());
    return engine->UpdateDataEnd(width, height);
}

int EngineHarness::Draw(const GainMapUniforms& u)
{
    HdrGenerate* engine = HdrGenerate::GetInstance();
    tbm_surface_info_s info;
    if (tbm_surface_map(engine->tbmSurface, TBM_SURF_OPTION_WRITE, &info) != 0) {
        return 7;
    }
    std::memset(info.planes[0].ptr, kSentinel, info.planes[0].size);
    tbm_surface_unmap(engine->tbmSurface);

    HdrRender* render = HdrRender::GetInstance();
    if (!render->Bind()) {
        return 3;
    }
    glUseProgram(engine->shaderManager->GetProgram());
    glUniform4fv(Location("logRatioMin"), 1, u.logRatioMin.data());
    glUniform4fv(Location("logRatioMax"), 1, u.logRatioMax.data());
    glUniform4fv(Location("gainmapGamma"), 1, u.gainmapGamma.data());
    glUniform4fv(Location("epsilonSdr"), 1, u.epsilonSdr.data());
    glUniform4fv(Location("epsilonHdr"), 1, u.epsilonHdr.data());
    glUniform1f(Location("W"), u.W);
    glUniform1i(Location("noGamma"), u.noGamma);
    glUniformMatrix3fv(Location("outputGamutTransform"), 1, GL_FALSE, u.outputGamutTransform.data());
    glUniform1fv(Location("trfn_inv"), 7, u.trfn_inv.data());
    glUniform3fv(Location("curve_gain_point"), 1, u.curve_gain_point.data());
    glUniform3fv(Location("curve_gain_grad"), 1, u.curve_gain_grad.data());
    glUniform1i(Location("bOutputYUV"), u.bOutputYUV);
    glUniform1i(Location("inputTrfnType"), u.inputTrfnType);
    glUniform1fv(Location("in_trfn"), 7, u.in_trfn.data());
    glUniformMatrix4fv(Location("rotateMatrix"), 1, GL_FALSE, u.rotateMatrix.data());

    // A clear colour no pixel of the pass can have (alpha 0), so unwritten
    // pixels show.
    glClearColor(0.25f, 0.5f, 0.75f, 0.0f);
    const bool copied = engine->DrawIntoSurface(width_, height_);
    glFinish();
    const bool drawn = glGetError() == GL_NO_ERROR;
    const bool unbound = render->Unbind();
    if (!unbound) {
        return 3;
    }
    return drawn && copied ? 0 : 11;
}

std::vector<Rgba8> EngineHarness::ReadSurface() const
{
    std::vector<Rgba8> pixels;
    tbm_surface_h surface = HdrGenerate::GetInstance()->tbmSurface;
    tbm_surface_info_s info;
    if (tbm_surface_map(surface, TBM_SURF_OPTION_READ, &info) != 0) {
        return pixels;
    }
    const bool reversed = info.format == TBM_FORMAT_RGBA8888;  // bytes A, B, G, R
    pixels.reserve(static_cast<size_t>(info.width) * info.height);
    for (uint32_t y = 0; y < info.height; ++y) {
        const unsigned char* row = info.planes[0].ptr + static_cast<size_t>(y) * info.planes[0].stride;
        for (uint32_t x = 0; x < info.width; ++x) {
            const unsigned char* p = row + 4 * x;
            pixels.push_back(reversed ? Rgba8{p[3], p[2], p[1], p[0]} : Rgba8{p[0], p[1], p[2], p[3]});
        }
    }
    tbm_surface_unmap(surface);
    return pixels;
}

}  // namespace hdrtest
