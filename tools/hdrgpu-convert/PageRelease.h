// Handing memory that is about to be overwritten anyway back to the system,
// so that it stops counting as the process's resident memory until it is
// written again.
#ifndef HDRGPU_CONVERT_PAGE_RELEASE_H
#define HDRGPU_CONVERT_PAGE_RELEASE_H

#include <cstddef>
#include <cstdint>

namespace hdrconvert {

// Releases the whole pages inside [data, data + bytes) (the partial pages at
// either end are left alone). Afterwards private memory reads as zeros and
// shared memory keeps its contents; either way the caller must treat the
// bytes as undefined. Only for memory the caller may overwrite at will, such
// as an upload buffer mapped for writing. Returns the bytes released: 0 when
// the range holds no whole page or the system refuses (device memory, say).
size_t ReleaseWholePages(uint8_t* data, size_t bytes);

}  // namespace hdrconvert

#endif
