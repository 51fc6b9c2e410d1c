// The command line: help, exit statuses, refusal lines, output formats and
// sizes, the log file and the display choice.
#include "ConvertTestSupport.h"
#include "JpegPlanes.h"
#include "SampleMaker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using converttest::CommandResult;
using converttest::RunConverter;

bool Contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

int CountLinesStartingWith(const std::string& text, const std::string& prefix)
{
    int n = 0;
    for (const std::string& line : converttest::Lines(text)) {
        n += line.rfind(prefix, 0) == 0 ? 1 : 0;
    }
    return n;
}

// A small sample picture in dir, returning its path.
std::string SmallSample(const std::string& dir, const std::string& name, int w = 48, int h = 32)
{
    hdrconvert::SampleOptions options;
    options.width = w;
    options.height = h;
    const std::string path = dir + "/" + name;
    EXPECT_TRUE(converttest::WriteFile(path, hdrconvert::MakeSample(options).file));
    return path;
}

TEST(ConvertCli, HelpNamesEveryOption)
{
    const CommandResult r = RunConverter({"--help"});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_TRUE(Contains(r.out, "Usage: hdrgpu-convert [options] INPUT... -o OUTDIR")) << r.out;
    for (const char* option : {"--output", "--format", "--png-level", "--size", "--yuv", "--direct", "--streaming",
                               "--display", "--peak-white", "--photo-hdr", "--log", "--help", "--make-sample",
                               "--sample-size", "--sample-orientation", "Exit status"}) {
        EXPECT_TRUE(Contains(r.out, option)) << "help does not mention " << option;
    }
    EXPECT_TRUE(r.err.empty()) << r.err;
    EXPECT_EQ(RunConverter({"-h"}).exitCode, 0);
}

TEST(ConvertCli, BadCommandLinesExitTwo)
{
    const std::string dir = converttest::FreshDirectory("cli-usage");
    const std::string sample = SmallSample(dir, "a.jpg");
    const std::vector<std::vector<std::string>> bad = {
        {},                                                   // nothing at all
        {sample},                                             // no output directory
        {"-o", dir + "/out"},                                 // no input
        {"--frobnicate", sample, "-o", dir + "/out"},         // unknown option
        {"--format", "tiff", sample, "-o", dir + "/out"},     // unknown format
        {"--png-level", "12", sample, "-o", dir + "/out"},    // level out of range
        {"--size", "12", sample, "-o", dir + "/out"},         // not WxH
        {"--display", "x11", sample, "-o", dir + "/out"},     // unknown display
        {"--peak-white", "many", sample, "-o", dir + "/out"}, // not a number
        {sample, "-o"},                                       // option without its value
        {"--yuv=1", sample, "-o", dir + "/out"},              // value for a flag
    };
    for (const std::vector<std::string>& args : bad) {
        const CommandResult r = RunConverter(args);
        std::string joined;
        for (const std::string& a : args) {
            joined += a + " ";
        }
        EXPECT_EQ(r.exitCode, 2) << joined << "\n" << r.err;
        EXPECT_FALSE(r.err.empty()) << joined;
    }
    EXPECT_TRUE(Contains(RunConverter({"--frobnicate", sample, "-o", dir}).err, "unknown option --frobnicate"));
}

