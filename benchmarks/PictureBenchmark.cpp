// What one picture costs a host, through the public interface only.
//
//   picture/direct/<workload>      GpuGenerateHdr(&info): metadata, upload of
//                                  the six planes, constants, draw, copy into
//                                  the surface, in one call (the direct mode
//                                  renders at the init option's surface size,
//                                  set to the workload's output size);
//   picture/streaming/<workload>   one cycle of the streaming mode: the six
//                                  planes written into the mapped upload
//                                  buffers between UpdateDataBegin and
//                                  UpdateDataEnd, GpuGenerateHdrSetHdrInfo
//                                  (new output surface, buffers mapped for the
//                                  next picture), GpuGenerateHdr();
//   picture/streaming_library/<workload>
//                                  the same cycle with the host's copies of
//                                  its planes into the buffers left out of
//                                  best_ms and median_ms: what the library
//                                  adds for a host that decodes straight into
//                                  the buffers (the direct row's host, too,
//                                  has its planes before the call);
//   picture/direct_cold/<workload> GpuGenerateHdrInit, the first picture and
//                                  GpuGenerateHdrDestroy: what a viewer pays
//                                  when it starts the engine for one picture.
//
// The steady-state rows draw one untimed picture first, so that the driver's
// shader compilation and first touches of new storage are not counted; the
// cold row counts them.
#include "BenchSupport.h"

#include <HdrGpuBackend.h>

#include <benchmark/benchmark.h>
#include <tbm_surface.h>

#include <cstring>

