// hdrgpu-convert: renders gain-map JPEG photographs into 8-bit HDR pictures
// (PNG or raw RGBA) with the HDR GPU library, as a host of the library does,
// and from those into PQ files (16-bit PNG, AVIF) for HDR-aware viewers.
#include "DeclaredSize.h"
#include "GainMapJpeg.h"
#include "HdrOutput.h"
#include "ImageOutput.h"
#include "JpegPlanes.h"
#include "JsonReport.h"
#include "Orientation.h"
#include "PanelModel.h"
#include "Renderer.h"
#include "SampleMaker.h"
#include "StreamingDecode.h"

#ifdef HDRGPU_CONVERT_STANDINS
#include <dlog_standin.h>
#endif

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace {

using hdrconvert::DisplayChoice;
using hdrconvert::OutputFormat;
using hdrconvert::RenderMode;

constexpr const char* kProgram = "hdrgpu-convert";

// Exit codes.
constexpr int kExitAllConverted = 0;
constexpr int kExitSomeFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNoRenderer = 3;

const char* const kHelp =
    "Usage: hdrgpu-convert [options] INPUT... -o OUTDIR\n"
    "       hdrgpu-convert --make-sample FILE [--sample-size WxH] [--sample-orientation N]\n"
    "\n"
    "Renders gain-map JPEG photographs (an SDR primary image plus a gain map,\n"
    "located by MPF, with Adobe hdrgm XMP and/or ISO 21496-1 metadata) into HDR\n"
    "pictures with the HDR GPU library, one output file per input, named after\n"
    "the input (photo.jpg -> OUTDIR/photo.png). The picture is turned and\n"
    "mirrored as the primary's EXIF orientation says.\n"
    "\n"
    "Output:\n"
    "  -o, --output DIR         directory for the outputs (created if missing)\n"
    "      --format FORMAT      png: 8-bit RGBA PNG with an sRGB chunk (default);\n"
    "                           raw: plain RGBA bytes, width*height*4, row 0\n"
    "                           first, no header (.rgba); pq-png: 16-bit RGB PNG\n"
    "                           in PQ with cICP, cLLi, mDCv (.png); avif: 10-bit\n"
    "                           4:4:4 AVIF in PQ (.avif). pq-png and avif need\n"
    "                           RGB output (not --yuv)\n"
    "      --panel-nits N       pq-png, avif: peak of the simulated panel in\n"
    "                           cd/m2, 1..10000 (default 1000); code c shows\n"
    "                           N * sRGB_EOTF(c / 255) cd/m2\n"
    "      --json FILE          write a JSON record of the batch (one record per\n"
    "                           input, then the summary) to FILE\n"
    "      --png-level N        PNG zlib level 0..9 (default 1: fast)\n"
    "      --size WxH           output size as displayed (default: the primary's\n"
    "                           size after its EXIF orientation)\n"
    "      --yuv                ask the library for YUV output: the R, G, B\n"
    "                           channels of the file hold Y, U, V\n"
    "\n"
    "Rendering:\n"
    "      --direct             direct mode (default): planes go in with the\n"
    "                           metadata, the library renders unrotated and the\n"
    "                           picture is oriented on the CPU\n"
    "      --streaming          streaming mode: planes are written into the\n"
    "                           library's upload buffers; the library rotates\n"
    "      --display KIND       EGL display: auto (default: a GPU device through\n"
    "                           EGL_EXT_platform_device if one exists, else Mesa's\n"
    "                           surfaceless platform), device, surfaceless\n"
    "      --peak-white N       panel peak white: system-information key 1302\n"
    "                           (maps to the display boost MDB_V2)\n"
    "      --photo-hdr N        photo HDR tuning: system-information key 1301,\n"
    "                           decimal g PP AA BB CC (gamma multiplier and gain\n"
    "                           curve)\n"
    "                           Without these two, the keys keep the platform's or\n"
    "                           the environment's values (HDRGPU_SYSTEM_INFO_1301,\n"
    "                           HDRGPU_SYSTEM_INFO_1302), else the factory defaults.\n"
    "\n"
    "Limits:\n"
    "      --max-megapixels N   refuse a file whose primary image or gain map\n"
    "                           declares more than N megapixels, before anything\n"
    "                           is decoded (default 120)\n"
    "\n"
    "Messages:\n"
    "      --log FILE           write the library's log (its standard-output copy\n"
    "                           and its logger lines) to FILE; by default both are\n"
    "                           dropped\n"
    "  -h, --help               show this help and exit\n"
    "\n"
    "Sample:\n"
    "      --make-sample FILE   write a synthetic gain-map JPEG (sky, sun and\n"
    "                           glints that clip in SDR, a gain map lifting them,\n"
    "                           3-channel metadata, MPF + XMP + ISO) and exit\n"
    "      --sample-size WxH    its size (default 960x540)\n"
    "      --sample-orientation N  its EXIF orientation 1..8 (default 1)\n"
    "\n"
    "On a terminal a progress bar runs; each file gets one line: 'converted\n"
    "INPUT -> OUTPUT (...)' on standard output, or 'refused INPUT: REASON' on\n"
    "standard error (no gain map, HDR base rendition, Apple gain map, not a\n"
    "JPEG, truncated or corrupt data, ...); the batch goes on. A summary line\n"
    "ends the run.\n"
    "\n"
    "Exit status: 0 every file converted; 1 at least one file refused or failed;\n"
    "2 bad command line; 3 the renderer could not start.\n";

struct Options {
    std::vector<std::string> inputs;
    std::string outputDir;
    OutputFormat format = OutputFormat::Png;
    int pngLevel = hdrconvert::kDefaultPngLevel;
    int panelNits = hdrconvert::kDefaultPanelNits;
    std::string jsonPath;
    int width = 0;
    int height = 0;
    // The direct mode unless --streaming: on llvmpipe it starts sooner (its
    // textures are made while the first file is decoded and its upload only
    // copies) and it needs no upload buffers, even where it turns the
    // picture on the CPU.
    hdrconvert::RendererOptions renderer{RenderMode::Direct};
    int maxMegapixels = hdrconvert::kDefaultMaxMegapixels;
    std::string logPath;
    std::string samplePath;
    hdrconvert::SampleOptions sample;
    bool help = false;
};

bool ParseInt(const std::string& text, long long lo, long long hi, int* value)
{
    if (text.empty()) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const long long v = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || end == nullptr || *end != '\0' || v < lo || v > hi) {
        return false;
    }
    *value = static_cast<int>(v);
    return true;
}

