// EXIF orientation (tag 0x0112 of IFD0, values 1 to 8): how the stored
// picture is turned into the displayed one, as the library's output rotation
// and mirror (streaming mode) or on the CPU (direct mode, whose output the
// library never rotates).
//
// The library's outputRotate turns the picture by -90, -180 or -270 degrees
// about the screen normal in its matrix, i.e. (with row 0 at the top of the
// output) 90 degrees clockwise, 180 degrees, or 90 degrees anticlockwise as
// the picture is seen; outputMirror then swaps left and right of the turned
// picture. Every orientation is one of these eight:
//
//   EXIF  stored row 0 / column 0   to display           outputRotate  outputMirror
//   1     top / left                as is                0             no
//   2     top / right               mirror left-right    0             yes
//   3     bottom / right            rotate 180           2             no
//   4     bottom / left             mirror top-bottom    2             yes
//   5     left / top                transpose            1             yes
//   6     right / top               rotate 90 cw         1             no
//   7     right / bottom            transverse           3             yes
//   8     left / bottom             rotate 90 ccw        3             no
//
// Displayed pixel (x, y) shows stored pixel (W and H the stored size):
//   1 (x, y)          2 (W-1-x, y)      3 (W-1-x, H-1-y)   4 (x, H-1-y)
//   5 (y, x)          6 (y, H-1-x)      7 (W-1-y, H-1-x)   8 (W-1-y, x)
// Values 5 to 8 swap the width and the height. Any other value is treated
// as 1.
#ifndef HDRGPU_CONVERT_ORIENTATION_H
#define HDRGPU_CONVERT_ORIENTATION_H

#include <cstdint>
#include <vector>

namespace hdrconvert {

// The library's output transform for one EXIF orientation.
struct OutputTransform {
    int32_t outputRotate = 0;  // 0 none, 1, 2, 3: -90, -180, -270 degrees
    bool outputMirror = false;
};

// 1 for anything outside 1..8.
int NormalizeOrientation(int exifOrientation);

OutputTransform TransformForOrientation(int exifOrientation);

// True for 5 to 8: the displayed picture is the stored one's height wide.
bool OrientationSwapsSize(int exifOrientation);

// The displayed size of a stored width x height picture.
void OrientedSize(int exifOrientation, int width, int height, int* orientedWidth, int* orientedHeight);

// The stored pixel that displayed pixel (x, y) shows (the table above).
void StoredPixelFor(int exifOrientation, int storedWidth, int storedHeight, int x, int y, int* storedX, int* storedY);

// The displayed picture of a stored one of `channels` interleaved bytes per
// pixel, rows tightly packed. Returns the oriented bytes (rows tightly packed,
// OrientedSize wide and high).
std::vector<uint8_t> OrientPixels(const uint8_t* stored, int width, int height, int channels, int exifOrientation);

}  // namespace hdrconvert

#endif
