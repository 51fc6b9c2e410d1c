// The gain-map program's registration: its attributes and uniforms in slot
// order, the generator's three lookup maps, and the tying of the six input
// planes to their texture units and sampler uniforms.
#include "EglTestEnv.h"
#include "Faults.h"
#include "HdrGenerate.h"
#include "HdrRender.h"
#include "LogCapture.h"
#include "TSShaderManager.h"

#include <GLES3/gl3.h>
#include <gtest/gtest.h>

#include <iterator>
#include <set>
#include <string>
#include <utility>
#include <vector>

using hdrtest::LogCapture;
using hdrtest::Parse;
namespace faults = hdrtest::faults;

namespace {

// Uniform slots 0..20 with their GLSL types and array sizes.
struct UniformSlot {
    const char* name;
    GLenum type;
    GLint size;
};
const UniformSlot kUniforms[] = {
    {"u_MainYSampler", GL_SAMPLER_2D, 1},
    {"u_MainUSampler", GL_SAMPLER_2D, 1},
    {"u_MainVSampler", GL_SAMPLER_2D, 1},
    {"u_gainmapYSampler", GL_SAMPLER_2D, 1},
    {"u_gainmapUSampler", GL_SAMPLER_2D, 1},
    {"u_gainmapVSampler", GL_SAMPLER_2D, 1},
    {"logRatioMin", GL_FLOAT_VEC4, 1},
    {"logRatioMax", GL_FLOAT_VEC4, 1},
    {"gainmapGamma", GL_FLOAT_VEC4, 1},
    {"epsilonSdr", GL_FLOAT_VEC4, 1},
    {"epsilonHdr", GL_FLOAT_VEC4, 1},
    {"W", GL_FLOAT, 1},
    {"noGamma", GL_INT, 1},
    {"outputGamutTransform", GL_FLOAT_MAT3, 1},
    {"trfn_inv", GL_FLOAT, 7},
    {"curve_gain_point", GL_FLOAT_VEC3, 1},
    {"curve_gain_grad", GL_FLOAT_VEC3, 1},
    {"bOutputYUV", GL_INT, 1},
    {"inputTrfnType", GL_INT, 1},
    {"in_trfn", GL_FLOAT, 7},
    {"rotateMatrix", GL_FLOAT_MAT4, 1},
};
constexpr int kUniformCount = static_cast<int>(std::size(kUniforms));
constexpr int kUnusedSlot = 13;  // outputGamutTransform: declared, never applied

const char* const kSamplers[6] = {"u_MainYSampler",    "u_MainUSampler",    "u_MainVSampler",
                                  "u_gainmapYSampler", "u_gainmapUSampler", "u_gainmapVSampler"};

// The calling thread's render context made and bound, and the generator
// created but not initialised.
class GainMapProgramTest : public hdrtest::EglTest {
protected:
    void SetUp() override
    {
        EglTest::SetUp();
        faults::Reset();
        HdrGenerate::DestroyInstance();
        HdrRender::DestroyInstance();
        HdrRender* render = HdrRender::GetInstance();
        render->SetEGLDisplay(display_);
        ASSERT_EQ(render->Init(), 0);
        ASSERT_TRUE(render->Bind());
        bound_ = true;
        engine_ = HdrGenerate::GetInstance();
    }

    void TearDown() override
    {
        faults::Reset();
        HdrGenerate::DestroyInstance();
        if (bound_) {
            HdrRender::GetInstance()->Unbind();
        }
        HdrRender::DestroyInstance();
    }

    // The program built and registered, with six input textures.
    void Ready()
    {
        ASSERT_TRUE(engine_->SetupShaders());
        glGenTextures(6, engine_->inputTextures);
    }

    GLuint Program() { return engine_->shaderManager->GetProgram(); }

