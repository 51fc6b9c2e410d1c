#include "PageRelease.h"

#include <sys/mman.h>
#include <unistd.h>

namespace hdrconvert {

size_t ReleaseWholePages(uint8_t* data, size_t bytes)
{
    const long pageSize = sysconf(_SC_PAGESIZE);
    if (data == nullptr || pageSize <= 0) {
        return 0;
    }
    const uintptr_t page = static_cast<uintptr_t>(pageSize);
    const uintptr_t begin = reinterpret_cast<uintptr_t>(data);
    if (bytes > UINTPTR_MAX - begin) {
        return 0;
    }
    const uintptr_t first = (begin + page - 1) / page * page;
    const uintptr_t end = (begin + bytes) / page * page;
    if (end <= first) {
        return 0;
    }
    const size_t length = end - first;
    uint8_t* const pages = data + (first - begin);  // still inside the caller's buffer
    if (madvise(pages, length, MADV_DONTNEED) != 0) {
        return 0;
    }
    return length;
}

}  // namespace hdrconvert