bool ParseSize(const std::string& text, int* width, int* height)
{
    const size_t x = text.find_first_of("xX");
    return x != std::string::npos && ParseInt(text.substr(0, x), 1, 16384, width) &&
           ParseInt(text.substr(x + 1), 1, 16384, height);
}

// Parses argv into options; false with a message for a bad command line.
// NOLINTNEXTLINE(readability-function-size): one short branch per option
bool ParseArguments(int argc, char** argv, Options* o, std::string* error)
{
    bool onlyInputs = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (onlyInputs || arg.empty() || arg[0] != '-' || arg == "-") {
            o->inputs.push_back(arg);
            continue;
        }
        if (arg == "--") {
            onlyInputs = true;
            continue;
        }
        std::string value;
        bool hasInlineValue = false;
        const size_t eq = arg.find('=');
        if (arg.rfind("--", 0) == 0 && eq != std::string::npos) {
            value = arg.substr(eq + 1);
            arg = arg.substr(0, eq);
            hasInlineValue = true;
        }
        const auto takeValue = [&](std::string* out) {
            if (hasInlineValue) {
                *out = value;
                return true;
            }
            if (i + 1 >= argc) {
                *error = "option " + arg + " needs a value";
                return false;
            }
            *out = argv[++i];
            return true;
        };
        const auto noValue = [&]() {
            if (hasInlineValue) {
                *error = "option " + arg + " takes no value";
                return false;
            }
            return true;
        };
        std::string v;
        if (arg == "-h" || arg == "--help") {
            if (!noValue()) {
                return false;
            }
            o->help = true;
        } else if (arg == "-o" || arg == "--output") {
            if (!takeValue(&o->outputDir)) {
                return false;
            }
        } else if (arg == "--format") {
            if (!takeValue(&v)) {
                return false;
            }
            if (!hdrconvert::OutputFormatNamed(v, &o->format)) {
                *error = "--format takes png, raw, pq-png or avif, not '" + v + "'";
                return false;
            }
        } else if (arg == "--panel-nits") {
            if (!takeValue(&v) || !ParseInt(v, 1, hdrconvert::kMaxPanelNits, &o->panelNits)) {
                *error = error->empty() ? "--panel-nits takes 1..10000 (cd/m2)" : *error;
                return false;
            }
        } else if (arg == "--json") {
            if (!takeValue(&o->jsonPath)) {
                return false;
            }
        } else if (arg == "--png-level") {
            if (!takeValue(&v) || !ParseInt(v, 0, 9, &o->pngLevel)) {
                *error = error->empty() ? "--png-level takes 0..9" : *error;
                return false;
            }
        } else if (arg == "--size") {
            if (!takeValue(&v) || !ParseSize(v, &o->width, &o->height)) {
                *error = error->empty() ? "--size takes WxH (1..16384 each), e.g. 1920x1080" : *error;
                return false;
            }
        } else if (arg == "--max-megapixels") {
            if (!takeValue(&v) || !ParseInt(v, 1, 1000000, &o->maxMegapixels)) {
                *error = error->empty() ? "--max-megapixels takes 1..1000000" : *error;
                return false;
            }
        } else if (arg == "--yuv") {
            if (!noValue()) {
                return false;
            }
            o->renderer.outputYuv = true;
        } else if (arg == "--direct") {
            if (!noValue()) {
                return false;
            }
            o->renderer.mode = RenderMode::Direct;
        } else if (arg == "--streaming") {
            if (!noValue()) {
                return false;
            }
            o->renderer.mode = RenderMode::Streaming;
        } else if (arg == "--display") {
            if (!takeValue(&v)) {
                return false;
            }
            if (v == "auto") {
                o->renderer.display = DisplayChoice::Automatic;
            } else if (v == "device") {
                o->renderer.display = DisplayChoice::Device;
            } else if (v == "surfaceless") {
                o->renderer.display = DisplayChoice::Surfaceless;
            } else {
                *error = "--display takes auto, device or surfaceless, not '" + v + "'";
                return false;
            }
        } else if (arg == "--peak-white") {
            if (!takeValue(&v) || !ParseInt(v, INT_MIN, INT_MAX, &o->renderer.peakWhite)) {
                *error = error->empty() ? "--peak-white takes an integer" : *error;
                return false;
            }
            o->renderer.setPeakWhite = true;
        } else if (arg == "--photo-hdr") {
            if (!takeValue(&v) || !ParseInt(v, INT_MIN, INT_MAX, &o->renderer.photoHdr)) {
                *error = error->empty() ? "--photo-hdr takes an integer" : *error;
                return false;
            }
            o->renderer.setPhotoHdr = true;
        } else if (arg == "--log") {
            if (!takeValue(&o->logPath)) {
                return false;
            }
        } else if (arg == "--make-sample") {
            if (!takeValue(&o->samplePath)) {
                return false;
            }
        } else if (arg == "--sample-size") {
            if (!takeValue(&v) || !ParseSize(v, &o->sample.width, &o->sample.height) || o->sample.width > 8192 ||
                o->sample.height > 8192) {
                *error = error->empty() ? "--sample-size takes WxH (1..8192 each)" : *error;
                return false;
            }
        } else if (arg == "--sample-orientation") {
            if (!takeValue(&v) || !ParseInt(v, 1, 8, &o->sample.orientation)) {
                *error = error->empty() ? "--sample-orientation takes 1..8" : *error;
                return false;
            }
        } else {
            *error = "unknown option " + arg;
            return false;
        }
    }
    if (o->renderer.outputYuv && hdrconvert::IsHdrFormat(o->format)) {
        *error = "--format pq-png and avif need RGB output: drop --yuv";
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------
// Where messages go
// ---------------------------------------------------------------------------

// The tool's own standard output: a duplicate of the original descriptor 1,
// so that descriptor 1 itself can take the library's printed log.
FILE* g_out = stdout;
bool g_terminal = false;
bool g_progressShown = false;

#ifdef HDRGPU_CONVERT_STANDINS
const char* BufferName(log_id_t id)
{
    switch (id) {
    case LOG_ID_MAIN:
        return "main";
    case LOG_ID_RADIO:
        return "radio";
    case LOG_ID_SYSTEM:
        return "system";
    case LOG_ID_APPS:
        return "apps";
    default:
        return "?";
    }
}

// The logger's lines: into the log (descriptor 1, through stdio so that they
// stay in order with the library's printed copy), or nowhere.
void LogSink(void* user, log_id_t id, int prio, const char* tag, const char* message)
{
    if (user == nullptr) {
        return;
    }
    std::fprintf(stdout, "[dlog %s %d] %s: %s\n", BufferName(id), prio, tag != nullptr ? tag : "",
                 message != nullptr ? message : "");
}
#endif

// Points descriptor 1 at the log file (or /dev/null) for the rest of the run
// and keeps the original standard output for the tool's own lines.
bool RedirectLibraryOutput(const std::string& logPath, std::string* error)
{
    std::fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    if (saved < 0) {
        *error = std::string("cannot duplicate standard output: ") + std::strerror(errno);
        return false;
    }
    const int target = logPath.empty() ? open("/dev/null", O_WRONLY | O_CLOEXEC)
                                       : open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (target < 0) {
        *error = "cannot open " + (logPath.empty() ? std::string("/dev/null") : logPath) + ": " + std::strerror(errno);
        close(saved);
        return false;
    }
    if (dup2(target, STDOUT_FILENO) < 0) {
        *error = std::string("cannot redirect standard output: ") + std::strerror(errno);
        close(target);
        close(saved);
        return false;
    }
    close(target);
    fcntl(saved, F_SETFD, FD_CLOEXEC);
    FILE* out = fdopen(saved, "w");
    if (out == nullptr) {
        *error = std::string("cannot reopen standard output: ") + std::strerror(errno);
        close(saved);
        return false;
    }
    setvbuf(out, nullptr, _IOLBF, 0);
    g_out = out;
    g_terminal = isatty(saved) == 1;
#ifdef HDRGPU_CONVERT_STANDINS
    dlog_standin_set_sink(LogSink, logPath.empty() ? nullptr : reinterpret_cast<void*>(1));
#endif
    return true;
}

void ClearProgress()
{
    if (g_progressShown) {
        std::fputs("\r\033[K", g_out);
        std::fflush(g_out);
        g_progressShown = false;
    }
}

void ShowProgress(size_t done, size_t total, const std::string& name)
{
    if (!g_terminal) {
        return;
    }
    constexpr int kBarWidth = 30;
    const int filled = total == 0 ? kBarWidth : static_cast<int>(done * kBarWidth / total);
    std::string bar(static_cast<size_t>(filled), '#');
    bar.append(static_cast<size_t>(kBarWidth - filled), '-');
    std::string shown = name;
    if (shown.size() > 40) {
        shown = "..." + shown.substr(shown.size() - 37);
    }
    std::fprintf(g_out, "\r\033[K[%s] %zu/%zu %s", bar.c_str(), done, total, shown.c_str());
    std::fflush(g_out);
    g_progressShown = true;
}

void Refuse(const std::string& input, const std::string& reason)
{
    ClearProgress();
    std::fflush(g_out);
    std::fprintf(stderr, "refused %s: %s\n", input.c_str(), reason.c_str());
    std::fflush(stderr);
}

// ---------------------------------------------------------------------------
// One file
// ---------------------------------------------------------------------------

bool ReadWholeFile(const std::string& path, std::vector<uint8_t>* bytes, std::string* reason)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        *reason = std::string("cannot open: ") + std::strerror(errno);
        return false;
    }
    if (S_ISDIR(st.st_mode)) {
        *reason = "is a directory";
        return false;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *reason = std::string("cannot open: ") + std::strerror(errno);
        return false;
    }
    // One read of the size stat gave, into storage kept across the batch;
    // then whatever a growing file still holds.
    bytes->resize(static_cast<size_t>(st.st_size));
    in.read(reinterpret_cast<char*>(bytes->data()), static_cast<std::streamsize>(bytes->size()));
    bytes->resize(static_cast<size_t>(in.gcount()));
    if (in) {
        bytes->insert(bytes->end(), std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    if (in.bad()) {
        *reason = "cannot read";
        return false;
    }
    return true;
}

// A name for the output: the input's stem, made unique within the batch.
std::string OutputPath(const std::string& dir, const std::string& input, OutputFormat format,
                       std::map<std::string, int>* used)
{
    std::string stem = std::filesystem::path(input).stem().string();
    if (stem.empty()) {
        stem = "picture";
    }
    std::string name = stem;
    int& count = (*used)[stem];
    if (++count > 1) {
        name += "-" + std::to_string(count);
    }
    return (std::filesystem::path(dir) / (name + hdrconvert::OutputExtension(format))).string();
}

struct FileResult {
    bool ok = false;
    std::string output;
    std::string reason;
    int width = 0;
    int height = 0;
    int orientation = 1;
    hdrconvert::FileRecord record;  // for --json
};

double SecondsSince(std::chrono::steady_clock::time_point* mark)
{
    const auto now = std::chrono::steady_clock::now();
    const double s = std::chrono::duration<double>(now - *mark).count();
    *mark = now;
    return s;
}

// Storage kept from one file of a batch to the next.
struct BatchStorage {
    std::vector<uint8_t> bytes;
    hdrconvert::YuvPlanes gainMap;
    // The first file's primary, decoded while the renderer starts; released
    // as the renderer copies it in.
    hdrconvert::YuvPlanes primaryAhead;
    hdrconvert::RenderedPicture rendered;  // the HDR formats' whole picture
};

// Writes the picture the renderer holds in the chosen format: the 8-bit ones
// row by row from the surface mapping; the HDR ones need their light levels
// before the first byte, so they take the whole picture first.
bool WriteOutput(const std::string& output, const Options& o, hdrconvert::Renderer* renderer, BatchStorage* storage,
                 FileResult* r, std::string* why)
{
    if (!hdrconvert::IsHdrFormat(o.format)) {
        return renderer->WriteRendered(output, o.format, o.pngLevel, &r->width, &r->height, why);
    }
    hdrconvert::RenderedPicture& rendered = storage->rendered;
    if (!renderer->ReadRendered(&rendered, why)) {
        *why = "rendering failed: " + *why;
        return false;
    }
    r->width = rendered.width;
    r->height = rendered.height;
    const hdrconvert::PanelModel panel(o.panelNits);
    hdrconvert::PanelPicture picture;
    picture.rgba = rendered.rgba.data();
    picture.width = rendered.width;
    picture.height = rendered.height;
    picture.primaries = hdrconvert::Primaries::Bt709;  // the gamut the renderer gives the library
    hdrconvert::HdrWriteInfo info;
    const bool ok = o.format == OutputFormat::PqPng
                        ? hdrconvert::WritePqPng(output, picture, panel, o.pngLevel, &info, why)
                        : hdrconvert::WritePqAvif(output, picture, panel, &info, why);
    if (ok) {
        r->record.hasLightLevels = true;
        r->record.lightLevels = info.levels;
    }
    return ok;
}

// One file on its way through the stages: what its reading and parsing found,
// then what decoding and rendering it gave.
struct FileWork {
    std::string input;
    std::string output;
    FileResult r;
    hdrconvert::EncodedPicture picture;
    size_t gainMapOffset = 0;  // the gain map's codestream within the file
    size_t gainMapSize = 0;
    std::chrono::steady_clock::time_point mark;
};

// Reads, parses and checks the file up to the two codestreams' headers.
// False with the refusal's reason in w->r.
bool ReadAndParse(FileWork* w, const Options& o, BatchStorage* storage)
{
    FileResult& r = w->r;
    hdrconvert::FileRecord& rec = r.record;
    w->mark = std::chrono::steady_clock::now();
    std::vector<uint8_t>& bytes = storage->bytes;
    const bool read = ReadWholeFile(w->input, &bytes, &r.reason);
    rec.times.read = SecondsSince(&w->mark);
    if (!read) {
        return false;
    }
    rec.inputBytes = bytes.size();
    if (bytes.empty()) {
        r.reason = "empty file";
        return false;
    }
    if (bytes.size() < 2 || bytes[0] != 0xFF || bytes[1] != 0xD8) {
        r.reason = "not a JPEG file (unsupported format)";
        return false;
    }
    hdrconvert::GainMapJpeg parsed;
    const bool parsedOk = hdrconvert::ParseGainMapJpeg(bytes.data(), bytes.size(), &parsed, &r.reason);
    rec.times.parse = SecondsSince(&w->mark);
    if (!parsedOk) {
        return false;
    }
    rec.parsed = true;
    rec.metadata = parsed.metadata;
    rec.source = parsed.source;
    rec.hadXmp = parsed.hadXmp;
    rec.hadIso = parsed.hadIso;
    rec.orientation = hdrconvert::NormalizeOrientation(parsed.orientation);
    if (parsed.metadata.baseRenditionIsHdr) {
        r.reason = "base rendition is HDR (unsupported)";
        return false;
    }
    if (!hdrconvert::CheckDeclaredSizes(bytes.data(), parsed, o.maxMegapixels, &r.reason)) {
        return false;
    }
    // The primary is decoded by the renderer, where the library reads it
    // (no full-size planes here); a fault of it is still the first reported.
    hdrconvert::EncodedPicture& picture = w->picture;
    picture.primaryJpeg = bytes.data() + parsed.primaryOffset;
    picture.primarySize = parsed.primarySize;
    std::string why;
    if (!hdrconvert::ReadJpegHeader(picture.primaryJpeg, parsed.primarySize, &picture.primaryWidth,
                                    &picture.primaryHeight, &why)) {
        r.reason = "primary image: " + why;
        rec.times.decode = SecondsSince(&w->mark);
        return false;
    }
    w->gainMapOffset = parsed.gainMapOffset;
    w->gainMapSize = parsed.gainMapSize;
    picture.gainMap = &storage->gainMap;
    // Nothing needs the last file's gain map once the library holds it.
    picture.spentGainMap = picture.last ? &storage->gainMap : nullptr;
    picture.metadata = parsed.metadata;
    picture.orientation = hdrconvert::NormalizeOrientation(parsed.orientation);
    picture.outputWidth = o.width;
    picture.outputHeight = o.height;
    return true;
}

// Decodes the gain map into storage->gainMap. False with the reason in w->r:
// the primary's own fault when it has one, as that goes first.
bool DecodeGainMap(FileWork* w, BatchStorage* storage)
{
    FileResult& r = w->r;
    std::string why;
    if (!hdrconvert::DecodeJpegPlanesReusing(storage->bytes.data() + w->gainMapOffset, w->gainMapSize,
                                             &storage->gainMap, &why)) {
        std::string primaryWhy;
        const bool primaryOk = hdrconvert::JpegDecodes(w->picture.primaryJpeg, w->picture.primarySize, &primaryWhy);
        r.reason = primaryOk ? "gain map: " + why : "primary image: " + primaryWhy;
        if (primaryOk) {
            r.record.primaryWidth = w->picture.primaryWidth;
            r.record.primaryHeight = w->picture.primaryHeight;
        }
        return false;
    }
    r.record.gainMapWidth = storage->gainMap.width;
    r.record.gainMapHeight = storage->gainMap.height;
    return true;
}

// Decodes both codestreams, the primary into storage->primaryAhead, for a
// file whose rendering is to copy them in. Runs on a thread of its own while
// the renderer starts, and hands the gain map to one more: with the
// renderer's start that makes three jobs of similar length for two cores,
// which then end together instead of the decoding outlasting the start by
// a whole gain map (a full-size three-channel one decodes about as slowly
// as the primary). False with the reason in w->r, the gain map's first as
// when decoded one after the other.
bool DecodeAhead(FileWork* w, BatchStorage* storage)
{
    const auto start = std::chrono::steady_clock::now();
    bool gainOk = false;
    std::thread gainDecoder;
    try {
        gainDecoder = std::thread([w, storage, &gainOk] { gainOk = DecodeGainMap(w, storage); });
    } catch (const std::system_error&) {
        gainOk = DecodeGainMap(w, storage);  // no thread to be had: one after the other
    }
    std::string why;
    const bool primaryOk = hdrconvert::DecodeJpegPlanesReusing(w->picture.primaryJpeg, w->picture.primarySize,
                                                               &storage->primaryAhead, &why);
    if (gainDecoder.joinable()) {
        gainDecoder.join();
    }
    if (gainOk && !primaryOk) {
        w->r.reason = "primary image: " + why;
    }
    w->r.record.times.decode = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return gainOk && primaryOk;
}

// Renders the parsed (and, unless the renderer decodes it, decoded) picture
// and writes the output.
void RenderAndWrite(FileWork* w, const Options& o, hdrconvert::Renderer* renderer, BatchStorage* storage)
{
    FileResult& r = w->r;
    hdrconvert::FileRecord& rec = r.record;
    hdrconvert::EncodedPicture& picture = w->picture;
    w->mark = std::chrono::steady_clock::now();
    std::string why;
    bool primaryFailed = false;
    const bool renderedOk = renderer->RenderEncoded(picture, &primaryFailed, &why);
    const double primarySeconds = renderer->PrimaryDecodeSeconds();
    rec.times.render = SecondsSince(&w->mark) - primarySeconds;
    rec.times.decode += primarySeconds;
    if (!renderedOk) {
        r.reason = (primaryFailed ? "primary image: " : "rendering failed: ") + why;
        return;
    }
    rec.primaryWidth = picture.primaryWidth;
    rec.primaryHeight = picture.primaryHeight;
    const bool written = WriteOutput(w->output, o, renderer, storage, &r, &why);
    rec.times.write = SecondsSince(&w->mark);
    if (!written) {
        r.reason = why;
        return;
    }
    r.ok = true;
    r.output = w->output;
    r.orientation = picture.orientation;
    std::error_code ec;
    const auto size = std::filesystem::file_size(w->output, ec);
    rec.outputBytes = ec ? 0 : static_cast<uint64_t>(size);
}

FileResult ConvertOne(const std::string& input, const std::string& output, bool last, const Options& o,
                      hdrconvert::Renderer* renderer, BatchStorage* storage)
{
    FileWork w;
    w.input = input;
    w.output = output;
    w.picture.last = last;
    if (!ReadAndParse(&w, o, storage)) {
        return w.r;
    }
    const bool decoded = DecodeGainMap(&w, storage);
    w.r.record.times.decode = SecondsSince(&w.mark);
    if (decoded) {
        RenderAndWrite(&w, o, renderer, storage);
    }
    return w.r;
}

// The batch's first file is read and parsed before the renderer starts, and
// its two codestreams are decoded on a thread of their own while it starts
// (the EGL display, the library's initialisation and the textures' storage:
// in streaming mode the intake that defines the textures and maps the upload
// buffers, in direct mode their reservation). On llvmpipe that start takes
// about as long as decoding a 12 MP photo, which otherwise waited for it.
// The later files' primaries are decoded when their turn comes (in streaming
// mode straight into the upload buffers): with the renderer running there is
// nothing to overlap them with.
class FirstFileAhead {
public:
    FirstFileAhead(const std::string& input, const std::string& output, bool last, const Options& o,
                   BatchStorage* storage)
        : start_(std::chrono::steady_clock::now())
    {
        work_.input = input;
        work_.output = output;
        work_.picture.last = last;
        parsed_ = ReadAndParse(&work_, o, storage);
        if (parsed_) {
            decoder_ = std::thread([this, storage] { decoded_ = DecodeAhead(&work_, storage); });
        }
    }
    ~FirstFileAhead() { Join(); }
    FirstFileAhead(const FirstFileAhead&) = delete;
    FirstFileAhead& operator=(const FirstFileAhead&) = delete;

    // Once the renderer has started: its intake for this picture, while the
    // decoding goes on. Reads only what the parsing left.
    void PrepareRenderer(hdrconvert::Renderer* renderer, const BatchStorage& storage)
    {
        std::string ignored;  // RenderEncoded makes the intake again and says why
        int gainMapWidth = 0;
        int gainMapHeight = 0;
        // The gain map's size from its header (the decoder reads the same bytes).
        if (parsed_ && hdrconvert::ReadJpegHeader(storage.bytes.data() + work_.gainMapOffset, work_.gainMapSize,
                                                  &gainMapWidth, &gainMapHeight, &ignored)) {
            renderer->PrepareFor(work_.picture, gainMapWidth, gainMapHeight, &ignored);
        }
    }

    // Waits for the decoding, then renders and writes the file.
    FileResult Finish(const Options& o, hdrconvert::Renderer* renderer, BatchStorage* storage)
    {
        Join();
        if (parsed_ && decoded_) {
            work_.picture.decodedPrimary = &storage->primaryAhead;
            RenderAndWrite(&work_, o, renderer, storage);
            work_.picture.decodedPrimary = nullptr;
        }
        // Unused when the renderer failed first: nothing of it is kept.
        storage->primaryAhead = hdrconvert::YuvPlanes();
        return work_.r;
    }

    // When the file's work began: it includes the renderer's start.
    std::chrono::steady_clock::time_point Start() const { return start_; }

    void Join()
    {
        if (decoder_.joinable()) {
            decoder_.join();
        }
    }

private:
    std::chrono::steady_clock::time_point start_;
    FileWork work_;
    bool parsed_ = false;
    bool decoded_ = false;
    std::thread decoder_;
};

int MakeSample(const Options& o)
{
    std::string reason;
    if (!hdrconvert::WriteSampleFile(o.samplePath, o.sample, &reason)) {
        std::fprintf(stderr, "%s: %s\n", kProgram, reason.c_str());
        return kExitSomeFailed;
    }
    std::printf("wrote %s (%dx%d, orientation %d)\n", o.samplePath.c_str(), o.sample.width, o.sample.height,
                o.sample.orientation);
    return kExitAllConverted;
}

}  // namespace