    HdrGenerate* engine_ = nullptr;
    bool bound_ = false;
};

// The two sources compile and link into one program.
TEST_F(GainMapProgramTest, BuildsALinkedProgram)
{
    ASSERT_TRUE(engine_->SetupShaders());
    ASSERT_NE(engine_->shaderManager, nullptr);
    ASSERT_NE(Program(), 0u);
    EXPECT_TRUE(glIsProgram(Program()));
    GLint linked = 0;
    glGetProgramiv(Program(), GL_LINK_STATUS, &linked);
    EXPECT_EQ(linked, GL_TRUE);
}

// The two attributes are registered in slot order with GL's locations.
TEST_F(GainMapProgramTest, AttributesRegisteredInSlotOrder)
{
    ASSERT_TRUE(engine_->SetupShaders());
    const GLint position = glGetAttribLocation(Program(), "aPosition");
    const GLint texcoord = glGetAttribLocation(Program(), "aTexcoord");
    EXPECT_GE(position, 0);
    EXPECT_GE(texcoord, 0);
    EXPECT_NE(position, texcoord);
    const std::vector<std::pair<int, int>> expected = {{0, position}, {1, texcoord}};
    EXPECT_EQ(engine_->shaderManager->attributes, expected);
}

// The 21 uniforms are registered in slot order with GL's locations.
TEST_F(GainMapProgramTest, UniformsRegisteredInSlotOrder)
{
    ASSERT_TRUE(engine_->SetupShaders());
    const auto& uniforms = engine_->shaderManager->uniforms;
    ASSERT_EQ(uniforms.size(), static_cast<size_t>(kUniformCount));
    for (int slot = 0; slot < kUniformCount; ++slot) {
        SCOPED_TRACE(kUniforms[slot].name);
        EXPECT_EQ(uniforms[slot].first, slot);
        EXPECT_EQ(uniforms[slot].second, glGetUniformLocation(Program(), kUniforms[slot].name));
    }
}

// Every uniform but the gamut transform is active, each at a location of its own.
TEST_F(GainMapProgramTest, UsedUniformsHaveDistinctLocations)
{
    ASSERT_TRUE(engine_->SetupShaders());
    std::set<int> locations;
    for (int slot = 0; slot < kUniformCount; ++slot) {
        if (slot == kUnusedSlot) {
            continue;
        }
        const int location = engine_->shaderManager->GetUniform(slot);
        EXPECT_GE(location, 0) << kUniforms[slot].name;
        locations.insert(location);
    }
    EXPECT_EQ(locations.size(), static_cast<size_t>(kUniformCount - 1));
}

// The gamut transform is never applied, so the linker drops it: location -1.
TEST_F(GainMapProgramTest, OutputGamutTransformIsMinusOne)
{
    ASSERT_TRUE(engine_->SetupShaders());
    EXPECT_EQ(engine_->shaderManager->GetUniform(kUnusedSlot), -1);
}

// The program's active interface has the table's names, types and sizes.
TEST_F(GainMapProgramTest, ActiveInterfaceHasTheTablesTypes)
{
    ASSERT_TRUE(engine_->SetupShaders());
    GLint count = 0;
    glGetProgramiv(Program(), GL_ACTIVE_UNIFORMS, &count);
    EXPECT_EQ(count, kUniformCount - 1);
    for (GLint i = 0; i < count; ++i) {
        char name[64] = {};
        GLint size = 0;
        GLenum type = 0;
        glGetActiveUniform(Program(), static_cast<GLuint>(i), sizeof name, nullptr, &size, &type, name);
        std::string base = name;
        const size_t bracket = base.find('[');
        if (bracket != std::string::npos) {
            base.resize(bracket);
        }
        bool found = false;
        for (const UniformSlot& u : kUniforms) {
            if (base == u.name) {
                found = true;
                EXPECT_EQ(type, u.type) << name;
                EXPECT_EQ(size, u.size) << name;
            }
        }
        EXPECT_TRUE(found) << name;
    }
    GLint attributes = 0;
    glGetProgramiv(Program(), GL_ACTIVE_ATTRIBUTES, &attributes);
    ASSERT_EQ(attributes, 2);
    for (GLuint i = 0; i < 2; ++i) {
        char name[64] = {};
        GLint size = 0;
        GLenum type = 0;
        glGetActiveAttrib(Program(), i, sizeof name, nullptr, &size, &type, name);
        const GLenum expected = std::string(name) == "aPosition" ? GL_FLOAT_VEC3 : GL_FLOAT_VEC2;
        EXPECT_EQ(type, expected) << name;
        EXPECT_TRUE(std::string(name) == "aPosition" || std::string(name) == "aTexcoord") << name;
    }
}

// The attribute slots: position at slot 0, texture coordinates at slot 1.
TEST_F(GainMapProgramTest, AttributeSlotsArePositionAndTexcoord)
{
    ASSERT_TRUE(engine_->SetupShaders());
    EXPECT_EQ(engine_->shaderManager->GetAttribute(0), glGetAttribLocation(Program(), "aPosition"));
    EXPECT_EQ(engine_->shaderManager->GetAttribute(1), glGetAttribLocation(Program(), "aTexcoord"));
}

// The uniform slots: all 21 names, each at its own slot.
TEST_F(GainMapProgramTest, UniformSlotsHaveEveryName)
{
    ASSERT_TRUE(engine_->SetupShaders());
    for (int slot = 0; slot < kUniformCount; ++slot) {
        EXPECT_EQ(engine_->shaderManager->GetUniform(slot), glGetUniformLocation(Program(), kUniforms[slot].name))
            << kUniforms[slot].name;
    }
}

// Slots 0..5 are the planes' samplers, in plane order.
TEST_F(GainMapProgramTest, SamplerSlotsFollowThePlanes)
{
    ASSERT_TRUE(engine_->SetupShaders());
    for (int plane = 0; plane < 6; ++plane) {
        EXPECT_EQ(engine_->shaderManager->GetUniform(plane), glGetUniformLocation(Program(), kSamplers[plane]))
            << plane;
    }
}

// A second set-up reuses the manager; every slot still answers its first
// registration.
TEST_F(GainMapProgramTest, SecondSetupKeepsEverySlot)
{
    ASSERT_TRUE(engine_->SetupShaders());
    Tessara::TSShaderManager* manager = engine_->shaderManager;
    std::vector<int> before;
    for (int slot = 0; slot < kUniformCount; ++slot) {
        before.push_back(manager->GetUniform(slot));
    }
    ASSERT_TRUE(engine_->SetupShaders());
    EXPECT_EQ(engine_->shaderManager, manager);
    for (int slot = 0; slot < kUniformCount; ++slot) {
        EXPECT_EQ(manager->GetUniform(slot), before[static_cast<size_t>(slot)]) << slot;
    }
    EXPECT_EQ(manager->GetAttribute(1), glGetAttribLocation(manager->GetProgram(), "aTexcoord"));
}

// Without a shader manager there is no program: 9, only the start line.
TEST_F(GainMapProgramTest, TexUniformWithoutManagerIsNine)
{
    LogCapture capture;
    EXPECT_EQ(engine_->UpdateTexUniform(), 9);
    EXPECT_EQ(capture.Messages(), std::vector<std::string>{"HdrGenerate::UpdateTexUniform start"});
    EXPECT_EQ(capture.Stdout(), "HdrGenerate::UpdateTexUniform start\n");
}

// A manager whose program is 0: 9, only the start line, no GL call.
TEST_F(GainMapProgramTest, TexUniformWithProgramZeroIsNine)
{
    engine_->shaderManager = new Tessara::TSShaderManager();
    ASSERT_EQ(engine_->shaderManager->GetProgram(), 0u);
    const int glErrorCalls = faults::GlGetErrorCalls();
    LogCapture capture;
    EXPECT_EQ(engine_->UpdateTexUniform(), 9);
    EXPECT_EQ(capture.Messages(), std::vector<std::string>{"HdrGenerate::UpdateTexUniform start"});
    EXPECT_EQ(faults::GlGetErrorCalls(), glErrorCalls);
}

// Success: one line per plane with its sampler name and unit, then the end line.
TEST_F(GainMapProgramTest, TexUniformLogsEveryPlane)
{
    Ready();
    LogCapture capture;
    EXPECT_EQ(engine_->UpdateTexUniform(), 0);
    std::vector<std::string> expected = {"HdrGenerate::UpdateTexUniform start"};
    for (int plane = 0; plane < 6; ++plane) {
        expected.push_back(hdrtest::Format("HdrGenerate::UpdateTexUniform: %s, %d", kSamplers[plane], plane));
    }
    expected.push_back("HdrGenerate::UpdateTexUniform end");
    EXPECT_EQ(capture.Messages(), expected);
    std::string out;
    for (const std::string& message : expected) {
        out += message + "\n";
    }
    EXPECT_EQ(capture.Stdout(), out);
}

// Each sampler uniform reads back its plane's unit, with the program in use.
TEST_F(GainMapProgramTest, TexUniformSetsEachSamplerToItsUnit)
{
    Ready();
    ASSERT_EQ(engine_->UpdateTexUniform(), 0);
    GLint current = 0;
    glGetIntegerv(GL_CURRENT_PROGRAM, &current);
    EXPECT_EQ(static_cast<GLuint>(current), Program());
    for (int plane = 0; plane < 6; ++plane) {
        GLint unit = -1;
        glGetUniformiv(Program(), glGetUniformLocation(Program(), kSamplers[plane]), &unit);
        EXPECT_EQ(unit, plane) << kSamplers[plane];
    }
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
}

// Planes 0 to 4 keep their input texture on their own unit.
TEST_F(GainMapProgramTest, TexUniformBindsTheTexturesToTheirUnits)
{
    Ready();
    ASSERT_EQ(engine_->UpdateTexUniform(), 0);
    for (int plane = 0; plane < 5; ++plane) {
        glActiveTexture(GL_TEXTURE0 + plane);
        GLint bound = 0;
        glGetIntegerv(GL_TEXTURE_BINDING_2D, &bound);
        EXPECT_EQ(static_cast<GLuint>(bound), engine_->inputTextures[plane]) << "unit " << plane;
    }
}

// A pending GL error: 11, the error's description, then "%d ERROR: GL_error\n".
TEST_F(GainMapProgramTest, TexUniformGlErrorIsEleven)
{
    Ready();
    faults::QueueGlError(GL_INVALID_OPERATION);
    LogCapture capture;
    EXPECT_EQ(engine_->UpdateTexUniform(), 11);
    const auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(Parse(lines[0].text).message, "HdrGenerate::UpdateTexUniform start");
    EXPECT_EQ(Parse(lines[1].text).message,
              "The specified operation is not allowed in the current state. 0x00000502");
    const auto last = Parse(lines[2].text);
    EXPECT_EQ(last.file, "HdrGenerate.cpp");
    EXPECT_EQ(last.function, "UpdateTexUniform");
    EXPECT_EQ(last.message, hdrtest::Format("%d ERROR: GL_error\n", last.line));
}

// The driver's own error (an int set on a float uniform) stops the loop at
// that plane: the planes before it are logged, the rest are not.
TEST_F(GainMapProgramTest, TexUniformStopsAtTheFailingPlane)
{
    Ready();
    // Plane 3's sampler slot pointed at the float uniform W.
    for (std::pair<int, int>& entry : engine_->shaderManager->uniforms) {
        if (entry.first == 3) {
            entry.second = engine_->shaderManager->GetUniform(11);
        }
    }
    LogCapture capture;
    EXPECT_EQ(engine_->UpdateTexUniform(), 11);
    const auto messages = capture.Messages();
    ASSERT_EQ(messages.size(), 6u);
    EXPECT_EQ(messages[3], "HdrGenerate::UpdateTexUniform: u_MainVSampler, 2");
    EXPECT_EQ(messages[4], "The specified operation is not allowed in the current state. 0x00000502");
    EXPECT_EQ(messages[5], hdrtest::Format("%d ERROR: GL_error\n", Parse(capture.Lines()[5].text).line));
}

}  // namespace
