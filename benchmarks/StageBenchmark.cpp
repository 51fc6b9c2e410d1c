// One picture, stage by stage, each stage timed on its own (the engine's
// internals, on the library's own context):
//
//   stage/upload_direct/<w>     HdrGenerate::UpdateTextures in the direct mode:
//                               six glTexImage2D of the host's planes and the
//                               APL (mean of the main luma) on the CPU, then
//                               glFinish so that no deferred upload work is
//                               left for the next stage;
//   stage/upload_direct_fresh/<w>
//                               the same into new textures without storage,
//                               as for a first picture: llvmpipe allocates
//                               and clears each texture before the copy;
//   stage/reserve/<w>           HdrGenerate::ReserveTextures: storage of the
//                               workload's sizes on six new textures, then
//                               glFinish (the work a host moves out of the
//                               way, e.g. beside its decoder);
//   stage/upload_direct_reserved/<w>
//                               the upload into storage reserved for it
//                               (untimed, anew before each iteration): the
//                               copies and the APL only;
//   stage/upload_streaming/<w>  the streaming mode's six UpdateDataBegin /
//                               memcpy into the mapped buffer / UpdateDataEnd
//                               (the fence wait, the unmap, the copy from the
//                               buffer into the texture, the APL), then the
//                               library's context bound once more for a
//                               glFinish (one extra bind/unbind pair) so the
//                               copies are complete; the metadata intake that
//                               maps the buffers again is outside the timing;
//   stage/intake_streaming/<w>  GpuGenerateHdrSetHdrInfo in the streaming mode:
//                               settings read, a new output surface and its
//                               texture storage and framebuffer, the six
//                               upload buffers re-specified and mapped (the
//                               planes are streamed between iterations,
//                               untimed, as in a real cycle);
//   stage/settings/<w>          HdrGenerate::LoadSettings (the factory tuning
//                               from the system information);
//   stage/constants/<w>         HdrGenerate::UpdateUniform: the display boost,
//                               weight, curves and the glUniform calls;
//   stage/draw/<w>              the GL work of a one-pass draw without the
//                               copy: bind the engine's framebuffer, clear,
//                               viewport, vertex array, glDrawElements,
//                               glFinish, with the registered program;
//   stage/copy/<w>              the one-pass copy: readback of the whole
//                               picture into the tbm surface and the RA24
//                               byte reorder;
//   stage/draw_into_surface/<w> HdrGenerate::Draw as the library runs it: the
//                               constants, the picture's specialised program,
//                               and the draw and copy band by band (about
//                               2 MiB a band);
//   stage/draw_into_surface_one_pass/<w>
//                               the same with the whole output as one band.
//
// The stages but the banded one build the engine with one-pass surface-copy
// images, so that its framebuffer covers the whole output.
//
// Every stage runs once untimed first (the driver compiles its shader
// variants and touches new storage on first use).
#include "BenchSupport.h"
#include "EngineSession.h"
#include "HdrGenerate.h"
#include "HdrRender.h"
#include "TSShaderManager.h"

#include <GLES3/gl3.h>
#include <benchmark/benchmark.h>

#include <cstring>
#include <functional>
#include <memory>

namespace {

using hdrbench::EngineSession;
using hdrbench::Workload;

// A direct-mode engine with the workload's planes uploaded and the
// gain-map program in use; the library's context stays bound.
class DirectStage {
public:
    explicit DirectStage(const Workload& workload,
                         std::unique_ptr<const OutputImages> images = EngineSession::OnePass())
        : workload_(workload), planes_(hdrbench::Planes(workload)), session_(workload, false, std::move(images))
    {
        info_ = hdrbench::MakeInfo(workload, planes_);
        if (!session_.ok() || !session_.Bind()) {
            return;
        }
        HdrGenerate* engine = EngineSession::engine();
        engine->LoadSettings();
        ok_ = engine->setHdrInfo(&info_) != nullptr;
        const GLuint program = engine->shaderManager != nullptr ? engine->shaderManager->GetProgram() : 0;
        ok_ = ok_ && program != 0;
        glUseProgram(program);
        ok_ = ok_ && engine->UpdateUniform() == GPU_GENERATE_SUCCESS;
        glFinish();
    }

    bool ok() const { return ok_; }
    const Workload& workload() const { return workload_; }