// One good file among bad ones: one refusal line per bad file, naming it and
// the reason, the good one converted, exit status 1.
TEST(ConvertCli, RefusesBadFilesAndGoesOn)
{
    const std::string dir = converttest::FreshDirectory("cli-refusals");
    const std::string good = SmallSample(dir, "good.jpg");
    const std::vector<uint8_t> goodBytes = converttest::ReadFile(good);

    const std::string text = dir + "/notes.jpg";
    converttest::WriteFile(text, std::vector<uint8_t>{'h', 'e', 'l', 'l', 'o', '\n'});
    const std::string truncated = dir + "/truncated.jpg";
    converttest::WriteFile(truncated, std::vector<uint8_t>(goodBytes.begin(), goodBytes.begin() + goodBytes.size() / 2));
    const std::string plain = dir + "/plain.jpg";
    std::vector<uint8_t> grey(32 * 24, 90);
    converttest::WriteFile(plain, hdrconvert::EncodeGreyJpeg(grey.data(), 32, 24, 90));
    const std::string missing = dir + "/missing.jpg";
    const std::string empty = dir + "/empty.jpg";
    converttest::WriteFile(empty, {});
    // The gain map's entropy-coded data overwritten: the container is intact.
    const std::string corrupt = dir + "/corrupt.jpg";
    {
        std::vector<uint8_t> bytes = goodBytes;
        const converttest::ConvertedFile f = converttest::DecodeGainMapFile(bytes);
        ASSERT_TRUE(f.parsed);
        const size_t end = f.container.gainMapOffset + f.container.gainMapSize;
        std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(end - 40), bytes.begin() + static_cast<std::ptrdiff_t>(end - 2), 0xFF);
        converttest::WriteFile(corrupt, bytes);
    }

    const std::string out = dir + "/out";
    const CommandResult r = RunConverter({text, good, truncated, plain, missing, empty, corrupt, "-o", out});
    EXPECT_EQ(r.exitCode, 1) << r.out << r.err;
    EXPECT_TRUE(Contains(r.err, "refused " + text + ": not a JPEG file")) << r.err;
    EXPECT_TRUE(Contains(r.err, "refused " + truncated + ": ")) << r.err;
    EXPECT_TRUE(Contains(r.err, "refused " + plain + ": no gain map")) << r.err;
    EXPECT_TRUE(Contains(r.err, "refused " + missing + ": cannot open")) << r.err;
    EXPECT_TRUE(Contains(r.err, "refused " + empty + ": empty file")) << r.err;
    EXPECT_TRUE(Contains(r.err, "refused " + corrupt + ": ")) << r.err;
    EXPECT_EQ(CountLinesStartingWith(r.err, "refused "), 6) << r.err;
    EXPECT_EQ(static_cast<int>(converttest::Lines(r.err).size()), 6) << "one line per refusal:\n" << r.err;
    EXPECT_EQ(CountLinesStartingWith(r.out, "converted " + good + " -> " + out + "/good.png (48x32"), 1) << r.out;
    EXPECT_TRUE(Contains(r.out, "1 of 7 file(s) converted")) << r.out;
    EXPECT_TRUE(std::filesystem::exists(out + "/good.png"));
    EXPECT_FALSE(std::filesystem::exists(out + "/truncated.png"));
    EXPECT_FALSE(std::filesystem::exists(out + "/corrupt.png"));

    const CommandResult ok = RunConverter({good, "-o", out});
    EXPECT_EQ(ok.exitCode, 0) << ok.err;
    EXPECT_TRUE(ok.err.empty()) << ok.err;
}

// Converts a w x h sample to raw and to PNG: the raw file is exactly
// w * h * 4 bytes, the same pixels as the PNG.
void ExpectRawIsThePngsRgba(const std::string& dir, int w, int h)
{
    const std::string sample = SmallSample(dir, "pic.jpg", w, h);
    ASSERT_EQ(RunConverter({"--format", "raw", sample, "-o", dir + "/raw"}).exitCode, 0);
    ASSERT_EQ(RunConverter({"--format=png", "--png-level", "1", sample, "-o", dir + "/png"}).exitCode, 0);
    const std::vector<uint8_t> raw = converttest::ReadFile(dir + "/raw/pic.rgba");
    EXPECT_EQ(raw.size(), static_cast<size_t>(w) * static_cast<size_t>(h) * 4u);
    converttest::RgbaImage png;
    ASSERT_TRUE(converttest::ReadPng(dir + "/png/pic.png", &png));
    EXPECT_TRUE(raw == png.rgba) << "raw and PNG pixels differ";
}

TEST(ConvertCli, RawFormatIsPlainRgba)
{
    ExpectRawIsThePngsRgba(converttest::FreshDirectory("cli-raw"), 50, 30);
}

// Written in several chunks (the next gathered on a second thread while one
// is written, the last one short): 1200-byte rows make 873 rows a mebibyte
// chunk, so 2000 rows take three.
TEST(ConvertCli, RawFormatInSeveralChunksIsPlainRgba)
{
    ExpectRawIsThePngsRgba(converttest::FreshDirectory("cli-raw-chunks"), 300, 2000);
}

