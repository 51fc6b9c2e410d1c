// The shader constants: every uniform read back from the program after
// UpdateUniform and compared with values computed here from the metadata, the
// tuning and the picture level.
#include "EglTestEnv.h"
#include "EngineHarness.h"
#include "Faults.h"
#include "HdrGenerate.h"
#include "HdrRender.h"
#include "LogCapture.h"
#include "TSShaderManager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>

using hdrtest::EngineHarness;
using hdrtest::LogCapture;
using hdrtest::Parse;
namespace faults = hdrtest::faults;

namespace {

constexpr float kLn2 = 0.6931472f;

class Uniforms : public hdrtest::EglTest {
protected:
    void SetUp() override
    {
        EglTest::SetUp();
        faults::Reset();
        harness_ = std::make_unique<EngineHarness>(9, 7, display_);
        ASSERT_TRUE(harness_->ok());
        ASSERT_TRUE(HdrRender::GetInstance()->Bind());
        e_ = HdrGenerate::GetInstance();
        glUseProgram(e_->shaderManager->GetProgram());
        e_->hdrInfo.hdrCapacityMin = 0.0f;
        e_->hdrInfo.hdrCapacityMax = 3.0f;
    }
    void TearDown() override
    {
        HdrRender::GetInstance()->Unbind();
        harness_.reset();
        faults::Reset();
    }
    GLint Location(const char* name) { return glGetUniformLocation(e_->shaderManager->GetProgram(), name); }
    std::vector<float> Floats(const char* name, int count)
    {
        std::vector<float> values(static_cast<size_t>(count));
        const GLint location = Location(name);
        if (count == 7) {
            // Arrays are read element by element.
            for (int i = 0; i < 7; ++i) {
                const std::string element = std::string(name) + "[" + std::to_string(i) + "]";
                glGetUniformfv(e_->shaderManager->GetProgram(),
                               glGetUniformLocation(e_->shaderManager->GetProgram(), element.c_str()), &values[i]);
            }
        } else {
            glGetUniformfv(e_->shaderManager->GetProgram(), location, values.data());
        }
        return values;
    }
    int Int(const char* name)
    {
        GLint value = -12345;
        glGetUniformiv(e_->shaderManager->GetProgram(), Location(name), &value);
        return value;
    }
    // The MDB as the log line reports it.
    static std::string MdbLine(const LogCapture& capture)
    {
        for (const auto& m : capture.Messages()) {
            if (m.rfind("Calculate MDB", 0) == 0) {
                return m;
            }
        }
        return "<none>";
    }
    std::unique_ptr<EngineHarness> harness_;
    HdrGenerate* e_ = nullptr;
};

// The display boost follows the picture level: V1 below T1, V2 above T2,
// interpolated between, with T1 itself giving V1 and T2 giving V2.
TEST_F(Uniforms, MdbAroundBothThresholds)
{
    e_->factoryParameter.MDB_V1 = 128;  // 1.0
    e_->factoryParameter.MDB_V2 = 256;  // 2.0
    e_->factoryParameter.MDB_T1 = 10;
    e_->factoryParameter.MDB_T2 = 100;
    const std::pair<int, float> cases[] = {{0, 1.0f},  {9, 1.0f},   {10, 1.0f},  {11, 1.0f + 1.0f / 90.0f},
                                           {55, 1.5f}, {99, 1.0f + 89.0f / 90.0f}, {100, 2.0f}, {101, 2.0f},
                                           {255, 2.0f}};
    for (const auto& c : cases) {
        e_->apl = c.first;
        LogCapture capture;
        ASSERT_EQ(e_->UpdateUniform(), 0);
        EXPECT_EQ(MdbLine(capture),
                  hdrtest::Format("Calculate MDB = %.4f, APL = %d,  mdb_t1 = 10, mdb_t2 = 100, mdb_v1_float = 1.00, "
                                  "mdb_v2_float = 2.00",
                                  c.second, c.first));
        // boost = min(8, MDB); W = log(boost) / log(8).
        const float expectedW = std::log(c.second) / std::log(std::exp(kLn2 * 3.0f));
        EXPECT_NEAR(Floats("W", 1)[0], expectedW, 1e-6f) << "APL " << c.first;
    }
}

// With T1 = T2, V1 below the threshold and V2 from it on.
TEST_F(Uniforms, MdbWithEqualThresholds)
{
    e_->factoryParameter.MDB_V1 = 192;  // 1.5
    e_->factoryParameter.MDB_V2 = 320;  // 2.5
    e_->factoryParameter.MDB_T1 = 50;
    e_->factoryParameter.MDB_T2 = 50;
    for (const auto& c : {std::pair<int, float>{49, 1.5f}, {50, 2.5f}, {200, 2.5f}}) {
        e_->apl = c.first;
        LogCapture capture;
        ASSERT_EQ(e_->UpdateUniform(), 0);
        EXPECT_NE(MdbLine(capture).find(hdrtest::Format("Calculate MDB = %.4f,", c.second)), std::string::npos)
            << MdbLine(capture);
    }
}

// V1 = V2 = 128 gives an MDB of 1.0 whatever the level.
TEST_F(Uniforms, EqualValuesGiveOne)
{
    e_->factoryParameter.MDB_V1 = 128;
    e_->factoryParameter.MDB_V2 = 128;
    for (int apl : {0, 10, 50, 100, 255}) {
        e_->apl = apl;
        LogCapture capture;
        ASSERT_EQ(e_->UpdateUniform(), 0);
        EXPECT_EQ(MdbLine(capture).rfind("Calculate MDB = 1.0000,", 0), 0u) << MdbLine(capture);
        EXPECT_EQ(Floats("W", 1)[0], 0.0f);
    }
}

// An MDB above the content's capacity gives W = 1; at or below 2^capacityMin, W = 0; between, unclamped.
TEST_F(Uniforms, WeightClampedAndUnclamped)
{
    e_->apl = 200;
    e_->factoryParameter.MDB_V2 = 1023;  // ~8.0
    e_->hdrInfo.hdrCapacityMin = 0.5f;
    e_->hdrInfo.hdrCapacityMax = 2.0f;
    ASSERT_EQ(e_->UpdateUniform(), 0);
    EXPECT_EQ(Floats("W", 1)[0], 1.0f);

    e_->factoryParameter.MDB_V2 = 181;  // 1.4140625 = 2^0.4998: at or below 2^0.5
    ASSERT_EQ(e_->UpdateUniform(), 0);
    EXPECT_EQ(Floats("W", 1)[0], 0.0f);

    e_->factoryParameter.MDB_V2 = 256;  // 2.0: W = (1 - 0.5) / (2 - 0.5) = 1/3
    ASSERT_EQ(e_->UpdateUniform(), 0);
    const float expected = (std::log(2.0f) - std::log(std::exp(kLn2 * 0.5f))) /
                           (std::log(std::exp(kLn2 * 2.0f)) - std::log(std::exp(kLn2 * 0.5f)));
    EXPECT_NEAR(Floats("W", 1)[0], expected, 1e-6f);
    EXPECT_NEAR(Floats("W", 1)[0], 1.0f / 3.0f, 1e-5f);
}

// Equal capacities divide by zero: the weight is sent as it comes (not a number here).
TEST_F(Uniforms, EqualCapacitiesAreNotGuarded)
{
    e_->apl = 200;
    e_->hdrInfo.hdrCapacityMin = 1.0f;
    e_->hdrInfo.hdrCapacityMax = 1.0f;
    e_->factoryParameter.MDB_V2 = 256;  // boost = min(2, 2) = 2: 0 / 0
    ASSERT_EQ(e_->UpdateUniform(), 0);
    EXPECT_TRUE(std::isnan(Floats("W", 1)[0]));
}

// Log ratios, gamma, offsets and noGamma from the metadata and GAMMA_MUL.
TEST_F(Uniforms, GainMapConstants)
{
    const float mins[4] = {0.0f, 1.0f, -1.0f, 42.0f};
    const float maxs[4] = {2.0f, 3.0f, 0.5f, 42.0f};
    const float gammas[4] = {2.0f, 1.0f, 0.5f, 42.0f};
    const float sdr[4] = {0.015625f, 0.03125f, 0.0625f, 0.5f};
    const float hdr[4] = {0.125f, 0.25f, 0.375f, 0.75f};
    std::memcpy(e_->hdrInfo.gainMapMin, mins, sizeof mins);
    std::memcpy(e_->hdrInfo.gainMapMax, maxs, sizeof maxs);
    std::memcpy(e_->hdrInfo.gamma, gammas, sizeof gammas);
    std::memcpy(e_->hdrInfo.offsetSdr, sdr, sizeof sdr);
    std::memcpy(e_->hdrInfo.offsetHdr, hdr, sizeof hdr);
    e_->factoryParameter.GAMMA_MUL = 256;  // 2.0
    LogCapture capture;
    ASSERT_EQ(e_->UpdateUniform(), 0);
    const auto logMin = Floats("logRatioMin", 4);
    const auto logMax = Floats("logRatioMax", 4);
    const auto gamma = Floats("gainmapGamma", 4);
    for (int c = 0; c < 3; ++c) {
        EXPECT_NEAR(logMin[c], mins[c] * std::log(2.0), 1e-6) << c;
        EXPECT_NEAR(logMax[c], maxs[c] * std::log(2.0), 1e-6) << c;
        EXPECT_FLOAT_EQ(gamma[c], 1.0f / (gammas[c] * 2.0f)) << c;
    }
    EXPECT_EQ(logMin[3], 1.0f);
    EXPECT_EQ(logMax[3], 1.0f);
    EXPECT_EQ(gamma[3], 1.0f);
    EXPECT_EQ(Floats("epsilonSdr", 4), std::vector<float>(sdr, sdr + 4));
    EXPECT_EQ(Floats("epsilonHdr", 4), std::vector<float>(hdr, hdr + 4));
    EXPECT_EQ(Int("noGamma"), 0);
    const auto messages = capture.Messages();
    const std::vector<std::string> expected = {
        hdrtest::Format("logRatioMin = %.4f, %.4f, %.4f, %.4f", logMin[0], logMin[1], logMin[2], 1.0f),
        hdrtest::Format("logRatioMax = %.4f, %.4f, %.4f, %.4f", logMax[0], logMax[1], logMax[2], 1.0f),
        "gainmapGamma = 0.2500, 0.5000, 1.0000, 1.0000",
        "epsilonSdr = 0.0156, 0.0312, 0.0625, 0.5000",
        "epsilonHdr = 0.1250, 0.2500, 0.3750, 0.7500",
    };
    ASSERT_GE(messages.size(), 7u);
    EXPECT_EQ(std::vector<std::string>(messages.begin() + 2, messages.begin() + 7), expected);
}

// Gamma (1, 1, 1) with GAMMA_MUL 128 means no gamma.
TEST_F(Uniforms, UnitGammaGivesNoGamma)
{
    ASSERT_EQ(e_->UpdateUniform(), 0);
    EXPECT_EQ(Int("noGamma"), 1);
    EXPECT_EQ(Floats("gainmapGamma", 4), (std::vector<float>{1, 1, 1, 1}));
    e_->hdrInfo.gamma[2] = 1.01f;
    ASSERT_EQ(e_->UpdateUniform(), 0);
    EXPECT_EQ(Int("noGamma"), 0);
}

// The output curve is the inverse of sRGB scaled to the boost.
TEST_F(Uniforms, OutputCurveInvertsTheBoostedSrgb)
{
    e_->apl = 200;
    e_->factoryParameter.MDB_V2 = 256;  // boost 2
    ASSERT_EQ(e_->UpdateUniform(), 0);
    const double boost = 2.0;
    const double a = std::pow(boost, 0.41666666) * 0.94786733;
    const double b = std::pow(boost, 0.41666666) * 0.052132703;
    const double c = 0.07739938 * boost;
    const double d = 0.04045;
    const double k = std::pow(a, -2.4);
    const double atOne = std::pow(a + b, 2.4);
    const double expected[7] = {1.0 / 2.4, k, 0.0, 1.0 / c, c * d, 1.0 - std::pow(k * atOne, 1.0 / 2.4), 0.0};
    const auto inv = Floats("trfn_inv", 7);
    for (int i = 0; i < 7; ++i) {
        EXPECT_NEAR(inv[i], expected[i], 2e-5 * std::max(1.0, std::fabs(expected[i]))) << "index " << i;
    }
}

// A boost of 0 cannot be inverted: the fixed inverse sRGB curve is sent instead.
TEST_F(Uniforms, UninvertibleCurveFallsBackToInverseSrgb)
{
    e_->apl = 0;
    e_->factoryParameter.MDB_V1 = 0;
    LogCapture capture;
    ASSERT_EQ(e_->UpdateUniform(), 0);
    const std::vector<float> fallback = {0.41666666f, 1.1372833f, -0.0f, 12.92f, 0.0031308f, -0.054969788f, -0.0f};
    EXPECT_EQ(Floats("trfn_inv", 7), fallback);
    bool asserted = false;
    for (const auto& m : capture.Messages()) {
        asserted |= m.find("HDR_ASSERT[skcms_TransferFunction_invert:") == 0;
    }
    EXPECT_TRUE(asserted);
}

// The gain curve's points and slopes in their fixed-point scales.
TEST_F(Uniforms, GainCurve)
{
    e_->factoryParameter.GAIN_CURVE_P0 = 100;
    e_->factoryParameter.GAIN_CURVE_P1 = 600;
    e_->factoryParameter.GAIN_CURVE_P2 = 1024;
    e_->factoryParameter.GAIN_CURVE_G0 = 300;
    e_->factoryParameter.GAIN_CURVE_G1 = 512;
    e_->factoryParameter.GAIN_CURVE_G2 = 7;
    ASSERT_EQ(e_->UpdateUniform(), 0);
    EXPECT_EQ(Floats("curve_gain_point", 3), (std::vector<float>{100 / 1024.0f, 600 / 1024.0f, 1.0f}));
    EXPECT_EQ(Floats("curve_gain_grad", 3), (std::vector<float>{300 / 512.0f, 1.0f, 7 / 512.0f}));
}

// The output-YUV flag is logged and sent as 0 or 1.
TEST_F(Uniforms, OutputYuvFlag)
{
    for (bool yuv : {false, true}) {
        e_->outputYUV = yuv;
        LogCapture capture;
        ASSERT_EQ(e_->UpdateUniform(), 0);
        EXPECT_EQ(Int("bOutputYUV"), yuv ? 1 : 0);
        const auto messages = capture.Messages();
        EXPECT_NE(std::find(messages.begin(), messages.end(), hdrtest::Format("outputYUV: %d", yuv ? 1 : 0)),
                  messages.end());
    }
}

// Each input transfer function sends its type and its seven parameters.
TEST_F(Uniforms, InputCurves)
{
    const std::vector<float> curves[4] = {
        {1.0f, 1.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f},
        {-3.0f, 2.0f, 2.0f, 5.5918164f, 0.28466892f, 0.55991071f, 0.0f},
        {-2.0f, -0.8359375f, 1.0f, 0.012683313f, 18.8515625f, -18.6875f, 6.2773948f},
        {2.4f, 0.94786727f, 0.0521327f, 0.07739938f, 0.04045f, 0.0f, 0.0f},
    };
    for (int type = 0; type < 4; ++type) {
        e_->hdrInfo.trfn = static_cast<hdr_transfer_function>(type);
        ASSERT_EQ(e_->UpdateUniform(), 0);
        EXPECT_EQ(Int("inputTrfnType"), type);
        EXPECT_EQ(Floats("in_trfn", 7), curves[type]) << "type " << type;
    }
}

// The rotation and mirror matrix for every code, computed here by hand.
TEST_F(Uniforms, RotationAndMirror)
{
    const std::pair<int, double> codes[] = {{0, 0.0}, {1, -90.0}, {2, -180.0}, {3, -270.0}, {4, 0.0}, {-1, 0.0}};
    for (const auto& code : codes) {
        for (bool mirror : {false, true}) {
            SCOPED_TRACE(code.first);
            SCOPED_TRACE(mirror);
            e_->hdrInfo.outputRotate = code.first;
            e_->hdrInfo.outputMirror = mirror;
            LogCapture capture;
            ASSERT_EQ(e_->UpdateUniform(), 0);
            const double t = code.second * M_PI / 180.0;
            // Column-major R_z(t), then times R_y(pi) when mirrored.
            double m[16] = {std::cos(t), std::sin(t), 0, 0, -std::sin(t), std::cos(t), 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
            if (mirror) {
                const double y[16] = {-1, 0, 0, 0, 0, 1, 0, 0, 0, 0, -1, 0, 0, 0, 0, 1};
                double product[16] = {};
                for (int col = 0; col < 4; ++col) {
                    for (int row = 0; row < 4; ++row) {
                        for (int k = 0; k < 4; ++k) {
                            product[col * 4 + row] += m[k * 4 + row] * y[col * 4 + k];
                        }
                    }
                }
                std::memcpy(m, product, sizeof m);
            }
            const auto got = Floats("rotateMatrix", 16);
            for (int i = 0; i < 16; ++i) {
                EXPECT_NEAR(got[i], m[i], 1e-6) << "element " << i;
            }
            const auto messages = capture.Messages();
            EXPECT_NE(std::find(messages.begin(), messages.end(),
                                hdrtest::Format("rotate angle: %f", static_cast<float>(code.second))),
                      messages.end());
            EXPECT_EQ(std::count(messages.begin(), messages.end(), "mirror true"), mirror ? 1 : 0);
        }
    }
}

// Rotation 2 with mirror is a vertical flip: x kept, y and z negated.
TEST_F(Uniforms, HalfTurnWithMirrorIsAVerticalFlip)
{
    e_->hdrInfo.outputRotate = 2;
    e_->hdrInfo.outputMirror = true;
    ASSERT_EQ(e_->UpdateUniform(), 0);
    const auto m = Floats("rotateMatrix", 16);
    const float diagonal[4] = {1, -1, -1, 1};
    for (int col = 0; col < 4; ++col) {
        for (int row = 0; row < 4; ++row) {
            EXPECT_NEAR(m[col * 4 + row], col == row ? diagonal[col] : 0.0f, 1e-6f) << col << "," << row;
        }
    }
}

// A gamut outside 0..2 returns 13 after W was sent, and sends no rotation matrix.
TEST_F(Uniforms, BadGamutStopsAfterTheWeight)
{
    for (int gamut : {3, -1}) {
        const float sentinel[16] = {7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7};
        glUniformMatrix4fv(Location("rotateMatrix"), 1, GL_FALSE, sentinel);
        glUniform1f(Location("W"), -5.0f);
        e_->apl = 200;
        e_->hdrInfo.gamut = static_cast<hdr_color_gamut>(gamut);
        LogCapture capture;
        EXPECT_EQ(e_->UpdateUniform(), 13);
        EXPECT_NE(Floats("W", 1)[0], -5.0f);
        EXPECT_EQ(Floats("rotateMatrix", 16)[5], 7.0f);
        const auto parsed = Parse(capture.Lines().back().text);
        EXPECT_EQ(parsed.message,
                  hdrtest::Format("HDR_ASSERT[UpdateUniform:%d] : hdrInfo.gamut == "
                                  "hdr_color_gamut::HDR_COLORGAMUT_BT709 || hdrInfo.gamut == "
                                  "hdr_color_gamut::HDR_COLORGAMUT_P3 || hdrInfo.gamut == "
                                  "hdr_color_gamut::HDR_COLORGAMUT_BT2100",
                                  parsed.line));
    }
}

// A transfer function outside 0..3 returns 13 with its own assertion.
TEST_F(Uniforms, BadTransferFunctionIsRefused)
{
    for (int trfn : {4, -1}) {
        e_->hdrInfo.trfn = static_cast<hdr_transfer_function>(trfn);
        LogCapture capture;
        EXPECT_EQ(e_->UpdateUniform(), 13);
        const auto parsed = Parse(capture.Lines().back().text);
        EXPECT_EQ(parsed.message,
                  hdrtest::Format("HDR_ASSERT[UpdateUniform:%d] : hdrInfo.trfn == "
                                  "hdr_transfer_function::HDR_TF_LINEAR || hdrInfo.trfn == "
                                  "hdr_transfer_function::HDR_TF_HLG || hdrInfo.trfn == "
                                  "hdr_transfer_function::HDR_TF_PQ || hdrInfo.trfn == "
                                  "hdr_transfer_function::HDR_TF_SRGB",
                                  parsed.line));
    }
}

// A GL error after the uploads gives 11 with its line.
TEST_F(Uniforms, GlErrorGivesEleven)
{
    faults::QueueGlError(GL_INVALID_OPERATION);
    LogCapture capture;
    EXPECT_EQ(e_->UpdateUniform(), 11);
    const auto parsed = Parse(capture.Lines().back().text);
    EXPECT_EQ(parsed.message, hdrtest::Format("%d ERROR: GL_error\n", parsed.line));
}

// A successful pass logs its lines in order, from start to end.
TEST_F(Uniforms, LogsInOrder)
{
    e_->apl = 30;
    LogCapture capture;
    ASSERT_EQ(e_->UpdateUniform(), 0);
    const auto messages = capture.Messages();
    ASSERT_EQ(messages.size(), 10u);
    EXPECT_EQ(messages[0], "HdrGenerate::UpdateUniform start");
    EXPECT_EQ(messages[1].rfind("Calculate MDB = ", 0), 0u);
    EXPECT_EQ(messages[2].rfind("logRatioMin = ", 0), 0u);
    EXPECT_EQ(messages[6].rfind("epsilonHdr = ", 0), 0u);
    EXPECT_EQ(messages[7], "outputYUV: 0");
    EXPECT_EQ(messages[8], "rotate angle: 0.000000");
    EXPECT_EQ(messages[9], "HdrGenerate::UpdateUniform end");
}

}  // namespace
