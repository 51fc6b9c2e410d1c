// The public records as a host compiles them: every field at its byte offset,
// the sizes, and the enumerations' values, for the data model the test is
// built for (LP64 on 64-bit Linux, ILP32 on i386 and armhf).
#include <HdrGpuBackend.h>

#include <gtest/gtest.h>

#include <cstring>
#include <type_traits>

namespace {

// Byte offsets of the HdrInfo fields that move with the pointer size.
struct HdrInfoLayout {
    size_t mainImagePlanes, nGainMapWidth, nGainMapHeight, gainMapPlanes;
    size_t gainMapMin, gainMapMax, gamma, offsetSdr, offsetHdr, hdrCapacityMin, hdrCapacityMax;
    size_t firstTuning, gamut, trfn, outputWidth, outputHeight, outputRotate, outputMirror;
    size_t size, align;
};
constexpr HdrInfoLayout kLp64HdrInfo{8,   32,  36,  40,  64,  80,  96,  112, 128, 144,
                                     148, 152, 196, 200, 204, 208, 212, 216, 224, 8};
constexpr HdrInfoLayout kIlp32HdrInfo{8,   20,  24,  28,  40,  56,  72,  88,  104, 120,
                                      124, 128, 172, 176, 180, 184, 188, 192, 196, 4};

struct InitOptionLayout {
    size_t eglDisplay, outputYUV, usePBO, size, align;
};
constexpr InitOptionLayout kLp64InitOption{8, 16, 17, 24, 8};
constexpr InitOptionLayout kIlp32InitOption{8, 12, 13, 16, 4};

constexpr bool kLp64 = sizeof(void*) == 8;
constexpr const HdrInfoLayout& kHdrInfo = kLp64 ? kLp64HdrInfo : kIlp32HdrInfo;
constexpr const InitOptionLayout& kInitOption = kLp64 ? kLp64InitOption : kIlp32InitOption;

template <typename Record, typename Field>
Field ReadAt(const Record& record, size_t offset)
{
    Field value;
    std::memcpy(&value, reinterpret_cast<const unsigned char*>(&record) + offset, sizeof value);
    return value;
}

// Each HdrInfo field is found at its documented byte offset.
TEST(Abi, HdrInfoFieldsSitAtTheirOffsets)
{
    HdrInfo info;
    std::memset(&info, 0, sizeof info);
    const uint8_t plane = 0;
    info.nMainImageWidth = 1;
    info.nMainImageHeight = 2;
    info.mainImagePlanes[2] = &plane;
    info.nGainMapWidth = 3;
    info.nGainMapHeight = 4;
    info.gainMapPlanes[1] = &plane;
    info.gainMapMin[3] = 5.5f;
    info.gainMapMax[0] = 6.5f;
    info.gamma[1] = 7.5f;
    info.offsetSdr[2] = 8.5f;
    info.offsetHdr[3] = 9.5f;
    info.hdrCapacityMin = 10.5f;
    info.hdrCapacityMax = 11.5f;
    int32_t* tuning[] = {&info.MDB_V1,        &info.MDB_V2,        &info.MDB_T1,        &info.MDB_T2,
                         &info.GAMMA_MUL,     &info.GAIN_CURVE_P0, &info.GAIN_CURVE_P1, &info.GAIN_CURVE_P2,
                         &info.GAIN_CURVE_G0, &info.GAIN_CURVE_G1, &info.GAIN_CURVE_G2};
    for (int i = 0; i < 11; ++i) {
        *tuning[i] = 100 + i;
    }
    info.gamut = hdr_color_gamut::HDR_COLORGAMUT_BT2100;
    info.trfn = static_cast<hdr_transfer_function>(-1);
    info.outputWidth = 13;
    info.outputHeight = 14;
    info.outputRotate = 15;
    info.outputMirror = true;

    EXPECT_EQ((ReadAt<HdrInfo, int32_t>(info, 0)), 1);
    EXPECT_EQ((ReadAt<HdrInfo, int32_t>(info, 4)), 2);
    EXPECT_EQ((ReadAt<HdrInfo, const uint8_t*>(info, kHdrInfo.mainImagePlanes + 2 * sizeof(void*))), &plane);
    EXPECT_EQ((ReadAt<HdrInfo, int32_t>(info, kHdrInfo.nGainMapWidth)), 3);
    EXPECT_EQ((ReadAt<HdrInfo, int32_t>(info, kHdrInfo.nGainMapHeight)), 4);
    EXPECT_EQ((ReadAt<HdrInfo, const uint8_t*>(info, kHdrInfo.gainMapPlanes + sizeof(void*))), &plane);
    EXPECT_EQ((ReadAt<HdrInfo, float>(info, kHdrInfo.gainMapMin + 12)), 5.5f);
    EXPECT_EQ((ReadAt<HdrInfo, float>(info, kHdrInfo.gainMapMax)), 6.5f);
    EXPECT_EQ((ReadAt<HdrInfo, float>(info, kHdrInfo.gamma + 4)), 7.5f);
    EXPECT_EQ((ReadAt<HdrInfo, float>(info, kHdrInfo.offsetSdr + 8)), 8.5f);
    EXPECT_EQ((ReadAt<HdrInfo, float>(info, kHdrInfo.offsetHdr + 12)), 9.5f);
    EXPECT_EQ((ReadAt<HdrInfo, float>(info, kHdrInfo.hdrCapacityMin)), 10.5f);
    EXPECT_EQ((ReadAt<HdrInfo, float>(info, kHdrInfo.hdrCapacityMax)), 11.5f);
    for (int i = 0; i < 11; ++i) {
        EXPECT_EQ((ReadAt<HdrInfo, int32_t>(info, kHdrInfo.firstTuning + 4 * i)), 100 + i) << "tuning field " << i;
    }
    EXPECT_EQ((ReadAt<HdrInfo, int32_t>(info, kHdrInfo.gamut)), 2);
    EXPECT_EQ((ReadAt<HdrInfo, int32_t>(info, kHdrInfo.trfn)), -1);
    EXPECT_EQ((ReadAt<HdrInfo, int32_t>(info, kHdrInfo.outputWidth)), 13);
    EXPECT_EQ((ReadAt<HdrInfo, int32_t>(info, kHdrInfo.outputHeight)), 14);
    EXPECT_EQ((ReadAt<HdrInfo, int32_t>(info, kHdrInfo.outputRotate)), 15);
    EXPECT_EQ((ReadAt<HdrInfo, uint8_t>(info, kHdrInfo.outputMirror)), 1);
    EXPECT_EQ(sizeof(HdrInfo), kHdrInfo.size);
    EXPECT_EQ(alignof(HdrInfo), kHdrInfo.align);
    EXPECT_TRUE(std::is_standard_layout<HdrInfo>::value);
    EXPECT_TRUE(std::is_trivially_copyable<HdrInfo>::value);
}

// The init option is 24 bytes with the two flags at 16 and 17 (LP64), or
// 16 bytes with them at 12 and 13 (ILP32).
TEST(Abi, InitOptionFieldsSitAtTheirOffsets)
{
    GpuGenerateHdrInitOption option;
    std::memset(&option, 0, sizeof option);
    int anchor = 0;
    option.surfaceWidth = 1921;
    option.surfaceHeight = 1079;
    option.eglDisplay = &anchor;
    option.outputYUV = true;
    option.usePBO = true;
    EXPECT_EQ((ReadAt<GpuGenerateHdrInitOption, int32_t>(option, 0)), 1921);
    EXPECT_EQ((ReadAt<GpuGenerateHdrInitOption, int32_t>(option, 4)), 1079);
    EXPECT_EQ((ReadAt<GpuGenerateHdrInitOption, void*>(option, kInitOption.eglDisplay)), &anchor);
    EXPECT_EQ((ReadAt<GpuGenerateHdrInitOption, uint8_t>(option, kInitOption.outputYUV)), 1);
    EXPECT_EQ((ReadAt<GpuGenerateHdrInitOption, uint8_t>(option, kInitOption.usePBO)), 1);
    EXPECT_EQ(sizeof(GpuGenerateHdrInitOption), kInitOption.size);
    EXPECT_EQ(alignof(GpuGenerateHdrInitOption), kInitOption.align);
    EXPECT_TRUE(std::is_trivially_copyable<GpuGenerateHdrInitOption>::value);
}

// The build is one of the two data models the records are laid out for:
// pointers and long both 64-bit, or both 32-bit.
TEST(Abi, DataModelIsLp64OrIlp32)
{
    EXPECT_EQ(sizeof(long), sizeof(void*));
    EXPECT_TRUE(sizeof(void*) == 8 || sizeof(void*) == 4) << sizeof(void*);
    EXPECT_EQ(sizeof(int), 4u);
    EXPECT_EQ(sizeof(float), 4u);
}

// The enumerations are int32 with the documented values.
TEST(Abi, EnumerationValues)
{
    static_assert(std::is_same<std::underlying_type<hdr_color_gamut>::type, int32_t>::value, "int32");
    static_assert(std::is_same<std::underlying_type<hdr_transfer_function>::type, int32_t>::value, "int32");
    EXPECT_EQ(static_cast<int32_t>(hdr_color_gamut::HDR_COLORGAMUT_BT709), 0);
    EXPECT_EQ(static_cast<int32_t>(hdr_color_gamut::HDR_COLORGAMUT_P3), 1);
    EXPECT_EQ(static_cast<int32_t>(hdr_color_gamut::HDR_COLORGAMUT_BT2100), 2);
    EXPECT_EQ(static_cast<int32_t>(hdr_transfer_function::HDR_TF_LINEAR), 0);
    EXPECT_EQ(static_cast<int32_t>(hdr_transfer_function::HDR_TF_HLG), 1);
    EXPECT_EQ(static_cast<int32_t>(hdr_transfer_function::HDR_TF_PQ), 2);
    EXPECT_EQ(static_cast<int32_t>(hdr_transfer_function::HDR_TF_SRGB), 3);
}

// The result codes keep their numbers.
TEST(Abi, ResultCodes)
{
    const std::pair<GpuGenerateResult, int> codes[] = {
        {GPU_GENERATE_NO_SURFACE, -1},          {GPU_GENERATE_SUCCESS, 0},
        {GPU_GENERATE_ERROR_INIT_TWICE, 1},     {GPU_GENERATE_ERROR_NO_DISPLAY, 2},
        {GPU_GENERATE_ERROR_NO_CONTEXT, 3},     {GPU_GENERATE_ERROR_CREATE_CONTEXT, 4},
        {GPU_GENERATE_ERROR_FIRST_BIND, 5},     {GPU_GENERATE_ERROR_INIT_UNBIND, 6},
        {GPU_GENERATE_ERROR_SURFACE, 7},        {GPU_GENERATE_ERROR_EGL_IMAGE, 8},
        {GPU_GENERATE_ERROR_NO_PROGRAM, 9},     {GPU_GENERATE_ERROR_SETTINGS, 10},
        {GPU_GENERATE_ERROR_GL, 11},            {GPU_GENERATE_ERROR_CALL_ORDER, 12},
        {GPU_GENERATE_ERROR_BAD_INPUT, 13},     {GPU_GENERATE_ERROR_FENCE_WAIT, 14},
        {GPU_GENERATE_ERROR_FENCE_TIMEOUT, 15},
    };
    for (const auto& code : codes) {
        EXPECT_EQ(static_cast<int>(code.first), code.second);
    }
}

}  // namespace
