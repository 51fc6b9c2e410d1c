// Decoding a JPEG straight into three plane buffers the caller does not own
// (the library's mapped upload buffers): full-size Y, U, V, rows tightly
// packed, chroma upsampled by the decoder row group by row group, exactly as
// DecodeJpegPlanes gives them but with no full-size planes in between.
#ifndef HDRGPU_CONVERT_STREAMING_DECODE_H
#define HDRGPU_CONVERT_STREAMING_DECODE_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace hdrconvert {

// Decodes data[0..size) into y, u, v (each width * height bytes). The image
// must be width x height (the size its header gave when the buffers were
// sized); anything else is refused before a row is written. False with the
// same reasons as DecodeJpegPlanes; rows decoded before a failure stay
// written.
bool DecodeJpegIntoPlanes(const uint8_t* data, size_t size, int width, int height, uint8_t* y, uint8_t* u, uint8_t* v,
                          std::string* reason);

// True when data[0..size) decodes as a whole, with nothing kept; else false
// with the decoder's reason. For choosing which of several faults to report.
bool JpegDecodes(const uint8_t* data, size_t size, std::string* reason);

}  // namespace hdrconvert

#endif
