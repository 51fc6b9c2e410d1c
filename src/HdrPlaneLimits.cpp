#include "HdrPlaneLimits.h"

#include "HdrCommon.h"

#include <limits>

namespace {

int32_t MaxTextureSize()
{
    GLint size = 0;
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &size);
    return size;
}

}  // namespace

const char* HdrPlaneSizeProblem(int32_t width, int32_t height, int32_t bytesPerPixel, int32_t maxTextureSize)
{
    if (width < 1 || height < 1) {
        return "a side is below 1";
    }
    // At most (2^31 - 1)^2: no wrap in 64 bits.
    const int64_t bytes = static_cast<int64_t>(width) * static_cast<int64_t>(height);
    if (bytesPerPixel < 1 || bytes > std::numeric_limits<int32_t>::max() / bytesPerPixel) {
        return "its byte count does not fit 32 bits";
    }
    if (width > maxTextureSize || height > maxTextureSize) {
        return "a side exceeds the maximum texture size";
    }
    return nullptr;
}

const char* HdrPlanesSizeProblem(int32_t mainWidth, int32_t mainHeight, int32_t gainMapWidth, int32_t gainMapHeight,
                                 int32_t maxTextureSize, int* which)
{
    const char* problem = HdrPlaneSizeProblem(mainWidth, mainHeight, 1, maxTextureSize);
    int index = 0;
    if (problem == nullptr) {
        problem = HdrPlaneSizeProblem(gainMapWidth, gainMapHeight, 1, maxTextureSize);
        index = 1;
    }
    if (which != nullptr) {
        *which = index;
    }
    return problem;
}

bool HdrPlaneSizesAccepted(const HdrInfo& info)
{
    const int32_t maxTextureSize = MaxTextureSize();
    int which = 0;
    const char* problem = HdrPlanesSizeProblem(info.nMainImageWidth, info.nMainImageHeight, info.nGainMapWidth,
                                               info.nGainMapHeight, maxTextureSize, &which);
    if (problem != nullptr) {
        HDR_LOG("%d ERROR: %s planes of %d x %d refused: %s (%d)\n", __LINE__, which == 0 ? "main image" : "gain map",
                which == 0 ? info.nMainImageWidth : info.nGainMapWidth,
                which == 0 ? info.nMainImageHeight : info.nGainMapHeight, problem, maxTextureSize);
        return false;
    }
    return true;
}

bool HdrOutputSizeAccepted(int32_t width, int32_t height)
{
    if (width < 1 || height < 1) {
        return true;
    }
    const int32_t maxTextureSize = MaxTextureSize();
    const char* problem = HdrPlaneSizeProblem(width, height, 4, maxTextureSize);
    if (problem != nullptr) {
        HDR_LOG("%d ERROR: output of %d x %d refused: %s (%d)\n", __LINE__, width, height, problem, maxTextureSize);
        return false;
    }
    return true;
}
