// Process-wide registry of the library's EGL contexts, one per calling
// thread, and the small texture draw pass of the render path.
#ifndef HDR_RENDER_H
#define HDR_RENDER_H

#include "HdrContext.h"

#include <pthread.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Tessara {
class TSShaderManager;
}

class HdrRender {
public:
    struct HdrContext {
        uint64_t reserved;   // zero when made; nothing reads it
        pthread_t threadId;  // the thread that made the record
        EGLInfo egl;
    };

    static HdrRender* GetInstance();
    static void DestroyInstance();

    void SetEGLDisplay(void* display);
    int InitContext();
    // The calling thread's record, or ContextsEnd() when it has none.
    HdrContext* findContext();
    HdrContext* ContextsEnd();
    bool Bind();
    bool Unbind();
    int Init();
    int Terminate();
    bool IsInited();
    // The texture draw pass: builds its program and location maps.
    bool SetupShaders();
    // Fits the generator's output aspect into the 1920 x 1080 screen and
    // uploads the quad (to buffer 0: no operation makes the pass's buffer).
    void UpdateAttribs();
    // Always 0; the pass issues no GL command.
    int Draw();

    std::vector<HdrContext> contexts;
    EGLDisplay eglDisplay = nullptr;
    Tessara::TSShaderManager* shaderManager = nullptr;
    std::map<std::string, int32_t> attributeLocations;
    std::map<std::string, int32_t> uniformLocations;
    uint32_t vertexBuffer = 0;
    uint32_t vertexArray = 0;
    uint32_t indexBuffer = 0;
    std::vector<float> vertices;
    uint32_t indices[6] = {0, 1, 2, 3, 4, 5};
    bool flagA = false;
    bool initialised = false;
    int32_t intA = 0;
    int32_t intB = -1;
    int32_t intC = 0;
    int32_t screenWidth = 1920;
    int32_t screenHeight = 1080;
    // The generated picture's output size, which UpdateAttribs fits into
    // the screen; the entry points hand it over after each metadata intake.
    int32_t pictureWidth = 1920;
    int32_t pictureHeight = 1080;

    static HdrRender* pInstance;

private:
    HdrRender();
    ~HdrRender();
    HdrRender(const HdrRender&) = delete;
    HdrRender& operator=(const HdrRender&) = delete;
};

#endif
