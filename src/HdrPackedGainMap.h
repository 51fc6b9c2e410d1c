// The gain map's three planes packed into one RGBA texture (Y, U, V in R, G,
// B), for the programs that read all three: a software rasteriser spends as
// much on one filtered fetch of four bytes as on one of a single byte, so
// one fetch replaces three. Filled from the planes in the host's memory,
// band by band through a small staging buffer.
#ifndef HDR_PACKED_GAIN_MAP_H
#define HDR_PACKED_GAIN_MAP_H

#include <GLES3/gl3.h>

#include <cstddef>
#include <cstdint>
#include <vector>

class PackedGainMap {
public:
    PackedGainMap() = default;
    ~PackedGainMap() = default;  // the texture goes with Release(), on the owner's context
    PackedGainMap(const PackedGainMap&) = delete;
    PackedGainMap& operator=(const PackedGainMap&) = delete;

    // Fills the texture, bound on `unit`, from three width x height planes
    // (a texture of another size is replaced). False, with the GL error in
    // `glError`, when GL refused; the texture is then not current.
    bool Upload(GLenum unit, const uint8_t* y, const uint8_t* u, const uint8_t* v, int width, int height,
                GLenum* glError);

    // Gives the texture, bound on `unit`, storage for a width x height gain
    // map ahead of its upload (llvmpipe clears new storage: about 18 ms for
    // a 3000 x 2000 gain map), keeping storage of that size it already has.
    // Not current until filled. Leaves GL errors to the caller.
    void Reserve(GLenum unit, int width, int height);

    // The planes it was filled from have changed since.
    void Invalidate() { current_ = false; }
    // Holds the gain map of the picture the engine has now.
    bool Current() const { return current_; }
    GLuint Texture() const { return texture_; }

    // Deletes the texture (the owner's context current).
    void Release();
    // Drops the texture without a GL call: the engine is being set up on
    // another context, where the old name means nothing.
    void Forget();

private:
    // Binds the texture on `unit`, replacing it by one with storage of
    // width x height unless it has that size already.
    void Define(GLenum unit, int width, int height);

    GLuint texture_ = 0;
    int width_ = 0;
    int height_ = 0;
    bool current_ = false;
    std::vector<uint8_t> staging_;
};

#endif
