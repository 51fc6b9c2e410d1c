// The settings file reader as a caller sees it: the record it fills, the
// exceptions it lets through, and every line it logs (logger and standard
// output), for the file layouts a product or a factory tool may produce.
#include "HdrFactorySettings.h"
#include "LogCapture.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

using hdrtest::Format;
using hdrtest::LogCapture;
using hdrtest::Parse;

namespace {

using Parameter = HdrFactorySettings::Parameter;

constexpr const char* kKeys[11] = {
    "MDB_V1",        "MDB_V2",        "MDB_T1",        "MDB_T2",        "GAMMA_MUL",     "GAIN_CURVE_P0",
    "GAIN_CURVE_P1", "GAIN_CURVE_P2", "GAIN_CURVE_G0", "GAIN_CURVE_G1", "GAIN_CURVE_G2",
};

std::vector<int32_t> Fields(const Parameter& p)
{
    return {p.MDB_V1,        p.MDB_V2,        p.MDB_T1,        p.MDB_T2,        p.GAMMA_MUL,     p.GAIN_CURVE_P0,
            p.GAIN_CURVE_P1, p.GAIN_CURVE_P2, p.GAIN_CURVE_G0, p.GAIN_CURVE_G1, p.GAIN_CURVE_G2};
}

// A record whose every field differs from the factory defaults and from the
// values the files below write, so that "unchanged" is visible.
Parameter Distinct()
{
    Parameter p;
    p.MDB_V1 = 11;
    p.MDB_V2 = 22;
    p.MDB_T1 = 33;
    p.MDB_T2 = 44;
    p.GAMMA_MUL = 55;
    p.GAIN_CURVE_P0 = 66;
    p.GAIN_CURVE_P1 = 77;
    p.GAIN_CURVE_P2 = 88;
    p.GAIN_CURVE_G0 = 99;
    p.GAIN_CURVE_G1 = 111;
    p.GAIN_CURVE_G2 = 122;
    return p;
}

// The eleven lines of the record's dump under "fileParam".
std::vector<std::string> Dump(const Parameter& p)
{
    std::vector<std::string> lines;
    const std::vector<int32_t> values = Fields(p);
    for (int i = 0; i < 11; ++i) {
        lines.push_back(Format("fileParam.%s = %d", kKeys[i], values[i]));
    }
    return lines;
}

std::string SetLine(int index, const std::string& value)
{
    return Format("LoadSettings set : parameter_values[%d]: %s, %s", index, kKeys[index], value.c_str());
}

// What a successful read logs: start, open, one line per matched key, the
// dump of the resulting record, end.
std::vector<std::string> SuccessLog(const std::string& path, const std::vector<std::string>& setLines,
                                    const Parameter& result)
{
    std::vector<std::string> lines = {"start : " + path, "GetParameterInFile : " + path + " open success"};
    lines.insert(lines.end(), setLines.begin(), setLines.end());
    const std::vector<std::string> dump = Dump(result);
    lines.insert(lines.end(), dump.begin(), dump.end());
    lines.push_back("end");
    return lines;
}

// The standard-output copy: each message followed by a line break.
std::string StdoutOf(const std::vector<std::string>& messages)
{
    std::string text;
    for (const std::string& m : messages) {
        text += m + "\n";
    }
    return text;
}

int OpenDescriptors()
{
    int count = 0;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (readdir(dir) != nullptr) {
            ++count;
        }
        closedir(dir);
    }
    return count;
}

class SettingsFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/hdrgpu-settings-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
    }

    void TearDown() override
    {
        for (const std::string& file : files_) {
            std::remove(file.c_str());
        }
        if (!dir_.empty()) {
            rmdir(dir_.c_str());
        }
    }

    // Writes bytes, exactly as given, to a new file of the test's directory.
    std::string Write(const std::string& bytes)
    {
        const std::string path = dir_ + "/settings" + std::to_string(files_.size()) + ".txt";
        std::ofstream out(path, std::ios::binary);
        out << bytes;
        out.close();
        EXPECT_TRUE(out.good()) << path;
        files_.push_back(path);
        return path;
    }

    std::string dir_;
    std::vector<std::string> files_;
};

