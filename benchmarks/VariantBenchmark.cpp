// The gain-map draw with the registered general program against the
// specialised program of the same picture class, on the same uploaded
// planes, uniforms and framebuffer: what specialising (and sampling a flat
// gain-map chroma once) saves per picture.
//   draw/general/<w>            the registered program
//   draw/variant/<w>            the picture's specialised program, gain U/V sampled
//   draw/variant-flat/<w>       the same with the gain map's flat U/V taken as constants
//                               (only for workloads whose gain chroma is flat)
//   draw/variant-packed/<w>     the same with the gain map's Y, U, V read from the one
//                               RGBA texture the upload packed them into (only for
//                               workloads whose gain map has chroma)
//   draw/variant-log/<w>        the same picture without offsets, whose specialised
//                               program works in logarithms (the gain's chroma
//                               taken as constants where it is flat)
//   draw/variant-cubic/<w>      the variant row's program with the gain curve
//                               evaluated as its two cubic pieces, as every
//                               draw did before a straight-line curve (the
//                               factory one) had programs of its own
//   draw/passthrough/<w>        the pass-through program over the same six planes:
//                               the least a one-pass program costs here
// Besides wall time, each row reports process_cpu_ms: the CPU time of the
// whole process (every llvmpipe thread) per picture, steadier than wall
// time when the machine is shared.
#include "BenchSupport.h"
#include "EngineSession.h"
#include "HdrGainMapVariantPrograms.h"
#include "HdrGenerate.h"
#include "HdrGenerateShaders.h"
#include "PassThroughProgram.h"
#include "TSShaderManager.h"

#include <GLES3/gl3.h>
#include <benchmark/benchmark.h>
#include <sys/resource.h>

namespace {

// CPU time of the whole process (every llvmpipe thread), in ms: steadier
// than wall time on a shared machine.
double ProcessCpuMs()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
}

using hdrbench::EngineSession;
using hdrbench::Workload;

enum class Program { General, Variant, VariantCubic, VariantFlat, VariantLog, VariantPacked, PassThrough };

void DrawToFinish(HdrGenerate* engine, GLuint program, const Workload& w)
{
    glUseProgram(program);
    glBindFramebuffer(GL_FRAMEBUFFER, engine->framebuffer);
    glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    glViewport(0, 0, w.outputWidth, w.outputHeight);
    glBindVertexArray(engine->vertexArray);
    glDrawElements(GL_TRIANGLES, 6, GL_UNSIGNED_INT, nullptr);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    glFinish();
}

