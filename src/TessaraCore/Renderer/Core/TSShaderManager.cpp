// Shader program manager of the rendering toolkit.
//
// One manager builds one GLSL program from a vertex and a fragment source and
// keeps two slot tables, (slot, location) pairs for attributes and uniforms,
// filled once when the owner registers its names. Per-frame code then asks
// by slot, a walk over a handful of pairs, instead of asking GL by name.
//
// Nothing here throws or returns an error code: a failure leaves its trace
// in the log and in GetProgram(). All GL calls go to the context current on
// the calling thread, and the objects made belong to that context.
#include "TSShaderManager.h"

#include "HdrCommon.h"

#include <memory>
#include <vector>

namespace Tessara {

namespace {

// The two kinds of object whose info log printGLErrorLog knows how to fetch.
constexpr unsigned kShaderLog = 0;
constexpr unsigned kProgramLog = 1;

// Location of the first pair registered under `slot`, or 0 when there is
// none. Duplicated slots are allowed; the earliest registration wins.
int FindLocation(const std::vector<std::pair<int, int>>& table, int slot)
{
    for (const std::pair<int, int>& entry : table) {
        if (entry.first == slot) {
            return entry.second;
        }
    }
    return 0;
}

}  // namespace

TSShaderManager::TSShaderManager() : program(0) {}

TSShaderManager::~TSShaderManager()
{
    Reset();
}

void TSShaderManager::Reset()
{
    if (program != 0) {
        glDeleteProgram(program);
    }
    // The name is kept on purpose: a manager is reset only right before it is
    // destroyed, and nothing builds on it again.
    attributes.clear();
    uniforms.clear();
}

// Any failure is logged and left as it is: no retry, and shader objects made
// before the failing step are not cleaned up. Callers see the outcome only
// through GetProgram().
void TSShaderManager::CreateProgram(const char* vertexSource, const char* fragmentSource)
{
    // Vertex stage first; nothing has been made yet if it cannot be created.
    const GLuint vertexShader = glCreateShader(GL_VERTEX_SHADER);
    if (vertexShader == 0) {
        HDR_LOG("Error :: create a shader object for vertex shader\n");
        return;
    }

    // Fragment stage; the vertex object is then the only thing to give back.
    const GLuint fragmentShader = glCreateShader(GL_FRAGMENT_SHADER);
    if (fragmentShader == 0) {
        // Logged before the vertex object goes, so the line comes first.
        // Nothing else is made at this point.
        HDR_LOG("Error :: create a shader object for fragment shader\n");
        glDeleteShader(vertexShader);
        return;
    }

    // A failed compile has already logged the info log and deleted the shader
    // it was given; the fragment object stays as it is.
    if (!compileShader(vertexShader, vertexSource)) {
        HDR_LOG("Error :: compile a shader object for vertex shader\n");
        return;
    }

    // Same for the fragment stage; the compiled vertex object stays as it is.
    // No program object has been made yet, so there is nothing else to drop.
    if (!compileShader(fragmentShader, fragmentSource)) {
        HDR_LOG("Error :: compile a shader object for fragment shader\n");
        return;
    }

    // Both stages compiled; now the program object. A second CreateProgram
    // on the same manager replaces the name here without deleting the
    // earlier program: managers are built once, by the object that owns
    // them, and that owner resets and destroys them together.
    program = glCreateProgram();
    if (program == 0) {
        // Both compiled shader objects stay as they are, neither attached
        // nor deleted: nothing here retries or cleans up, and they go with
        // the context when it is destroyed. The caller sees program 0 and
        // this line.
        HDR_LOG("Error :: create a program object\n");
        return;
    }

    // The shaders are deleted right after linking. Attached, they are only
    // flagged: they live on while the program does and go with it when it
    // is deleted, so the manager never has to track them.
    glAttachShader(program, vertexShader);
    glAttachShader(program, fragmentShader);
    glLinkProgram(program);
    glDeleteShader(vertexShader);
    glDeleteShader(fragmentShader);

    // On a failed link the program's info log is logged and the program is
    // deleted, but its name is not cleared: GetProgram() goes on answering
    // the deleted name, and callers rely on seeing it that way. The status
    // starts at 0, so a query that writes nothing reads as a failed link.
    GLint linked = 0;
    glGetProgramiv(program, GL_LINK_STATUS, &linked);
    if (linked == 0) {
        printGLErrorLog(program, kProgramLog);
        glDeleteProgram(program);
    }
}

// 0 until a program object has been made; after a failed link, the name of
// the deleted program. A non-zero answer therefore says only that a program
// object was made, not that it linked: the log tells which.
unsigned TSShaderManager::GetProgram()
{
    return program;
}

// Slot tables.
//
// Slots are plain integers chosen by the owner (the generator and the draw
// pass number theirs from 0). They are not bounded, need not be dense and
// are not checked for duplicates: registering a slot twice keeps both pairs,
// and look-ups answer the first. The tables hold a handful of pairs each, so
// a linear walk is cheaper than anything cleverer.
// Both tables are emptied by Reset and released with the manager; their
// locations hold only for the program they were asked of.

// Registration asks GL once per name, at set-up time. Without a program
// there is nothing to ask, and nothing is recorded. A name that is not an
// active attribute (unknown, or optimised away by the linker) is recorded
// with the -1 GL answers for it.
void TSShaderManager::AddAttribute(int slot, const char* name)
{
    if (program == 0) {
        return;
    }
    const GLint location = glGetAttribLocation(program, name);
    attributes.emplace_back(slot, location);
}

// As AddAttribute, for uniforms: an unknown or inactive uniform is recorded
// with -1 the same way.
void TSShaderManager::AddUniform(int slot, const char* name)
{
    if (program == 0) {
        return;
    }
    const GLint location = glGetUniformLocation(program, name);
    uniforms.emplace_back(slot, location);
}

// Per-frame look-ups: no GL call, no log. A slot that was never registered
// answers 0, which is a valid location, not the -1 of GL; callers register
// every slot they will ask for.
int TSShaderManager::GetAttribute(int slot)
{
    return FindLocation(attributes, slot);
}

// As GetAttribute, over the uniform table.
int TSShaderManager::GetUniform(int slot)
{
    return FindLocation(uniforms, slot);
}

// One-off look-ups by name, straight from GL and not recorded. Without a
// program they answer 0 and leave GL alone. Meant for names asked once, such
// as a sampler bound at set-up; anything asked every frame belongs in the
// slot tables.
int TSShaderManager::GetAttributeLoc(const char* name)
{
    if (program == 0) {
        return 0;
    }
    return glGetAttribLocation(program, name);
}

// As GetAttributeLoc, for uniforms. Like GL, an unknown or inactive name
// answers -1, which is not the 0 of a missing program.
int TSShaderManager::GetUniformLoc(const char* name)
{
    if (program == 0) {
        return 0;
    }
    return glGetUniformLocation(program, name);
}

// Compiles `source` into `shader`. On failure the shader's info log is logged
// and the shader is deleted here, so the caller has only its own step to
// report. On success the shader is left for the caller to attach.
bool TSShaderManager::compileShader(unsigned shader, const char* source)
{
    // The source is one NUL-terminated text, hence a single string and no
    // length array.
    glShaderSource(shader, 1, &source, nullptr);
    glCompileShader(shader);

    // The status starts at 0, so a query that writes nothing reads as failed.
    GLint compiled = 0;
    glGetShaderiv(shader, GL_COMPILE_STATUS, &compiled);
    if (compiled != 0) {
        return true;
    }

    // Log first: the info log goes with the shader object.
    printGLErrorLog(shader, kShaderLog);
    glDeleteShader(shader);
    return false;
}

// Logs the info log of a shader (kind 0) or of a program (kind 1); any other
// kind is ignored and makes no GL call.
//
// The reported length counts the terminator, so an empty log answers 0 or 1
// and is not worth a line; the length starts at 0 in case the query writes
// nothing. The buffer is exactly the reported length, which GL fills with
// the whole log and its terminator.
void TSShaderManager::printGLErrorLog(unsigned object, unsigned kind)
{
    // The buffer is allocated per call: this runs only on failures, and a log
    // has no length limit worth a fixed array.
    GLint length = 0;

    // A shader whose compile failed.
    if (kind == kShaderLog) {
        glGetShaderiv(object, GL_INFO_LOG_LENGTH, &length);
        if (length < 2) {
            return;
        }
        std::unique_ptr<GLchar[]> log(new GLchar[length]);
        glGetShaderInfoLog(object, length, nullptr, log.get());
        HDR_LOG("Compile Error for a shader Object:\n%s\n", log.get());
        return;
    }

    if (kind == kProgramLog) {
        // Same for a program whose link failed.
        glGetProgramiv(object, GL_INFO_LOG_LENGTH, &length);
        if (length < 2) {
            return;
        }
        std::unique_ptr<GLchar[]> log(new GLchar[length]);
        glGetProgramInfoLog(object, length, nullptr, log.get());
        HDR_LOG("Link Error for a Program Object:\n%s\n", log.get());
        return;
    }
}

}  // namespace Tessara
