// Tuning from the platform's system information: the packing of the photo
// key, the peak-white mapping, partial failures, and the load order's results.
#include "HdrFactorySettings.h"
#include "HdrGenerate.h"
#include "LogCapture.h"

#include <gtest/gtest.h>
#include <system_info_standin.h>

#include <algorithm>
#include <cstring>

using hdrtest::LogCapture;
using Parameter = HdrFactorySettings::Parameter;

namespace {

constexpr int kPhotoHdr = 1301;
constexpr int kPeakWhite = 1302;
constexpr int kNotSupported = -1073741822;

class SystemInfoParameters : public ::testing::Test {
protected:
    void SetUp() override { system_info_standin_reset(); }
    void TearDown() override
    {
        system_info_standin_reset();
        HdrGenerate::DestroyInstance();
    }
    static bool Contains(const std::vector<std::string>& messages, const std::string& text)
    {
        return std::find(messages.begin(), messages.end(), text) != messages.end();
    }
};

struct Packed {
    int value;
    int gammaMul, p1, g0, g1, g2;
};

// The photo key's decimal groups, as the worked examples give them.
TEST_F(SystemInfoParameters, PhotoKeyUnpacksItsGroups)
{
    const Packed cases[] = {
        {0, 128, 0, 0, 0, 0},
        {150252550, 160, 512, 256, 256, 512},
        {399999999, 224, 1013, 1013, 1013, 1013},
        // Negative: truncation toward zero, remainders take the dividend's sign.
        {-150252550, (-1 + 4) * 32, -50 * 1024 / 100, -25 * 1024 / 100, -25 * 1024 / 100, -50 * 1024 / 100},
        {2147483647, (21 + 4) * 32, 47 * 1024 / 100, 48 * 1024 / 100, 36 * 1024 / 100, 47 * 1024 / 100},
    };
    for (const Packed& c : cases) {
        SCOPED_TRACE(c.value);
        system_info_standin_set_int(kPhotoHdr, c.value);
        system_info_standin_set_int(kPeakWhite, 100);
        Parameter p{};
        LogCapture capture;
        EXPECT_TRUE(HdrFactorySettings::GetParameterFromSystemInfo(p));
        EXPECT_EQ(p.GAMMA_MUL, c.gammaMul);
        EXPECT_EQ(p.GAIN_CURVE_P1, c.p1);
        EXPECT_EQ(p.GAIN_CURVE_G0, c.g0);
        EXPECT_EQ(p.GAIN_CURVE_G1, c.g1);
        EXPECT_EQ(p.GAIN_CURVE_G2, c.g2);
        // Never set from system information.
        EXPECT_EQ(p.MDB_V1, 128);
        EXPECT_EQ(p.MDB_T1, 10);
        EXPECT_EQ(p.MDB_T2, 100);
        EXPECT_EQ(p.GAIN_CURVE_P0, 0);
        EXPECT_EQ(p.GAIN_CURVE_P2, 1024);
        const std::vector<std::string> expected = {
            hdrtest::Format("system_info_get_value_int(SYSTEM_INFO_KEY_PHOTO_HDR) success : %d", c.value),
            hdrtest::Format("SYSTEM_INFO_KEY_PHOTO_HDR : GAMMA_MUL = %d", c.gammaMul),
            hdrtest::Format("SYSTEM_INFO_KEY_PHOTO_HDR : GAIN_CURVE_P1 = %d", c.p1),
            hdrtest::Format("SYSTEM_INFO_KEY_PHOTO_HDR : GAIN_CURVE_G0 = %d", c.g0),
            hdrtest::Format("SYSTEM_INFO_KEY_PHOTO_HDR : GAIN_CURVE_G1 = %d", c.g1),
            hdrtest::Format("SYSTEM_INFO_KEY_PHOTO_HDR : GAIN_CURVE_G2 = %d", c.g2),
            "system_info_get_value_int(SYSTEM_INFO_KEY_PEAK_W) success : 100",
            "SYSTEM_INFO_KEY_PEAK_W : MDB_V2 = 256",
            "SystemInfoParam.MDB_V1 = 128",
        };
        const auto messages = capture.Messages();
        ASSERT_EQ(messages.size(), 8u + 11u);
        EXPECT_EQ(std::vector<std::string>(messages.begin(), messages.begin() + 9), expected);
    }
}

// Peak white 30, 31, 65, 99, 100 map to 136, 137, 196, 254, 256.
TEST_F(SystemInfoParameters, PeakWhiteTable)
{
    const std::pair<int, int> cases[] = {{-5, 136}, {30, 136}, {31, 137}, {65, 196},
                                         {99, 254}, {100, 256}, {5000, 256}};
    system_info_standin_set_int(kPhotoHdr, 0);
    for (const auto& c : cases) {
        system_info_standin_set_int(kPeakWhite, c.first);
        Parameter p{};
        EXPECT_TRUE(HdrFactorySettings::GetParameterFromSystemInfo(p));
        EXPECT_EQ(p.MDB_V2, c.second) << "peak white " << c.first;
    }
}

// Photo key failing alone: its fields keep their values, MDB_V2 is updated, no dump, false.
TEST_F(SystemInfoParameters, PhotoKeyFailingAlone)
{
    system_info_standin_set_error(kPhotoHdr, -5);
    system_info_standin_set_int(kPeakWhite, 31);
    Parameter p{};
    p.GAMMA_MUL = 77;
    LogCapture capture;
    EXPECT_FALSE(HdrFactorySettings::GetParameter(p));
    EXPECT_EQ(p.GAMMA_MUL, 77);
    EXPECT_EQ(p.GAIN_CURVE_P1, 512);
    EXPECT_EQ(p.MDB_V2, 137);
    const std::vector<std::string> expected = {
        "system_info_get_value_int(SYSTEM_INFO_KEY_PHOTO_HDR) failed : error[-5]",
        "system_info_get_value_int(SYSTEM_INFO_KEY_PEAK_W) success : 31",
        "SYSTEM_INFO_KEY_PEAK_W : MDB_V2 = 137",
    };
    EXPECT_EQ(capture.Messages(), expected);
}

// Peak key failing alone: the photo fields are written, MDB_V2 kept, no dump, false.
TEST_F(SystemInfoParameters, PeakKeyFailingAlone)
{
    system_info_standin_set_int(kPhotoHdr, 150252550);
    Parameter p{};
    p.MDB_V2 = 200;
    LogCapture capture;
    EXPECT_FALSE(HdrFactorySettings::GetParameterFromSystemInfo(p));
    EXPECT_EQ(p.GAMMA_MUL, 160);
    EXPECT_EQ(p.MDB_V2, 200);
    const auto messages = capture.Messages();
    ASSERT_EQ(messages.size(), 7u);
    EXPECT_EQ(messages.back(),
              hdrtest::Format("system_info_get_value_int(SYSTEM_INFO_KEY_PEAK_W) failed : error[%d]", kNotSupported));
}

// Both keys failing (the default: no value): nothing changes, two failure lines, false.
TEST_F(SystemInfoParameters, BothKeysFailing)
{
    Parameter p{};
    LogCapture capture;
    EXPECT_FALSE(HdrFactorySettings::GetParameterFromSystemInfo(p));
    const std::vector<std::string> expected = {
        hdrtest::Format("system_info_get_value_int(SYSTEM_INFO_KEY_PHOTO_HDR) failed : error[%d]", kNotSupported),
        hdrtest::Format("system_info_get_value_int(SYSTEM_INFO_KEY_PEAK_W) failed : error[%d]", kNotSupported),
    };
    EXPECT_EQ(capture.Messages(), expected);
    const Parameter defaults{};
    EXPECT_EQ(std::memcmp(&p, &defaults, sizeof p), 0);
}

// LoadSettings: success reads both keys into the engine's record and passes the range check.
TEST_F(SystemInfoParameters, LoadSettingsSucceeds)
{
    system_info_standin_set_int(kPhotoHdr, 150252550);
    system_info_standin_set_int(kPeakWhite, 65);
    HdrGenerate* engine = HdrGenerate::GetInstance();
    LogCapture capture;
    EXPECT_EQ(engine->LoadSettings(), 0);
    EXPECT_EQ(engine->factoryParameter.GAMMA_MUL, 160);
    EXPECT_EQ(engine->factoryParameter.MDB_V2, 196);
    const auto messages = capture.Messages();
    EXPECT_EQ(messages.front(), "HdrGenerate::LoadSettings start");
    EXPECT_EQ(messages.back(), "HdrGenerate::LoadSettings end");
}

// LoadSettings with the photo key failing: MDB_V2 updated, no dump, 10 with its line, no range check.
TEST_F(SystemInfoParameters, LoadSettingsWithPhotoKeyFailing)
{
    system_info_standin_set_int(kPeakWhite, 99);
    HdrGenerate* engine = HdrGenerate::GetInstance();
    LogCapture capture;
    EXPECT_EQ(engine->LoadSettings(), 10);
    EXPECT_EQ(engine->factoryParameter.MDB_V2, 254);
    const auto messages = capture.Messages();
    EXPECT_EQ(messages.back(), "HdrFactorySettings::GetParameter fail ");
    for (const auto& m : messages) {
        EXPECT_EQ(m.find("SystemInfoParam."), std::string::npos) << m;
        EXPECT_EQ(m.find("illegal"), std::string::npos) << m;
    }
}

// A negative photo value yields negative curve values: the range check reports
// them, LoadSettings returns 10, and the values stay in the record.
TEST_F(SystemInfoParameters, IllegalValuesStayInForce)
{
    system_info_standin_set_int(kPhotoHdr, -150252550);
    system_info_standin_set_int(kPeakWhite, 100);
    HdrGenerate* engine = HdrGenerate::GetInstance();
    LogCapture capture;
    EXPECT_EQ(engine->LoadSettings(), 10);
    EXPECT_EQ(engine->factoryParameter.GAIN_CURVE_P1, -512);
    EXPECT_EQ(engine->factoryParameter.GAIN_CURVE_G0, -256);
    const auto messages = capture.Messages();
    EXPECT_TRUE(Contains(messages, "settings ERROR: settings file value(GAIN_CURVE_P1, -512) illegal: 0 ~ 1024\n"));
    EXPECT_TRUE(Contains(messages, "settings ERROR: settings file value(GAIN_CURVE_G2, -512) illegal: 0 ~ 1023\n"));
    EXPECT_EQ(messages.back(), "CheckValueIllegal fail ");
    // Read again on the next intake: nothing is cached.
    system_info_standin_set_int(kPhotoHdr, 0);
    EXPECT_EQ(engine->LoadSettings(), 0);
    EXPECT_EQ(engine->factoryParameter.GAIN_CURVE_P1, 0);
}

}  // namespace