// The three-line example file sets its three keys; the others keep their values.
TEST_F(SettingsFile, ExampleFileSetsItsKeysAndLogsEveryStep)
{
    const std::string path = Write("MDB_V1 128\nMDB_T2 90\nGAIN_CURVE_G1 300\n");
    Parameter p = Distinct();
    LogCapture capture;
    EXPECT_TRUE(HdrFactorySettings::GetParameterInFile(path, p));

    Parameter expected = Distinct();
    expected.MDB_V1 = 128;
    expected.MDB_T2 = 90;
    expected.GAIN_CURVE_G1 = 300;
    EXPECT_EQ(Fields(p), Fields(expected));

    const auto messages = SuccessLog(path, {SetLine(0, "128"), SetLine(3, "90"), SetLine(9, "300")}, expected);
    EXPECT_EQ(capture.Messages(), messages);
    EXPECT_EQ(capture.Stdout(), StdoutOf(messages));

    // Every line goes to the main buffer at error priority under "TSS", named
    // after the reader's file; the dump comes from Print.
    const auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), messages.size());
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].logId, 0) << i;
        EXPECT_EQ(lines[i].priority, 6) << i;
        EXPECT_EQ(lines[i].tag, "TSS") << i;
        const auto parsed = Parse(lines[i].text);
        EXPECT_EQ(parsed.file, "HdrFactorySettings.cpp") << i;
        const bool dump = i >= 5 && i < 16;
        EXPECT_EQ(parsed.function, dump ? "Print" : "GetParameterInFile") << i;
        EXPECT_GT(parsed.line, 0) << i;
    }
}

// Each of the eleven keys reaches its own field, at its own index.
TEST_F(SettingsFile, AllElevenKeysReachTheirFields)
{
    std::string text;
    std::vector<std::string> setLines;
    for (int i = 0; i < 11; ++i) {
        text += Format("%s %d\n", kKeys[i], 1000 + i);
        setLines.push_back(SetLine(i, std::to_string(1000 + i)));
    }
    const std::string path = Write(text);
    Parameter p = Distinct();
    LogCapture capture;
    EXPECT_TRUE(HdrFactorySettings::GetParameterInFile(path, p));
    const std::vector<int32_t> expectedValues = {1000, 1001, 1002, 1003, 1004, 1005, 1006, 1007, 1008, 1009, 1010};
    EXPECT_EQ(Fields(p), expectedValues);
    EXPECT_EQ(capture.Messages(), SuccessLog(path, setLines, p));
}

// An empty file opens: true, the record unchanged, its dump logged under "fileParam".
TEST_F(SettingsFile, EmptyFileLeavesRecordAndDumpsIt)
{
    const std::string path = Write("");
    Parameter p = Distinct();
    LogCapture capture;
    EXPECT_TRUE(HdrFactorySettings::GetParameterInFile(path, p));
    EXPECT_EQ(Fields(p), Fields(Distinct()));
    EXPECT_EQ(capture.Messages(), SuccessLog(path, {}, Distinct()));
    EXPECT_EQ(capture.Stdout(), StdoutOf(SuccessLog(path, {}, Distinct())));
}

// The factory defaults go through an empty file unchanged as well.
TEST_F(SettingsFile, EmptyFileKeepsFactoryDefaults)
{
    const std::string path = Write("");
    Parameter p{};
    LogCapture capture;
    EXPECT_TRUE(HdrFactorySettings::GetParameterInFile(path, p));
    EXPECT_EQ(Fields(p), Fields(Parameter{}));
    const auto messages = capture.Messages();
    ASSERT_EQ(messages.size(), 14u);
    EXPECT_EQ(messages[2], "fileParam.MDB_V1 = 128");
    EXPECT_EQ(messages[9], "fileParam.GAIN_CURVE_P2 = 1024");
}

