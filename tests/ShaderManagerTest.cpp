// Tests of the toolkit's shader program manager and globals, on a real GLES 3
// context (Mesa llvmpipe through headless EGL). A few GL entry points are
// interposed below so that the tests can make object creation fail, force
// info-log lengths and count the calls the manager makes.
#include "EglTestEnv.h"
#include "LogCapture.h"
#include "TSDefines.h"
#include "TSShaderManager.h"

#include <GLES3/gl3.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace {

// ---------------------------------------------------------------------------
// Interposition controls
// ---------------------------------------------------------------------------

struct Interposed {
    // glCreateShader answers 0 for this shader type (0: never).
    std::atomic<GLenum> failShaderType{0};
    // glCreateProgram answers 0.
    std::atomic<bool> failProgram{false};
    // GL_INFO_LOG_LENGTH answers this value instead of the driver's (-1: driver).
    std::atomic<GLint> shaderLogLength{-1};
    std::atomic<GLint> programLogLength{-1};

    std::atomic<int> createShaderCalls{0};
    std::atomic<int> createProgramCalls{0};
    std::atomic<int> getAttribLocationCalls{0};
    std::atomic<int> getUniformLocationCalls{0};
    std::atomic<int> getShaderivCalls{0};
    std::atomic<int> getProgramivCalls{0};
    std::atomic<int> shaderInfoLogCalls{0};
    std::atomic<int> programInfoLogCalls{0};
    std::atomic<int> deleteProgramCalls{0};

    std::mutex mutex;
    std::vector<GLuint> createdShaders;  // names glCreateShader handed out, in order

    void Reset()
    {
        failShaderType = 0;
        failProgram = false;
        shaderLogLength = -1;
        programLogLength = -1;
        createShaderCalls = 0;
        createProgramCalls = 0;
        getAttribLocationCalls = 0;
        getUniformLocationCalls = 0;
        getShaderivCalls = 0;
        getProgramivCalls = 0;
        shaderInfoLogCalls = 0;
        programInfoLogCalls = 0;
        deleteProgramCalls = 0;
        std::lock_guard<std::mutex> lock(mutex);
        createdShaders.clear();
    }

    std::vector<GLuint> Shaders()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return createdShaders;
    }
};

Interposed& Gl()
{
    static Interposed* const state = new Interposed;
    return *state;
}

template <typename Function>
Function Real(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// The executable's definitions take precedence over the driver's, for the
// library's calls as well as the tests' own.
extern "C" {

GLuint glCreateShader(GLenum type)
{
    ++Gl().createShaderCalls;
    if (Gl().failShaderType == type) {
        return 0;
    }
    static const auto real = Real<GLuint (*)(GLenum)>("glCreateShader");
    const GLuint shader = real(type);
    std::lock_guard<std::mutex> lock(Gl().mutex);
    Gl().createdShaders.push_back(shader);
    return shader;
}

GLuint glCreateProgram(void)
{
    ++Gl().createProgramCalls;
    if (Gl().failProgram) {
        return 0;
    }
    static const auto real = Real<GLuint (*)(void)>("glCreateProgram");
    return real();
}

void glDeleteProgram(GLuint program)
{
    ++Gl().deleteProgramCalls;
    static const auto real = Real<void (*)(GLuint)>("glDeleteProgram");
    real(program);
}

GLint glGetAttribLocation(GLuint program, const GLchar* name)
{
    ++Gl().getAttribLocationCalls;
    static const auto real = Real<GLint (*)(GLuint, const GLchar*)>("glGetAttribLocation");
    return real(program, name);
}

GLint glGetUniformLocation(GLuint program, const GLchar* name)
{
    ++Gl().getUniformLocationCalls;
    static const auto real = Real<GLint (*)(GLuint, const GLchar*)>("glGetUniformLocation");
    return real(program, name);
}

void glGetShaderiv(GLuint shader, GLenum pname, GLint* params)
{
    ++Gl().getShaderivCalls;
    const GLint forced = Gl().shaderLogLength;
    if (pname == GL_INFO_LOG_LENGTH && forced >= 0) {
        *params = forced;
        return;
    }
    static const auto real = Real<void (*)(GLuint, GLenum, GLint*)>("glGetShaderiv");
    real(shader, pname, params);
}

void glGetProgramiv(GLuint program, GLenum pname, GLint* params)
{
    ++Gl().getProgramivCalls;
    const GLint forced = Gl().programLogLength;
    if (pname == GL_INFO_LOG_LENGTH && forced >= 0) {
        *params = forced;
        return;
    }
    static const auto real = Real<void (*)(GLuint, GLenum, GLint*)>("glGetProgramiv");
    real(program, pname, params);
}

void glGetShaderInfoLog(GLuint shader, GLsizei bufSize, GLsizei* length, GLchar* infoLog)
{
    ++Gl().shaderInfoLogCalls;
    static const auto real =
        Real<void (*)(GLuint, GLsizei, GLsizei*, GLchar*)>("glGetShaderInfoLog");
    real(shader, bufSize, length, infoLog);
}

void glGetProgramInfoLog(GLuint program, GLsizei bufSize, GLsizei* length, GLchar* infoLog)
{
    ++Gl().programInfoLogCalls;
    static const auto real =
        Real<void (*)(GLuint, GLsizei, GLsizei*, GLchar*)>("glGetProgramInfoLog");
    real(program, bufSize, length, infoLog);
}

}  // extern "C"

namespace {

using Tessara::TSShaderManager;

// ---------------------------------------------------------------------------
// Shader sources
// ---------------------------------------------------------------------------

// aPosition and aTexCoord are pinned to locations 3 and 5, so that a real
// location can never be mistaken for the 0 of a missed look-up.
const char* const kVertex = R"(#version 300 es
layout(location = 3) in vec4 aPosition;
layout(location = 5) in vec2 aTexCoord;
uniform mat4 uTransform;
out vec2 vTexCoord;
void main()
{
    vTexCoord = aTexCoord;
    gl_Position = uTransform * aPosition;
}
)";

// uUnused is declared but never read, so the linker drops it.
const char* const kFragment = R"(#version 300 es
precision mediump float;
in vec2 vTexCoord;
uniform sampler2D u_Sampler;
uniform float uGain;
uniform float uUnused;
out vec4 fragColor;
void main()
{
    fragColor = texture(u_Sampler, vTexCoord) * uGain;
}
)";

