// Handing the whole pages of a buffer back to the system.
#include "PageRelease.h"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <vector>

namespace {

class MappedPages {
public:
    explicit MappedPages(size_t pages)
        : page_(static_cast<size_t>(sysconf(_SC_PAGESIZE))), bytes_(pages * page_),
          data_(static_cast<uint8_t*>(mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)))
    {
    }
    ~MappedPages()
    {
        if (data_ != MAP_FAILED) {
            munmap(data_, bytes_);
        }
    }
    MappedPages(const MappedPages&) = delete;
    MappedPages& operator=(const MappedPages&) = delete;

    bool Valid() const { return data_ != MAP_FAILED; }
    uint8_t* Data() const { return data_; }
    size_t Page() const { return page_; }
    size_t Bytes() const { return bytes_; }

    // Whether each page is resident, as mincore sees it.
    std::vector<bool> Resident() const
    {
        std::vector<unsigned char> flags(bytes_ / page_);
        std::vector<bool> resident(flags.size(), false);
        if (mincore(data_, bytes_, flags.data()) == 0) {
            for (size_t i = 0; i < flags.size(); ++i) {
                resident[i] = (flags[i] & 1) != 0;
            }
        }
        return resident;
    }

private:
    size_t page_;
    size_t bytes_;
    uint8_t* data_;
};

TEST(PageRelease, WholePagesInsideTheRangeAreReleasedAndTheEndsKept)
{
    MappedPages pages(16);
    ASSERT_TRUE(pages.Valid());
    const size_t page = pages.Page();
    std::memset(pages.Data(), 0xAB, pages.Bytes());
    // From 100 bytes into page 0 to 100 bytes before the end of page 15:
    // pages 1 to 14 are whole inside it.
    const size_t released = hdrconvert::ReleaseWholePages(pages.Data() + 100, pages.Bytes() - 200);
    EXPECT_EQ(released, 14 * page);
    const std::vector<bool> resident = pages.Resident();
    EXPECT_TRUE(resident[0]);
    EXPECT_TRUE(resident[15]);
    for (size_t i = 1; i <= 14; ++i) {
        EXPECT_FALSE(resident[i]) << "page " << i;
    }
    for (size_t i = 0; i < pages.Bytes(); ++i) {
        const bool inside = i >= page && i < 15 * page;
        ASSERT_EQ(pages.Data()[i], inside ? 0x00 : 0xAB) << "byte " << i;
    }
}

TEST(PageRelease, NothingWithoutAWholePage)
{
    MappedPages pages(2);
    ASSERT_TRUE(pages.Valid());
    std::memset(pages.Data(), 0x5C, pages.Bytes());
    EXPECT_EQ(hdrconvert::ReleaseWholePages(pages.Data() + 1, pages.Page()), 0u);
    EXPECT_EQ(hdrconvert::ReleaseWholePages(pages.Data(), 0), 0u);
    EXPECT_EQ(hdrconvert::ReleaseWholePages(nullptr, pages.Bytes()), 0u);
    for (size_t i = 0; i < pages.Bytes(); ++i) {
        ASSERT_EQ(pages.Data()[i], 0x5C) << "byte " << i;
    }
    EXPECT_EQ(hdrconvert::ReleaseWholePages(pages.Data(), pages.Bytes()), pages.Bytes());
    EXPECT_EQ(pages.Data()[0], 0x00);
}

}  // namespace