// The batch's summary line and, when asked for, its JSON report; the exit code.
int ReportBatch(const Options& o, const std::string& display, size_t converted, double megapixels, double total,
                const std::vector<hdrconvert::FileRecord>& records)
{
    std::string error;
    const char* mode = o.renderer.mode == RenderMode::Direct ? "direct" : "streaming";
    // The HDR formats add the panel and, for AVIF, the encoder libavif chose.
    std::string extra;
    if (hdrconvert::IsHdrFormat(o.format)) {
        extra = ", panel " + std::to_string(o.panelNits) + " cd/m2";
        if (o.format == OutputFormat::Avif) {
            extra += ", AVIF encoder " + hdrconvert::AvifEncoderName() + " speed " +
                     std::to_string(hdrconvert::AvifEncoderSpeed());
        }
    }
    std::fprintf(g_out, "%zu of %zu file(s) converted, %.2f megapixels, %.2f s (%s, %s mode%s)\n", converted,
                 o.inputs.size(), megapixels, total, display.c_str(), mode, extra.c_str());
    std::fflush(g_out);
    std::fflush(stdout);
    if (!o.jsonPath.empty()) {
        hdrconvert::BatchSummary summary;
        summary.format = hdrconvert::OutputFormatName(o.format);
        summary.mode = mode;
        summary.display = display;
        summary.yuv = o.renderer.outputYuv;
        summary.panelNits = hdrconvert::IsHdrFormat(o.format) ? o.panelNits : 0;
        if (o.format == OutputFormat::Avif) {
            summary.avifEncoder = hdrconvert::AvifEncoderName();
            summary.avifSpeed = hdrconvert::AvifEncoderSpeed();
        }
        summary.files = o.inputs.size();
        summary.converted = converted;
        summary.megapixels = megapixels;
        summary.seconds = total;
        if (!hdrconvert::WriteJsonReport(o.jsonPath, records, summary, &error)) {
            std::fprintf(stderr, "%s: the JSON report: %s\n", kProgram, error.c_str());
            return kExitSomeFailed;
        }
    }
    return converted == o.inputs.size() ? kExitAllConverted : kExitSomeFailed;
}

