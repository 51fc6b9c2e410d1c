// The render-context registry: one EGL context of the library's own for each
// host thread that initialised it, made current around every public call and
// released afterwards so that the host's binding is restored. The same object
// holds the render path's small texture draw pass.
//
// Lookups are linear over a short array and every one of them logs; the
// registry is expected to hold one record per host thread, rarely more.
// Records are held by value and move when the array grows or shrinks, so
// no pointer to a record is kept across a change of the registry.
//
// Nothing here takes a lock. Creating the singleton, adding and removing
// records and destroying the registry must be serialised by the host; plain
// lookups (findContext, Bind, Unbind, IsInited) only read the registry.
#include "HdrRender.h"

#include "HdrCommon.h"
#include "HdrFullScreenQuad.h"
#include "HdrGpuBackend.h"
#include "TSShaderManager.h"

#include <iterator>
#include <vector>

HdrRender* HdrRender::pInstance = nullptr;

namespace {

// The pass starts from the full-screen quad (HdrFullScreenQuad.h) and
// replaces it with a letter- or pillar-boxed one in UpdateAttribs, fitted
// into a 1920 x 1080 screen. No operation of the library makes the pass's
// vertex buffer, vertex array or index buffer: the pass is a skeleton whose
// Draw issues no GL command, kept so that a host's GpuRender call has a
// well-defined, harmless result. Its program has an empty fragment stage.
//
// Records of the registry are zero-filled when made; threads are told
// apart by their full pthread_t, although logs print only 32 bits of it.

// Thread ids are printed as their low 32 bits.
unsigned LowThreadId(pthread_t id)
{
    return static_cast<unsigned>(static_cast<uint64_t>(id));
}

}  // namespace

HdrRender::HdrRender() : vertices(std::begin(kFullScreenQuad), std::end(kFullScreenQuad)) {}

HdrRender::~HdrRender()
{
    // The draw pass's program goes with its manager.
    delete shaderManager;
    shaderManager = nullptr;

    // GL names go on whatever context is current at this moment.
    if (indexBuffer != 0) {
        glDeleteBuffers(1, &indexBuffer);
    }
    if (vertexBuffer != 0) {
        glDeleteBuffers(1, &vertexBuffer);
    }
    if (vertexArray != 0) {
        glDeleteVertexArrays(1, &vertexArray);
    }
    // Only the destroying thread's context is torn down; records of other
    // threads are dropped with the registry and their contexts left alone.
    HdrContext* record = findContext();
    if (record != ContextsEnd()) {
        DeleteEGLContext(record->egl);
        contexts.erase(contexts.begin() + (record - contexts.data()));
    }
}

HdrRender* HdrRender::GetInstance()
{
    if (pInstance == nullptr) {
        pInstance = new HdrRender();
    }
    return pInstance;
}

void HdrRender::DestroyInstance()
{
    if (pInstance != nullptr) {
        delete pInstance;
        pInstance = nullptr;
    }
}

void HdrRender::SetEGLDisplay(void* display)
{
    eglDisplay = display;
}

// The position findContext answers with when the calling thread has no
// record: one past the last record.
HdrRender::HdrContext* HdrRender::ContextsEnd()
{
    return contexts.data() + contexts.size();
}

bool HdrRender::IsInited()
{
    return findContext() != ContextsEnd();
}

// A thread's record is made here, on the host's display (the one given to
// SetEGLDisplay, else the one current on the thread) and with the surfaces
// current on the thread at this moment, which every later bind reuses.
// A second call on the same thread appends a second record; lookups keep
// finding the first. The library's context is never shared with another
// context: each thread's GL objects belong to that thread alone, and the
// generator's objects to the thread that initialised it.
int HdrRender::InitContext()
{
    HDR_LOG("HdrRender::InitContext start");
    HdrContext record{};
    record.threadId = pthread_self();
    HDR_LOG("Current thread id: %u", LowThreadId(record.threadId));

    if (eglDisplay == nullptr) {
        eglDisplay = eglGetCurrentDisplay();
    }
    if (eglDisplay == nullptr) {
        // Nothing is recorded and initialised keeps its value.
        HDR_LOG("%d ERROR: Failed to get current EGL display.\n", __LINE__);
        return GPU_GENERATE_ERROR_NO_DISPLAY;
    }

    EGLSurface readSurface = eglGetCurrentSurface(EGL_READ);
    EGLSurface drawSurface = eglGetCurrentSurface(EGL_DRAW);
    // A failed description answers success without a record: the next Bind on this thread fails.
    if (SetEGLInfo(record.egl, eglDisplay, drawSurface, readSurface, nullptr)) {
        if (CreateEGLContext(record.egl)) {
            contexts.push_back(record);
            HDR_LOG("Successfully initialized a EGL context (%zd).\n", contexts.size());
        } else {
            // Nothing is appended; a display found above stays stored
            // for the next attempt.
            HDR_LOG("%d ERROR: Fail to create EGL context.\n", __LINE__);
            return GPU_GENERATE_ERROR_CREATE_CONTEXT;
        }
    }

    initialised = true;
    HDR_LOG("HdrRender::InitContext end");
    return GPU_GENERATE_SUCCESS;
}