const char* const kBrokenVertex = R"(#version 300 es
void main()
{
    gl_Position = undeclaredPosition;
}
)";

const char* const kBrokenFragment = R"(#version 300 es
precision mediump float;
out vec4 fragColor;
void main()
{
    fragColor = undeclaredColor;
}
)";

// Both stages compile, but the fragment stage reads vTexCoord as a vec3 while
// the vertex stage writes a vec2: the link fails.
const char* const kMismatchedFragment = R"(#version 300 es
precision mediump float;
in vec3 vTexCoord;
out vec4 fragColor;
void main()
{
    fragColor = vec4(vTexCoord, 1.0);
}
)";

// ---------------------------------------------------------------------------
// Helpers
// ---------------------------------------------------------------------------

struct Expected {
    const char* function;
    int line;
    std::string message;
};

// Every line the host sees: the logger's copy (main buffer, error priority,
// tag "TSS", prefixed) and the standard-output copy (message, then "\n").
void ExpectLog(const hdrtest::LogCapture& log, const std::vector<Expected>& expected)
{
    const std::vector<hdrtest::LoggedLine> lines = log.Lines();
    ASSERT_EQ(lines.size(), expected.size());
    std::string out;
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(lines[i].logId, 0) << "line " << i;
        EXPECT_EQ(lines[i].priority, 6) << "line " << i;
        EXPECT_EQ(lines[i].tag, "TSS") << "line " << i;
        EXPECT_EQ(lines[i].text, hdrtest::Logged("TSShaderManager.cpp", expected[i].function,
                                                 expected[i].line, expected[i].message))
            << "line " << i;
        out += expected[i].message + "\n";
    }
    EXPECT_EQ(log.Stdout(), out);
}

std::string ShaderLogOf(GLuint shader)
{
    GLint length = 0;
    glGetShaderiv(shader, GL_INFO_LOG_LENGTH, &length);
    std::string text(static_cast<size_t>(length > 0 ? length : 1), '\0');
    glGetShaderInfoLog(shader, length, nullptr, &text[0]);
    return text.c_str();
}

std::string ProgramLogOf(GLuint program)
{
    GLint length = 0;
    glGetProgramiv(program, GL_INFO_LOG_LENGTH, &length);
    std::string text(static_cast<size_t>(length > 0 ? length : 1), '\0');
    glGetProgramInfoLog(program, length, nullptr, &text[0]);
    return text.c_str();
}

// Compiles source on the test's side; the caller deletes the shader.
GLuint Compile(GLenum type, const char* source)
{
    const GLuint shader = glCreateShader(type);
    glShaderSource(shader, 1, &source, nullptr);
    glCompileShader(shader);
    return shader;
}

// What the driver says about compiling source.
std::string CompileLog(GLenum type, const char* source)
{
    const GLuint shader = Compile(type, source);
    const std::string text = ShaderLogOf(shader);
    glDeleteShader(shader);
    return text;
}

// Links the two sources on the test's side and leaves the program undeleted.
GLuint Link(const char* vertexSource, const char* fragmentSource)
{
    const GLuint vertex = Compile(GL_VERTEX_SHADER, vertexSource);
    const GLuint fragment = Compile(GL_FRAGMENT_SHADER, fragmentSource);
    const GLuint program = glCreateProgram();
    glAttachShader(program, vertex);
    glAttachShader(program, fragment);
    glLinkProgram(program);
    glDeleteShader(vertex);
    glDeleteShader(fragment);
    return program;
}

