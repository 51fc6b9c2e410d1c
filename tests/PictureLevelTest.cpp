// The picture level's byte sum against sums worked out by hand.
#include "HdrPictureLevel.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

TEST(PictureLevel, NoBytesSumToZero)
{
    const uint8_t byte = 200;
    EXPECT_EQ(SumOfBytes(&byte, 0), 0u);
}

TEST(PictureLevel, SmallPlaneSumsEveryByte)
{
    const uint8_t bytes[5] = {1, 2, 3, 250, 255};
    EXPECT_EQ(SumOfBytes(bytes, 5), 511u);
}

// Past the 64 KiB blocks the sum is added up in: whole blocks of 255 and a
// partial one, a total far beyond 32 bits.
TEST(PictureLevel, WhiteBeyondManyBlocksSumsExactly)
{
    const size_t count = (size_t{1} << 16) * 300 + 77;
    const std::vector<uint8_t> white(count, 255);
    EXPECT_EQ(SumOfBytes(white.data(), count), uint64_t{255} * count);
    EXPECT_GT(uint64_t{255} * count, uint64_t{UINT32_MAX});
}

// A ramp whose sum is known in closed form: i mod 256 over n bytes.
TEST(PictureLevel, RampAcrossBlockEdgesSumsExactly)
{
    for (const size_t count : {size_t{65535}, size_t{65536}, size_t{65537}, size_t{3} * 65536 + 1000}) {
        SCOPED_TRACE(count);
        std::vector<uint8_t> ramp(count);
        for (size_t i = 0; i < count; ++i) {
            ramp[i] = static_cast<uint8_t>(i);
        }
        const uint64_t cycles = count / 256;
        const uint64_t rest = count % 256;
        const uint64_t expected = cycles * (255 * 256 / 2) + rest * (rest - 1) / 2;
        EXPECT_EQ(SumOfBytes(ramp.data(), count), expected);
    }
}
