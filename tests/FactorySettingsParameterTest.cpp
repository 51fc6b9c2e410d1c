// The factory tuning record: defaults, legal ranges, range-check messages and
// the log dump, checked as the host sees them (logger and standard output).
#include "HdrFactorySettings.h"
#include "LogCapture.h"

#include <gtest/gtest.h>

using hdrtest::LogCapture;
using hdrtest::Parse;

namespace {

using Parameter = HdrFactorySettings::Parameter;

// The range message of one field, as its message part reads.
std::string RangeMessage(const char* source, const char* name, int value, int max)
{
    return hdrtest::Format("%s ERROR: settings file value(%s, %d) illegal: 0 ~ %d\n", source, name,
                           value, max);
}

// A value-initialised record holds the factory defaults, in field order.
TEST(FactorySettingsParameter, DefaultsAreTheFactoryValues)
{
    const Parameter p{};
    EXPECT_EQ(p.MDB_V1, 128);
    EXPECT_EQ(p.MDB_V2, 256);
    EXPECT_EQ(p.MDB_T1, 10);
    EXPECT_EQ(p.MDB_T2, 100);
    EXPECT_EQ(p.GAMMA_MUL, 128);
    EXPECT_EQ(p.GAIN_CURVE_P0, 0);
    EXPECT_EQ(p.GAIN_CURVE_P1, 512);
    EXPECT_EQ(p.GAIN_CURVE_P2, 1024);
    EXPECT_EQ(p.GAIN_CURVE_G0, 256);
    EXPECT_EQ(p.GAIN_CURVE_G1, 256);
    EXPECT_EQ(p.GAIN_CURVE_G2, 256);
    static_assert(sizeof(Parameter) == 11 * sizeof(int32_t), "eleven int32 fields, nothing else");
}

// The default record passes the range check without a message.
TEST(FactorySettingsParameter, DefaultRecordPasses)
{
    LogCapture capture;
    EXPECT_TRUE(Parameter{}.CheckValueIllegal("settings"));
    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_EQ(capture.Stdout(), "");
}

// The curve points may reach 1024; a gain of 1024 is illegal.
TEST(FactorySettingsParameter, PointMayReach1024ButGainMayNot)
{
    Parameter p{};
    p.GAIN_CURVE_P2 = 1024;
    EXPECT_TRUE(p.CheckValueIllegal("settings"));
    p.GAIN_CURVE_G2 = 1024;
    LogCapture capture;
    EXPECT_FALSE(p.CheckValueIllegal("settings"));
    ASSERT_EQ(capture.Messages().size(), 1u);
    EXPECT_EQ(capture.Messages()[0], RangeMessage("settings", "GAIN_CURVE_G2", 1024, 1023));
}

// MDB_T2 = 256 fails with the message filled with source, name, value, 0 and 255,
// on both copies: the logger line (main buffer, error, "TSS") and standard output.
TEST(FactorySettingsParameter, ThresholdAbove255IsReportedExactly)
{
    Parameter p{};
    p.MDB_T2 = 256;
    LogCapture capture;
    EXPECT_FALSE(p.CheckValueIllegal("factory"));
    const auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].logId, 0);
    EXPECT_EQ(lines[0].priority, 6);
    EXPECT_EQ(lines[0].tag, "TSS");
    const auto parsed = Parse(lines[0].text);
    EXPECT_EQ(parsed.file, "HdrFactorySettings.cpp");
    EXPECT_EQ(parsed.function, "CheckValueIllegalImpl");
    EXPECT_EQ(parsed.message, RangeMessage("factory", "MDB_T2", 256, 255));
    EXPECT_EQ(capture.Stdout(), RangeMessage("factory", "MDB_T2", 256, 255) + "\n");
}