// What the driver says about linking the two sources.
std::string LinkLog(const char* vertexSource, const char* fragmentSource)
{
    const GLuint program = Link(vertexSource, fragmentSource);
    const std::string text = ProgramLogOf(program);
    glDeleteProgram(program);
    return text;
}

bool Compiled(GLuint shader)
{
    GLint status = GL_FALSE;
    glGetShaderiv(shader, GL_COMPILE_STATUS, &status);
    return status == GL_TRUE;
}

bool FlaggedForDeletion(GLuint shader)
{
    GLint status = GL_FALSE;
    glGetShaderiv(shader, GL_DELETE_STATUS, &status);
    return status == GL_TRUE;
}

class TSShaderManagerTest : public hdrtest::EglTest {
protected:
    void SetUp() override
    {
        hdrtest::EglTest::SetUp();
        ASSERT_FALSE(HasFatalFailure());
        host_ = std::make_unique<hdrtest::HostContext>(display_);
        ASSERT_TRUE(host_->ok()) << "no GLES 3 context";
        Gl().Reset();
    }

    void TearDown() override
    {
        Gl().Reset();
        host_.reset();
    }

    std::unique_ptr<hdrtest::HostContext> host_;
};

// ---------------------------------------------------------------------------
// Construction, success path
// ---------------------------------------------------------------------------

// A new manager has no program and empty tables.
TEST_F(TSShaderManagerTest, StartsWithoutProgramAndEmptyTables)
{
    TSShaderManager manager;
    EXPECT_EQ(manager.GetProgram(), 0u);
    EXPECT_EQ(manager.program, 0u);
    EXPECT_TRUE(manager.attributes.empty());
    EXPECT_TRUE(manager.uniforms.empty());
}

// Valid sources give a linked program and no log line at all.
TEST_F(TSShaderManagerTest, CreateProgramLinksSilently)
{
    TSShaderManager manager;
    hdrtest::LogCapture log;
    manager.CreateProgram(kVertex, kFragment);

    const GLuint program = manager.GetProgram();
    ASSERT_NE(program, 0u);
    EXPECT_TRUE(glIsProgram(program));
    GLint linked = GL_FALSE;
    glGetProgramiv(program, GL_LINK_STATUS, &linked);
    EXPECT_EQ(linked, GL_TRUE);
    ExpectLog(log, {});
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
}

// After linking, the shaders are flagged deleted, alive only while attached.
TEST_F(TSShaderManagerTest, CreateProgramDeletesShadersAfterLinking)
{
    TSShaderManager manager;
    manager.CreateProgram(kVertex, kFragment);
    const std::vector<GLuint> shaders = Gl().Shaders();
    ASSERT_EQ(shaders.size(), 2u);

    GLint attached = 0;
    glGetProgramiv(manager.GetProgram(), GL_ATTACHED_SHADERS, &attached);
    EXPECT_EQ(attached, 2);
    EXPECT_TRUE(FlaggedForDeletion(shaders[0]));
    EXPECT_TRUE(FlaggedForDeletion(shaders[1]));

    manager.Reset();
    EXPECT_FALSE(glIsShader(shaders[0]));
    EXPECT_FALSE(glIsShader(shaders[1]));
}

// Registration records the locations GL reports, in registration order.
TEST_F(TSShaderManagerTest, RegistrationRecordsRealLocations)
{
    TSShaderManager manager;
    manager.CreateProgram(kVertex, kFragment);
    const GLuint program = manager.GetProgram();
    ASSERT_NE(program, 0u);

    manager.AddAttribute(0, "aPosition");
    manager.AddAttribute(1, "aTexCoord");
    manager.AddUniform(0, "uTransform");
    manager.AddUniform(7, "u_Sampler");
    manager.AddUniform(2, "uGain");

    const std::vector<std::pair<int, int>> attributes = {{0, 3}, {1, 5}};
    const std::vector<std::pair<int, int>> uniforms = {
        {0, glGetUniformLocation(program, "uTransform")},
        {7, glGetUniformLocation(program, "u_Sampler")},
        {2, glGetUniformLocation(program, "uGain")}};
    EXPECT_EQ(manager.attributes, attributes);
    EXPECT_EQ(manager.uniforms, uniforms);
    for (const auto& entry : uniforms) {
        EXPECT_GE(entry.second, 0);
    }

    EXPECT_EQ(manager.GetAttribute(0), 3);
    EXPECT_EQ(manager.GetAttribute(1), 5);
    EXPECT_EQ(manager.GetUniform(0), uniforms[0].second);
    EXPECT_EQ(manager.GetUniform(7), uniforms[1].second);
    EXPECT_EQ(manager.GetUniform(2), uniforms[2].second);
}

