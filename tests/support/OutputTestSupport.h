// What the output-target tests share: the calling thread's render context
// made as the public calls make it, stand-ins for the driver's three
// EGL-image entry points, and the message helpers.
#ifndef HDRGPU_TEST_OUTPUT_TEST_SUPPORT_H
#define HDRGPU_TEST_OUTPUT_TEST_SUPPORT_H

#include "EglTestEnv.h"
#include "Faults.h"
#include "HdrContext.h"
#include "HdrGenerate.h"
#include "HdrOutputImages.h"
#include "HdrRender.h"
#include "LogCapture.h"

#include <GLES3/gl31.h>
#include <gtest/gtest.h>
#include <tbm_surface.h>
#include <tbm_surface_standin.h>

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace hdrtest {

inline constexpr char kSurfaceMessage[] = "Create new tbm surface {%d x %d} >>>>>>>>>>>>>>>>>>>>>>>>>";
inline constexpr char kPboSurfaceMessage[] = "Create new tbm surface PBO {%d x %d} >>>>>>>>>>>>>>>>>>>>>>>>>";
inline constexpr char kAttachSuccess[] = "glEGLImageTargetTexture2DOES success >>>>>>>>>>";
inline constexpr char kCreateBadParameter[] =
    "%d ERROR: EGL_BAD_PARAMETER: Invalid target parameter or attribute in attrib_list\n";

// The "%d" of the message at index is the line in that message's own prefix.
std::string WithLine(const LogCapture& capture, size_t index, const char* fmt);

// Each message followed by the separately printed line break.
std::string AsStdout(const std::vector<std::string>& messages);

bool Contains(const std::vector<std::string>& messages, const std::string& message);

// A surface as the 32-bit handle the narrow entry point takes.
int Handle(tbm_surface_h surface);

// Stand-ins for the three EGL-image entry points of an EGLInfo, recording
// how they were called. Images are distinct tokens, counted while alive.
struct FakeImageProcs {
    static inline int creates = 0;
    static inline int destroys = 0;
    static inline int targets = 0;
    static inline EGLDisplay display = nullptr;
    static inline EGLContext context = nullptr;
    static inline EGLenum target = 0;
    static inline EGLClientBuffer buffer = nullptr;
    static inline const EGLint* attribs = nullptr;
    static inline GLenum textureTarget = 0;
    static inline void* attached = nullptr;
    static inline std::set<void*> live;
    static inline bool giveStorage = false;  // the attach gives the bound texture 4 x 4 RGBA8 storage

    static void Clear();
    static void Install(EGLInfo& info);
};

// The calling thread's render context, made and bound as the public calls
// do it, with the generator available for the engine's own steps.
class OutputTest : public EglTest {
protected:
    void SetUp() override;
    void TearDown() override;

    // A surface owned by the test, destroyed in TearDown unless released.
    tbm_surface_h Surface(int width, int height, tbm_format format = TBM_FORMAT_RGBA8888);

    // A texture bound to GL_TEXTURE_2D on unit 0, owned by the test.
    GLuint BoundTexture();

    // The generator with an output texture and the option record's sizes,
    // not yet initialised; built with images when given, else with this
    // build's kind of output image.
    HdrGenerate* Engine(int width, int height, bool streaming = false,
                        std::unique_ptr<const OutputImages> images = nullptr);

    EGLInfo* info_ = nullptr;
    int liveSurfaces_ = 0;
    std::vector<tbm_surface_h> surfaces_;
};

}  // namespace hdrtest

#endif