void Draw(benchmark::State& state, const Workload* workload, Program which)
{
    const hdrbench::PlaneSet& planes = hdrbench::Planes(*workload);
    HdrInfo info = hdrbench::MakeInfo(*workload, planes);
    if (which == Program::VariantLog) {
        for (int c = 0; c < 3; ++c) {
            info.offsetSdr[c] = 0.0f;
            info.offsetHdr[c] = 0.0f;
        }
    }
    EngineSession session(*workload, false, EngineSession::OnePass());  // its framebuffer covers the output
    if (!session.ok() || !session.Bind()) {
        state.SkipWithError("engine set-up failed");
        return;
    }
    HdrGenerate* engine = EngineSession::engine();
    engine->LoadSettings();
    if (engine->setHdrInfo(&info) == nullptr) {
        state.SkipWithError("upload failed");
        return;
    }
    glUseProgram(engine->shaderManager->GetProgram());
    if (engine->UpdateUniform() != 0) {
        state.SkipWithError("constants failed");
        return;
    }
    GLint noGamma = 0;
    glGetUniformiv(engine->shaderManager->GetProgram(), glGetUniformLocation(engine->shaderManager->GetProgram(), "noGamma"), &noGamma);
    GainMapVariant variant;
    variant.inputCurve = static_cast<int32_t>(info.trfn);
    variant.applyGamma = noGamma != 1;
    variant.outputYuv = engine->outputYUV;
    variant.flatGainChroma = which == Program::VariantFlat || (which == Program::VariantLog && !workload->gainChroma);
    variant.packedGain = which == Program::VariantPacked;
    // As the engine picks it: the tuning's curve decides, unless the row is
    // the cubic one.
    variant.affineGainCurve =
        which != Program::VariantCubic && ReadAffineGainCurve(engine->shaderManager->GetProgram());
    if (variant.packedGain && !engine->packedGain.Current()) {
        state.SkipWithError("the upload packed no gain map");
        return;
    }
    GainMapVariantValues values;
    values.packedGainUnit = static_cast<GLint>(PACKED_GAIN_TEXTURE_UNIT - GL_TEXTURE0);
    FlatGainChromaOffset(128, 128, values.flatChroma);
    if (which == Program::VariantLog) {
        variant.logDomain =
            ReadLogDomainConstants(engine->shaderManager->GetProgram(), variant.inputCurve, values.logCurves);
        if (!variant.logDomain) {
            state.SkipWithError("the picture cannot be drawn in logarithms");
            return;
        }
    }
    GainMapVariantPrograms variants;
    GLuint program = engine->shaderManager->GetProgram();
    hdrbench::PassThrough pass;
    if (which == Program::PassThrough) {
        if (!pass.ok()) {
            state.SkipWithError("pass-through program failed");
            return;
        }
        program = pass.program();
    } else if (which != Program::General) {
        program = variants.Prepare(variant, engine->shaderManager->GetProgram(), kGainMapVertexShader,
                                   engine->shaderManager->GetAttribute(0), engine->shaderManager->GetAttribute(1),
                                   values);
        if (program == 0) {
            state.SkipWithError("variant failed");
            return;
        }
    }
    const auto draw = [&]() {
        if (which == Program::PassThrough) {
            pass.DrawToFinish(engine->framebuffer, workload->outputWidth, workload->outputHeight);
        } else {
            DrawToFinish(engine, program, *workload);
        }
    };
    draw();  // warm-up
    hdrbench::Samples samples;
    const double cpuStart = ProcessCpuMs();
    for (auto _ : state) {
        samples.Start();
        draw();
        samples.Stop();
        samples.Next();
    }
    if (glGetError() != GL_NO_ERROR) {
        state.SkipWithError("GL error");
    }
    const double cpuPerPicture = (ProcessCpuMs() - cpuStart) / static_cast<double>(state.iterations());
    variants.Release();
    hdrbench::SetPictureCounters(state, *workload, samples);
    state.counters["process_cpu_ms"] = cpuPerPicture;
}

void Register()
{
    for (const Workload& w : hdrbench::Workloads()) {
        const int iterations = w.outputWidth * w.outputHeight > 1920 * 1080 ? 6 : 10;
        benchmark::RegisterBenchmark(hdrbench::Name("draw", "general", w).c_str(), Draw, &w, Program::General)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond)
            ->Iterations(iterations);
        benchmark::RegisterBenchmark(hdrbench::Name("draw", "variant", w).c_str(), Draw, &w, Program::Variant)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond)
            ->Iterations(iterations);
        benchmark::RegisterBenchmark(hdrbench::Name("draw", "variant-cubic", w).c_str(), Draw, &w,
                                     Program::VariantCubic)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond)
            ->Iterations(iterations);
        benchmark::RegisterBenchmark(hdrbench::Name("draw", "passthrough", w).c_str(), Draw, &w,
                                     Program::PassThrough)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond)
            ->Iterations(iterations);
        benchmark::RegisterBenchmark(hdrbench::Name("draw", "variant-log", w).c_str(), Draw, &w, Program::VariantLog)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond)
            ->Iterations(iterations);
        if (!w.gainChroma) {
            benchmark::RegisterBenchmark(hdrbench::Name("draw", "variant-flat", w).c_str(), Draw, &w,
                                         Program::VariantFlat)
                ->UseRealTime()
                ->Unit(benchmark::kMillisecond)
                ->Iterations(iterations);
        } else {
            benchmark::RegisterBenchmark(hdrbench::Name("draw", "variant-packed", w).c_str(), Draw, &w,
                                         Program::VariantPacked)
                ->UseRealTime()
                ->Unit(benchmark::kMillisecond)
                ->Iterations(iterations);
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    return hdrbench::Main(argc, argv, Register);
}
