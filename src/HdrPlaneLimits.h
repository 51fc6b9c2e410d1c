// Size limits of the planes and surfaces the engine hands to GL: checked
// before anything is allocated or mapped, so that a buffer handed to the
// host always holds the whole plane it was asked for.
#ifndef HDR_PLANE_LIMITS_H
#define HDR_PLANE_LIMITS_H

#include "HdrGpuBackend.h"

#include <cstdint>

// Why a width x height picture of bytesPerPixel-byte pixels cannot be a
// texture of this GL implementation (largest side maxTextureSize), or null
// when it can: a side below 1, a byte count that does not fit a signed
// 32-bit value (the engine's buffer arithmetic), or a side above the limit.
const char* HdrPlaneSizeProblem(int32_t width, int32_t height, int32_t bytesPerPixel, int32_t maxTextureSize);

// The same for the four plane sizes of a record (main image, gain map):
// null when both are accepted; otherwise the problem, with *which set to
// 0 (main image) or 1 (gain map).
const char* HdrPlanesSizeProblem(int32_t mainWidth, int32_t mainHeight, int32_t gainMapWidth, int32_t gainMapHeight,
                                 int32_t maxTextureSize, int* which);

// With the engine's context bound: the record's plane sizes checked against
// this GL implementation's largest texture; a refusal is logged.
bool HdrPlaneSizesAccepted(const HdrInfo& info);

// The streaming mode's output surface (4 bytes a pixel) checked the same
// way; sides below 1 are left to the surface creation, which refuses them.
bool HdrOutputSizeAccepted(int32_t width, int32_t height);

#endif