// Look-ups by slot answer from the tables without calling GL.
TEST_F(TSShaderManagerTest, SlotLookupsMakeNoGlCall)
{
    TSShaderManager manager;
    manager.CreateProgram(kVertex, kFragment);
    manager.AddAttribute(0, "aPosition");
    manager.AddUniform(0, "uGain");
    Gl().Reset();

    EXPECT_EQ(manager.GetAttribute(0), 3);
    EXPECT_EQ(manager.GetUniform(0), manager.uniforms[0].second);
    EXPECT_EQ(Gl().getAttribLocationCalls, 0);
    EXPECT_EQ(Gl().getUniformLocationCalls, 0);
}

// Look-ups by name go straight to GL and record nothing.
TEST_F(TSShaderManagerTest, LookupsByNameAskGlAndRecordNothing)
{
    TSShaderManager manager;
    manager.CreateProgram(kVertex, kFragment);
    const GLuint program = manager.GetProgram();

    EXPECT_EQ(manager.GetAttributeLoc("aTexCoord"), 5);
    EXPECT_EQ(manager.GetUniformLoc("uGain"), glGetUniformLocation(program, "uGain"));
    EXPECT_EQ(manager.GetUniformLoc("noSuchUniform"), -1);
    EXPECT_EQ(manager.GetAttributeLoc("noSuchAttribute"), -1);
    EXPECT_TRUE(manager.attributes.empty());
    EXPECT_TRUE(manager.uniforms.empty());
}

// ---------------------------------------------------------------------------
// Slot tables
// ---------------------------------------------------------------------------

// Registering before CreateProgram records nothing; the slot answers 0 afterwards.
TEST_F(TSShaderManagerTest, RegistrationWithoutProgramRecordsNothing)
{
    TSShaderManager manager;
    manager.AddAttribute(4, "aTexCoord");
    manager.AddUniform(4, "uGain");
    EXPECT_TRUE(manager.attributes.empty());
    EXPECT_TRUE(manager.uniforms.empty());
    EXPECT_EQ(Gl().getAttribLocationCalls, 0);
    EXPECT_EQ(Gl().getUniformLocationCalls, 0);

    manager.CreateProgram(kVertex, kFragment);
    ASSERT_NE(manager.GetProgram(), 0u);
    EXPECT_EQ(manager.GetAttribute(4), 0);
    EXPECT_EQ(manager.GetUniform(4), 0);
}

// A slot that is not registered answers 0, not -1, even with other slots present.
TEST_F(TSShaderManagerTest, UnregisteredSlotAnswersZero)
{
    TSShaderManager manager;
    manager.CreateProgram(kVertex, kFragment);
    manager.AddAttribute(1, "aTexCoord");
    manager.AddUniform(1, "uGain");

    EXPECT_EQ(manager.GetAttribute(2), 0);
    EXPECT_EQ(manager.GetAttribute(-1), 0);
    EXPECT_EQ(manager.GetUniform(2), 0);
    EXPECT_EQ(manager.GetUniform(-1), 0);
}

// Registering one slot twice keeps both pairs; the first one answers.
TEST_F(TSShaderManagerTest, DuplicateSlotKeepsBothAndAnswersFirst)
{
    TSShaderManager manager;
    manager.CreateProgram(kVertex, kFragment);
    const GLuint program = manager.GetProgram();
    const GLint transform = glGetUniformLocation(program, "uTransform");
    const GLint gain = glGetUniformLocation(program, "uGain");
    ASSERT_NE(transform, gain);

    manager.AddUniform(3, "uTransform");
    manager.AddUniform(3, "uGain");
    manager.AddAttribute(3, "aTexCoord");
    manager.AddAttribute(3, "aPosition");

    const std::vector<std::pair<int, int>> uniforms = {{3, transform}, {3, gain}};
    const std::vector<std::pair<int, int>> attributes = {{3, 5}, {3, 3}};
    EXPECT_EQ(manager.uniforms, uniforms);
    EXPECT_EQ(manager.attributes, attributes);
    EXPECT_EQ(manager.GetUniform(3), transform);
    EXPECT_EQ(manager.GetAttribute(3), 5);
}

// A uniform the linker dropped registers with -1, and its slot answers -1.
TEST_F(TSShaderManagerTest, OptimisedAwayUniformRegistersMinusOne)
{
    TSShaderManager manager;
    manager.CreateProgram(kVertex, kFragment);
    ASSERT_NE(manager.GetProgram(), 0u);

    manager.AddUniform(9, "uUnused");
    ASSERT_EQ(manager.uniforms.size(), 1u);
    EXPECT_EQ(manager.uniforms[0], std::make_pair(9, -1));
    EXPECT_EQ(manager.GetUniform(9), -1);
}