// Unknown keys, one-word lines (even a known key alone), blank and
// whitespace-only lines are skipped without a message.
TEST_F(SettingsFile, UnknownKeysAndOneWordLinesChangeNothing)
{
    const std::string path = Write("FOO 1\nMDB_V1\nBAR\n\n   \n\t\r\nMDB_V3 7\nGAIN_CURVE 5\nMDB_V1_EXTRA 9\n");
    Parameter p = Distinct();
    LogCapture capture;
    EXPECT_TRUE(HdrFactorySettings::GetParameterInFile(path, p));
    EXPECT_EQ(Fields(p), Fields(Distinct()));
    EXPECT_EQ(capture.Messages(), SuccessLog(path, {}, Distinct()));
}

// There is no comment syntax: a commented-out line is skipped only because
// "#" is no key; a "#" after the value is just another ignored word.
TEST_F(SettingsFile, CommentMarksAreOrdinaryWords)
{
    const std::string path = Write("# MDB_V1 5\n#MDB_V2 6\nMDB_T1 20 # low threshold\n");
    Parameter p = Distinct();
    LogCapture capture;
    EXPECT_TRUE(HdrFactorySettings::GetParameterInFile(path, p));
    Parameter expected = Distinct();
    expected.MDB_T1 = 20;
    EXPECT_EQ(Fields(p), Fields(expected));
    EXPECT_EQ(capture.Messages(), SuccessLog(path, {SetLine(2, "20")}, expected));
}

// Words after the value are ignored.
TEST_F(SettingsFile, FurtherWordsAfterTheValueAreIgnored)
{
    const std::string path = Write("MDB_V1 128 two more\n");
    Parameter p = Distinct();
    LogCapture capture;
    EXPECT_TRUE(HdrFactorySettings::GetParameterInFile(path, p));
    Parameter expected = Distinct();
    expected.MDB_V1 = 128;
    EXPECT_EQ(Fields(p), Fields(expected));
    EXPECT_EQ(capture.Messages(), SuccessLog(path, {SetLine(0, "128")}, expected));
}

// Keys are matched case-sensitively.
TEST_F(SettingsFile, LowerCaseKeyDoesNotMatch)
{
    const std::string path = Write("mdb_v1 500\nMdb_V2 600\ngamma_mul 700\n");
    Parameter p = Distinct();
    LogCapture capture;
    EXPECT_TRUE(HdrFactorySettings::GetParameterInFile(path, p));
    EXPECT_EQ(Fields(p), Fields(Distinct()));
    EXPECT_EQ(capture.Messages(), SuccessLog(path, {}, Distinct()));
}

// A value of letters throws std::invalid_argument ("stoi"); the record keeps
// its previous values, also for the keys read on earlier lines; the
// offending key's line was logged, nothing after it.
TEST_F(SettingsFile, LettersValueThrowsInvalidArgumentAndRecordIsUnchanged)
{
    const std::string path = Write("MDB_V1 300\nMDB_T1 20\nGAMMA_MUL abc\nMDB_V2 400\n");
    Parameter p = Distinct();
    const int descriptors = OpenDescriptors();
    LogCapture capture;
    try {
        HdrFactorySettings::GetParameterInFile(path, p);
        ADD_FAILURE() << "no exception";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "stoi");
    }
    EXPECT_EQ(Fields(p), Fields(Distinct()));
    const std::vector<std::string> messages = {
        "start : " + path,
        "GetParameterInFile : " + path + " open success",
        SetLine(0, "300"),
        SetLine(2, "20"),
        SetLine(4, "abc"),
    };
    EXPECT_EQ(capture.Messages(), messages);
    EXPECT_EQ(capture.Stdout(), StdoutOf(messages));
    // The file is closed on the way out (LogCapture holds two descriptors of its own).
    EXPECT_EQ(OpenDescriptors(), descriptors + 2);
}

