#include "EngineTestSupport.h"

#include <cstddef>

namespace hdrtest {

std::vector<uint8_t> Pattern(int width, int height, int a, int b, int c)
{
    std::vector<uint8_t> plane(static_cast<std::size_t>(width) * height);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            plane[static_cast<std::size_t>(y) * width + x] = static_cast<uint8_t>((x * a + y * b + c) & 0xFF);
        }
    }
    return plane;
}

Planes MakePlanes(int mainWidth, int mainHeight, int gainWidth, int gainHeight, int seed)
{
    Planes planes;
    planes.mainWidth = mainWidth;
    planes.mainHeight = mainHeight;
    planes.gainWidth = gainWidth;
    planes.gainHeight = gainHeight;
    for (int i = 0; i < 3; ++i) {
        planes.main[i] = Pattern(mainWidth, mainHeight, 3 + i + seed, 7 + 2 * i, 11 * i + 5 * seed);
        planes.gain[i] = Pattern(gainWidth, gainHeight, 5 + i, 13 + i + seed, 17 * i + 3 * seed);
    }
    return planes;
}

std::vector<uint8_t> ReadRedTexture(GLuint texture, int width, int height)
{
    const std::vector<uint8_t> rgba = ReadRgbaTexture(texture, width, height);
    std::vector<uint8_t> red(static_cast<std::size_t>(width) * height);
    for (std::size_t i = 0; i < red.size(); ++i) {
        red[i] = rgba[4 * i];
    }
    return red;
}

std::vector<uint8_t> ReadRgbaTexture(GLuint texture, int width, int height)
{
    GLint previous = 0;
    glGetIntegerv(GL_FRAMEBUFFER_BINDING, &previous);
    GLuint framebuffer = 0;
    glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0);
    std::vector<uint8_t> rgba(static_cast<std::size_t>(width) * height * 4);
    glPixelStorei(GL_PACK_ALIGNMENT, 1);
    glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, rgba.data());
    glBindFramebuffer(GL_FRAMEBUFFER, static_cast<GLuint>(previous));
    glDeleteFramebuffers(1, &framebuffer);
    return rgba;
}

}  // namespace hdrtest
