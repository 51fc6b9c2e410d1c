// --json FILE: the batch record, parsed with a real JSON parser.
#include "ConvertTestSupport.h"
#include "SampleMaker.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using converttest::CommandResult;
using converttest::RunConverter;
using nlohmann::json;

std::string Sample(const std::string& path, int orientation = 1)
{
    hdrconvert::SampleOptions options;
    options.width = 48;
    options.height = 32;
    options.orientation = orientation;
    EXPECT_TRUE(converttest::WriteFile(path, hdrconvert::MakeSample(options).file));
    return path;
}

json Parse(const std::string& path)
{
    std::ifstream in(path);
    EXPECT_TRUE(in.good()) << path;
    return json::parse(in);  // throws, failing the test, on malformed text
}

TEST(ConvertJsonReport, OneRecordPerInputInOrderAndTheSummary)
{
    const std::string dir = converttest::FreshDirectory("json-batch");
    const std::string good = Sample(dir + "/good.jpg");
    const std::string bad = dir + "/bad.jpg";
    ASSERT_TRUE(converttest::WriteFile(bad, {'n', 'o', 't', ' ', 'j', 'p', 'e', 'g'}));
    const CommandResult r = RunConverter({"--json", dir + "/report.json", good, bad, "-o", dir + "/out"});
    EXPECT_EQ(r.exitCode, 1);
    const json report = Parse(dir + "/report.json");
    ASSERT_EQ(report["files"].size(), 2u);
    EXPECT_EQ(report["files"][0]["input"], good);
    EXPECT_EQ(report["files"][1]["input"], bad);
    const json& s = report["summary"];
    EXPECT_EQ(s["files"], 2);
    EXPECT_EQ(s["converted"], 1);
    EXPECT_EQ(s["refused"], 1);
    EXPECT_EQ(s["format"], "png");
    EXPECT_EQ(s["mode"], "direct");
    EXPECT_TRUE(s["panel_nits"].is_null());
    EXPECT_GT(s["seconds"].get<double>(), 0.0);
    EXPECT_NEAR(s["megapixels"].get<double>(), 48.0 * 32.0 / 1e6, 1e-9);
}

TEST(ConvertJsonReport, RefusedRecordGivesTheReason)
{
    const std::string dir = converttest::FreshDirectory("json-refused");
    const std::string bad = dir + "/bad.jpg";
    ASSERT_TRUE(converttest::WriteFile(bad, {'n', 'o', 't', ' ', 'j', 'p', 'e', 'g'}));
    RunConverter({"--json", dir + "/report.json", bad, "-o", dir + "/out"});
    const json rec = Parse(dir + "/report.json")["files"][0];
    EXPECT_EQ(rec["result"], "refused");
    EXPECT_EQ(rec["reason"], "not a JPEG file (unsupported format)");
    EXPECT_TRUE(rec["output"].is_null());
    EXPECT_TRUE(rec["metadata"].is_null());
    EXPECT_EQ(rec["input_bytes"], 8);
}

TEST(ConvertJsonReport, ConvertedRecordDescribesTheFiles)
{
    const std::string dir = converttest::FreshDirectory("json-converted");
    const std::string good = Sample(dir + "/good.jpg", 6);
    ASSERT_EQ(RunConverter({"--json", dir + "/report.json", good, "-o", dir + "/out"}).exitCode, 0);
    const json rec = Parse(dir + "/report.json")["files"][0];
    EXPECT_EQ(rec["result"], "converted");
    EXPECT_TRUE(rec["reason"].is_null());
    EXPECT_EQ(rec["output"], dir + "/out/good.png");
    EXPECT_EQ(rec["output_bytes"].get<uint64_t>(), std::filesystem::file_size(dir + "/out/good.png"));
    EXPECT_EQ(rec["input_bytes"].get<uint64_t>(), std::filesystem::file_size(good));
    EXPECT_EQ(rec["orientation"], 6);
    EXPECT_EQ(rec["primary_size"], json::array({48, 32}));
    EXPECT_EQ(rec["gain_map_size"], json::array({24, 16}));
    EXPECT_EQ(rec["output_size"], json::array({32, 48}));  // turned for orientation 6
    EXPECT_TRUE(rec["light_levels"].is_null());
}

