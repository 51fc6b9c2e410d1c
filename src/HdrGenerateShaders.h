// The gain-map program's two GLSL ES 3.00 sources.
#ifndef HDR_GENERATE_SHADERS_H
#define HDR_GENERATE_SHADERS_H

extern const char* const kGainMapVertexShader;
extern const char* const kGainMapFragmentShader;

#endif
