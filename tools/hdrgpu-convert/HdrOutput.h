// HDR files from the library's 8-bit output, through the panel model
// (PanelModel.h): a 16-bit PQ PNG with its cICP / cLLi / mDCv chunks, and a
// 10-bit 4:4:4 PQ AVIF (libavif) with its CICP.
#ifndef HDRGPU_CONVERT_HDR_OUTPUT_H
#define HDRGPU_CONVERT_HDR_OUTPUT_H

#include "PanelModel.h"

#include <cstdint>
#include <string>

namespace hdrconvert {

// An RGB picture as the library drew it: R, G, B, A bytes per pixel, rows
// tightly packed, in the given primaries.
struct PanelPicture {
    const uint8_t* rgba = nullptr;
    int width = 0;
    int height = 0;
    Primaries primaries = Primaries::Bt709;
};

// What was written beside the pixels.
struct HdrWriteInfo {
    LightLevels levels;  // the picture's MaxCLL / MaxFALL
    Cicp cicp;
};

// 16-bit RGB PNG, PQ-encoded, with cICP (primaries, 16, 0, 1), cLLi (MaxCLL,
// MaxFALL in 0.0001 cd/m2) and mDCv (the primaries, D65, the panel's peak
// and 0 cd/m2) before the image data. pngLevel is the zlib level 0..9.
bool WritePqPng(const std::string& path, const PanelPicture& picture, const PanelModel& panel, int pngLevel,
                HdrWriteInfo* info, std::string* reason);

// The AV1 encoder libavif picks, e.g. "aom"; empty when it has none.
std::string AvifEncoderName();

// The encoder speed used: libavif's fastest.
int AvifEncoderSpeed();

// The quantizer used for colour (0 lossless .. 63): high quality, small
// enough an error for the PQ signal (a few 10-bit codes).
constexpr int kAvifQuantizer = 8;

// 10-bit 4:4:4 AVIF, PQ-encoded, full range, identity matrix (the planes
// hold G, B, R), with the CICP in the AV1 stream and the nclx colour box.
bool WritePqAvif(const std::string& path, const PanelPicture& picture, const PanelModel& panel, HdrWriteInfo* info,
                 std::string* reason);

}  // namespace hdrconvert

#endif