HdrRender::HdrContext* HdrRender::findContext()
{
    const pthread_t self = pthread_self();
    // The first record of the calling thread wins; a miss lists every
    // registered thread so that the log shows who holds contexts.
    HDR_LOG("HdrRender::findContext start");
    for (HdrContext& record : contexts) {
        // Full-width comparison, although the log prints only the low
        // 32 bits of an id.
        if (pthread_equal(record.threadId, self)) {
            HDR_LOG("HdrRender::findContext end");
            return &record;
        }
    }

    HDR_LOG("Failed to find a valid context. Current thread id: %u\n", LowThreadId(self));
    // One line for each registered thread.
    for (const HdrContext& record : contexts) {
        HDR_LOG("\tbuffer thread id: %u\n", LowThreadId(record.threadId));
    }

    HDR_LOG("%d ERROR: Fail to find EGL context.\n", __LINE__);
    return ContextsEnd();
}

bool HdrRender::Bind()
{
    HDR_LOG("HdrRender::Bind start");
    HdrContext* record = findContext();
    if (record != ContextsEnd()) {
        // The end line comes before the EGL call, whose result is
        // returned unchanged.
        HDR_LOG("HdrRender::Bind end");
        return BindEGLContext(record->egl);
    }

    HDR_LOG("%d ERROR: Fail to bind egl context.\n", __LINE__);
    return false;
}

bool HdrRender::Unbind()
{
    HDR_LOG("HdrRender::Unbind start");
    HdrContext* record = findContext();
    if (record != ContextsEnd()) {
        // As in Bind: the end line first, then the EGL call, whose
        // result is returned unchanged.
        HDR_LOG("HdrRender::Unbind end");
        return UnbindEGLContext(record->egl);
    }

    HDR_LOG("%d ERROR: Fail to Unbind EGL context.\n", __LINE__);
    return false;
}

// The render path's texture pass. Its program is built on demand by
// SetupShaders; the fragment stage is deliberately empty, so the pass has
// nothing to show and Draw issues no GL command.
namespace {

const char* const kTextureVertexShader =
    "#version 300 es\n"
    "precision highp float;\n"
    "in vec3 aPosition;\n"
    "in vec2 aTexcoord;\n"
    "out vec2 vTexcoord;\n"
    "void main()\n"
    "{\n"
    "\tvTexcoord = aTexcoord;\n"
    "\tgl_Position = vec4(aPosition, 1.0);\n"
    "}\n";

const char* const kTextureFragmentShader =
    "#version 300 es\n"
    "precision highp float;\n"
    "out vec4 fragColor;\n"
    "uniform mediump sampler2D u_Sampler;\n"
    "in vec2 vTexcoord;\n"
    "void main()\n"
    "{\n"
    "\n"
    "}\n";

}  // namespace

// Builds the pass's program (once a manager exists it is reused) and
// records where its attributes and sampler live.
bool HdrRender::SetupShaders()
{
    if (shaderManager == nullptr) {
        shaderManager = new Tessara::TSShaderManager();
    }
    shaderManager->CreateProgram(kTextureVertexShader, kTextureFragmentShader);
    if (shaderManager->GetProgram() == 0) {
        return false;
    }
    shaderManager->AddAttribute(0, "aPosition");
    shaderManager->AddAttribute(1, "aTexcoord");
    shaderManager->AddUniform(0, "u_Sampler");
    attributeLocations["POSITION"] = shaderManager->GetAttribute(0);
    attributeLocations["TEXCOORD_0"] = shaderManager->GetAttribute(1);
    uniformLocations["u_Sampler"] = shaderManager->GetUniform(0);
    return true;
}