// GetAttributeLoc and GetUniformLoc without a program answer 0 and call no GL.
TEST_F(TSShaderManagerTest, LookupsByNameWithoutProgramAnswerZeroWithoutGl)
{
    TSShaderManager manager;
    EXPECT_EQ(manager.GetAttributeLoc("aPosition"), 0);
    EXPECT_EQ(manager.GetUniformLoc("uGain"), 0);
    EXPECT_EQ(Gl().getAttribLocationCalls, 0);
    EXPECT_EQ(Gl().getUniformLocationCalls, 0);
}

// ---------------------------------------------------------------------------
// Reset and destruction
// ---------------------------------------------------------------------------

// Reset deletes the program and empties both tables but keeps the name.
TEST_F(TSShaderManagerTest, ResetDeletesProgramAndKeepsName)
{
    TSShaderManager manager;
    manager.CreateProgram(kVertex, kFragment);
    const GLuint program = manager.GetProgram();
    ASSERT_NE(program, 0u);
    manager.AddAttribute(0, "aPosition");
    manager.AddUniform(0, "uGain");

    manager.Reset();
    EXPECT_FALSE(glIsProgram(program));
    EXPECT_TRUE(manager.attributes.empty());
    EXPECT_TRUE(manager.uniforms.empty());
    EXPECT_EQ(manager.GetProgram(), program);
    EXPECT_EQ(manager.GetAttribute(0), 0);
}

// Destroying after Reset deletes the kept name a second time: GL_INVALID_VALUE.
TEST_F(TSShaderManagerTest, DestructionAfterResetDeletesNameAgain)
{
    {
        TSShaderManager manager;
        manager.CreateProgram(kVertex, kFragment);
        ASSERT_NE(manager.GetProgram(), 0u);
        manager.Reset();
        ASSERT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
        Gl().Reset();
    }
    EXPECT_EQ(Gl().deleteProgramCalls, 1);
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_INVALID_VALUE));
}

// Reset without a program makes no delete call.
TEST_F(TSShaderManagerTest, ResetWithoutProgramDeletesNothing)
{
    TSShaderManager manager;
    manager.Reset();
    EXPECT_EQ(Gl().deleteProgramCalls, 0);
    EXPECT_EQ(manager.GetProgram(), 0u);
}

// Destroying a manager deletes its program.
TEST_F(TSShaderManagerTest, DestructorDeletesProgram)
{
    GLuint program = 0;
    {
        TSShaderManager manager;
        manager.CreateProgram(kVertex, kFragment);
        program = manager.GetProgram();
        ASSERT_TRUE(glIsProgram(program));
    }
    EXPECT_FALSE(glIsProgram(program));
}

// A second CreateProgram replaces the name without deleting the first program.
TEST_F(TSShaderManagerTest, SecondCreateProgramLeavesFirstAlive)
{
    TSShaderManager manager;
    manager.CreateProgram(kVertex, kFragment);
    const GLuint first = manager.GetProgram();
    manager.CreateProgram(kVertex, kFragment);
    const GLuint second = manager.GetProgram();

    ASSERT_NE(first, 0u);
    ASSERT_NE(second, 0u);
    EXPECT_NE(first, second);
    EXPECT_TRUE(glIsProgram(first));
    manager.Reset();
    EXPECT_FALSE(glIsProgram(second));
    EXPECT_TRUE(glIsProgram(first));
    glDeleteProgram(first);
}

// ---------------------------------------------------------------------------
// Failures of CreateProgram
// ---------------------------------------------------------------------------

// A failed link logs the info log, deletes the program, keeps its name.
TEST_F(TSShaderManagerTest, LinkFailureLogsDeletesProgramAndKeepsName)
{
    const std::string linkLog = LinkLog(kVertex, kMismatchedFragment);
    ASSERT_GE(linkLog.size(), 1u) << "the driver gave no link log";
    TSShaderManager manager;
    hdrtest::LogCapture log;
    Gl().Reset();
    manager.CreateProgram(kVertex, kMismatchedFragment);

    const GLuint program = manager.GetProgram();
    EXPECT_NE(program, 0u);
    EXPECT_FALSE(glIsProgram(program));
    const std::vector<GLuint> shaders = Gl().Shaders();
    ASSERT_EQ(shaders.size(), 2u);
    EXPECT_FALSE(glIsShader(shaders[0]));
    EXPECT_FALSE(glIsShader(shaders[1]));
    ExpectLog(log, {{"printGLErrorLog", 263, "Link Error for a Program Object:\n" + linkLog + "\n"}});
}

