// A CPU baseline: the tests' own model of the gain-map pass, run over whole
// pictures, single-threaded, built with -O2.
//
//   cpu/model/<w>  per picture: the APL of the main luma
//                  (AveragePictureLevel), every uniform from the metadata and
//                  the factory defaults (ComputeConstants), then for every
//                  output pixel the six planes sampled and the pixel computed
//                  in double precision (EvaluateNominal), its four channels
//                  rounded to codes (ToCode) and stored in RA24 byte order
//                  (A, B, G, R) into a 4-bytes-a-pixel buffer of the output
//                  size.
//
// Sampling is what GL_LINEAR without mipmaps does for the engine's
// full-screen quad: the output pixel (x, y) samples texture coordinate
// ((x + 0.5) / outW, (y + 0.5) / outH), i.e. texel position
// s = u * texW - 0.5, bilinear between floor(s) and floor(s) + 1 with weight
// s - floor(s), clamped to the edge. Where a plane's size equals the
// output's, s falls on texel centres and the sample is the nearest texel,
// which is read directly. In the three workloads neither the main image
// (4032 x 3024 or 6000 x 4000) nor the gain map matches the output, so both
// are sampled bilinearly. The model's arithmetic is exact (double); the GPU's
// filter uses fixed-point weights.
#include "BenchSupport.h"
#include "ConstantsModel.h"
#include "GainMapModel.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace {

using hdrbench::Workload;

// The filter taps along one axis for every output position.
struct Taps {
    std::vector<int> i0;
    std::vector<int> i1;
    std::vector<double> f;  // weight of i1
    bool nearest = false;   // sizes match: f is 0 everywhere
};

Taps MakeTaps(int texels, int outputs)
{
    Taps taps;
    taps.i0.resize(outputs);
    taps.i1.resize(outputs);
    taps.f.resize(outputs);
    taps.nearest = texels == outputs;
    for (int x = 0; x < outputs; ++x) {
        if (taps.nearest) {
            taps.i0[x] = taps.i1[x] = x;
            taps.f[x] = 0.0;
            continue;
        }
        const double s = (x + 0.5) / outputs * texels - 0.5;
        const double base = std::floor(s);
        const int i = static_cast<int>(base);
        taps.f[x] = s - base;
        taps.i0[x] = std::min(std::max(i, 0), texels - 1);
        taps.i1[x] = std::min(std::max(i + 1, 0), texels - 1);
    }
    return taps;
}

// A plane's sampled value (code / 255) at output (x, y).
inline double Sample(const uint8_t* plane, int width, const Taps& tx, const Taps& ty, int x, int y)
{
    if (tx.nearest && ty.nearest) {
        return plane[static_cast<size_t>(y) * width + x] / 255.0;
    }
    const uint8_t* r0 = plane + static_cast<size_t>(ty.i0[y]) * width;
    const uint8_t* r1 = plane + static_cast<size_t>(ty.i1[y]) * width;
    const double fx = tx.f[x];
    const double fy = ty.f[y];
    const double top = r0[tx.i0[x]] + fx * (r0[tx.i1[x]] - r0[tx.i0[x]]);
    const double bottom = r1[tx.i0[x]] + fx * (r1[tx.i1[x]] - r1[tx.i0[x]]);
    return (top + fy * (bottom - top)) / 255.0;
}

hdrtest::PictureMetadata Metadata(const HdrInfo& info)
{
    hdrtest::PictureMetadata m;
    for (int c = 0; c < 3; ++c) {
        m.gainMapMin[c] = info.gainMapMin[c];
        m.gainMapMax[c] = info.gainMapMax[c];
        m.gamma[c] = info.gamma[c];
    }
    for (int c = 0; c < 4; ++c) {
        m.offsetSdr[c] = info.offsetSdr[c];
        m.offsetHdr[c] = info.offsetHdr[c];
    }
    m.hdrCapacityMin = info.hdrCapacityMin;
    m.hdrCapacityMax = info.hdrCapacityMax;
    m.gamut = static_cast<int32_t>(info.gamut);
    m.trfn = static_cast<int32_t>(info.trfn);
    m.outputRotate = 0;
    m.outputMirror = false;
    return m;
}

void CpuModel(benchmark::State& state, const Workload* workload)
{
    const Workload& w = *workload;
    const hdrbench::PlaneSet& planes = hdrbench::Planes(w);
    const HdrInfo info = hdrbench::MakeInfo(w, planes);
    const hdrtest::PictureMetadata metadata = Metadata(info);
    const hdrtest::TuningValues tuning;  // the factory defaults
    const Taps mainX = MakeTaps(w.mainWidth, w.outputWidth);
    const Taps mainY = MakeTaps(w.mainHeight, w.outputHeight);
    const Taps gainX = MakeTaps(w.gainWidth, w.outputWidth);
    const Taps gainY = MakeTaps(w.gainHeight, w.outputHeight);
    std::vector<uint8_t> surface(static_cast<size_t>(w.OutputBytes()), 0);

    hdrbench::Samples samples;
    for (auto _ : state) {
        samples.Start();
        const int32_t apl = hdrtest::AveragePictureLevel(planes.data(0), w.mainWidth, w.mainHeight);
        const hdrtest::GainMapUniforms uniforms = hdrtest::ComputeConstants(metadata, tuning, apl, false);
        for (int y = 0; y < w.outputHeight; ++y) {
            uint8_t* out = surface.data() + static_cast<size_t>(y) * w.outputWidth * 4;
            for (int x = 0; x < w.outputWidth; ++x) {
                hdrtest::PixelSamples s;
                for (int c = 0; c < 3; ++c) {
                    s.main[c] = Sample(planes.data(c), w.mainWidth, mainX, mainY, x, y);
                    s.gain[c] = Sample(planes.data(3 + c), w.gainWidth, gainX, gainY, x, y);
                }
                const hdrtest::Vec4 rgba = hdrtest::EvaluateNominal(s, uniforms);
                out[4 * x + 0] = static_cast<uint8_t>(hdrtest::ToCode(rgba[3]));
                out[4 * x + 1] = static_cast<uint8_t>(hdrtest::ToCode(rgba[2]));
                out[4 * x + 2] = static_cast<uint8_t>(hdrtest::ToCode(rgba[1]));
                out[4 * x + 3] = static_cast<uint8_t>(hdrtest::ToCode(rgba[0]));
            }
        }
        benchmark::DoNotOptimize(surface.data());
        benchmark::ClobberMemory();
        samples.Stop();
        samples.Next();
    }
    hdrbench::SetPictureCounters(state, w, samples);
}

void Register()
{
    for (const Workload& w : hdrbench::Workloads()) {
        benchmark::RegisterBenchmark(hdrbench::Name("cpu", "model", w).c_str(), CpuModel, &w)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond)
            ->Iterations(2);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    return hdrbench::Main(argc, argv, Register);
}
