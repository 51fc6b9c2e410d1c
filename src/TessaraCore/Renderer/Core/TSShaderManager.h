// One GLSL program built from a vertex and a fragment source, with two small
// tables mapping caller-chosen slot numbers to attribute and uniform
// locations. Per-frame code asks by slot, so GL is queried for a name only
// once, when it is registered.
//
// Every member needs a current GL context on the calling thread; the GL
// objects belong to that context.
#ifndef TS_SHADER_MANAGER_H
#define TS_SHADER_MANAGER_H

#include <GLES3/gl3.h>

#include <utility>
#include <vector>

namespace Tessara {

class TSShaderManager {
public:
    TSShaderManager();
    ~TSShaderManager();

    // Deletes the program (if any) and empties both tables. `program` keeps
    // its old name: a manager is reset only right before it is destroyed.
    void Reset();

    // Compiles, links and stores the program. The outcome shows only through
    // GetProgram() and the log; after a failed link GetProgram() still
    // answers the (deleted) program name.
    void CreateProgram(const char* vertexSource, const char* fragmentSource);
    unsigned GetProgram();

    // Record (slot, location) while a program exists; with no program nothing
    // is recorded. Slots are neither bounded nor checked for duplicates, and
    // a name that is not active registers as -1.
    void AddAttribute(int slot, const char* name);
    void AddUniform(int slot, const char* name);

    // The location of the first pair registered under `slot`, or 0 when there
    // is none (0, not -1: register every slot you will ask for).
    int GetAttribute(int slot);
    int GetUniform(int slot);

    // Direct GL look-ups, not recorded; 0 without a program.
    int GetAttributeLoc(const char* name);
    int GetUniformLoc(const char* name);

    // Compiles `source` into `shader`; on failure logs the info log, deletes
    // the shader and answers false.
    bool compileShader(unsigned shader, const char* source);

    // Logs the info log of a shader (kind 0) or a program (kind 1); any other
    // kind is ignored.
    void printGLErrorLog(unsigned object, unsigned kind);

    GLuint program;
    std::vector<std::pair<int, int>> attributes;  // (slot, location), in registration order
    std::vector<std::pair<int, int>> uniforms;    // (slot, location), in registration order
};

}  // namespace Tessara

#endif
