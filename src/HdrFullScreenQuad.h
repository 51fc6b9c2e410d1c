// The full-screen quad both passes draw: two triangles over the whole clip
// square, (x, y, z, u, v) per vertex, texture v = 1 at the top.
#ifndef HDR_FULL_SCREEN_QUAD_H
#define HDR_FULL_SCREEN_QUAD_H

constexpr float kFullScreenQuad[30] = {
    -1.0f, 1.0f, 0.0f, 0.0f, 1.0f, -1.0f, -1.0f, 0.0f, 0.0f, 0.0f, 1.0f, -1.0f, 0.0f, 1.0f, 0.0f,
    -1.0f, 1.0f, 0.0f, 0.0f, 1.0f, 1.0f,  -1.0f, 0.0f, 1.0f, 0.0f, 1.0f, 1.0f,  0.0f, 1.0f, 1.0f,
};

#endif