// The direct mode unless --streaming is given, whatever the pictures'
// orientations; the summary line names the mode.
TEST(ConvertCli, DirectModeUnlessStreamingIsGiven)
{
    const std::string dir = converttest::FreshDirectory("cli-mode");
    const std::string upright = SmallSample(dir, "upright.jpg");
    hdrconvert::SampleOptions options;
    options.width = 48;
    options.height = 32;
    options.orientation = 6;
    const std::string turned = dir + "/turned.jpg";
    ASSERT_TRUE(converttest::WriteFile(turned, hdrconvert::MakeSample(options).file));
    const struct {
        std::vector<std::string> args;
        const char* mode;
    } cases[] = {
        {{upright, turned}, "direct mode"},
        {{turned, upright}, "direct mode"},
        {{"--streaming", upright}, "streaming mode"},
        {{"--streaming", "--direct", turned}, "direct mode"},
        {{"--direct", "--streaming", turned}, "streaming mode"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> args = c.args;
        args.push_back("-o");
        args.push_back(dir + "/out");
        const CommandResult r = RunConverter(args);
        ASSERT_EQ(r.exitCode, 0) << r.err;
        EXPECT_TRUE(Contains(r.out, std::string(c.mode) + ")")) << r.out;
    }
}

TEST(ConvertCli, SizeOptionSetsTheOutputSize)
{
    const std::string dir = converttest::FreshDirectory("cli-size");
    const std::string sample = SmallSample(dir, "pic.jpg");
    for (const char* mode : {"--streaming", "--direct"}) {
        const CommandResult r = RunConverter({mode, "--size", "100x60", sample, "-o", dir + "/out"});
        ASSERT_EQ(r.exitCode, 0) << r.err;
        converttest::RgbaImage png;
        ASSERT_TRUE(converttest::ReadPng(dir + "/out/pic.png", &png));
        EXPECT_EQ(png.width, 100) << mode;
        EXPECT_EQ(png.height, 60) << mode;
    }
}

// The library's log reaches the log file (its printed copy and the logger's
// lines), never the tool's own standard output.
TEST(ConvertCli, LibraryLogGoesToTheLogFileOrNowhere)
{
    const std::string dir = converttest::FreshDirectory("cli-log");
    const std::string sample = SmallSample(dir, "pic.jpg");
    const CommandResult quiet = RunConverter({sample, "-o", dir + "/out"});
    ASSERT_EQ(quiet.exitCode, 0) << quiet.err;
    for (const std::string& line : converttest::Lines(quiet.out)) {
        EXPECT_TRUE(line.rfind("converted ", 0) == 0 || Contains(line, "file(s) converted")) << line;
    }
    EXPECT_TRUE(quiet.err.empty()) << quiet.err;

    const std::string log = dir + "/library.log";
    const CommandResult logged = RunConverter({"--log", log, sample, "-o", dir + "/out"});
    ASSERT_EQ(logged.exitCode, 0) << logged.err;
    EXPECT_EQ(converttest::Lines(logged.out).size(), converttest::Lines(quiet.out).size()) << logged.out;
    const std::vector<uint8_t> bytes = converttest::ReadFile(log);
    const std::string text(bytes.begin(), bytes.end());
    EXPECT_TRUE(Contains(text, "\nGpuGenerateHdrInit start\n") || text.rfind("GpuGenerateHdrInit start\n", 0) == 0)
        << "the library's printed copy";
    EXPECT_TRUE(Contains(text, "[dlog main 6] TSS: HdrGpuBackend.cpp: GpuGenerateHdrInit(")) << "the logger's lines";
}

TEST(ConvertCli, EveryDisplayChoiceRenders)
{
    const std::string dir = converttest::FreshDirectory("cli-display");
    const std::string sample = SmallSample(dir, "pic.jpg");
    std::vector<uint8_t> first;
    for (const char* display : {"auto", "surfaceless", "device"}) {
        const std::string out = dir + "/" + display;
        const CommandResult r = RunConverter({"--display", display, sample, "-o", out});
        ASSERT_EQ(r.exitCode, 0) << display << ": " << r.err;
        converttest::RgbaImage png;
        ASSERT_TRUE(converttest::ReadPng(out + "/pic.png", &png));
        if (first.empty()) {
            first = png.rgba;
        } else {
            EXPECT_EQ(png.rgba, first) << display << " renders a different picture";
        }
    }
}

// The first file is decoded while the renderer starts, the others when their
// turn comes: a file's refusal reads the same in either place, and the good
// file converts to the same bytes.
TEST(ConvertCli, FirstFileIsRefusedAsALaterOneWouldBe)
{
    const std::string dir = converttest::FreshDirectory("cli-first-file");
    const std::string good = SmallSample(dir, "good.jpg");
    const std::vector<uint8_t> goodBytes = converttest::ReadFile(good);
    const converttest::ConvertedFile f = converttest::DecodeGainMapFile(goodBytes);
    ASSERT_TRUE(f.parsed);
    // Entropy-coded data overwritten at the end of one codestream: the
    // container is intact, the decoding fails.
    const auto spoil = [&goodBytes](size_t offset, size_t size, const std::string& path) {
        std::vector<uint8_t> bytes = goodBytes;
        const size_t end = offset + size;
        std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(end - 40),
                  bytes.begin() + static_cast<std::ptrdiff_t>(end - 2), 0xFF);
        EXPECT_TRUE(converttest::WriteFile(path, bytes));
        return path;
    };
    const std::string badPrimary = spoil(f.container.primaryOffset, f.container.primarySize, dir + "/primary.jpg");
    const std::string badGainMap = spoil(f.container.gainMapOffset, f.container.gainMapSize, dir + "/gainmap.jpg");
    // Both spoiled: the primary's fault is the one given, though the two are
    // decoded side by side for a first file.
    const std::string badBoth = dir + "/both.jpg";
    {
        std::vector<uint8_t> bytes = converttest::ReadFile(badPrimary);
        const size_t end = f.container.gainMapOffset + f.container.gainMapSize;
        std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(end - 40),
                  bytes.begin() + static_cast<std::ptrdiff_t>(end - 2), 0xFF);
        ASSERT_TRUE(converttest::WriteFile(badBoth, bytes));
    }
    for (const std::string& bad : {badPrimary, badGainMap, badBoth}) {
        SCOPED_TRACE(bad);
        const CommandResult first = RunConverter({bad, good, "-o", dir + "/first", "--format", "raw"});
        const CommandResult later = RunConverter({good, bad, "-o", dir + "/later", "--format", "raw"});
        EXPECT_EQ(first.exitCode, 1) << first.err;
        EXPECT_EQ(later.exitCode, 1) << later.err;
        ASSERT_EQ(CountLinesStartingWith(first.err, "refused " + bad + ": "), 1) << first.err;
        EXPECT_EQ(first.err, later.err);
        EXPECT_TRUE(Contains(first.err, bad == badGainMap ? ": gain map: " : ": primary image: ")) << first.err;
        EXPECT_TRUE(Contains(first.out, "1 of 2 file(s) converted")) << first.out;
        const std::vector<uint8_t> firstPixels = converttest::ReadFile(dir + "/first/good.rgba");
        EXPECT_FALSE(firstPixels.empty());
        EXPECT_TRUE(firstPixels == converttest::ReadFile(dir + "/later/good.rgba"));
    }
}

