// GL side of the packed gain map: storage, the banded fill, teardown.
#include "HdrPackedGainMap.h"

#include "HdrCommon.h"
#include "HdrGainMapVariant.h"

#include <algorithm>

namespace {

// Rows interleaved and copied per glTexSubImage2D: the staging buffer stays
// small (1.5 MB for a 6000-texel row) and warm in the cache.
constexpr int kBandRows = 64;

}  // namespace

bool PackedGainMap::Upload(GLenum unit, const uint8_t* y, const uint8_t* u, const uint8_t* v, int width, int height,
                           GLenum* glError)
{
    current_ = false;
    *glError = GL_NO_ERROR;
    if (width < 1 || height < 1 || y == nullptr || u == nullptr || v == nullptr) {
        return false;
    }
    Define(unit, width, height);
    const size_t rowPixels = static_cast<size_t>(width);
    staging_.resize(rowPixels * 4 * static_cast<size_t>(std::min(height, kBandRows)));
    for (int row = 0; row < height; row += kBandRows) {
        const int rows = std::min(kBandRows, height - row);
        const size_t first = static_cast<size_t>(row) * rowPixels;
        InterleaveGainMapPixels(y + first, u + first, v + first, rowPixels * static_cast<size_t>(rows),
                                staging_.data());
        glTexSubImage2D(GL_TEXTURE_2D, 0, 0, row, width, rows, GL_RGBA, GL_UNSIGNED_BYTE, staging_.data());
    }
    const GLenum error = TakeGlErrors();
    if (error != GL_NO_ERROR) {
        *glError = error;
        // A texture left without storage must not be taken for a good one.
        glDeleteTextures(1, &texture_);
        texture_ = 0;
        width_ = height_ = 0;
        return false;
    }
    current_ = true;
    return true;
}

void PackedGainMap::Reserve(GLenum unit, int width, int height)
{
    current_ = false;
    if (width >= 1 && height >= 1) {
        Define(unit, width, height);
    }
}

void PackedGainMap::Define(GLenum unit, int width, int height)
{
    glActiveTexture(unit);
    if (texture_ != 0 && width == width_ && height == height_) {
        glBindTexture(GL_TEXTURE_2D, texture_);
        return;
    }
    // Immutable storage is only dropped with its texture.
    glDeleteTextures(1, &texture_);
    glGenTextures(1, &texture_);
    glBindTexture(GL_TEXTURE_2D, texture_);
    glTexStorage2D(GL_TEXTURE_2D, 1, GL_RGBA8, width, height);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    width_ = width;
    height_ = height;
}

void PackedGainMap::Release()
{
    if (texture_ != 0) {
        glDeleteTextures(1, &texture_);
    }
    Forget();
}

void PackedGainMap::Forget()
{
    texture_ = 0;
    width_ = height_ = 0;
    current_ = false;
    staging_.clear();
    staging_.shrink_to_fit();
}