// Registering after a failed link records GL's -1 for the deleted name.
TEST_F(TSShaderManagerTest, RegistrationAfterLinkFailureRecordsMinusOne)
{
    TSShaderManager manager;
    manager.CreateProgram(kVertex, kMismatchedFragment);
    ASSERT_NE(manager.GetProgram(), 0u);
    while (glGetError() != GL_NO_ERROR) {
    }

    manager.AddUniform(0, "uTransform");
    ASSERT_EQ(manager.uniforms.size(), 1u);
    EXPECT_EQ(manager.GetUniform(0), -1);
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_INVALID_VALUE));
}

// Destroying after a failed link deletes the stale name again: GL_INVALID_VALUE.
TEST_F(TSShaderManagerTest, DestructionAfterLinkFailureDeletesStaleName)
{
    {
        TSShaderManager manager;
        manager.CreateProgram(kVertex, kMismatchedFragment);
        ASSERT_NE(manager.GetProgram(), 0u);
        while (glGetError() != GL_NO_ERROR) {
        }
        Gl().Reset();
    }
    EXPECT_EQ(Gl().deleteProgramCalls, 1);
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_INVALID_VALUE));
}

// Vertex compile failure: info log then step line; fragment object left undeleted.
TEST_F(TSShaderManagerTest, VertexCompileFailureLogsTwoLines)
{
    const std::string compileLog = CompileLog(GL_VERTEX_SHADER, kBrokenVertex);
    ASSERT_GE(compileLog.size(), 1u) << "the driver gave no compile log";
    TSShaderManager manager;
    hdrtest::LogCapture log;
    Gl().Reset();
    manager.CreateProgram(kBrokenVertex, kFragment);

    EXPECT_EQ(manager.GetProgram(), 0u);
    EXPECT_EQ(Gl().createProgramCalls, 0);
    const std::vector<GLuint> shaders = Gl().Shaders();
    ASSERT_EQ(shaders.size(), 2u);
    EXPECT_FALSE(glIsShader(shaders[0]));
    EXPECT_TRUE(glIsShader(shaders[1]));
    ExpectLog(log, {{"printGLErrorLog", 251, "Compile Error for a shader Object:\n" + compileLog + "\n"},
                    {"CreateProgram", 83, "Error :: compile a shader object for vertex shader\n"}});
    glDeleteShader(shaders[1]);
}

// Fragment compile failure: info log then step line; vertex object left undeleted.
TEST_F(TSShaderManagerTest, FragmentCompileFailureLogsTwoLines)
{
    const std::string compileLog = CompileLog(GL_FRAGMENT_SHADER, kBrokenFragment);
    ASSERT_GE(compileLog.size(), 1u) << "the driver gave no compile log";
    TSShaderManager manager;
    hdrtest::LogCapture log;
    Gl().Reset();
    manager.CreateProgram(kVertex, kBrokenFragment);

    EXPECT_EQ(manager.GetProgram(), 0u);
    EXPECT_EQ(Gl().createProgramCalls, 0);
    const std::vector<GLuint> shaders = Gl().Shaders();
    ASSERT_EQ(shaders.size(), 2u);
    EXPECT_TRUE(glIsShader(shaders[0]));
    EXPECT_TRUE(Compiled(shaders[0]));
    EXPECT_FALSE(glIsShader(shaders[1]));
    ExpectLog(log, {{"printGLErrorLog", 251, "Compile Error for a shader Object:\n" + compileLog + "\n"},
                    {"CreateProgram", 90, "Error :: compile a shader object for fragment shader\n"}});
    glDeleteShader(shaders[0]);
}

// No vertex shader object: one line, nothing else made.
TEST_F(TSShaderManagerTest, VertexShaderCreationFailureLogsAndStops)
{
    TSShaderManager manager;
    hdrtest::LogCapture log;
    Gl().failShaderType = GL_VERTEX_SHADER;
    manager.CreateProgram(kVertex, kFragment);

    EXPECT_EQ(manager.GetProgram(), 0u);
    EXPECT_EQ(Gl().createShaderCalls, 1);
    EXPECT_EQ(Gl().createProgramCalls, 0);
    ExpectLog(log, {{"CreateProgram", 66, "Error :: create a shader object for vertex shader\n"}});
}

// No fragment shader object: one line, and the vertex object is deleted.
TEST_F(TSShaderManagerTest, FragmentShaderCreationFailureDeletesVertexShader)
{
    TSShaderManager manager;
    hdrtest::LogCapture log;
    Gl().failShaderType = GL_FRAGMENT_SHADER;
    manager.CreateProgram(kVertex, kFragment);

    EXPECT_EQ(manager.GetProgram(), 0u);
    EXPECT_EQ(Gl().createShaderCalls, 2);
    EXPECT_EQ(Gl().createProgramCalls, 0);
    const std::vector<GLuint> shaders = Gl().Shaders();
    ASSERT_EQ(shaders.size(), 1u);
    EXPECT_FALSE(glIsShader(shaders[0]));
    ExpectLog(log, {{"CreateProgram", 75, "Error :: create a shader object for fragment shader\n"}});
}

