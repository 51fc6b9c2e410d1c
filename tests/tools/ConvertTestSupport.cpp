#include "ConvertTestSupport.h"

#include "GainMapModel.h"

#include <fcntl.h>
#include <png.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace converttest {

namespace {

std::string ReadText(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

int FloorCode(double x)
{
    if (!(x > 0)) {
        return 0;
    }
    if (x >= 1) {
        return 255;
    }
    return static_cast<int>(std::floor(x * 255.0));
}

int CeilCode(double x)
{
    if (std::isnan(x) || x >= 1) {
        return 255;
    }
    if (x <= 0) {
        return 0;
    }
    return static_cast<int>(std::ceil(x * 255.0));
}

// GL_LINEAR of one plane at normalised coordinates (s, t): clamp to edge,
// texel centres at (i + 0.5) / size. A value in [0, 1].
double Bilinear(const Plane& p, double s, double t)
{
    const double fx = s * p.width - 0.5;
    const double fy = t * p.height - 0.5;
    const double x0 = std::floor(fx);
    const double y0 = std::floor(fy);
    const double a = fx - x0;
    const double b = fy - y0;
    const auto at = [&p](double x, double y) {
        const int xi = std::clamp(static_cast<int>(x), 0, p.width - 1);
        const int yi = std::clamp(static_cast<int>(y), 0, p.height - 1);
        return p.At(xi, yi) / 255.0;
    };
    const double top = (1 - a) * at(x0, y0) + a * at(x0 + 1, y0);
    const double bottom = (1 - a) * at(x0, y0 + 1) + a * at(x0 + 1, y0 + 1);
    return (1 - b) * top + b * bottom;
}

// The elementary operations of the orientations' descriptions.
Plane MirrorLeftRight(const Plane& in)
{
    Plane out = in;
    for (int y = 0; y < in.height; ++y) {
        for (int x = 0; x < in.width; ++x) {
            out.bytes[static_cast<size_t>(y) * in.width + x] = in.At(in.width - 1 - x, y);
        }
    }
    return out;
}

Plane MirrorTopBottom(const Plane& in)
{
    Plane out = in;
    for (int y = 0; y < in.height; ++y) {
        for (int x = 0; x < in.width; ++x) {
            out.bytes[static_cast<size_t>(y) * in.width + x] = in.At(x, in.height - 1 - y);
        }
    }
    return out;
}

// Turned a quarter clockwise: the left column becomes the top row, read from
// the bottom up.
Plane RotateClockwise(const Plane& in)
{
    Plane out;
    out.width = in.height;
    out.height = in.width;
    out.bytes.resize(in.bytes.size());
    for (int y = 0; y < out.height; ++y) {
        for (int x = 0; x < out.width; ++x) {
            out.bytes[static_cast<size_t>(y) * out.width + x] = in.At(y, in.height - 1 - x);
        }
    }
    return out;
}

Plane Rotate180(const Plane& in)
{
    return MirrorTopBottom(MirrorLeftRight(in));
}

Plane RotateAnticlockwise(const Plane& in)
{
    return Rotate180(RotateClockwise(in));
}

// Rows become columns: (x, y) shows (y, x).
Plane Transpose(const Plane& in)
{
    Plane out;
    out.width = in.height;
    out.height = in.width;
    out.bytes.resize(in.bytes.size());
    for (int y = 0; y < out.height; ++y) {
        for (int x = 0; x < out.width; ++x) {
            out.bytes[static_cast<size_t>(y) * out.width + x] = in.At(y, x);
        }
    }
    return out;
}

}  // namespace

// ---------------------------------------------------------------------------

CommandResult RunConverter(const std::vector<std::string>& args)
{
    CommandResult result;
    static int counter = 0;
    const std::string base = FreshDirectory("run-output-" + std::to_string(getpid()) + "-" + std::to_string(++counter));
    const std::string outPath = base + "/stdout";
    const std::string errPath = base + "/stderr";
    std::vector<std::string> argv{HDRGPU_CONVERT_EXE};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> cargv;
    for (std::string& a : argv) {
        cargv.push_back(a.data());
    }
    cargv.push_back(nullptr);
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int in = open("/dev/null", O_RDONLY);
        if (out < 0 || err < 0 || in < 0) {
            _exit(127);
        }
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        dup2(in, STDIN_FILENO);
        execv(cargv[0], cargv.data());
        _exit(127);
    }
    if (pid < 0) {
        return result;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            return result;
        }
    }
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.out = ReadText(outPath);
    result.err = ReadText(errPath);
    std::error_code ec;
    std::filesystem::remove_all(base, ec);
    return result;
}

std::string FreshDirectory(const std::string& name)
{
    const std::filesystem::path dir = std::filesystem::path(HDRGPU_CONVERT_TEST_DIR) / name;
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    std::filesystem::create_directories(dir, ec);
    return dir.string();
}

