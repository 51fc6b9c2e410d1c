// The copy of a finished picture into the output surface on drivers that
// cannot render into it directly (llvmpipe here): a glReadPixels straight
// into the surface's memory, then, for the RA24 format, the reversal of each
// pixel's four bytes.
//
//   BM_CopyOutputToSurface   the engine's copy of a whole picture (one
//                            band) into its RA24 surface: readback plus
//                            byte reorder;
//   BM_CopyIntoAbgrSurface   the same copy into an AB24 surface, whose byte
//                            order is GL's: readback alone.
// The difference of the two is the cost of the reorder pass.
#include "HdrContext.h"
#include "HdrGenerate.h"
#include "HdrOutputImages.h"
#include "HdrRender.h"

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GLES3/gl3.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <tbm_surface.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <memory>

#if __has_include(<dlog_standin.h>)
#include <dlog_standin.h>
#define HAVE_DLOG_STANDIN 1
#endif

namespace {

EGLDisplay display = EGL_NO_DISPLAY;

// The library prints every progress line; keeps them out of the report
// while an engine is set up or torn down.
class QuietStdout {
public:
    QuietStdout()
    {
        std::cout.flush();
        std::fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        const int null = open("/dev/null", O_WRONLY);
        if (null >= 0) {
            dup2(null, STDOUT_FILENO);
            close(null);
        }
    }
    ~QuietStdout()
    {
        std::fflush(stdout);
        if (saved_ >= 0) {
            dup2(saved_, STDOUT_FILENO);
            close(saved_);
        }
    }
    QuietStdout(const QuietStdout&) = delete;
    QuietStdout& operator=(const QuietStdout&) = delete;

private:
    int saved_ = -1;
};

// The calling thread's render context, bound for the object's lifetime, and
// the generator in the direct mode with a width x height output surface.
class Engine {
public:
    Engine(int width, int height)
    {
        QuietStdout quiet;
        HdrRender* render = HdrRender::GetInstance();
        render->SetEGLDisplay(display);
        if (render->Init() != 0 || !render->Bind()) {
            return;
        }
        bound_ = true;
        HdrGenerate* engine =
            HdrGenerate::CreateInstance(std::make_unique<SurfaceCopyImages>(SurfaceCopyImages::kWholeSurface));
        if (engine == nullptr) {
            return;
        }
        engine->initOption = GpuGenerateHdrInitOption{width, height, display, false, false};
        engine->outputYUV = false;
        engine->hdrInfo.outputWidth = width;
        engine->hdrInfo.outputHeight = height;
        ok_ = engine->Init() == 0;
    }
    ~Engine()
    {
        QuietStdout quiet;
        HdrGenerate::DestroyInstance();
        if (bound_) {
            HdrRender::GetInstance()->Unbind();
        }
        HdrRender::DestroyInstance();
    }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    bool ok() const { return ok_; }
    EGLInfo& egl() { return HdrRender::GetInstance()->findContext()->egl; }

private:
    bool bound_ = false;
    bool ok_ = false;
};

// Something other than the initial contents to read back.
void Paint(GLuint framebuffer)
{
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glClearColor(0.25f, 0.5f, 0.75f, 1.0f);
    glClear(GL_COLOR_BUFFER_BIT);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    glFinish();
}

void BM_CopyOutputToSurface(benchmark::State& state)
{
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    Engine engine(width, height);
    if (!engine.ok()) {
        state.SkipWithError("engine set-up failed");
        return;
    }
    HdrGenerate* generator = HdrGenerate::GetInstance();
    Paint(generator->framebuffer);
    for (auto _ : state) {
        if (!generator->outputImages->StoreBand(generator->eglImage, generator->framebuffer, 0)) {
            state.SkipWithError("copy failed");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * width * height * 4);
}

void BM_CopyIntoAbgrSurface(benchmark::State& state)
{
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    Engine engine(width, height);
    if (!engine.ok()) {
        state.SkipWithError("engine set-up failed");
        return;
    }
    tbm_surface_h surface = tbm_surface_create(width, height, TBM_FORMAT_ABGR8888);
    const SurfaceCopyImages copy(SurfaceCopyImages::kWholeSurface);
    GLuint texture = 0;
    GLuint framebuffer = 0;
    void* image = nullptr;
    {
        QuietStdout quiet;
        image = surface != nullptr ? CreateImageKHR(copy, engine.egl(), surface, nullptr) : nullptr;
        glGenTextures(1, &texture);
        glBindTexture(GL_TEXTURE_2D, texture);
        TargetTextureKHR(copy, engine.egl(), image);
        glBindTexture(GL_TEXTURE_2D, 0);
    }
    glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0);
    const bool complete = glCheckFramebufferStatus(GL_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE;
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    if (image == nullptr || !complete) {
        state.SkipWithError("AB24 target set-up failed");
    } else {
        Paint(framebuffer);
        for (auto _ : state) {
            if (!copy.StoreBand(image, framebuffer, 0)) {
                state.SkipWithError("copy failed");
                break;
            }
        }
        state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * width * height * 4);
    }
    QuietStdout quiet;
    glDeleteFramebuffers(1, &framebuffer);
    glDeleteTextures(1, &texture);
    DestroyImageKHR(copy, engine.egl(), image);
    tbm_surface_destroy(surface);
}

void Sizes(benchmark::internal::Benchmark* b)
{
    b->ArgNames({"width", "height"});
    b->Args({1920, 1080});
    b->Args({3840, 2160});
    b->Unit(benchmark::kMillisecond);
    b->UseRealTime();  // llvmpipe renders and converts on threads of its own
}

BENCHMARK(BM_CopyOutputToSurface)->Apply(Sizes);
BENCHMARK(BM_CopyIntoAbgrSurface)->Apply(Sizes);

#ifdef HAVE_DLOG_STANDIN
void DiscardLogLine(void*, log_id_t, int, const char*, const char*) {}
#endif

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
#ifdef HAVE_DLOG_STANDIN
    dlog_standin_set_sink(DiscardLogLine, nullptr);  // keep the system log quiet
#endif
    display = eglGetPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
    EGLint major = 0;
    EGLint minor = 0;
    if (display == EGL_NO_DISPLAY || eglInitialize(display, &major, &minor) != EGL_TRUE) {
        std::cerr << "no EGL display: Mesa's surfaceless platform could not be initialised\n";
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    eglTerminate(display);
    return 0;
}