// No program object: one line, and both compiled shader objects are left.
TEST_F(TSShaderManagerTest, ProgramCreationFailureLeavesBothShaders)
{
    TSShaderManager manager;
    hdrtest::LogCapture log;
    Gl().failProgram = true;
    manager.CreateProgram(kVertex, kFragment);

    EXPECT_EQ(manager.GetProgram(), 0u);
    EXPECT_EQ(Gl().createProgramCalls, 1);
    const std::vector<GLuint> shaders = Gl().Shaders();
    ASSERT_EQ(shaders.size(), 2u);
    for (GLuint shader : shaders) {
        EXPECT_TRUE(glIsShader(shader));
        EXPECT_TRUE(Compiled(shader));
        EXPECT_FALSE(FlaggedForDeletion(shader));
        glDeleteShader(shader);
    }
    ExpectLog(log, {{"CreateProgram", 104, "Error :: create a program object\n"}});
}

// A compile failure whose info log is empty (length 0 or 1) logs only the step.
TEST_F(TSShaderManagerTest, CompileFailureWithEmptyInfoLogLogsOnlyStep)
{
    for (GLint length : {0, 1}) {
        SCOPED_TRACE(length);
        TSShaderManager manager;
        hdrtest::LogCapture log;
        Gl().Reset();
        Gl().shaderLogLength = length;
        manager.CreateProgram(kBrokenVertex, kFragment);

        EXPECT_EQ(manager.GetProgram(), 0u);
        EXPECT_EQ(Gl().shaderInfoLogCalls, 0);
        ExpectLog(log, {{"CreateProgram", 83, "Error :: compile a shader object for vertex shader\n"}});
        const std::vector<GLuint> shaders = Gl().Shaders();
        ASSERT_EQ(shaders.size(), 2u);
        glDeleteShader(shaders[1]);
    }
}

// A link failure with an empty info log (length 0 or 1) logs nothing.
TEST_F(TSShaderManagerTest, LinkFailureWithEmptyInfoLogLogsNothing)
{
    for (GLint length : {0, 1}) {
        SCOPED_TRACE(length);
        TSShaderManager manager;
        hdrtest::LogCapture log;
        Gl().Reset();
        Gl().programLogLength = length;
        manager.CreateProgram(kVertex, kMismatchedFragment);

        EXPECT_NE(manager.GetProgram(), 0u);
        EXPECT_FALSE(glIsProgram(manager.GetProgram()));
        EXPECT_EQ(Gl().programInfoLogCalls, 0);
        ExpectLog(log, {});
    }
}

// ---------------------------------------------------------------------------
// compileShader and printGLErrorLog on their own
// ---------------------------------------------------------------------------

// compileShader compiles good source and leaves the shader to the caller.
TEST_F(TSShaderManagerTest, CompileShaderSucceedsAndKeepsShader)
{
    TSShaderManager manager;
    hdrtest::LogCapture log;
    const GLuint shader = glCreateShader(GL_FRAGMENT_SHADER);
    EXPECT_TRUE(manager.compileShader(shader, kFragment));
    EXPECT_TRUE(glIsShader(shader));
    EXPECT_TRUE(Compiled(shader));
    ExpectLog(log, {});
    glDeleteShader(shader);
}

// compileShader on bad source logs the info log, deletes the shader and fails.
TEST_F(TSShaderManagerTest, CompileShaderFailureLogsAndDeletes)
{
    const std::string compileLog = CompileLog(GL_FRAGMENT_SHADER, kBrokenFragment);
    TSShaderManager manager;
    hdrtest::LogCapture log;
    const GLuint shader = glCreateShader(GL_FRAGMENT_SHADER);
    EXPECT_FALSE(manager.compileShader(shader, kBrokenFragment));
    EXPECT_FALSE(glIsShader(shader));
    ExpectLog(log, {{"printGLErrorLog", 251, "Compile Error for a shader Object:\n" + compileLog + "\n"}});
}

// Kind 0 logs a shader's info log.
TEST_F(TSShaderManagerTest, PrintGLErrorLogKindZeroLogsShaderLog)
{
    const GLuint shader = Compile(GL_VERTEX_SHADER, kBrokenVertex);
    const std::string compileLog = ShaderLogOf(shader);
    ASSERT_GE(compileLog.size(), 1u);
    TSShaderManager manager;
    hdrtest::LogCapture log;
    manager.printGLErrorLog(shader, 0);
    ExpectLog(log, {{"printGLErrorLog", 251, "Compile Error for a shader Object:\n" + compileLog + "\n"}});
    glDeleteShader(shader);
}

