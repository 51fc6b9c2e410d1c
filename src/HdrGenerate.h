// The generation engine: one process-wide object that owns every GL object of
// the gain-map pass, the output surface with its image, and the stored copies
// of the host's option record and metadata. Its methods live in one file per
// job: HdrGenerate.cpp (life cycle, program, tuning, constants uploaded),
// HdrGenerateDraw.cpp (the program and sampling a picture takes, the draw),
// HdrGenerateUpload.cpp (both upload paths and the fence),
// HdrGenerateIntake.cpp (the metadata intake), HdrGenerateOutputTarget.cpp
// (surface, image, framebuffer, the pass into the surface) and
// HdrGenerateConstants.cpp (the draw's constants as plain numbers).
#ifndef HDR_GENERATE_H
#define HDR_GENERATE_H

#include "HdrFactorySettings.h"
#include "HdrGainMapVariantPrograms.h"
#include "HdrGpuBackend.h"
#include "HdrOutputImages.h"
#include "HdrPackedGainMap.h"

#include <GLES3/gl3.h>
#include <tbm_surface.h>

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

namespace Tessara {
class TSShaderManager;
}
struct EGLInfo;

// The six input planes; also their texture units and the index of every
// per-plane array.
enum DataType : int32_t {
    MAIN_Y = 0,
    MAIN_U = 1,
    MAIN_V = 2,
    GAINMAP_Y = 3,
    GAINMAP_U = 4,
    GAINMAP_V = 5,
    DATA_TYPE_COUNT = 6,
};

// Plane i is sampled from unit GL_TEXTURE0 + i; the output texture is handled
// on a unit of its own, so nothing done between two draws takes a plane's
// texture off its unit.
constexpr GLenum OUTPUT_TEXTURE_UNIT = GL_TEXTURE0 + DATA_TYPE_COUNT;
// The gain map's planes packed into one texture (PackedGainMap) stay here.
constexpr GLenum PACKED_GAIN_TEXTURE_UNIT = GL_TEXTURE0 + DATA_TYPE_COUNT + 1;

// What the direct-mode upload took for one plane.
struct DataInfo {
    const uint8_t* data;
    int32_t width;
    int32_t height;
};

class HdrGenerate {
public:
    // The instance, made on first use with this build's kind of output
    // image (HdrOutputImages.h).
    static HdrGenerate* GetInstance();
    // Makes the instance with the given kind of output image; null when an
    // instance exists already.
    static HdrGenerate* CreateInstance(std::unique_ptr<const OutputImages> images);
    static void DestroyInstance();

    int Init();
    int getHdrTBMSurface();

    // Gain-map program and its registration.
    bool SetupShaders();
    int UpdateTexUniform();

    // Input upload.
    void InitTextures();
    void InitPBOTextures();
    int UpdateTextures();
    void UpdatePBOs();
    int UpdatePBOsFinished();
    bool UpdateDataBegin(int plane);
    bool UpdateDataEnd(int width, int height);
    // Direct mode: immutable storage for the six input textures, of the
    // sizes {main width, height, gain-map width, height}. Pictures of exactly
    // those sizes are then copied into it at the intake instead of having
    // their textures allocated there. 0; 12 in the streaming mode; 13 for
    // sizes this GL refuses; 11 for a GL error (the reservation is dropped).
    int ReserveTextures(const int32_t sizes[4]);

    // Metadata intake: stores and logs the job, makes the output surface
    // (streaming mode) and uploads the planes. The address of mappedPlanes
    // on success, null on failure.
    uint8_t** setHdrInfo(HdrInfo* _hdrInfo);

    // Tuning, shader constants and the draw.
    int LoadSettings();
    int UpdateUniform();
    int Draw();

    // Output target.
    int updateTBM();
    // Draws the current program over a viewport of the given size into the
    // output surface, pass by pass as the kind of output image needs, each
    // pass cleared with the current clear colour first. False when a pass
    // could not be put into the surface.
    bool DrawIntoSurface(int viewportWidth, int viewportHeight);

    bool isGenerated;
    bool isAplPending;
    GpuGenerateHdrInitOption initOption;
    HdrInfo hdrInfo;
    Tessara::TSShaderManager* shaderManager;
    GLuint outputTexture;
    GLuint vertexBuffer;
    GLuint vertexArray;
    GLuint indexBuffer;
    GLuint framebuffer;
    // A second band texture and its framebuffer for output drawn in several
    // bands (0 otherwise): bands alternate between the two, so that one is
    // read back while the next is drawn.
    GLuint bandTexture;
    GLuint bandFramebuffer;
    GLuint inputTextures[DATA_TYPE_COUNT];
    std::map<int32_t, DataInfo> planeTable;
    uint8_t* mappedPlanes[DATA_TYPE_COUNT];
    GLuint pixelBuffers[DATA_TYPE_COUNT];
    GLsync uploadFence;
    HdrFactorySettings::Parameter factoryParameter;
    tbm_surface_h tbmSurface;
    void* eglImage;
    int32_t apl;
    std::vector<float> quadVertices;
    uint32_t quadIndices[6];
    bool outputYUV;
    bool isInfoReady;
    bool isPboIdle;