namespace {

using hdrbench::Workload;

// After the timing: the surface the host would show holds an opaque picture
// of the output size with some detail in it (not one flat colour), so that
// the times are those of real work.
bool PictureLooksReal(const Workload& workload)
{
    const int handle = GpuGenerateGetTBM();
    if (handle == GPU_GENERATE_NO_SURFACE) {
        return false;
    }
    tbm_surface_h surface = reinterpret_cast<tbm_surface_h>(static_cast<intptr_t>(handle));
    tbm_surface_info_s info;
    if (tbm_surface_map(surface, TBM_SURF_OPTION_READ, &info) != TBM_SURFACE_ERROR_NONE) {
        return false;
    }
    bool ok = static_cast<int>(info.width) == workload.outputWidth &&
              static_cast<int>(info.height) == workload.outputHeight;
    int lowest = 255;
    int highest = 0;
    for (int y = 0; ok && y < workload.outputHeight; y += 97) {
        const unsigned char* row = info.planes[0].ptr + static_cast<size_t>(y) * info.planes[0].stride;
        for (int x = 0; x < workload.outputWidth; x += 89) {
            const unsigned char* px = row + 4 * x;  // A, B, G, R
            ok = ok && px[0] == 255;
            lowest = px[3] < lowest ? px[3] : lowest;
            highest = px[3] > highest ? px[3] : highest;
        }
    }
    tbm_surface_unmap(surface);
    return ok && highest - lowest > 32;
}

void PictureDirect(benchmark::State& state, const Workload* workload)
{
    const hdrbench::PlaneSet& planes = hdrbench::Planes(*workload);
    HdrInfo info = hdrbench::MakeInfo(*workload, planes);
    const GpuGenerateHdrInitOption option{workload->outputWidth, workload->outputHeight, hdrbench::Display(),
                                          false, false};
    if (GpuGenerateHdrInit(option) != GPU_GENERATE_SUCCESS) {
        state.SkipWithError("GpuGenerateHdrInit failed");
        GpuGenerateHdrDestroy();
        return;
    }
    hdrbench::Samples samples;
    if (GpuGenerateHdr(&info) != GPU_GENERATE_SUCCESS) {  // warm-up
        state.SkipWithError("warm-up picture failed");
    } else {
        for (auto _ : state) {
            samples.Start();
            const int result = GpuGenerateHdr(&info);
            samples.Stop();
            samples.Next();
            if (result != GPU_GENERATE_SUCCESS) {
                state.SkipWithError("GpuGenerateHdr failed");
                break;
            }
        }
        hdrbench::SetPictureCounters(state, *workload, samples);
        if (!PictureLooksReal(*workload)) {
            state.SkipWithError("the output surface does not hold the picture");
        }
    }
    GpuGenerateHdrDestroy();
}

bool StreamingCycle(uint8_t**& mapped, HdrInfo& info, const Workload& workload, const hdrbench::PlaneSet& planes,
                    hdrbench::Samples* libraryOnly = nullptr)
{
    if (!hdrbench::StreamPlanes(mapped, workload, planes, libraryOnly)) {
        return false;
    }
    mapped = GpuGenerateHdrSetHdrInfo(&info);
    return mapped != nullptr && GpuGenerateHdr() == GPU_GENERATE_SUCCESS;
}

void PictureStreaming(benchmark::State& state, const Workload* workload, bool libraryOnly)
{
    const hdrbench::PlaneSet& planes = hdrbench::Planes(*workload);
    HdrInfo info = hdrbench::MakeInfo(*workload, planes);
    const GpuGenerateHdrInitOption option{workload->outputWidth, workload->outputHeight, hdrbench::Display(),
                                          false, true};
    if (GpuGenerateHdrInit(option) != GPU_GENERATE_SUCCESS) {
        state.SkipWithError("GpuGenerateHdrInit failed");
        GpuGenerateHdrDestroy();
        return;
    }
    hdrbench::Samples samples;
    uint8_t** mapped = GpuGenerateHdrSetHdrInfo(&info);  // primes the mappings
    if (mapped == nullptr || !StreamingCycle(mapped, info, *workload, planes)) {  // warm-up
        state.SkipWithError("warm-up cycle failed");
    } else {
        for (auto _ : state) {
            samples.Start();
            const bool ok = StreamingCycle(mapped, info, *workload, planes, libraryOnly ? &samples : nullptr);
            samples.Stop();
            samples.Next();
            if (!ok) {
                state.SkipWithError("streaming cycle failed");
                break;
            }
        }
        hdrbench::SetPictureCounters(state, *workload, samples);
        if (!PictureLooksReal(*workload)) {
            state.SkipWithError("the output surface does not hold the picture");
        }
    }
    GpuGenerateHdrDestroy();
}

void PictureDirectCold(benchmark::State& state, const Workload* workload)
{
    const hdrbench::PlaneSet& planes = hdrbench::Planes(*workload);
    HdrInfo info = hdrbench::MakeInfo(*workload, planes);
    const GpuGenerateHdrInitOption option{workload->outputWidth, workload->outputHeight, hdrbench::Display(),
                                          false, false};
    hdrbench::Samples samples;
    for (auto _ : state) {
        samples.Start();
        const bool ok = GpuGenerateHdrInit(option) == GPU_GENERATE_SUCCESS &&
                        GpuGenerateHdr(&info) == GPU_GENERATE_SUCCESS;
        GpuGenerateHdrDestroy();
        samples.Stop();
        samples.Next();
        if (!ok) {
            state.SkipWithError("init or first picture failed");
            break;
        }
    }
    hdrbench::SetPictureCounters(state, *workload, samples);
}

void Register()
{
    for (const Workload& w : hdrbench::Workloads()) {
        const bool large = w.outputWidth * w.outputHeight > 1920 * 1080;
        benchmark::RegisterBenchmark(hdrbench::Name("picture", "direct", w).c_str(), PictureDirect, &w)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond)
            ->Iterations(large ? 8 : 12);
        benchmark::RegisterBenchmark(hdrbench::Name("picture", "streaming", w).c_str(), PictureStreaming, &w, false)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond)
            ->Iterations(large ? 8 : 12);
        benchmark::RegisterBenchmark(hdrbench::Name("picture", "streaming_library", w).c_str(), PictureStreaming,
                                     &w, true)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond)
            ->Iterations(large ? 8 : 12);
        benchmark::RegisterBenchmark(hdrbench::Name("picture", "direct_cold", w).c_str(), PictureDirectCold, &w)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond)
            ->Iterations(3);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    return hdrbench::Main(argc, argv, Register);
}