TEST(ConvertJsonReport, MetadataAndItsSource)
{
    const std::string dir = converttest::FreshDirectory("json-metadata");
    const std::string good = Sample(dir + "/good.jpg");
    ASSERT_EQ(RunConverter({"--json", dir + "/report.json", good, "-o", dir + "/out"}).exitCode, 0);
    const json m = Parse(dir + "/report.json")["files"][0]["metadata"];
    EXPECT_EQ(m["source"], "iso");  // the sample has both; the ISO block wins
    EXPECT_EQ(m["had_xmp"], true);
    EXPECT_EQ(m["had_iso"], true);
    const hdrconvert::GainMapMetadata expected = hdrconvert::SampleMetadata();
    for (int c = 0; c < 3; ++c) {
        EXPECT_NEAR(m["gain_map_max"][c].get<double>(), expected.gainMapMax[static_cast<size_t>(c)], 1e-6);
        EXPECT_NEAR(m["gain_map_min"][c].get<double>(), expected.gainMapMin[static_cast<size_t>(c)], 1e-6);
        EXPECT_NEAR(m["gamma"][c].get<double>(), expected.gamma[static_cast<size_t>(c)], 1e-6);
    }
    EXPECT_NEAR(m["hdr_capacity_max"].get<double>(), expected.hdrCapacityMax, 1e-6);
}

TEST(ConvertJsonReport, StageTimesAddUpToNoMoreThanTheTotal)
{
    const std::string dir = converttest::FreshDirectory("json-times");
    const std::string good = Sample(dir + "/good.jpg");
    ASSERT_EQ(RunConverter({"--json", dir + "/report.json", good, "-o", dir + "/out"}).exitCode, 0);
    const json t = Parse(dir + "/report.json")["files"][0]["times_ms"];
    double stages = 0;
    for (const char* stage : {"read", "parse", "decode", "render", "write"}) {
        ASSERT_TRUE(t[stage].is_number()) << stage;
        EXPECT_GE(t[stage].get<double>(), 0.0) << stage;
        stages += t[stage].get<double>();
    }
    EXPECT_GT(t["render"].get<double>(), 0.0);
    EXPECT_LE(stages, t["total"].get<double>() + 0.01);
}

TEST(ConvertJsonReport, HdrFormatsRecordLightLevelsAndEncoder)
{
    const std::string dir = converttest::FreshDirectory("json-hdr");
    const std::string good = Sample(dir + "/good.jpg");
    ASSERT_EQ(RunConverter({"--json", dir + "/report.json", "--format", "avif", "--panel-nits", "800", good, "-o",
                            dir + "/out"})
                  .exitCode,
              0);
    const json report = Parse(dir + "/report.json");
    const json& levels = report["files"][0]["light_levels"];
    EXPECT_GT(levels["max_cll"].get<double>(), 0.0);
    EXPECT_LE(levels["max_cll"].get<double>(), 800.0);
    EXPECT_LE(levels["max_fall"].get<double>(), levels["max_cll"].get<double>());
    EXPECT_EQ(report["summary"]["format"], "avif");
    EXPECT_EQ(report["summary"]["panel_nits"], 800);
    EXPECT_TRUE(report["summary"]["avif_encoder"].is_string());
    EXPECT_EQ(report["summary"]["avif_speed"], 10);
}

// Names with quotes, backslashes, control characters and bytes that are not
// UTF-8 still give valid JSON.
TEST(ConvertJsonReport, AwkwardNamesAreEscaped)
{
    const std::string dir = converttest::FreshDirectory("json-names");
    const std::string name = dir + "/a \"quoted\" \\ name\tx.jpg";
    Sample(name);
    const std::string latin1 = dir + "/caf\xe9.jpg";
    Sample(latin1);
    ASSERT_EQ(RunConverter({"--json", dir + "/report.json", name, latin1, "-o", dir + "/out"}).exitCode, 0);
    const json report = Parse(dir + "/report.json");
    EXPECT_EQ(report["files"][0]["input"], name);
    EXPECT_EQ(report["files"][1]["input"], dir + "/caf\xef\xbf\xbd.jpg");  // U+FFFD
}

TEST(ConvertJsonReport, UnwritableReportFailsTheRun)
{
    const std::string dir = converttest::FreshDirectory("json-unwritable");
    const std::string good = Sample(dir + "/good.jpg");
    const CommandResult r = RunConverter({"--json", dir + "/no/such/dir/report.json", good, "-o", dir + "/out"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.err.find("the JSON report"), std::string::npos) << r.err;
}

}  // namespace
