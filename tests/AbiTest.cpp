// The public records as a host compiles them: every field at its byte offset,
// the sizes, and the enumerations' values.
#include <HdrGpuBackend.h>

#include <gtest/gtest.h>

#include <cstring>
#include <type_traits>

namespace {

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
    EXPECT_EQ((ReadAt<HdrInfo, const uint8_t*>(info, 8 + 2 * 8)), &plane);
    EXPECT_EQ((ReadAt<HdrInfo, int32_t>(info, 32)), 3);
    EXPECT_EQ((ReadAt<HdrInfo, int32_t>(info, 36)), 4);
    EXPECT_EQ((ReadAt<HdrInfo, const uint8_t*>(info, 40 + 8)), &plane);
    EXPECT_EQ((ReadAt<HdrInfo, float>(info, 64 + 12)), 5.5f);
    EXPECT_EQ((ReadAt<HdrInfo, float>(info, 80)), 6.5f);
    EXPECT_EQ((ReadAt<HdrInfo, float>(info, 96 + 4)), 7.5f);
    EXPECT_EQ((ReadAt<HdrInfo, float>(info, 112 + 8)), 8.5f);
    EXPECT_EQ((ReadAt<HdrInfo, float>(info, 128 + 12)), 9.5f);
    EXPECT_EQ((ReadAt<HdrInfo, float>(info, 144)), 10.5f);
    EXPECT_EQ((ReadAt<HdrInfo, float>(info, 148)), 11.5f);
    for (int i = 0; i < 11; ++i) {
        EXPECT_EQ((ReadAt<HdrInfo, int32_t>(info, 152 + 4 * i)), 100 + i) << "tuning field " << i;
    }
    EXPECT_EQ((ReadAt<HdrInfo, int32_t>(info, 196)), 2);
    EXPECT_EQ((ReadAt<HdrInfo, int32_t>(info, 200)), -1);
    EXPECT_EQ((ReadAt<HdrInfo, int32_t>(info, 204)), 13);
    EXPECT_EQ((ReadAt<HdrInfo, int32_t>(info, 208)), 14);
    EXPECT_EQ((ReadAt<HdrInfo, int32_t>(info, 212)), 15);
    EXPECT_EQ((ReadAt<HdrInfo, uint8_t>(info, 216)), 1);
    EXPECT_EQ(sizeof(HdrInfo), 224u);
    EXPECT_EQ(alignof(HdrInfo), 8u);
    EXPECT_TRUE(std::is_standard_layout<HdrInfo>::value);
    EXPECT_TRUE(std::is_trivially_copyable<HdrInfo>::value);
}

// The init option is 24 bytes with the two flags at 16 and 17.
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
    EXPECT_EQ((ReadAt<GpuGenerateHdrInitOption, void*>(option, 8)), &anchor);
    EXPECT_EQ((ReadAt<GpuGenerateHdrInitOption, uint8_t>(option, 16)), 1);
    EXPECT_EQ((ReadAt<GpuGenerateHdrInitOption, uint8_t>(option, 17)), 1);
    EXPECT_EQ(sizeof(GpuGenerateHdrInitOption), 24u);
    EXPECT_TRUE(std::is_trivially_copyable<GpuGenerateHdrInitOption>::value);
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
