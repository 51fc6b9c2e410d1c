// The public entry points. They hold no state: the engine and the
// render-context registry do. Every call that touches GL binds the calling
// thread's context around its work, so the host's binding is back on return.
#include "HdrGpuBackend.h"

#include "HdrCallGuard.h"
#include "HdrCommon.h"
#include "HdrGenerate.h"
#include "HdrRender.h"
#include "HdrScopedBinding.h"

namespace {

// The registry fits the render path's quad to the picture the engine was
// last given; it learns the size here rather than asking the engine.
void ShareOutputSize(const HdrGenerate& engine)
{
    HdrRender* render = HdrRender::GetInstance();
    render->pictureWidth = engine.hdrInfo.outputWidth;
    render->pictureHeight = engine.hdrInfo.outputHeight;
}

}  // namespace

int GpuGenerateHdrInit(const GpuGenerateHdrInitOption& option)
{
    HDR_CALL_GUARD(GPU_GENERATE_ERROR_CALL_ORDER)
    HDR_LOG("GpuGenerateHdrInit start");
    HdrRender* render = HdrRender::GetInstance();
    if (render->IsInited()) {
        HDR_LOG(
            "%d ERROR: GpuGenerateHdrInit called twice, Please call GpuGenerateHdrDestroy() before "
            "GpuGenerateHdrInit\n",
            __LINE__);
        return GPU_GENERATE_ERROR_INIT_TWICE;
    }

    render->SetEGLDisplay(option.eglDisplay);
    int result = render->Init();
    if (result != GPU_GENERATE_SUCCESS) {
        GpuGenerateHdrDestroy();
        return result;
    }
    // Deliberately no teardown here: the registry stays initialised.
    HdrScopedBinding binding;
    if (!binding.Bound()) {
        return GPU_GENERATE_ERROR_FIRST_BIND;
    }

    HdrGenerate* engine = HdrGenerate::GetInstance();
    engine->initOption = option;
    engine->outputYUV = option.outputYUV;
    result = engine->Init();
    if (result != GPU_GENERATE_SUCCESS) {
        // Torn down while still bound; the release below then finds no
        // record and the call answers GPU_GENERATE_ERROR_INIT_UNBIND.
        GpuGenerateHdrDestroy();
    }

    if (!binding.Release()) {
        return GPU_GENERATE_ERROR_INIT_UNBIND;
    }
    HDR_LOG("GpuGenerateHdrInit end");
    return result;
}

uint8_t** GpuGenerateHdrSetHdrInfo(HdrInfo* hdrInfo)
{
    HDR_CALL_GUARD(nullptr)
    HDR_LOG("GpuGenerateHdrSetHdrInfo start");
    if (hdrInfo == nullptr) {
        HDR_LOG("%d ERROR: hdrInfo == nullptr\n", __LINE__);
        return nullptr;
    }
    HdrRender* render = HdrRender::GetInstance();
    if (!render->IsInited()) {
        HDR_LOG("%d ERROR: Not call GpuGenerateHdrInit or GpuGenerateHdrInit fail\n", __LINE__);
        return nullptr;
    }

    // Defaults go into the caller's own record, before anything is bound.
    if (static_cast<int32_t>(hdrInfo->gamut) == -1) {
        hdrInfo->gamut = hdr_color_gamut::HDR_COLORGAMUT_BT709;
        HDR_LOG("use the default gamut(BT709)");
    }
    if (static_cast<int32_t>(hdrInfo->trfn) == -1) {
        hdrInfo->trfn = hdr_transfer_function::HDR_TF_SRGB;
        HDR_LOG("use the default trfn(SRGB)");
    }

    HdrScopedBinding binding;
    if (!binding.Bound()) {
        HDR_LOG("%d ERROR: no context\n", __LINE__);
        return nullptr;
    }
    HdrGenerate* engine = HdrGenerate::GetInstance();
    engine->LoadSettings();  // generation goes on with the tuning as it stands
    uint8_t** result = engine->setHdrInfo(hdrInfo);
    ShareOutputSize(*engine);
    if (!binding.Release()) {
        HDR_LOG("%d ERROR: no context\n", __LINE__);
        return nullptr;
    }
    if (result != nullptr) {
        engine->isInfoReady = true;
    }
    HDR_LOG("GpuGenerateHdrSetHdrInfo end");
    return result;
}

int GpuGenerateHdrReserveTextures(int mainImageWidth, int mainImageHeight, int gainMapWidth, int gainMapHeight)
{
    HDR_CALL_GUARD(GPU_GENERATE_ERROR_CALL_ORDER)
    HDR_LOG("GpuGenerateHdrReserveTextures start");
    if (!HdrRender::GetInstance()->IsInited()) {
        HDR_LOG("%d ERROR: Not call GpuGenerateHdrInit or GpuGenerateHdrInit fail\n", __LINE__);
        return GPU_GENERATE_ERROR_CALL_ORDER;
    }
    HdrScopedBinding binding;
    if (!binding.Bound()) {
        HDR_LOG("%d ERROR: no context\n", __LINE__);
        return GPU_GENERATE_ERROR_NO_CONTEXT;
    }
    const int32_t sizes[4] = {mainImageWidth, mainImageHeight, gainMapWidth, gainMapHeight};
    const int result = HdrGenerate::GetInstance()->ReserveTextures(sizes);
    if (!binding.Release()) {
        HDR_LOG("%d ERROR: no context\n", __LINE__);
        return GPU_GENERATE_ERROR_NO_CONTEXT;
    }
    HDR_LOG("GpuGenerateHdrReserveTextures end");
    return result;
}

