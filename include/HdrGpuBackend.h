// Public interface of the HDR gain-map GPU backend: the records a host fills
// and the result codes the library answers with.
#ifndef HDR_GPU_BACKEND_H
#define HDR_GPU_BACKEND_H

#include <cstddef>
#include <cstdint>

// Colour gamut of the input picture; -1 means "not given".
enum class hdr_color_gamut : int32_t {
    HDR_COLORGAMUT_BT709 = 0,
    HDR_COLORGAMUT_P3 = 1,
    HDR_COLORGAMUT_BT2100 = 2,
};

// Transfer function of the input picture; -1 means "not given".
enum class hdr_transfer_function : int32_t {
    HDR_TF_LINEAR = 0,
    HDR_TF_HLG = 1,
    HDR_TF_PQ = 2,
    HDR_TF_SRGB = 3,
};

// One generation job: the SDR main image and the gain map as three full-size
// 8-bit planes each (Y, U, V; rows tightly packed), the gain-map metadata and
// the output geometry. The caller owns the record and the plane memory; the
// library copies the record and reads the planes only during the call that
// receives them. The layout is part of the ABI.
struct HdrInfo {
    int32_t nMainImageWidth;
    int32_t nMainImageHeight;
    const uint8_t* mainImagePlanes[3];
    int32_t nGainMapWidth;
    int32_t nGainMapHeight;
    const uint8_t* gainMapPlanes[3];
    float gainMapMin[4];  // log2 units, R, G, B (the fourth is not read)
    float gainMapMax[4];  // log2 units
    float gamma[4];
    float offsetSdr[4];    // linear
    float offsetHdr[4];    // linear
    float hdrCapacityMin;  // log2 units
    float hdrCapacityMax;  // log2 units
    // Carried, copied and logged with the record; the picture is always tuned
    // with the set's factory parameters, never with these.
    int32_t MDB_V1;
    int32_t MDB_V2;
    int32_t MDB_T1;
    int32_t MDB_T2;
    int32_t GAMMA_MUL;
    int32_t GAIN_CURVE_P0;
    int32_t GAIN_CURVE_P1;
    int32_t GAIN_CURVE_P2;
    int32_t GAIN_CURVE_G0;
    int32_t GAIN_CURVE_G1;
    int32_t GAIN_CURVE_G2;
    hdr_color_gamut gamut;       // -1 (static_cast) means "not given"
    hdr_transfer_function trfn;  // -1 (static_cast) means "not given"
    int32_t outputWidth;
    int32_t outputHeight;
    int32_t outputRotate;  // 1, 2, 3: -90, -180, -270 degrees; anything else: none
    bool outputMirror;     // mirror horizontally
};

// Initialisation options. In the direct mode (usePBO false) the output surface
// is surfaceWidth x surfaceHeight and the planes come with each HdrInfo; in
// the streaming mode (usePBO true) the host writes the planes into mapped
// pixel buffers and the output takes HdrInfo's outputWidth x outputHeight.
struct GpuGenerateHdrInitOption {
    int32_t surfaceWidth;
    int32_t surfaceHeight;
    void* eglDisplay;  // EGLDisplay on which the library creates its contexts
    bool outputYUV;    // ask for YUV output instead of RGB
    bool usePBO;       // streaming mode
};

// Result codes of the entry points and of the engine.
enum GpuGenerateResult : int32_t {
    GPU_GENERATE_NO_SURFACE = -1,  // no output surface to hand out
    GPU_GENERATE_SUCCESS = 0,
    GPU_GENERATE_ERROR_INIT_TWICE = 1,      // initialised already on this thread
    GPU_GENERATE_ERROR_NO_DISPLAY = 2,      // no EGL display given and none current
    GPU_GENERATE_ERROR_NO_CONTEXT = 3,      // binding or unbinding the thread's context failed
    GPU_GENERATE_ERROR_CREATE_CONTEXT = 4,  // EGL context creation failed
    GPU_GENERATE_ERROR_FIRST_BIND = 5,      // first bind after context creation failed
    GPU_GENERATE_ERROR_INIT_UNBIND = 6,     // unbind at the end of initialisation failed
    GPU_GENERATE_ERROR_SURFACE = 7,         // output surface not created
    GPU_GENERATE_ERROR_EGL_IMAGE = 8,       // EGL image over the output surface not made
    GPU_GENERATE_ERROR_NO_PROGRAM = 9,      // shader program missing
    GPU_GENERATE_ERROR_SETTINGS = 10,       // factory settings unreadable or out of range
    GPU_GENERATE_ERROR_GL = 11,             // GL error pending or framebuffer incomplete
    GPU_GENERATE_ERROR_CALL_ORDER = 12,     // call-order violation, or another call still in progress
    GPU_GENERATE_ERROR_BAD_INPUT = 13,      // null record or bad input
    GPU_GENERATE_ERROR_FENCE_WAIT = 14,     // waiting on the upload fence failed
    GPU_GENERATE_ERROR_FENCE_TIMEOUT = 15,  // upload fence not signalled within one second
};