    // The draw as HdrGenerate::Draw issues it, up to its glFinish.
    void DrawToFinish() const
    {
        HdrGenerate* engine = EngineSession::engine();
        glBindFramebuffer(GL_FRAMEBUFFER, engine->framebuffer);
        glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        glViewport(0, 0, engine->hdrInfo.outputWidth, engine->hdrInfo.outputHeight);
        glBindVertexArray(engine->vertexArray);
        glDrawElements(GL_TRIANGLES, 6, GL_UNSIGNED_INT, nullptr);
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
        glFinish();
    }

private:
    const Workload& workload_;
    const hdrbench::PlaneSet& planes_;
    HdrInfo info_{};
    EngineSession session_;
    bool ok_ = false;
};

// Runs body once untimed, then in the timing loop; body answers false on failure.
void Run(benchmark::State& state, const Workload& workload, const std::function<bool()>& body)
{
    if (!body()) {
        state.SkipWithError("warm-up failed");
        return;
    }
    hdrbench::Samples samples;
    for (auto _ : state) {
        samples.Start();
        const bool ok = body();
        samples.Stop();
        samples.Next();
        if (!ok) {
            state.SkipWithError("stage failed");
            break;
        }
    }
    hdrbench::SetPictureCounters(state, workload, samples);
}

void UploadDirect(benchmark::State& state, const Workload* workload)
{
    DirectStage stage(*workload);
    if (!stage.ok()) {
        state.SkipWithError("engine set-up failed");
        return;
    }
    Run(state, *workload, [] {
        const int result = EngineSession::engine()->UpdateTextures();
        glFinish();
        return result == GPU_GENERATE_SUCCESS;
    });
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * workload->InputBytes());
}

// Runs prepare untimed and then body timed, once as a warm-up and then in
// the timing loop; either answers false on failure.
void RunPrepared(benchmark::State& state, const Workload& workload, const std::function<bool()>& prepare,
                 const std::function<bool()>& body)
{
    if (!prepare() || !body()) {
        state.SkipWithError("warm-up failed");
        return;
    }
    hdrbench::Samples samples;
    for (auto _ : state) {
        state.PauseTiming();
        const bool prepared = prepare();
        glFinish();
        state.ResumeTiming();
        samples.Start();
        const bool ok = prepared && body();
        samples.Stop();
        samples.Next();
        if (!ok) {
            state.SkipWithError("stage failed");
            break;
        }
    }
    hdrbench::SetPictureCounters(state, workload, samples);
}

// Storage for the workload's planes, or (other) for planes of another size.
bool ReserveFor(const Workload& workload, bool other)
{
    const int32_t sizes[4] = {workload.mainWidth + (other ? 1 : 0), workload.mainHeight, workload.gainWidth,
                              workload.gainHeight};
    return EngineSession::engine()->ReserveTextures(sizes) == GPU_GENERATE_SUCCESS;
}

bool UploadToFinish()
{
    const int result = EngineSession::engine()->UpdateTextures();
    glFinish();
    return result == GPU_GENERATE_SUCCESS;
}

// The direct upload after a reservation, untimed, for the workload's sizes
// or for others (which the upload drops: new textures without storage).
void UploadDirectAfterReserving(benchmark::State& state, const Workload& workload, bool otherSizes)
{
    DirectStage stage(workload);
    if (!stage.ok()) {
        state.SkipWithError("engine set-up failed");
        return;
    }
    RunPrepared(
        state, workload, [&workload, otherSizes] { return ReserveFor(workload, otherSizes); }, UploadToFinish);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * workload.InputBytes());
}

void UploadDirectFresh(benchmark::State& state, const Workload* workload)
{
    UploadDirectAfterReserving(state, *workload, true);
}

void Reserve(benchmark::State& state, const Workload* workload)
{
    DirectStage stage(*workload);
    if (!stage.ok()) {
        state.SkipWithError("engine set-up failed");
        return;
    }
    Run(state, *workload, [workload] {
        const bool ok = ReserveFor(*workload, false);
        glFinish();
        return ok;
    });
}

void UploadDirectReserved(benchmark::State& state, const Workload* workload)
{
    UploadDirectAfterReserving(state, *workload, false);
}

void Settings(benchmark::State& state, const Workload* workload)
{
    DirectStage stage(*workload);
    if (!stage.ok()) {
        state.SkipWithError("engine set-up failed");
        return;
    }
    // Without tuning values in the system information the read fails and the
    // defaults stay: the same path a set without factory data takes.
    Run(state, *workload, [] {
        EngineSession::engine()->LoadSettings();
        return true;
    });
}

void Constants(benchmark::State& state, const Workload* workload)
{
    DirectStage stage(*workload);
    if (!stage.ok()) {
        state.SkipWithError("engine set-up failed");
        return;
    }
    Run(state, *workload, [] { return EngineSession::engine()->UpdateUniform() == GPU_GENERATE_SUCCESS; });
}

void Draw(benchmark::State& state, const Workload* workload)
{
    DirectStage stage(*workload);
    if (!stage.ok()) {
        state.SkipWithError("engine set-up failed");
        return;
    }
    Run(state, *workload, [&stage] {
        stage.DrawToFinish();
        return glGetError() == GL_NO_ERROR;
    });
}

void Copy(benchmark::State& state, const Workload* workload)
{
    DirectStage stage(*workload);
    if (!stage.ok()) {
        state.SkipWithError("engine set-up failed");
        return;
    }
    stage.DrawToFinish();
    Run(state, *workload, [] {
        HdrGenerate* engine = EngineSession::engine();
        return engine->outputImages->StoreBand(engine->eglImage, engine->framebuffer, 0);
    });
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * workload->OutputBytes());
}

void DrawWithImages(benchmark::State& state, const Workload* workload, std::unique_ptr<const OutputImages> images)
{
    DirectStage stage(*workload, std::move(images));
    if (!stage.ok()) {
        state.SkipWithError("engine set-up failed");
        return;
    }
    Run(state, *workload, [] { return EngineSession::engine()->Draw() == GPU_GENERATE_SUCCESS; });
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * workload->OutputBytes());
}

