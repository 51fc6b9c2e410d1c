// The machine's own limits for each workload, to set the stage times
// against:
//
//   limit/passthrough/<w>  a pass-through program of our own (GLSL ES 3.00)
//                          that samples the six plane textures the engine
//                          uploaded (same textures, sizes, GL_LINEAR
//                          filtering and texture units) at the fragment's
//                          texture coordinate and writes
//                              fragColor = vec4(mainY, mainU + gainU,
//                                               mainV + gainV, gainY);
//                          the two additions are the only arithmetic and keep
//                          all six fetches alive (a shader that dropped gainU
//                          and gainV would let the compiler drop their
//                          fetches). Drawn into the engine's own output
//                          framebuffer at the workload's output size, with
//                          the same clear, viewport and glFinish as the
//                          draw stage: the least any one-pass program over
//                          these planes can cost on this driver;
//   limit/passthrough_four/<w>  the same with the four planes that a
//                          single-channel gain map's program reads (main Y,
//                          U, V and gain-map Y):
//                              fragColor = vec4(mainY, mainU, mainV, gainY);
//   limit/raster/<w>       the same with no plane at all (the texture
//                          coordinate written out): rasterising and writing
//                          the output, what no program can go below;
//   limit/memcpy/<w>       one single-threaded memcpy of the bytes a picture
//                          moves, defined as the six input planes' bytes
//                          plus the RGBA8 output surface's bytes (w x h x 4),
//                          between two buffers of that size that were
//                          touched beforehand: the least a CPU copy of the
//                          picture's data costs on this machine.
#include "BenchSupport.h"
#include "EngineSession.h"
#include "HdrGenerate.h"
#include "PassThroughProgram.h"

#include <GLES3/gl3.h>
#include <benchmark/benchmark.h>

#include <cstring>
#include <iostream>
#include <utility>
#include <vector>

namespace {

using hdrbench::EngineSession;
using hdrbench::Workload;

void PassThroughDraw(benchmark::State& state, const Workload* workload, const char* fragmentShader)
{
    const hdrbench::PlaneSet& planes = hdrbench::Planes(*workload);
    HdrInfo info = hdrbench::MakeInfo(*workload, planes);
    EngineSession session(*workload, false, EngineSession::OnePass());  // its framebuffer covers the output
    if (!session.ok() || !session.Bind()) {
        state.SkipWithError("engine set-up failed");
        return;
    }
    HdrGenerate* engine = EngineSession::engine();
    if (engine->setHdrInfo(&info) == nullptr) {  // uploads the six planes
        state.SkipWithError("upload failed");
        return;
    }
    {
        hdrbench::PassThrough pass(fragmentShader);
        if (!pass.ok()) {
            state.SkipWithError("pass-through program failed");
        } else {
            pass.DrawToFinish(engine->framebuffer, workload->outputWidth, workload->outputHeight);  // warm-up
            hdrbench::Samples samples;
            for (auto _ : state) {
                samples.Start();
                pass.DrawToFinish(engine->framebuffer, workload->outputWidth, workload->outputHeight);
                samples.Stop();
                samples.Next();
            }
            if (glGetError() != GL_NO_ERROR) {
                state.SkipWithError("GL error");
            }
            hdrbench::SetPictureCounters(state, *workload, samples);
        }
    }
}

void Memcpy(benchmark::State& state, const Workload* workload)
{
    const size_t bytes = static_cast<size_t>(workload->MovedBytes());
    std::vector<uint8_t> source(bytes, 0x5A);
    std::vector<uint8_t> destination(bytes, 0);
    std::memcpy(destination.data(), source.data(), bytes);  // warm-up
    hdrbench::Samples samples;
    for (auto _ : state) {
        samples.Start();
        std::memcpy(destination.data(), source.data(), bytes);
        benchmark::DoNotOptimize(destination.data());
        benchmark::ClobberMemory();
        samples.Stop();
        samples.Next();
    }
    hdrbench::SetPictureCounters(state, *workload, samples);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes));
    state.counters["bytes"] = static_cast<double>(bytes);
}

void Register()
{
    for (const Workload& w : hdrbench::Workloads()) {
        const bool large = w.outputWidth * w.outputHeight > 1920 * 1080;
        const std::pair<const char*, const char*> programs[] = {
            {"passthrough", hdrbench::kPassFragmentShader},
            {"passthrough_four", hdrbench::kPassFourPlanesFragmentShader},
            {"raster", hdrbench::kRasterOnlyFragmentShader},
        };
        for (const auto& [name, source] : programs) {
            benchmark::RegisterBenchmark(hdrbench::Name("limit", name, w).c_str(), PassThroughDraw, &w, source)
                ->UseRealTime()
                ->Unit(benchmark::kMillisecond)
                ->Iterations(large ? 8 : 12);
        }
        benchmark::RegisterBenchmark(hdrbench::Name("limit", "memcpy", w).c_str(), Memcpy, &w)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond)
            ->Iterations(20);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    return hdrbench::Main(argc, argv, Register);
}