int GpuGenerateHdrUpdateDataBegin(int& plane)
{
    HDR_CALL_GUARD(0)
    return HdrGenerate::GetInstance()->UpdateDataBegin(plane) ? 1 : 0;
}

int GpuGenerateHdrUpdateDataEnd(int& width, int& height)
{
    HDR_CALL_GUARD(0)
    return HdrGenerate::GetInstance()->UpdateDataEnd(width, height) ? 1 : 0;
}

int GpuGenerateHdr()
{
    HDR_CALL_GUARD(GPU_GENERATE_ERROR_CALL_ORDER)
    HDR_LOG("GpuGenerateHdr start");
    HdrRender* render = HdrRender::GetInstance();
    if (!render->IsInited()) {
        HDR_LOG("%d ERROR: Not call GpuGenerateHdrInit or GpuGenerateHdrInit fail\n", __LINE__);
        return GPU_GENERATE_ERROR_CALL_ORDER;
    }
    HdrGenerate* engine = HdrGenerate::GetInstance();
    if (!engine->isInfoReady) {
        HDR_LOG("%d ERROR: Not call GpuGenerateHdrSetHdrInfo or GpuGenerateHdrSetHdrInfo fail\n", __LINE__);
        return GPU_GENERATE_ERROR_CALL_ORDER;
    }
    // One successful SetHdrInfo allows exactly one attempt, whatever its outcome.
    engine->isInfoReady = false;

    HdrScopedBinding binding;
    if (!binding.Bound()) {
        HDR_LOG("%d ERROR: no context\n", __LINE__);
        return GPU_GENERATE_ERROR_NO_CONTEXT;
    }
    const int result = engine->Draw();
    if (!binding.Release()) {
        HDR_LOG("%d ERROR: no context\n", __LINE__);
        return GPU_GENERATE_ERROR_NO_CONTEXT;
    }
    HDR_LOG("GpuGenerateHdr end");
    return result;
}

int GpuGenerateHdr(HdrInfo* hdrInfo)
{
    HDR_CALL_GUARD(GPU_GENERATE_ERROR_CALL_ORDER)
    HDR_LOG("GpuGenerateHdr start");
    if (hdrInfo == nullptr) {
        HDR_LOG("%d ERROR: hdrInfo == nullptr\n", __LINE__);
        return GPU_GENERATE_ERROR_BAD_INPUT;
    }
    HdrRender* render = HdrRender::GetInstance();
    if (!render->IsInited()) {
        HDR_LOG("%d ERROR: Not call GpuGenerateHdrInit or GpuGenerateHdrInit fail\n", __LINE__);
        return GPU_GENERATE_ERROR_CALL_ORDER;
    }
    HdrScopedBinding binding;
    if (!binding.Bound()) {
        HDR_LOG("%d ERROR: no context\n", __LINE__);
        return GPU_GENERATE_ERROR_NO_CONTEXT;
    }
    // No defaults and no ready mark on this path, unlike SetHdrInfo.
    HdrGenerate* engine = HdrGenerate::GetInstance();
    engine->LoadSettings();
    engine->setHdrInfo(hdrInfo);
    ShareOutputSize(*engine);
    const int result = engine->Draw();
    if (!binding.Release()) {
        HDR_LOG("%d ERROR: no context\n", __LINE__);
        return GPU_GENERATE_ERROR_NO_CONTEXT;
    }
    HDR_LOG("GpuGenerateHdr end");
    return result;
}

int GpuGenerateGetTBM()
{
    HDR_CALL_GUARD(GPU_GENERATE_NO_SURFACE)
    if (!HdrRender::GetInstance()->IsInited()) {
        HDR_LOG("%d ERROR: Not call GpuGenerateHdrInit or GpuGenerateHdrInit fail\n", __LINE__);
        return GPU_GENERATE_NO_SURFACE;
    }
    HdrGenerate* engine = HdrGenerate::GetInstance();
    if (!engine->isGenerated) {
        HDR_LOG("%d ERROR: Not call GpuGenerateHdr or GpuGenerateHdr fail\n", __LINE__);
        return GPU_GENERATE_NO_SURFACE;
    }
    return engine->getHdrTBMSurface();
}

int GpuRender()
{
    HDR_CALL_GUARD(GPU_GENERATE_ERROR_CALL_ORDER)
    // On whatever context is current, before binding.
    glClearColor(1.0f, 1.0f, 1.0f, 0.1f);
    HdrScopedBinding binding;
    if (!binding.Bound()) {
        return GPU_GENERATE_ERROR_NO_CONTEXT;
    }
    const int result = HdrRender::GetInstance()->Draw();
    if (!binding.Release()) {
        return GPU_GENERATE_ERROR_NO_CONTEXT;
    }
    return result;
}

void GpuGenerateHdrDestroy()
{
    HDR_CALL_GUARD()
    HDR_LOG("GpuGenerateHdrDestroy start");
    if (!HdrRender::GetInstance()->IsInited()) {
        HDR_LOG("%d ERROR: Not call GpuGenerateHdrInit or GpuGenerateHdrInit fail\n", __LINE__);
    }
    if (!HdrGenerate::GetInstance()->isGenerated) {
        HDR_LOG("%d ERROR: Not call GpuGenerateHdr or GpuGenerateHdr fail\n", __LINE__);
    }
    // The engine first, then the registry, without binding.
    HdrGenerate::DestroyInstance();
    HdrRender::DestroyInstance();
    HDR_LOG("GpuGenerateHdrDestroy end");
}