// A number beyond the signed 32-bit range throws std::out_of_range ("stoi").
TEST_F(SettingsFile, HugeValueThrowsOutOfRangeAndRecordIsUnchanged)
{
    const std::string path = Write("MDB_T2 90\nMDB_V2 99999999999\n");
    Parameter p = Distinct();
    LogCapture capture;
    try {
        HdrFactorySettings::GetParameterInFile(path, p);
        ADD_FAILURE() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "stoi");
    }
    EXPECT_EQ(Fields(p), Fields(Distinct()));
    const std::vector<std::string> messages = {
        "start : " + path,
        "GetParameterInFile : " + path + " open success",
        SetLine(3, "90"),
        SetLine(1, "99999999999"),
    };
    EXPECT_EQ(capture.Messages(), messages);
}

// The limits of int32 are read; one beyond either limit is out of range,
// also when the value also exceeds long.
TEST_F(SettingsFile, Int32LimitsReadAndOneBeyondThrows)
{
    const std::string path = Write("MDB_V1 2147483647\nMDB_V2 -2147483648\n");
    Parameter p = Distinct();
    {
        LogCapture capture;
        EXPECT_TRUE(HdrFactorySettings::GetParameterInFile(path, p));
    }
    EXPECT_EQ(p.MDB_V1, INT32_MAX);
    EXPECT_EQ(p.MDB_V2, INT32_MIN);

    for (const char* value : {"2147483648", "-2147483649", "99999999999999999999999999"}) {
        const std::string beyond = Write(std::string("GAIN_CURVE_P0 ") + value + "\n");
        Parameter q = Distinct();
        LogCapture capture;
        EXPECT_THROW(HdrFactorySettings::GetParameterInFile(beyond, q), std::out_of_range) << value;
        EXPECT_EQ(Fields(q), Fields(Distinct())) << value;
    }
}

// A key given twice takes the value of its last line; both lines are logged.
TEST_F(SettingsFile, LaterLineOfTheSameKeyWins)
{
    const std::string path = Write("MDB_T1 20\nMDB_V1 300\nMDB_T1 30\n");
    Parameter p = Distinct();
    LogCapture capture;
    EXPECT_TRUE(HdrFactorySettings::GetParameterInFile(path, p));
    Parameter expected = Distinct();
    expected.MDB_T1 = 30;
    expected.MDB_V1 = 300;
    EXPECT_EQ(Fields(p), Fields(expected));
    EXPECT_EQ(capture.Messages(),
              SuccessLog(path, {SetLine(2, "20"), SetLine(0, "300"), SetLine(2, "30")}, expected));
}

// A file that is not there: false, the "open fail" line and "end", nothing else.
TEST_F(SettingsFile, MissingFileReturnsFalseAndLeavesRecord)
{
    const std::string path = dir_ + "/no-such-settings.txt";
    Parameter p = Distinct();
    LogCapture capture;
    EXPECT_FALSE(HdrFactorySettings::GetParameterInFile(path, p));
    EXPECT_EQ(Fields(p), Fields(Distinct()));
    const std::vector<std::string> messages = {
        "start : " + path,
        "GetParameterInFile : " + path + " open fail or It doesn't exist",
        "end",
    };
    EXPECT_EQ(capture.Messages(), messages);
    EXPECT_EQ(capture.Stdout(), StdoutOf(messages));
}

// An empty path cannot be opened either.
TEST_F(SettingsFile, EmptyPathReturnsFalse)
{
    Parameter p = Distinct();
    LogCapture capture;
    EXPECT_FALSE(HdrFactorySettings::GetParameterInFile("", p));
    EXPECT_EQ(Fields(p), Fields(Distinct()));
    const std::vector<std::string> messages = {"start : ", "GetParameterInFile :  open fail or It doesn't exist",
                                               "end"};
    EXPECT_EQ(capture.Messages(), messages);
}