void DrawIntoSurface(benchmark::State& state, const Workload* workload)
{
    DrawWithImages(state, workload, MakeBuildOutputImages());
}

void DrawIntoSurfaceOnePass(benchmark::State& state, const Workload* workload)
{
    DrawWithImages(state, workload, EngineSession::OnePass());
}

// Binds the library's context, waits for every queued command, unbinds.
bool FinishOnLibraryContext()
{
    HdrRender* render = HdrRender::GetInstance();
    if (!render->Bind()) {
        return false;
    }
    glFinish();
    return render->Unbind();
}

void UploadStreaming(benchmark::State& state, const Workload* workload)
{
    const hdrbench::PlaneSet& planes = hdrbench::Planes(*workload);
    HdrInfo info = hdrbench::MakeInfo(*workload, planes);
    EngineSession session(*workload, true);
    uint8_t** mapped = session.ok() ? GpuGenerateHdrSetHdrInfo(&info) : nullptr;
    if (mapped == nullptr) {
        state.SkipWithError("engine set-up failed");
        return;
    }
    // Warm-up.
    if (!hdrbench::StreamPlanes(mapped, *workload, planes) || !FinishOnLibraryContext() ||
        (mapped = GpuGenerateHdrSetHdrInfo(&info)) == nullptr) {
        state.SkipWithError("warm-up failed");
        return;
    }
    hdrbench::Samples samples;
    for (auto _ : state) {
        samples.Start();
        const bool streamed = hdrbench::StreamPlanes(mapped, *workload, planes) && FinishOnLibraryContext();
        samples.Stop();
        samples.Next();
        if (!streamed) {
            state.SkipWithError("streaming upload failed");
            break;
        }
        state.PauseTiming();
        mapped = GpuGenerateHdrSetHdrInfo(&info);
        state.ResumeTiming();
        if (mapped == nullptr) {
            state.SkipWithError("metadata intake failed");
            break;
        }
    }
    hdrbench::SetPictureCounters(state, *workload, samples);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * workload->InputBytes());
}

void IntakeStreaming(benchmark::State& state, const Workload* workload)
{
    const hdrbench::PlaneSet& planes = hdrbench::Planes(*workload);
    HdrInfo info = hdrbench::MakeInfo(*workload, planes);
    EngineSession session(*workload, true);
    uint8_t** mapped = session.ok() ? GpuGenerateHdrSetHdrInfo(&info) : nullptr;
    if (mapped == nullptr || !hdrbench::StreamPlanes(mapped, *workload, planes) ||
        (mapped = GpuGenerateHdrSetHdrInfo(&info)) == nullptr) {
        state.SkipWithError("engine set-up failed");
        return;
    }
    hdrbench::Samples samples;
    for (auto _ : state) {
        state.PauseTiming();
        const bool streamed = hdrbench::StreamPlanes(mapped, *workload, planes) && FinishOnLibraryContext();
        state.ResumeTiming();
        if (!streamed) {
            state.SkipWithError("streaming upload failed");
            break;
        }
        samples.Start();
        mapped = GpuGenerateHdrSetHdrInfo(&info);
        samples.Stop();
        samples.Next();
        if (mapped == nullptr) {
            state.SkipWithError("metadata intake failed");
            break;
        }
    }
    hdrbench::SetPictureCounters(state, *workload, samples);
}

void Register()
{
    using Fn = void (*)(benchmark::State&, const Workload*);
    struct Stage {
        const char* name;
        Fn fn;
        int largeIterations;  // 3840 x 2160 output
        int smallIterations;  // 1920 x 1080 output
    };
    const Stage stages[] = {
        {"upload_direct", UploadDirect, 8, 8},
        {"upload_direct_fresh", UploadDirectFresh, 8, 8},
        {"reserve", Reserve, 8, 8},
        {"upload_direct_reserved", UploadDirectReserved, 8, 8},
        {"upload_streaming", UploadStreaming, 8, 8},
        {"intake_streaming", IntakeStreaming, 8, 8},
        {"settings", Settings, 200, 200},
        {"constants", Constants, 200, 200},
        {"draw", Draw, 8, 12},
        {"copy", Copy, 12, 20},
        {"draw_into_surface", DrawIntoSurface, 8, 12},
        {"draw_into_surface_one_pass", DrawIntoSurfaceOnePass, 8, 12},
    };
    for (const Workload& w : hdrbench::Workloads()) {
        const bool large = w.outputWidth * w.outputHeight > 1920 * 1080;
        for (const Stage& s : stages) {
            benchmark::RegisterBenchmark(hdrbench::Name("stage", s.name, w).c_str(), s.fn, &w)
                ->UseRealTime()
                ->Unit(benchmark::kMillisecond)
                ->Iterations(large ? s.largeIterations : s.smallIterations);
        }
    }
}

}  // namespace

int main(int argc, char** argv)
{
    return hdrbench::Main(argc, argv, Register);
}
