// The sum behind the picture level (APL): every byte of the main image's
// luma, added at memory speed. A pure function, tested without GL.
#ifndef HDR_PICTURE_LEVEL_H
#define HDR_PICTURE_LEVEL_H

#include <cstddef>
#include <cstdint>

// The sum of bytes[0 .. count), exact for any count (0 for none).
uint64_t SumOfBytes(const uint8_t* bytes, size_t count);

#endif
