// Shared by the benchmark executables: the three workloads, their synthetic
// planes and metadata, the headless EGL display, and a main() that keeps the
// library's log lines out of the report.
//
// Uses the public interface and the platform stand-ins only, so that the
// whole-picture benchmark stays a host's view of the library.
#ifndef HDRGPU_BENCH_SUPPORT_H
#define HDRGPU_BENCH_SUPPORT_H

#include <HdrGpuBackend.h>

#include <EGL/egl.h>
#include <benchmark/benchmark.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace hdrbench {

// One picture and the output it is rendered to. The gain map is either
// single-channel (its U and V planes hold 128 everywhere) or full colour.
struct Workload {
    const char* key;    // used in benchmark names: "<group>/<stage>/<key>"
    const char* title;  // for people
    int mainWidth;
    int mainHeight;
    int gainWidth;
    int gainHeight;
    bool gainChroma;    // false: U and V of the gain map are flat 128
    int outputWidth;
    int outputHeight;
    // The SDR and HDR offsets of R, G and B. Without them (as the phone
    // sample's own metadata has it) the draw works in logarithms.
    float offset;

    int64_t MainPlaneBytes() const { return int64_t{mainWidth} * mainHeight; }
    int64_t GainPlaneBytes() const { return int64_t{gainWidth} * gainHeight; }
    // The six input planes, as the host hands them over.
    int64_t InputBytes() const { return 3 * MainPlaneBytes() + 3 * GainPlaneBytes(); }
    // The RGBA8 output surface (4 bytes a pixel, rows tightly packed).
    int64_t OutputBytes() const { return int64_t{outputWidth} * outputHeight * 4; }
    // What one picture moves: every input plane byte plus every output byte.
    int64_t MovedBytes() const { return InputBytes() + OutputBytes(); }
    double OutputMegapixels() const { return double(outputWidth) * outputHeight / 1e6; }
};

// 0: 12 MP phone photo, 1008 x 756 single-channel gain map, to 3840 x 2160;
// 1: the same to 1920 x 1080;
// 2: 24 MP camera photo, full-size three-channel gain map, to 3840 x 2160.
const std::vector<Workload>& Workloads();

// Six planes, rows tightly packed: main Y, U, V, then gain map Y, U, V.
struct PlaneSet {
    std::array<std::vector<uint8_t>, 6> plane;
    const uint8_t* data(int p) const { return plane[p].data(); }
};

// The workload's planes: smooth gradients and soft shapes with texture noise
// (a hashed, per-pixel +-8 code grain on the main luma, less on chroma and
// on the gain map), made once per picture size and kept.
const PlaneSet& Planes(const Workload& workload);

// The plane's width and height (0..5 as in PlaneSet).
int PlaneWidth(const Workload& workload, int plane);
int PlaneHeight(const Workload& workload, int plane);

// A record a host would fill for the workload: up to 4x (2 stops) of gain,
// gamma 1, offsets 1/64, HDR capacity 0..2 stops, BT.709 / sRGB, unrotated,
// output size the workload's.
HdrInfo MakeInfo(const Workload& workload, const PlaneSet& planes);

class Samples;

// Writes the six planes through the public Begin / write / End into the
// mappings a metadata intake returned; false on the first failure. With
// libraryOnly, that running clock is stopped while the host's bytes are
// copied in, so that it times the library's calls alone.
bool StreamPlanes(uint8_t** mapped, const Workload& workload, const PlaneSet& planes,
                  Samples* libraryOnly = nullptr);

// The headless display (Mesa's surfaceless platform), initialised by Main().
EGLDisplay Display();

// Benchmark naming: "<group>/<stage>/<workload key>".
std::string Name(const char* group, const char* stage, const Workload& workload);

// Wall-clock time of each timed iteration (Start .. Stop; several
// Start/Stop pairs may make up one iteration when only part of it is
// timed, see Next). Google Benchmark reports the mean; the machine may be
// shared with other work, so the best and the median are published too.
class Samples {
public:
    void Start() { start_ = Clock::now(); }
    void Stop() { current_ += std::chrono::duration<double, std::milli>(Clock::now() - start_).count(); }
    // Closes the iteration: what Start/Stop measured since the last Next.
    void Next()
    {
        values_.push_back(current_);
        current_ = 0.0;
    }
    // Counters best_ms and median_ms.
    void Publish(benchmark::State& state) const;

private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point start_{};
    double current_ = 0.0;
    std::vector<double> values_;
};

// Publishes the output-megapixels-per-second counter (real time, from
// Google Benchmark's mean), the best and median times per iteration and the
// workload's title for a finished run.
void SetPictureCounters(benchmark::State& state, const Workload& workload, const Samples& samples);

// The whole program: parses Google Benchmark's flags, installs a log sink
// that drops every line, opens the display, calls registerBenchmarks, adds
// the machine and driver to the report's context, then runs the benchmarks
// with standard output (fd 1: the library's printf copy of every log line)
// sent to /dev/null and the console report written to a duplicate of the
// original fd 1. Returns the process exit code.
int Main(int argc, char** argv, void (*registerBenchmarks)());

}  // namespace hdrbench

#endif
