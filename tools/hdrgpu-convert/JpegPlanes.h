// JPEG codestreams to and from full-size 8-bit Y, U, V planes, with
// libjpeg-turbo's libjpeg interface.
//
// Decoding gives the three planes the renderer takes: every plane at the
// image's full size (chroma upsampled by the decoder), rows tightly packed.
// Y, U and V are full-range BT.601 (JFIF) YCbCr. A greyscale image gets
// neutral chroma (U = V = 128); a JPEG stored as RGB (Adobe APP14 transform 0,
// or components named 'R', 'G', 'B') is converted to YCbCr here. CMYK, YCCK
// and any other component layout are refused with a reason.
#ifndef HDRGPU_CONVERT_JPEG_PLANES_H
#define HDRGPU_CONVERT_JPEG_PLANES_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace hdrconvert {

// Three full-size planes of one image, row 0 first, rows tightly packed.
struct YuvPlanes {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> y;
    std::vector<uint8_t> u;
    std::vector<uint8_t> v;
    int components = 0;  // colour components in the codestream: 1 (grey) or 3

    // Y, U or V for 0, 1, 2.
    std::vector<uint8_t>& Plane(int component) { return component == 0 ? y : component == 1 ? u : v; }
    const std::vector<uint8_t>& Plane(int component) const { return component == 0 ? y : component == 1 ? u : v; }
};

// Reads the image size and component count without decoding. False with a
// reason when the header cannot be read or the colour space is refused.
bool ReadJpegHeader(const uint8_t* data, size_t size, int* width, int* height, std::string* reason);

// Decodes the codestream data[0..size) (SOI through EOI) into out. False with
// one short reason line when the data is not a JPEG, is truncated or corrupt,
// or uses a colour space other than grey, YCbCr or RGB.
bool DecodeJpegPlanes(const uint8_t* data, size_t size, YuvPlanes* out, std::string* reason);

// Where the decoder puts the rows it produces: it asks for the three
// destinations (Y, U, V, each `width` bytes) of every row, in order, so that
// a picture can be decoded straight into memory it does not own.
class PlaneRowSink {
public:
    virtual ~PlaneRowSink() = default;
    // Once, before the first row: the decoded size and the codestream's
    // colour component count. False with a reason refuses the image.
    virtual bool Start(int width, int height, int components, std::string* reason) = 0;
    virtual void Row(int row, uint8_t** y, uint8_t** u, uint8_t** v) = 0;
};

// Decodes like DecodeJpegPlanes, handing every row to sink. The rows already
// given stay written when decoding fails part-way.
bool DecodeJpegRows(const uint8_t* data, size_t size, PlaneRowSink* sink, std::string* reason);

// DecodeJpegPlanes into planes whose vectors keep their storage from one
// picture to the next. On failure the planes hold an unspecified part of the
// picture.
bool DecodeJpegPlanesReusing(const uint8_t* data, size_t size, YuvPlanes* planes, std::string* reason);

// Chroma sampling of an encoded colour image.
enum class ChromaSampling {
    Yuv420,
    Yuv444,
};

// Encodes interleaved 8-bit RGB (3 bytes per pixel, rows tightly packed).
// Empty on failure.
std::vector<uint8_t> EncodeRgbJpeg(const uint8_t* rgb, int width, int height, int quality,
                                   ChromaSampling sampling = ChromaSampling::Yuv420);

// Encodes one 8-bit grey plane as a single-component JPEG. Empty on failure.
std::vector<uint8_t> EncodeGreyJpeg(const uint8_t* grey, int width, int height, int quality);

// Encodes full-size Y, U, V planes (full-range BT.601) as a YCbCr JPEG; the
// encoder subsamples the chroma for Yuv420. Empty on failure.
std::vector<uint8_t> EncodeYuvJpeg(const YuvPlanes& planes, int quality,
                                   ChromaSampling sampling = ChromaSampling::Yuv420);

}  // namespace hdrconvert

#endif