// CR LF line ends: the carriage return is whitespace, not part of the value.
TEST_F(SettingsFile, CarriageReturnLineFeedLineEnds)
{
    const std::string path = Write("MDB_V1 300\r\nMDB_T2 90\r\n\r\nGAIN_CURVE_P1 600\r\n");
    Parameter p = Distinct();
    LogCapture capture;
    EXPECT_TRUE(HdrFactorySettings::GetParameterInFile(path, p));
    Parameter expected = Distinct();
    expected.MDB_V1 = 300;
    expected.MDB_T2 = 90;
    expected.GAIN_CURVE_P1 = 600;
    EXPECT_EQ(Fields(p), Fields(expected));
    EXPECT_EQ(capture.Messages(),
              SuccessLog(path, {SetLine(0, "300"), SetLine(3, "90"), SetLine(6, "600")}, expected));
}

// Tabs, alone or in runs, separate words like blanks.
TEST_F(SettingsFile, TabsSeparateWords)
{
    const std::string path = Write("MDB_V1\t300\n\tMDB_T2\t\t90\t\nGAMMA_MUL \t 140\n");
    Parameter p = Distinct();
    LogCapture capture;
    EXPECT_TRUE(HdrFactorySettings::GetParameterInFile(path, p));
    Parameter expected = Distinct();
    expected.MDB_V1 = 300;
    expected.MDB_T2 = 90;
    expected.GAMMA_MUL = 140;
    EXPECT_EQ(Fields(p), Fields(expected));
    EXPECT_EQ(capture.Messages(),
              SuccessLog(path, {SetLine(0, "300"), SetLine(3, "90"), SetLine(4, "140")}, expected));
}

// A line indented with blanks reads like any other.
TEST_F(SettingsFile, LeadingBlanksAreSkipped)
{
    const std::string path = Write("    MDB_V1 300\n  \t GAIN_CURVE_G2   400\n");
    Parameter p = Distinct();
    LogCapture capture;
    EXPECT_TRUE(HdrFactorySettings::GetParameterInFile(path, p));
    Parameter expected = Distinct();
    expected.MDB_V1 = 300;
    expected.GAIN_CURVE_G2 = 400;
    EXPECT_EQ(Fields(p), Fields(expected));
    EXPECT_EQ(capture.Messages(), SuccessLog(path, {SetLine(0, "300"), SetLine(10, "400")}, expected));
}

// The last line needs no line break.
TEST_F(SettingsFile, LastLineWithoutLineBreakIsRead)
{
    const std::string path = Write("MDB_V1 300\nMDB_V2 400");
    Parameter p = Distinct();
    LogCapture capture;
    EXPECT_TRUE(HdrFactorySettings::GetParameterInFile(path, p));
    EXPECT_EQ(p.MDB_V1, 300);
    EXPECT_EQ(p.MDB_V2, 400);
}

// "=" is not a separator: it becomes the value word, which is no number.
TEST_F(SettingsFile, EqualsSignIsTheValueWordAndThrows)
{
    const std::string path = Write("MDB_T1 20\nMDB_V1 = 128\n");
    Parameter p = Distinct();
    LogCapture capture;
    try {
        HdrFactorySettings::GetParameterInFile(path, p);
        ADD_FAILURE() << "no exception";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "stoi");
    }
    EXPECT_EQ(Fields(p), Fields(Distinct()));
    const std::vector<std::string> messages = {
        "start : " + path,
        "GetParameterInFile : " + path + " open success",
        SetLine(2, "20"),
        SetLine(0, "="),
    };
    EXPECT_EQ(capture.Messages(), messages);
}

// "MDB_V1=128" is one word: no key, skipped.
TEST_F(SettingsFile, KeyGluedToItsValueIsNoKey)
{
    const std::string path = Write("MDB_V1=128 x\n");
    Parameter p = Distinct();
    LogCapture capture;
    EXPECT_TRUE(HdrFactorySettings::GetParameterInFile(path, p));
    EXPECT_EQ(Fields(p), Fields(Distinct()));
}