int main(int argc, char** argv)
{
    Options o;
    std::string error;
    if (!ParseArguments(argc, argv, &o, &error)) {
        std::fprintf(stderr, "%s: %s\nTry '%s --help'.\n", kProgram, error.c_str(), kProgram);
        return kExitUsage;
    }
    if (o.help) {
        std::fputs(kHelp, stdout);
        return kExitAllConverted;
    }
    if (!o.samplePath.empty()) {
        if (!o.inputs.empty()) {
            std::fprintf(stderr, "%s: --make-sample takes no inputs\n", kProgram);
            return kExitUsage;
        }
        return MakeSample(o);
    }
    if (o.inputs.empty() || o.outputDir.empty()) {
        std::fprintf(stderr, "%s: %s\nUsage: %s [options] INPUT... -o OUTDIR (see --help)\n", kProgram,
                     o.inputs.empty() ? "no input files" : "no output directory (-o OUTDIR)", kProgram);
        return kExitUsage;
    }
    std::error_code ec;
    std::filesystem::create_directories(o.outputDir, ec);
    if (ec || !std::filesystem::is_directory(o.outputDir)) {
        std::fprintf(stderr, "%s: cannot create the output directory %s: %s\n", kProgram, o.outputDir.c_str(),
                     ec ? ec.message().c_str() : "not a directory");
        return kExitUsage;
    }
    if (!RedirectLibraryOutput(o.logPath, &error)) {
        std::fprintf(stderr, "%s: %s\n", kProgram, error.c_str());
        return kExitUsage;
    }

    const auto start = std::chrono::steady_clock::now();
    std::map<std::string, int> usedNames;
    BatchStorage storage;
    ShowProgress(0, o.inputs.size(), o.inputs[0]);
    FirstFileAhead first(o.inputs[0], OutputPath(o.outputDir, o.inputs[0], o.format, &usedNames), o.inputs.size() == 1,
                         o, &storage);
    hdrconvert::Renderer renderer;
    if (!renderer.Start(o.renderer, &error)) {
        first.Join();
        ClearProgress();
        std::fprintf(stderr, "%s: the renderer could not start: %s\n", kProgram, error.c_str());
        renderer.Stop();
        std::fflush(stdout);
        return kExitNoRenderer;
    }
    first.PrepareRenderer(&renderer, storage);

    size_t converted = 0;
    double megapixels = 0;
    std::vector<hdrconvert::FileRecord> records;
    for (size_t i = 0; i < o.inputs.size(); ++i) {
        const std::string& input = o.inputs[i];
        auto fileStart = std::chrono::steady_clock::now();
        FileResult r;
        if (i == 0) {
            fileStart = first.Start();
            r = first.Finish(o, &renderer, &storage);
        } else if (renderer.Broken()) {
            ShowProgress(i, o.inputs.size(), input);
            r.reason = "the renderer is no longer available";
        } else {
            ShowProgress(i, o.inputs.size(), input);
            r = ConvertOne(input, OutputPath(o.outputDir, input, o.format, &usedNames), i + 1 == o.inputs.size(), o,
                           &renderer, &storage);
        }
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - fileStart).count();
        r.record.input = input;
        r.record.converted = r.ok;
        r.record.output = r.output;
        r.record.reason = r.reason;
        r.record.outputWidth = r.width;
        r.record.outputHeight = r.height;
        r.record.times.total = seconds;
        if (!o.jsonPath.empty()) {
            records.push_back(std::move(r.record));
        }
        if (r.ok) {
            ++converted;
            const double mp = static_cast<double>(r.width) * r.height / 1e6;
            megapixels += mp;
            ClearProgress();
            std::fprintf(g_out, "converted %s -> %s (%dx%d, %.2f MP, orientation %d, %.2f s)\n", input.c_str(),
                         r.output.c_str(), r.width, r.height, mp, r.orientation, seconds);
        } else {
            Refuse(input, r.reason);
        }
    }
    ShowProgress(o.inputs.size(), o.inputs.size(), "");
    ClearProgress();
    renderer.Stop();
    const double total = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return ReportBatch(o, renderer.DisplayName(), converted, megapixels, total, records);
}
