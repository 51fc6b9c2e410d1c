// The generation engine's metadata intake: the job's record stored and
// logged field by field, the output surface made anew in streaming mode, and
// the planes uploaded (direct mode) or their buffers prepared (streaming).
#define HDR_LOG_FILE "HdrGenerate.cpp"

#include "HdrCommon.h"
#include "HdrGenerate.h"
#include "HdrPlaneLimits.h"

#include <cstring>

// The direct mode always renders unrotated, unmirrored BT.709 / sRGB at the
// size it was initialised with, whatever the record says.
void HdrGenerate::ApplyDirectModeOutput()
{
    hdrInfo.outputRotate = 0;
    hdrInfo.outputMirror = false;
    hdrInfo.gamut = hdr_color_gamut::HDR_COLORGAMUT_BT709;
    hdrInfo.trfn = hdr_transfer_function::HDR_TF_SRGB;
    hdrInfo.outputWidth = initOption.surfaceWidth;
    hdrInfo.outputHeight = initOption.surfaceHeight;
}

uint8_t** HdrGenerate::setHdrInfo(HdrInfo* _hdrInfo)
{
    HDR_ASSERT(_hdrInfo != nullptr, nullptr);
    std::memcpy(&hdrInfo, _hdrInfo, sizeof hdrInfo);

    if (!initOption.usePBO) {
        ApplyDirectModeOutput();
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
    HDR_LOG("offsetSdr = [%.2f, %.2f, %.2f, %.2f]", h.offsetSdr[0], h.offsetSdr[1], h.offsetSdr[2], h.offsetSdr[3]);
    HDR_LOG("offsetHdr = [%.2f, %.2f, %.2f, %.2f]", h.offsetHdr[0], h.offsetHdr[1], h.offsetHdr[2], h.offsetHdr[3]);
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