int HdrRender::Draw()
{
    return GPU_GENERATE_SUCCESS;
}

// The first bind after a context was made, with a GL error check on it,
// then the unbind; each failure has its own result.
int HdrRender::Init()
{
    HDR_LOG("HdrRender::Init start");

    // Runs on the host's thread, which must not call into the registry from
    // another thread at the same time: the record is appended without a
    // lock. Each step below leaves what it made in place when a later step
    // fails; the public initialisation tears the registry down for the
    // failures of InitContext and keeps it for the others, so that the
    // host can still see and release the thread's context.
    //
    // Creates the calling thread's record and its context. Its own codes
    // pass through unchanged:
    //   2  no display was given and none is current on the thread;
    //   4  the driver refused the context.
    // It answers 0 as well when the thread's EGL description could not be
    // made (an image entry point is missing); no record exists then, and
    // the bind below is what reports it.
    const int result = InitContext();
    if (result != GPU_GENERATE_SUCCESS) {
        return result;
    }

    // The new context must be usable with the surfaces that were current
    // when it was made. This fails when the thread has no record, or when
    // eglMakeCurrent refuses those surfaces with the library's config; the
    // record stays registered either way, so the host sees the thread as
    // initialised and can still tear it down.
    if (!Bind()) {
        return GPU_GENERATE_ERROR_FIRST_BIND;
    }

    // An error already pending on the fresh context means the driver is
    // not in a state to be trusted. It is reported with the context left
    // bound, as it was found, and the record kept.
    if (!GL_error_check()) {
        return GPU_GENERATE_ERROR_GL;
    }

    // Putting the host's own binding back is part of every call into the
    // library; failing it here is reported as its own result, with the
    // library's context possibly still current on the thread.
    if (!Unbind()) {
        return GPU_GENERATE_ERROR_INIT_UNBIND;
    }

    // The thread now has a context of its own that Bind and Unbind switch
    // to and from, and the host's binding is as it was before the call.
    // Nothing is bound now.
    HDR_LOG("HdrRender::Init end");
    return GPU_GENERATE_SUCCESS;
}

int HdrRender::Terminate()
{
    HdrContext* record = findContext();
    if (record == ContextsEnd()) {
        return GPU_GENERATE_ERROR_NO_CONTEXT;
    }
    DeleteEGLContext(record->egl);
    // Later records move down by one; their order is kept.
    contexts.erase(contexts.begin() + (record - contexts.data()));
    HDR_LOG("Successfully terminated a EGL context (%zd).\n", contexts.size());
    return GPU_GENERATE_SUCCESS;
}

void HdrRender::UpdateAttribs()
{
    glUseProgram(shaderManager->GetProgram());
    const float w = static_cast<float>(pictureWidth);
    const float h = static_cast<float>(pictureHeight);

    // Letter- or pillar-box the picture into a 1920 x 1080 screen.
    const float heightIfFullWidth = 1920.0f / w * h;
    const float widthIfFullHeight = 1080.0f / h * w;
    float left = -1.0f;
    float right = 1.0f;
    float bottom = -1.0f;
    float top = 1.0f;
    if (heightIfFullWidth >= 1080.0f) {
        const float sx = widthIfFullHeight / 1920.0f;
        left = -sx;
        right = sx;
    } else if (widthIfFullHeight >= 1920.0f) {
        const float sy = heightIfFullWidth / 1080.0f;
        bottom = -sy;
        top = sy;
    }

    vertices = {left,  top,    0.0f, 0.0f, 1.0f, left,  bottom, 0.0f, 0.0f, 0.0f,
                right, bottom, 0.0f, 1.0f, 0.0f, left,  top,    0.0f, 0.0f, 1.0f,
                right, bottom, 0.0f, 1.0f, 0.0f, right, top,    0.0f, 1.0f, 1.0f};
    glBindBuffer(GL_ARRAY_BUFFER, vertexBuffer);
    glBufferData(GL_ARRAY_BUFFER, static_cast<GLsizeiptr>(vertices.size() * sizeof(float)), vertices.data(),
                 GL_STATIC_DRAW);
}