// Digits followed by letters read as their digits; the logged value word is
// the whole word. Base 10 only: "0x1F" reads 0, "010" reads 10.
TEST_F(SettingsFile, TrailingCharactersAfterTheDigitsAreIgnored)
{
    const std::string path = Write("MDB_V1 12abc\nMDB_V2 0x1F\nMDB_T1 010\nMDB_T2 7.9\n");
    Parameter p = Distinct();
    LogCapture capture;
    EXPECT_TRUE(HdrFactorySettings::GetParameterInFile(path, p));
    Parameter expected = Distinct();
    expected.MDB_V1 = 12;
    expected.MDB_V2 = 0;
    expected.MDB_T1 = 10;
    expected.MDB_T2 = 7;
    EXPECT_EQ(Fields(p), Fields(expected));
    EXPECT_EQ(capture.Messages(),
              SuccessLog(path, {SetLine(0, "12abc"), SetLine(1, "0x1F"), SetLine(2, "010"), SetLine(3, "7.9")},
                         expected));
}

// No range check in the reader: a negative threshold is stored as read, and
// only the range check rejects it afterwards.
TEST_F(SettingsFile, NegativeValueIsStoredAsRead)
{
    const std::string path = Write("MDB_T1 -5\nGAMMA_MUL 5000\n");
    Parameter p = Distinct();
    LogCapture capture;
    EXPECT_TRUE(HdrFactorySettings::GetParameterInFile(path, p));
    EXPECT_EQ(p.MDB_T1, -5);
    EXPECT_EQ(p.GAMMA_MUL, 5000);
    const size_t linesAfterRead = capture.Lines().size();
    EXPECT_FALSE(p.CheckValueIllegal("settings"));
    const auto messages = capture.Messages();
    ASSERT_EQ(messages.size(), linesAfterRead + 2);
    EXPECT_EQ(messages[linesAfterRead], "settings ERROR: settings file value(MDB_T1, -5) illegal: 0 ~ 255\n");
    EXPECT_EQ(messages[linesAfterRead + 1],
              "settings ERROR: settings file value(GAMMA_MUL, 5000) illegal: 0 ~ 1023\n");
}

// An explicit plus sign is accepted.
TEST_F(SettingsFile, PlusSignIsAccepted)
{
    const std::string path = Write("MDB_V1 +7\n");
    Parameter p = Distinct();
    LogCapture capture;
    EXPECT_TRUE(HdrFactorySettings::GetParameterInFile(path, p));
    EXPECT_EQ(p.MDB_V1, 7);
    EXPECT_EQ(capture.Messages()[2], SetLine(0, "+7"));
}

// A sign with no digits, or two signs, is not a number.
TEST_F(SettingsFile, SignWithoutDigitsThrows)
{
    for (const char* value : {"-", "+", "--5", "+-5", "-x"}) {
        const std::string path = Write(std::string("MDB_V1 ") + value + "\n");
        Parameter p = Distinct();
        LogCapture capture;
        EXPECT_THROW(HdrFactorySettings::GetParameterInFile(path, p), std::invalid_argument) << value;
        EXPECT_EQ(Fields(p), Fields(Distinct())) << value;
    }
}

// An exception on the last line still leaves every earlier line unapplied,
// and an exception after a failed read does not disturb the next read.
TEST_F(SettingsFile, ReadAfterAnExceptionStartsAfresh)
{
    const std::string bad = Write("MDB_V1 300\nMDB_V2 x\n");
    const std::string good = Write("MDB_V2 400\n");
    Parameter p = Distinct();
    LogCapture capture;
    EXPECT_THROW(HdrFactorySettings::GetParameterInFile(bad, p), std::invalid_argument);
    EXPECT_EQ(Fields(p), Fields(Distinct()));
    EXPECT_TRUE(HdrFactorySettings::GetParameterInFile(good, p));
    Parameter expected = Distinct();
    expected.MDB_V2 = 400;
    EXPECT_EQ(Fields(p), Fields(expected));
}

}  // namespace