// Kind 1 logs a program's info log.
TEST_F(TSShaderManagerTest, PrintGLErrorLogKindOneLogsProgramLog)
{
    const GLuint program = Link(kVertex, kMismatchedFragment);
    const std::string linkLog = ProgramLogOf(program);
    ASSERT_GE(linkLog.size(), 1u);
    TSShaderManager manager;
    hdrtest::LogCapture log;
    manager.printGLErrorLog(program, 1);
    ExpectLog(log, {{"printGLErrorLog", 263, "Link Error for a Program Object:\n" + linkLog + "\n"}});
    glDeleteProgram(program);
}

// Any kind other than 0 or 1 does nothing: no GL call, no line.
TEST_F(TSShaderManagerTest, PrintGLErrorLogIgnoresOtherKinds)
{
    const GLuint shader = Compile(GL_VERTEX_SHADER, kBrokenVertex);
    const GLuint program = Link(kVertex, kMismatchedFragment);
    TSShaderManager manager;
    hdrtest::LogCapture log;
    Gl().Reset();
    for (unsigned kind : {2u, 3u, 0xFFFFFFFFu}) {
        manager.printGLErrorLog(shader, kind);
        manager.printGLErrorLog(program, kind);
    }
    EXPECT_EQ(Gl().getShaderivCalls, 0);
    EXPECT_EQ(Gl().getProgramivCalls, 0);
    EXPECT_EQ(Gl().shaderInfoLogCalls, 0);
    EXPECT_EQ(Gl().programInfoLogCalls, 0);
    ExpectLog(log, {});
    glDeleteShader(shader);
    glDeleteProgram(program);
}

// An info log of length 0 or 1 gives no line and is not fetched, for either kind.
TEST_F(TSShaderManagerTest, PrintGLErrorLogSkipsEmptyLogs)
{
    const GLuint shader = Compile(GL_VERTEX_SHADER, kBrokenVertex);
    const GLuint program = Link(kVertex, kMismatchedFragment);
    TSShaderManager manager;
    hdrtest::LogCapture log;
    for (GLint length : {0, 1}) {
        SCOPED_TRACE(length);
        Gl().Reset();
        Gl().shaderLogLength = length;
        Gl().programLogLength = length;
        manager.printGLErrorLog(shader, 0);
        manager.printGLErrorLog(program, 1);
        EXPECT_EQ(Gl().shaderInfoLogCalls, 0);
        EXPECT_EQ(Gl().programInfoLogCalls, 0);
    }
    ExpectLog(log, {});
    Gl().Reset();
    glDeleteShader(shader);
    glDeleteProgram(program);
}

// The (empty) info log of a clean compile gives no line.
TEST_F(TSShaderManagerTest, PrintGLErrorLogOfCleanShaderLogsNothing)
{
    const GLuint shader = Compile(GL_FRAGMENT_SHADER, kFragment);
    ASSERT_TRUE(Compiled(shader));
    GLint length = -1;
    glGetShaderiv(shader, GL_INFO_LOG_LENGTH, &length);
    ASSERT_LT(length, 2) << "the driver reports a non-empty log for a clean compile";
    TSShaderManager manager;
    hdrtest::LogCapture log;
    manager.printGLErrorLog(shader, 0);
    ExpectLog(log, {});
    glDeleteShader(shader);
}

// ---------------------------------------------------------------------------
// Toolkit globals
// ---------------------------------------------------------------------------

// The shader path is empty when the library is loaded.
TEST(TSDefinesTest, ShaderPathStartsEmpty)
{
    EXPECT_EQ(Tessara::___ts_define_shader_path(), "");
}

// The setter's value is what the accessor answers.
TEST(TSDefinesTest, ShaderPathSetThenGet)
{
    Tessara::___ts_define_shader_path_set("/usr/share/tessara/shaders/");
    EXPECT_EQ(Tessara::___ts_define_shader_path(), "/usr/share/tessara/shaders/");
    Tessara::___ts_define_shader_path_set("");
    EXPECT_EQ(Tessara::___ts_define_shader_path(), "");
}

// The accessor hands out a reference to the one stored path.
TEST(TSDefinesTest, ShaderPathAccessorIsAReference)
{
    std::string& path = Tessara::___ts_define_shader_path();
    EXPECT_EQ(&path, &Tessara::___ts_define_shader_path());
    path = "shaders";
    EXPECT_EQ(Tessara::___ts_define_shader_path(), "shaders");
    Tessara::___ts_define_shader_path_set("other");
    EXPECT_EQ(path, "other");
    path.clear();
}

// The indexed blend slots start null.
TEST(TSDefinesTest, BlendFunctionPointersStartNull)
{
    EXPECT_EQ(tss_glBlendEquationi, nullptr);
    EXPECT_EQ(tss_glBlendFunci, nullptr);
    // Plain function pointers: pointer-sized on LP64 and ILP32 alike.
    EXPECT_EQ(sizeof(tss_glBlendEquationi), sizeof(void (*)()));
    EXPECT_EQ(sizeof(tss_glBlendFunci), sizeof(void (*)()));
}

}  // namespace