// Two illegal fields give two messages, in field order, and false.
TEST(FactorySettingsParameter, EveryIllegalFieldIsReported)
{
    Parameter p{};
    p.MDB_V1 = -1;
    p.GAMMA_MUL = 2000;
    LogCapture capture;
    EXPECT_FALSE(p.CheckValueIllegal("settings"));
    const std::vector<std::string> expected = {RangeMessage("settings", "MDB_V1", -1, 1023),
                                               RangeMessage("settings", "GAMMA_MUL", 2000, 1023)};
    EXPECT_EQ(capture.Messages(), expected);
}

// Each field's bounds: its maximum passes, one more fails, 0 passes, -1 fails.
TEST(FactorySettingsParameter, EachFieldHasItsOwnRange)
{
    struct Field {
        int32_t Parameter::*member;
        const char* name;
        int max;
    };
    const Field fields[] = {
        {&Parameter::MDB_V1, "MDB_V1", 1023},           {&Parameter::MDB_V2, "MDB_V2", 1023},
        {&Parameter::MDB_T1, "MDB_T1", 255},            {&Parameter::MDB_T2, "MDB_T2", 255},
        {&Parameter::GAMMA_MUL, "GAMMA_MUL", 1023},     {&Parameter::GAIN_CURVE_P0, "GAIN_CURVE_P0", 1024},
        {&Parameter::GAIN_CURVE_P1, "GAIN_CURVE_P1", 1024}, {&Parameter::GAIN_CURVE_P2, "GAIN_CURVE_P2", 1024},
        {&Parameter::GAIN_CURVE_G0, "GAIN_CURVE_G0", 1023}, {&Parameter::GAIN_CURVE_G1, "GAIN_CURVE_G1", 1023},
        {&Parameter::GAIN_CURVE_G2, "GAIN_CURVE_G2", 1023},
    };
    for (const Field& field : fields) {
        SCOPED_TRACE(field.name);
        for (int value : {0, field.max}) {
            Parameter p{};
            p.*field.member = value;
            EXPECT_TRUE(p.CheckValueIllegal("settings"));
        }
        for (int value : {-1, field.max + 1, INT32_MIN}) {
            Parameter p{};
            p.*field.member = value;
            LogCapture capture;
            EXPECT_FALSE(p.CheckValueIllegal("settings"));
            EXPECT_EQ(capture.Messages(),
                      std::vector<std::string>{RangeMessage("settings", field.name, value, field.max)});
        }
    }
}

// A failed check changes nothing in the record.
TEST(FactorySettingsParameter, FailedCheckKeepsTheValues)
{
    Parameter p{};
    p.MDB_T1 = 999;
    LogCapture capture;
    EXPECT_FALSE(p.CheckValueIllegal("settings"));
    EXPECT_EQ(p.MDB_T1, 999);
}

// Print logs eleven lines in field order with the prefix, on both copies.
TEST(FactorySettingsParameter, PrintDumpsEveryField)
{
    Parameter p{};
    p.MDB_V1 = 1;
    p.GAIN_CURVE_G2 = -7;
    LogCapture capture;
    p.Print("SystemInfoParam");
    const std::vector<std::string> expected = {
        "SystemInfoParam.MDB_V1 = 1",          "SystemInfoParam.MDB_V2 = 256",
        "SystemInfoParam.MDB_T1 = 10",         "SystemInfoParam.MDB_T2 = 100",
        "SystemInfoParam.GAMMA_MUL = 128",     "SystemInfoParam.GAIN_CURVE_P0 = 0",
        "SystemInfoParam.GAIN_CURVE_P1 = 512", "SystemInfoParam.GAIN_CURVE_P2 = 1024",
        "SystemInfoParam.GAIN_CURVE_G0 = 256", "SystemInfoParam.GAIN_CURVE_G1 = 256",
        "SystemInfoParam.GAIN_CURVE_G2 = -7",
    };
    EXPECT_EQ(capture.Messages(), expected);
    std::string out;
    for (const auto& line : expected) {
        out += line + "\n";
    }
    EXPECT_EQ(capture.Stdout(), out);
    for (const auto& line : capture.Lines()) {
        EXPECT_EQ(Parse(line.text).function, "Print");
    }
}

}  // namespace
