#include "Orientation.h"

#include <cstring>

namespace hdrconvert {

int NormalizeOrientation(int exifOrientation)
{
    return exifOrientation >= 1 && exifOrientation <= 8 ? exifOrientation : 1;
}

OutputTransform TransformForOrientation(int exifOrientation)
{
    OutputTransform t;
    switch (NormalizeOrientation(exifOrientation)) {
    case 2:
        t.outputMirror = true;
        break;
    case 3:
        t.outputRotate = 2;
        break;
    case 4:
        t.outputRotate = 2;
        t.outputMirror = true;
        break;
    case 5:
        t.outputRotate = 1;
        t.outputMirror = true;
        break;
    case 6:
        t.outputRotate = 1;
        break;
    case 7:
        t.outputRotate = 3;
        t.outputMirror = true;
        break;
    case 8:
        t.outputRotate = 3;
        break;
    default:
        break;
    }
    return t;
}

bool OrientationSwapsSize(int exifOrientation)
{
    return NormalizeOrientation(exifOrientation) >= 5;
}

void OrientedSize(int exifOrientation, int width, int height, int* orientedWidth, int* orientedHeight)
{
    const bool swap = OrientationSwapsSize(exifOrientation);
    *orientedWidth = swap ? height : width;
    *orientedHeight = swap ? width : height;
}

void StoredPixelFor(int exifOrientation, int storedWidth, int storedHeight, int x, int y, int* storedX, int* storedY)
{
    const int w = storedWidth;
    const int h = storedHeight;
    int sx = x;
    int sy = y;
    switch (NormalizeOrientation(exifOrientation)) {
    case 2:
        sx = w - 1 - x;
        break;
    case 3:
        sx = w - 1 - x;
        sy = h - 1 - y;
        break;
    case 4:
        sy = h - 1 - y;
        break;
    case 5:
        sx = y;
        sy = x;
        break;
    case 6:
        sx = y;
        sy = h - 1 - x;
        break;
    case 7:
        sx = w - 1 - y;
        sy = h - 1 - x;
        break;
    case 8:
        sx = w - 1 - y;
        sy = x;
        break;
    default:
        break;
    }
    *storedX = sx;
    *storedY = sy;
}

std::vector<uint8_t> OrientPixels(const uint8_t* stored, int width, int height, int channels, int exifOrientation)
{
    int ow = 0;
    int oh = 0;
    OrientedSize(exifOrientation, width, height, &ow, &oh);
    const size_t bpp = static_cast<size_t>(channels);
    std::vector<uint8_t> out(static_cast<size_t>(ow) * static_cast<size_t>(oh) * bpp);
    if (NormalizeOrientation(exifOrientation) == 1) {
        std::memcpy(out.data(), stored, out.size());
        return out;
    }
    for (int y = 0; y < oh; ++y) {
        uint8_t* row = out.data() + static_cast<size_t>(y) * static_cast<size_t>(ow) * bpp;
        for (int x = 0; x < ow; ++x) {
            int sx = 0;
            int sy = 0;
            StoredPixelFor(exifOrientation, width, height, x, y, &sx, &sy);
            const uint8_t* src =
                stored + (static_cast<size_t>(sy) * static_cast<size_t>(width) + static_cast<size_t>(sx)) * bpp;
            std::memcpy(row + static_cast<size_t>(x) * bpp, src, bpp);
        }
    }
    return out;
}

}  // namespace hdrconvert
