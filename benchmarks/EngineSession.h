// The engine set up through the public interface, with the library's own
// context bound on request so that a benchmark can call the engine's
// internals (HdrGenerate) directly, one stage at a time.
#ifndef HDRGPU_BENCH_ENGINE_SESSION_H
#define HDRGPU_BENCH_ENGINE_SESSION_H

#include "BenchSupport.h"
#include "HdrGenerate.h"
#include "HdrOutputImages.h"
#include "HdrRender.h"

#include <HdrGpuBackend.h>

#include <memory>

namespace hdrbench {

class EngineSession {
public:
    // The direct mode renders at the workload's output size; the streaming
    // mode takes it from the first metadata intake. images, when given, is
    // the kind of output image the engine is built with (else this build's).
    EngineSession(const Workload& workload, bool streaming, std::unique_ptr<const OutputImages> images = nullptr)
    {
        if (images != nullptr && HdrGenerate::CreateInstance(std::move(images)) == nullptr) {
            return;
        }
        const GpuGenerateHdrInitOption option{workload.outputWidth, workload.outputHeight, Display(), false,
                                              streaming};
        ok_ = GpuGenerateHdrInit(option) == GPU_GENERATE_SUCCESS;
    }

    // Surface-copy images drawn in one pass: the engine's framebuffer then
    // covers the whole output, for benchmarks that draw into it themselves.
    static std::unique_ptr<const OutputImages> OnePass()
    {
        return std::make_unique<SurfaceCopyImages>(SurfaceCopyImages::kWholeSurface);
    }
    ~EngineSession()
    {
        if (bound_) {
            Unbind();
        }
        GpuGenerateHdrDestroy();
    }
    EngineSession(const EngineSession&) = delete;
    EngineSession& operator=(const EngineSession&) = delete;

    bool ok() const { return ok_; }

    // Makes the library's context current on this thread (as every entry
    // point does around its work).
    bool Bind()
    {
        bound_ = HdrRender::GetInstance()->Bind();
        return bound_;
    }
    bool Unbind()
    {
        bound_ = false;
        return HdrRender::GetInstance()->Unbind();
    }

    static HdrGenerate* engine() { return HdrGenerate::GetInstance(); }

private:
    bool ok_ = false;
    bool bound_ = false;
};

}  // namespace hdrbench

#endif