    // Streaming-mode bookkeeping: the size each plane's texture and buffer
    // were last defined with, and the plane between Begin and End.
    int32_t streamedSizes[DATA_TYPE_COUNT][2];
    int32_t mappedBytes[DATA_TYPE_COUNT];
    int32_t bufferBytes[DATA_TYPE_COUNT];  // each upload buffer's allocated size
    int32_t currentPlane;
    // The gain-map planes (bit 0 Y, 1 U, 2 V) streamed whole into their
    // textures since the buffers were last mapped for the host.
    unsigned streamedGainPlanes;

    // The draw uses the picture class's specialised program (built on first
    // need); false draws with the registered general program.
    bool useSpecialisedPrograms;
    GainMapVariantPrograms variantPrograms;
    GainChromaContent gainChroma;
    // The gain map in one texture, for the programs that read its three
    // planes; filled when its chroma is not flat and packGainMaps is set (at
    // Init, for renderers that sample on the CPU): by the direct mode's
    // intake, and in the streaming mode as soon as the last of the three
    // planes is in. Current only while it holds what the planes' textures do.
    PackedGainMap packedGain;
    bool packGainMaps;

    // Nearest-texel sampling, bound for the draw to the planes whose texels
    // map one to one onto the output (0 until Init).
    GLuint texelSampler;

    // How the output texture reaches the surface; fixed for the engine's life.
    const std::unique_ptr<const OutputImages> outputImages;

    static HdrGenerate* pInstance;

    // saveToFile does nothing: kept for the exported names. The direct
    // mode's textures have immutable storage of textureSizes while
    // hasTextureStorage is set (ReserveTextures).
    void saveToFile();
    bool hasTextureStorage;
    int32_t textureSizes[4];

private:
    explicit HdrGenerate(std::unique_ptr<const OutputImages> images);
    ~HdrGenerate();
    HdrGenerate(const HdrGenerate&) = delete;
    HdrGenerate& operator=(const HdrGenerate&) = delete;

    // The gain-map program, or 0 when none was built; the locations of its
    // registration slots (HdrGenerateShaders.h).
    GLuint Program() const;
    GLint Attribute(int slot) const;
    GLint Uniform(int slot) const;
    // The specialised program for the current picture with its uniforms
    // loaded and current, or the registered program when none can be built.
    GLuint DrawProgram(GLuint registered);
    // Binds texelSampler to the units of the planes sampled one to one (or
    // unbinds every plane's sampler when bind is false).
    void BindTexelSampler(bool bind);

    // Average of the first width x height bytes of plane (never more than
    // available); logs the result.
    int32_t ComputeApl(const uint8_t* plane, int32_t available, int width, int height);
    DataInfo PlaneOf(int plane) const;
    void ForgetMappings();
    // Replaces the plane's texture by a new one without storage, bound on
    // the plane's unit: immutable storage can only be dropped with its
    // texture.
    void RenewInputTexture(int plane);
    // Drops the direct mode's reserved storage, every texture renewed.
    void DropTextureReservation();
    // Packs the gain map the direct mode just uploaded into packedGain, when
    // a specialised program will read its three planes.
    void PackGainMap();
    // Packs the streamed gain map from its upload buffers, mapped again for
    // reading, when the last intake's metadata says packing will pay.
    void PackStreamedGainMap();
    // A specialised program for the stored metadata reads a gain map of this
    // size through the packed texture: packing is on, the chroma is not
    // flat, and the gain map is filtered rather than sampled texel for texel.
    bool GainMapWorthPacking(int gainWidth, int gainHeight) const;

    void ApplyDirectModeOutput();
    void ReleaseOutputSurface(EGLInfo& egl);
    void AttachOutputFramebuffer();
    bool AttachSecondBand(EGLInfo& egl);
    void DeleteSecondBand();
    void DrawBand(GLuint target, int band, int rows, int viewportWidth, int viewportHeight);
    bool DrawBandsOverlapped(const OutputBands& bands, int viewportWidth, int viewportHeight);
};

#endif