// Entry points. C++ linkage (the two GpuGenerateHdr overloads coexist). The
// library runs on the calling thread and restores the caller's EGL binding on
// return; calls must be serialised by the host and made from the thread that
// initialised the library. A call made while another thread's call is still
// inside the library is refused and logged: 12, null, 0 or -1 by the entry
// point's result type, and nothing for GpuGenerateHdrDestroy.

// Creates the calling thread's EGL context on option.eglDisplay and the
// engine. 0 on success; 1 if this thread is already initialised; from the
// context registry's own set-up: 2 no display, 4 context refused, 5/6 its
// bind/unbind failed, 11 its draw pass failed (all torn down again); 5 if the
// bind around the engine's set-up failed; 6 if the engine's set-up failed
// (it is torn down while bound, so the final unbind finds no context) or
// that unbind failed.
int GpuGenerateHdrInit(const GpuGenerateHdrInitOption& option);

// Stores the metadata (a gamut or trfn of -1 is replaced in the caller's
// record by BT709 / sRGB), makes the output surface in the streaming mode and
// uploads the planes. Non-null on success: the address of the six upload
// mappings of the streaming mode (entry `plane` is where the host writes that
// plane between UpdateDataBegin and UpdateDataEnd). Null on any failure.
uint8_t** GpuGenerateHdrSetHdrInfo(HdrInfo* hdrInfo);

// Direct mode: gives the six input textures storage for planes of these
// sizes now, so that GpuGenerateHdrSetHdrInfo with pictures of exactly these
// sizes only copies the planes in. Call it after GpuGenerateHdrInit, for
// example while the first picture is still being decoded. A picture of other
// sizes drops the reservation and is uploaded as without one; a later call
// replaces it. 0 on success; 12 not initialised or in the streaming mode;
// 13 a size below 1 or beyond the GL implementation's textures; 3 bind or
// unbind failed; 11 GL error (no reservation is left).
int GpuGenerateHdrReserveTextures(int mainImageWidth, int mainImageHeight, int gainMapWidth, int gainMapHeight);

// Streaming mode: Begin binds the context and readies plane `plane` (0..5:
// main Y, U, V, gain-map Y, U, V) for writing; End (with that plane's size)
// copies it into its texture and unbinds. Non-zero on success, 0 on failure.
int GpuGenerateHdrUpdateDataBegin(int& plane);
int GpuGenerateHdrUpdateDataEnd(int& width, int& height);

// Draws with the metadata of the last successful GpuGenerateHdrSetHdrInfo;
// one draw per successful SetHdrInfo. 0 on success; 12 not initialised or no
// successful SetHdrInfo since the last draw; 3 bind or unbind failed; from
// the draw: 9 no program, 13 gamut or trfn out of range, 11 GL error.
int GpuGenerateHdr();
// One shot: stores the metadata, uploads and draws (no defaults applied).
// 13 for a null record; otherwise as above except 12 only when not
// initialised. A failed store or upload is not reported: the draw goes on.
int GpuGenerateHdr(HdrInfo* hdrInfo);

// The output tbm surface handle, narrowed to 32 bits, once a draw has
// succeeded; -1 otherwise.
int GpuGenerateGetTBM();

// The render path's texture pass; 0 on success, 3 without a context.
int GpuRender();

// Releases the engine and the calling thread's EGL context.
void GpuGenerateHdrDestroy();