std::string SamplesDirectory()
{
    const char* env = std::getenv("HDRGPU_SAMPLES_DIR");
    const std::string dir = env != nullptr && *env != '\0' ? env : HDRGPU_SAMPLES_DIR;
    std::error_code ec;
    return std::filesystem::is_directory(dir, ec) ? dir : std::string();
}

bool WriteFile(const std::string& path, const std::vector<uint8_t>& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

std::vector<uint8_t> ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

bool ReadPng(const std::string& path, RgbaImage* image)
{
    png_image png;
    std::memset(&png, 0, sizeof png);
    png.version = PNG_IMAGE_VERSION;
    if (png_image_begin_read_from_file(&png, path.c_str()) == 0) {
        return false;
    }
    png.format = PNG_FORMAT_RGBA;
    image->width = static_cast<int>(png.width);
    image->height = static_cast<int>(png.height);
    image->rgba.resize(PNG_IMAGE_SIZE(png));
    if (png_image_finish_read(&png, nullptr, image->rgba.data(), 0, nullptr) == 0) {
        png_image_free(&png);
        return false;
    }
    return true;
}

Plane PlaneOf(const std::vector<uint8_t>& bytes, int width, int height)
{
    Plane p;
    p.width = width;
    p.height = height;
    p.bytes = bytes;
    return p;
}

Plane OrientForDisplay(const Plane& stored, int exifOrientation)
{
    switch (exifOrientation) {
    case 2:  // mirror left-right
        return MirrorLeftRight(stored);
    case 3:  // rotate 180
        return Rotate180(stored);
    case 4:  // mirror top-bottom
        return MirrorTopBottom(stored);
    case 5:  // transpose
        return Transpose(stored);
    case 6:  // rotate 90 clockwise
        return RotateClockwise(stored);
    case 7:  // transverse: mirror left-right, then rotate 90 clockwise
        return RotateClockwise(MirrorLeftRight(stored));
    case 8:  // rotate 90 anticlockwise
        return RotateAnticlockwise(stored);
    default:
        return stored;
    }
}

hdrtest::TuningValues TuningFromKeys(int photoHdr, int peakWhite)
{
    hdrtest::TuningValues t;  // the factory defaults
    t.GAMMA_MUL = (photoHdr / 100000000 + 4) * 32;
    t.GAIN_CURVE_P1 = ((photoHdr / 1000000) % 100) * 1024 / 100;
    t.GAIN_CURVE_G0 = ((photoHdr / 10000) % 100) * 1024 / 100;
    t.GAIN_CURVE_G1 = ((photoHdr / 100) % 100) * 1024 / 100;
    t.GAIN_CURVE_G2 = (photoHdr % 100) * 1024 / 100;
    if (peakWhite <= 30) {
        t.MDB_V2 = 136;
    } else if (peakWhite <= 99) {
        t.MDB_V2 = (peakWhite - 30) * 120 / 70 + 136;
    } else {
        t.MDB_V2 = 256;
    }
    return t;
}

Comparison CompareWithModel(const RgbaImage& image, const ModelInput& input)
{
    Comparison c;
    const hdrconvert::YuvPlanes& pm = *input.primary;
    const hdrconvert::YuvPlanes& pg = *input.gainMap;
    const int e = input.orientation;
    const Plane main[3] = {OrientForDisplay(PlaneOf(pm.y, pm.width, pm.height), e),
                           OrientForDisplay(PlaneOf(pm.u, pm.width, pm.height), e),
                           OrientForDisplay(PlaneOf(pm.v, pm.width, pm.height), e)};
    const Plane gain[3] = {OrientForDisplay(PlaneOf(pg.y, pg.width, pg.height), e),
                           OrientForDisplay(PlaneOf(pg.u, pg.width, pg.height), e),
                           OrientForDisplay(PlaneOf(pg.v, pg.width, pg.height), e)};
    const int w = image.width;
    const int h = image.height;
    if (main[0].width != w || main[0].height != h) {
        c.firstMismatch = "the picture is " + std::to_string(w) + "x" + std::to_string(h) + ", the oriented primary " +
                          std::to_string(main[0].width) + "x" + std::to_string(main[0].height);
        c.mismatches = 1;
        return c;
    }
    c.gainResampled = gain[0].width != w || gain[0].height != h;

    hdrtest::PictureMetadata md;
    const hdrconvert::GainMapMetadata& g = input.metadata;
    for (int i = 0; i < 3; ++i) {
        md.gainMapMin[i] = static_cast<float>(g.gainMapMin[i]);
        md.gainMapMax[i] = static_cast<float>(g.gainMapMax[i]);
        md.gamma[i] = static_cast<float>(g.gamma[i]);
        md.offsetSdr[i] = static_cast<float>(g.offsetSdr[i]);
        md.offsetHdr[i] = static_cast<float>(g.offsetHdr[i]);
    }
    md.offsetSdr[3] = 0.0f;
    md.offsetHdr[3] = 0.0f;
    md.hdrCapacityMin = static_cast<float>(g.hdrCapacityMin);
    md.hdrCapacityMax = static_cast<float>(g.hdrCapacityMax);
    md.gamut = 0;
    md.trfn = 3;
    c.apl = hdrtest::AveragePictureLevel(pm.y.data(), pm.width, pm.height);
    const hdrtest::GainMapUniforms u = hdrtest::ComputeConstants(md, input.tuning, c.apl, input.outputYuv);
    const double gainError = c.gainResampled ? std::max(kSamplerError, kBilinearSamplerError) : kSamplerError;
    const int step = std::max(1, input.step);
    const char* names = input.outputYuv ? "YUVA" : "RGBA";

    const auto comparePixel = [&](int x, int y) {
        hdrtest::PixelSamples s;
        for (int i = 0; i < 3; ++i) {
            s.main[i] = main[i].At(x, y) / 255.0;
            s.gain[i] = c.gainResampled ? Bilinear(gain[i], (x + 0.5) / w, (y + 0.5) / h) : gain[i].At(x, y) / 255.0;
        }
        int lo[4];
        int hi[4];
        int nominal[4];
        if (!c.gainResampled) {
            const hdrtest::ModelPixel m = hdrtest::Evaluate(s, u, kSamplerError);
            for (int k = 0; k < 4; ++k) {
                lo[k] = m.channel[k].codeLo;
                hi[k] = m.channel[k].codeHi;
                nominal[k] = m.channel[k].nominalCode;
            }
        } else {
            std::array<hdrtest::Interval, 6> box;
            for (int i = 0; i < 3; ++i) {
                box[i] = {s.main[i] - kSamplerError, s.main[i] + kSamplerError};
                box[3 + i] = {s.gain[i] - gainError, s.gain[i] + gainError};
            }
            hdrtest::Interval3 range = hdrtest::EvaluateEncodedRgb(box, u);
            if (u.bOutputYUV == 1) {
                range = hdrtest::gainmap::RgbToOutputYuv(range);
            }
            const hdrtest::Vec4 n = hdrtest::EvaluateNominal(s, u);
            for (int k = 0; k < 3; ++k) {
                hdrtest::Interval v = range[k];
                if (std::isfinite(n[k]) && v.Bounded()) {
                    v = hdrtest::Interval::Hull(v, hdrtest::Interval::Point(n[k]));
                }
                lo[k] = v.Bounded() ? FloorCode(v.lo) : 0;
                hi[k] = v.Bounded() ? CeilCode(v.hi) : 255;
                nominal[k] = hdrtest::ToCode(n[k]);
            }
            lo[3] = hi[3] = nominal[3] = 255;
        }
        const uint8_t* px = image.rgba.data() + (static_cast<size_t>(y) * w + x) * 4;
        bool bad = false;
        for (int k = 0; k < 4; ++k) {
            const int got = px[k];
            c.largestFromNominal = std::max(c.largestFromNominal, std::abs(got - nominal[k]));
            const int beyond = std::max({0, lo[k] - got, got - hi[k]});
            c.largestBeyondInterval = std::max(c.largestBeyondInterval, beyond);
            const int allowed = k == 3 ? 0 : kArithmeticCodes;
            if (beyond > allowed && !bad) {
                bad = true;
                if (c.firstMismatch.empty()) {
                    std::ostringstream m;
                    m << "pixel (" << x << ", " << y << ") channel " << names[k] << ": got " << got
                      << ", the model allows [" << lo[k] << ", " << hi[k] << "] +-" << allowed << " (nominal "
                      << nominal[k] << "); main " << int(main[0].At(x, y)) << "/" << int(main[1].At(x, y)) << "/"
                      << int(main[2].At(x, y)) << ", gain " << s.gain[0] * 255 << "/" << s.gain[1] * 255 << "/"
                      << s.gain[2] * 255;
                    c.firstMismatch = m.str();
                }
            }
        }
        c.mismatches += bad ? 1 : 0;
        ++c.pixels;
    };

    const auto positions = [step](int n) {
        std::vector<int> v;
        for (int i = 0; i < n; i += step) {
            v.push_back(i);
        }
        if (v.back() != n - 1) {
            v.push_back(n - 1);
        }
        return v;
    };
    const std::vector<int> xs = positions(w);
    for (int y : positions(h)) {
        for (int x : xs) {
            comparePixel(x, y);
        }
    }
    return c;
}

ConvertedFile DecodeGainMapFile(const std::vector<uint8_t>& bytes)
{
    ConvertedFile f;
    f.parsed = hdrconvert::ParseGainMapJpeg(bytes.data(), bytes.size(), &f.container, &f.parseReason);
    if (!f.parsed) {
        return f;
    }
    std::string reason;
    if (!hdrconvert::DecodeJpegPlanes(bytes.data() + f.container.primaryOffset, f.container.primarySize, &f.primary,
                                      &reason) ||
        !hdrconvert::DecodeJpegPlanes(bytes.data() + f.container.gainMapOffset, f.container.gainMapSize,
                                      &f.gainMap, &reason)) {
        f.parsed = false;
        f.parseReason = reason;
    }
    return f;
}

}  // namespace converttest
