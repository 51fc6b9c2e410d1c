// The pass-through programs the draw is measured against. The main one
// samples the six plane textures the engine uploaded (same textures, sizes,
// GL_LINEAR filtering and texture units) at the fragment's texture
// coordinate and writes
//     fragColor = vec4(mainY, mainU + gainU, mainV + gainV, gainY);
// the two additions are the only arithmetic and keep all six fetches alive.
// Two more take the floor apart: the four planes a single-channel gain map's
// program reads, and no plane at all (rasterising and writing the output).
#ifndef HDRGPU_BENCH_PASS_THROUGH_PROGRAM_H
#define HDRGPU_BENCH_PASS_THROUGH_PROGRAM_H

#include <GLES3/gl3.h>

#include <iostream>

namespace hdrbench {

inline const char* const kPassVertexShader =
    "#version 300 es\n"
    "layout(location = 0) in vec2 aPosition;\n"
    "layout(location = 1) in vec2 aTexcoord;\n"
    "out vec2 vTexcoord;\n"
    "void main()\n"
    "{\n"
    "    vTexcoord = aTexcoord;\n"
    "    gl_Position = vec4(aPosition, 0.0, 1.0);\n"
    "}\n";

// The fragment stages' common opening, and the plane samplers (plane i on
// texture unit i, as the engine keeps them).
#define HDRBENCH_FRAGMENT_START \
    "#version 300 es\n"        \
    "precision highp float;\n" \
    "in vec2 vTexcoord;\n"     \
    "out vec4 fragColor;\n"
#define HDRBENCH_PLANE_SAMPLERS "uniform mediump sampler2D uPlane[6];\n"

inline const char* const kPassFragmentShader =
    HDRBENCH_FRAGMENT_START HDRBENCH_PLANE_SAMPLERS
    "void main()\n"
    "{\n"
    "    float mainY = texture(uPlane[0], vTexcoord).r;\n"
    "    float mainU = texture(uPlane[1], vTexcoord).r;\n"
    "    float mainV = texture(uPlane[2], vTexcoord).r;\n"
    "    float gainY = texture(uPlane[3], vTexcoord).r;\n"
    "    float gainU = texture(uPlane[4], vTexcoord).r;\n"
    "    float gainV = texture(uPlane[5], vTexcoord).r;\n"
    "    fragColor = vec4(mainY, mainU + gainU, mainV + gainV, gainY);\n"
    "}\n";

inline const char* const kPassFourPlanesFragmentShader =
    HDRBENCH_FRAGMENT_START HDRBENCH_PLANE_SAMPLERS
    "void main()\n"
    "{\n"
    "    fragColor = vec4(texture(uPlane[0], vTexcoord).r, texture(uPlane[1], vTexcoord).r,\n"
    "                     texture(uPlane[2], vTexcoord).r, texture(uPlane[3], vTexcoord).r);\n"
    "}\n";

inline const char* const kRasterOnlyFragmentShader =
    HDRBENCH_FRAGMENT_START
    "void main()\n"
    "{\n"
    "    fragColor = vec4(vTexcoord, 0.5, 1.0);\n"
    "}\n";

inline GLuint Compile(GLenum type, const char* source)
{
    const GLuint shader = glCreateShader(type);
    glShaderSource(shader, 1, &source, nullptr);
    glCompileShader(shader);
    GLint ok = GL_FALSE;
    glGetShaderiv(shader, GL_COMPILE_STATUS, &ok);
    if (ok != GL_TRUE) {
        char log[1024] = {};
        glGetShaderInfoLog(shader, sizeof log, nullptr, log);
        std::cerr << "pass-through shader: " << log << "\n";
        glDeleteShader(shader);
        return 0;
    }
    return shader;
}

// The pass-through program with its own quad (same geometry as the engine's:
// clip (-1, -1) samples texture (0, 0)).
class PassThrough {
public:
    explicit PassThrough(const char* fragmentShader = kPassFragmentShader)
    {
        const GLuint vs = Compile(GL_VERTEX_SHADER, kPassVertexShader);
        const GLuint fs = Compile(GL_FRAGMENT_SHADER, fragmentShader);
        if (vs == 0 || fs == 0) {
            return;
        }
        program_ = glCreateProgram();
        glAttachShader(program_, vs);
        glAttachShader(program_, fs);
        glLinkProgram(program_);
        glDeleteShader(vs);
        glDeleteShader(fs);
        GLint linked = GL_FALSE;
        glGetProgramiv(program_, GL_LINK_STATUS, &linked);
        if (linked != GL_TRUE) {
            return;
        }
        glUseProgram(program_);
        // The engine keeps plane i on unit i. Elements a program does not
        // read are ignored, and so is the call where it reads none.
        const GLint units[6] = {0, 1, 2, 3, 4, 5};
        glUniform1iv(glGetUniformLocation(program_, "uPlane"), 6, units);

        const float quad[24] = {
            -1.0f, 1.0f,  0.0f, 1.0f, -1.0f, -1.0f, 0.0f, 0.0f, 1.0f, -1.0f, 1.0f, 0.0f,
            -1.0f, 1.0f,  0.0f, 1.0f, 1.0f,  -1.0f, 1.0f, 0.0f, 1.0f, 1.0f,  1.0f, 1.0f,
        };
        glGenVertexArrays(1, &vertexArray_);
        glGenBuffers(1, &vertexBuffer_);
        glBindVertexArray(vertexArray_);
        glBindBuffer(GL_ARRAY_BUFFER, vertexBuffer_);
        glBufferData(GL_ARRAY_BUFFER, sizeof quad, quad, GL_STATIC_DRAW);
        glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, 4 * sizeof(float), nullptr);
        glEnableVertexAttribArray(0);
        glVertexAttribPointer(1, 2, GL_FLOAT, GL_FALSE, 4 * sizeof(float),
                              reinterpret_cast<const void*>(2 * sizeof(float)));
        glEnableVertexAttribArray(1);
        glBindVertexArray(0);
        glBindBuffer(GL_ARRAY_BUFFER, 0);
        ok_ = glGetError() == GL_NO_ERROR;
    }
    ~PassThrough()
    {
        glDeleteBuffers(1, &vertexBuffer_);
        glDeleteVertexArrays(1, &vertexArray_);
        glDeleteProgram(program_);
    }
    PassThrough(const PassThrough&) = delete;
    PassThrough& operator=(const PassThrough&) = delete;

    bool ok() const { return ok_; }
    GLuint program() const { return program_; }

    void DrawToFinish(GLuint framebuffer, int width, int height) const
    {
        glUseProgram(program_);
        glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
        glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        glViewport(0, 0, width, height);
        glBindVertexArray(vertexArray_);
        glDrawArrays(GL_TRIANGLES, 0, 6);
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
        glFinish();
    }

private:
    GLuint program_ = 0;
    GLuint vertexArray_ = 0;
    GLuint vertexBuffer_ = 0;
    bool ok_ = false;
};

}  // namespace hdrbench

#endif