// A renderer that cannot start ends the run before any file's line, even
// though the first file was already being read.
TEST(ConvertCli, RendererThatCannotStartEndsTheRunWithExitThree)
{
    const std::string dir = converttest::FreshDirectory("cli-no-renderer");
    const std::string good = SmallSample(dir, "good.jpg");
    // No EGL vendor library: no display can be opened.
    ASSERT_EQ(setenv("__EGL_VENDOR_LIBRARY_FILENAMES", (dir + "/no-such-vendor.json").c_str(), 1), 0);
    const CommandResult r = RunConverter({good, good, "-o", dir + "/out"});
    unsetenv("__EGL_VENDOR_LIBRARY_FILENAMES");
    EXPECT_EQ(r.exitCode, 3) << r.err;
    EXPECT_EQ(CountLinesStartingWith(r.err, "hdrgpu-convert: the renderer could not start: "), 1) << r.err;
    EXPECT_EQ(CountLinesStartingWith(r.err, "refused "), 0) << r.err;
    EXPECT_EQ(CountLinesStartingWith(r.out, "converted "), 0) << r.out;
    EXPECT_FALSE(std::filesystem::exists(dir + "/out/good.png"));
}

// Two inputs with the same name get distinct outputs.
TEST(ConvertCli, SameNamesDoNotOverwrite)
{
    const std::string dir = converttest::FreshDirectory("cli-names");
    std::filesystem::create_directories(dir + "/a");
    std::filesystem::create_directories(dir + "/b");
    const std::string one = SmallSample(dir + "/a", "pic.jpg");
    const std::string two = SmallSample(dir + "/b", "pic.jpg", 40, 24);
    const CommandResult r = RunConverter({one, two, "-o", dir + "/out"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_TRUE(std::filesystem::exists(dir + "/out/pic.png"));
    EXPECT_TRUE(std::filesystem::exists(dir + "/out/pic-2.png"));
}

TEST(ConvertCli, MakeSampleWritesAGainMapJpeg)
{
    const std::string dir = converttest::FreshDirectory("cli-make-sample");
    const CommandResult r = RunConverter(
        {"--make-sample", dir + "/s.jpg", "--sample-size", "200x100", "--sample-orientation", "3"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const converttest::ConvertedFile f = converttest::DecodeGainMapFile(converttest::ReadFile(dir + "/s.jpg"));
    ASSERT_TRUE(f.parsed) << f.parseReason;
    EXPECT_EQ(f.primary.width, 200);
    EXPECT_EQ(f.container.orientation, 3);
    EXPECT_EQ(RunConverter({"--make-sample", dir + "/no/such/dir/s.jpg"}).exitCode, 1);
}

}  // namespace