// The records cross the library boundary: their layout is fixed for LP64
// (64-bit Linux); on ILP32 targets (i386, armhf) the same declarations take
// their natural 32-bit layout, pinned here as well.
#if defined(__LP64__)
static_assert(sizeof(void*) == 8 && sizeof(long) == 8, "LP64");
static_assert(offsetof(HdrInfo, nMainImageWidth) == 0, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, nMainImageHeight) == 4, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, mainImagePlanes) == 8, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, nGainMapWidth) == 32, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, nGainMapHeight) == 36, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, gainMapPlanes) == 40, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, gainMapMin) == 64, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, gainMapMax) == 80, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, gamma) == 96, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, offsetSdr) == 112, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, offsetHdr) == 128, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, hdrCapacityMin) == 144, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, hdrCapacityMax) == 148, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, MDB_V1) == 152, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, MDB_V2) == 156, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, MDB_T1) == 160, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, MDB_T2) == 164, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, GAMMA_MUL) == 168, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, GAIN_CURVE_P0) == 172, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, GAIN_CURVE_P1) == 176, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, GAIN_CURVE_P2) == 180, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, GAIN_CURVE_G0) == 184, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, GAIN_CURVE_G1) == 188, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, GAIN_CURVE_G2) == 192, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, gamut) == 196, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, trfn) == 200, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, outputWidth) == 204, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, outputHeight) == 208, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, outputRotate) == 212, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, outputMirror) == 216, "HdrInfo ABI");
static_assert(sizeof(HdrInfo) == 224 && alignof(HdrInfo) == 8, "HdrInfo ABI");

static_assert(offsetof(GpuGenerateHdrInitOption, surfaceWidth) == 0, "GpuGenerateHdrInitOption ABI");
static_assert(offsetof(GpuGenerateHdrInitOption, surfaceHeight) == 4, "GpuGenerateHdrInitOption ABI");
static_assert(offsetof(GpuGenerateHdrInitOption, eglDisplay) == 8, "GpuGenerateHdrInitOption ABI");
static_assert(offsetof(GpuGenerateHdrInitOption, outputYUV) == 16, "GpuGenerateHdrInitOption ABI");
static_assert(offsetof(GpuGenerateHdrInitOption, usePBO) == 17, "GpuGenerateHdrInitOption ABI");
static_assert(sizeof(GpuGenerateHdrInitOption) == 24 && alignof(GpuGenerateHdrInitOption) == 8,
              "GpuGenerateHdrInitOption ABI");
#elif defined(__ILP32__) || (defined(__SIZEOF_POINTER__) && __SIZEOF_POINTER__ == 4 && __SIZEOF_LONG__ == 4)
static_assert(sizeof(void*) == 4 && sizeof(long) == 4, "ILP32");
static_assert(offsetof(HdrInfo, nMainImageWidth) == 0, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, nMainImageHeight) == 4, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, mainImagePlanes) == 8, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, nGainMapWidth) == 20, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, nGainMapHeight) == 24, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, gainMapPlanes) == 28, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, gainMapMin) == 40, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, gainMapMax) == 56, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, gamma) == 72, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, offsetSdr) == 88, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, offsetHdr) == 104, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, hdrCapacityMin) == 120, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, hdrCapacityMax) == 124, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, MDB_V1) == 128, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, MDB_V2) == 132, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, MDB_T1) == 136, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, MDB_T2) == 140, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, GAMMA_MUL) == 144, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, GAIN_CURVE_P0) == 148, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, GAIN_CURVE_P1) == 152, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, GAIN_CURVE_P2) == 156, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, GAIN_CURVE_G0) == 160, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, GAIN_CURVE_G1) == 164, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, GAIN_CURVE_G2) == 168, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, gamut) == 172, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, trfn) == 176, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, outputWidth) == 180, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, outputHeight) == 184, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, outputRotate) == 188, "HdrInfo ABI");
static_assert(offsetof(HdrInfo, outputMirror) == 192, "HdrInfo ABI");
static_assert(sizeof(HdrInfo) == 196 && alignof(HdrInfo) == 4, "HdrInfo ABI");

static_assert(offsetof(GpuGenerateHdrInitOption, surfaceWidth) == 0, "GpuGenerateHdrInitOption ABI");
static_assert(offsetof(GpuGenerateHdrInitOption, surfaceHeight) == 4, "GpuGenerateHdrInitOption ABI");
static_assert(offsetof(GpuGenerateHdrInitOption, eglDisplay) == 8, "GpuGenerateHdrInitOption ABI");
static_assert(offsetof(GpuGenerateHdrInitOption, outputYUV) == 12, "GpuGenerateHdrInitOption ABI");
static_assert(offsetof(GpuGenerateHdrInitOption, usePBO) == 13, "GpuGenerateHdrInitOption ABI");
static_assert(sizeof(GpuGenerateHdrInitOption) == 16 && alignof(GpuGenerateHdrInitOption) == 4,
              "GpuGenerateHdrInitOption ABI");
#else
#error "the records' layout is defined for LP64 and ILP32 targets only"
#endif

static_assert(sizeof(hdr_color_gamut) == 4 && sizeof(hdr_transfer_function) == 4 && sizeof(GpuGenerateResult) == 4,
              "enumerations are stored as int32");

#endif
