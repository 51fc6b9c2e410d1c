// How the output texture reaches the platform surface. On the target an
// EGL image made with the platform's native-surface target makes the
// surface the texture's own storage, so the draw renders straight into it.
// Drivers without that target (Mesa, NVIDIA's desktop driver) get
// surface-copy images instead: the texture holds one band of rows, and each
// band is copied into the surface's memory, in its format's byte order, as
// soon as it is drawn.
//
// The engine is built with one of the two and keeps it for its lifetime;
// the logging wrappers of HdrContext.h call through it. Images are opaque
// handles owned by whoever made them, freed with Destroy of the same kind.
#ifndef HDR_OUTPUT_IMAGES_H
#define HDR_OUTPUT_IMAGES_H

#include "HdrContext.h"

#include <memory>

// The draw's passes over the surface: count bands of rows rows each, the
// last one possibly shorter.
struct OutputBands {
    int count;
    int rows;
};

class OutputImages {
public:
    virtual ~OutputImages() = default;

    // An image over the surface handle buffer, or null with the EGL error
    // code that names the refusal in error.
    virtual void* Create(EGLInfo& info, void* buffer, EGLint& error) const = 0;
    // False with the EGL error code in error when the driver refuses.
    virtual bool Destroy(EGLInfo& info, void* image, EGLint& error) const = 0;
    // Gives the texture bound to GL_TEXTURE_2D the storage it renders into;
    // GL errors are left pending for the caller to read.
    virtual void Attach(EGLInfo& info, void* image) const = 0;

    // How the draw covers the surface of image.
    virtual OutputBands Bands(const void* image) const = 0;
    // Puts band index's rows, drawn at the bottom of framebuffer, into the
    // surface. False when the surface cannot be written or GL fails.
    virtual bool StoreBand(void* image, GLuint framebuffer, int index) const = 0;
};

// The platform's native-surface images: the texture is the surface.
class NativeSurfaceImages final : public OutputImages {
public:
    void* Create(EGLInfo& info, void* buffer, EGLint& error) const override;
    bool Destroy(EGLInfo& info, void* image, EGLint& error) const override;
    void Attach(EGLInfo& info, void* image) const override;
    OutputBands Bands(const void* image) const override;
    bool StoreBand(void* image, GLuint framebuffer, int index) const override;
};

// Surface-copy images over RGBA8888 ('RA24', bytes A, B, G, R) and
// ABGR8888 ('AB24', bytes R, G, B, A) surfaces.
class SurfaceCopyImages final : public OutputImages {
public:
    // Rows per band; kAutomaticBands picks about kBandBytes per band in
    // whole 64-row tiles; kWholeSurface draws the surface in one pass.
    static constexpr int kAutomaticBands = 0;
    static constexpr int kWholeSurface = -1;
    static constexpr int kBandBytes = 2 << 20;

    explicit SurfaceCopyImages(int bandRows = kAutomaticBands);

    void* Create(EGLInfo& info, void* buffer, EGLint& error) const override;
    bool Destroy(EGLInfo& info, void* image, EGLint& error) const override;
    void Attach(EGLInfo& info, void* image) const override;
    OutputBands Bands(const void* image) const override;
    bool StoreBand(void* image, GLuint framebuffer, int index) const override;

private:
    int bandRows_;
};

// The kind this build makes: native images where the platform's driver
// has the target, surface copies elsewhere.
std::unique_ptr<const OutputImages> MakeBuildOutputImages();

#endif
