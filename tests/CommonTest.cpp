// The shared conventions: the two-copy log line, the system-log-only line,
// the non-aborting assertion and the one-error GL check.
#include "EglTestEnv.h"
#include "Faults.h"
#include "HdrCommon.h"
#include "LogCapture.h"

#include <gtest/gtest.h>

using hdrtest::LogCapture;
using hdrtest::Parse;
namespace faults = hdrtest::faults;

namespace {

int evaluations = 0;
int loggedLine = 0;
int Counted(int value)
{
    ++evaluations;
    return value;
}

void LogSomething()
{
    loggedLine = __LINE__ + 1;
    HDR_LOG("value %d and %s", Counted(42), "text");
}

// A line goes to the main buffer at error priority under "TSS", prefixed with
// file, function and line; standard output gets the message and a line break.
TEST(Logging, OneMessageTwoCopies)
{
    evaluations = 0;
    LogCapture capture;
    LogSomething();
    const auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].logId, 0);
    EXPECT_EQ(lines[0].priority, 6);
    EXPECT_EQ(lines[0].tag, "TSS");
    EXPECT_EQ(lines[0].text, hdrtest::Logged("CommonTest.cpp", "LogSomething", loggedLine, "value 42 and text"));
    EXPECT_EQ(capture.Stdout(), "value 42 and text\n");
    // The arguments are evaluated once for each copy.
    EXPECT_EQ(evaluations, 2);
}

// A message ending in a line break gets a second one on standard output only.
TEST(Logging, TrailingLineBreakIsPrintedTwiceOnStandardOutput)
{
    LogCapture capture;
    HDR_LOG("%d ERROR: something\n", __LINE__);
    const auto parsed = Parse(capture.Lines().at(0).text);
    EXPECT_EQ(parsed.message, hdrtest::Format("%d ERROR: something\n", parsed.line));
    EXPECT_EQ(capture.Stdout(), hdrtest::Format("%d ERROR: something\n\n", parsed.line));
}

// The secure variant goes to the system buffer only, with the usual prefix.
TEST(Logging, SecureLineGoesToTheSystemBufferOnly)
{
    LogCapture capture;
    HDR_SECURE_LOG("[SECURE_LOG] GL_FRAMEBUFFER_UNSUPPORTED");
    const auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].logId, 2);
    EXPECT_EQ(lines[0].priority, 6);
    EXPECT_EQ(lines[0].tag, "TSS");
    const auto parsed = Parse(lines[0].text);
    EXPECT_EQ(parsed.file, "CommonTest.cpp");
    EXPECT_EQ(parsed.message, "[SECURE_LOG] GL_FRAMEBUFFER_UNSUPPORTED");
    EXPECT_EQ(capture.Stdout(), "");
}

// The base name is taken from any path, at compile time.
TEST(Logging, SourceBaseName)
{
    static_assert(HdrSourceBaseName("/a/b/File.cpp")[0] == 'F', "base name at compile time");
    EXPECT_STREQ(HdrSourceBaseName("/a/b/File.cpp"), "File.cpp");
    EXPECT_STREQ(HdrSourceBaseName("File.cpp"), "File.cpp");
    EXPECT_STREQ(HdrSourceBaseName("dir/"), "");
}

int Asserting(const int* pointer)
{
    HDR_ASSERT(pointer != nullptr, -7);
    return *pointer;
}

// A failed check logs function, line and condition text and returns the failure value.
TEST(Assertion, FailedCheckLogsAndReturns)
{
    LogCapture capture;
    EXPECT_EQ(Asserting(nullptr), -7);
    const auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 1u);
    const auto parsed = Parse(lines[0].text);
    EXPECT_EQ(parsed.function, "Asserting");
    EXPECT_EQ(parsed.message, hdrtest::Format("HDR_ASSERT[Asserting:%d] : pointer != nullptr", parsed.line));
    EXPECT_EQ(capture.Stdout(), parsed.message + "\n");
}

// A passing check logs nothing and lets the function go on.
TEST(Assertion, PassingCheckIsSilent)
{
    LogCapture capture;
    const int value = 5;
    EXPECT_EQ(Asserting(&value), 5);
    EXPECT_TRUE(capture.Lines().empty());
}

class GlErrorCheck : public hdrtest::EglTest {
protected:
    void SetUp() override
    {
        EglTest::SetUp();
        faults::Reset();
        host_ = std::make_unique<hdrtest::HostContext>(display_);
        ASSERT_TRUE(host_->ok());
        while (glGetError() != GL_NO_ERROR) {
        }
    }
    void TearDown() override
    {
        faults::Reset();
        host_.reset();
    }
    std::unique_ptr<hdrtest::HostContext> host_;
};

// No pending error: true, nothing logged.
TEST_F(GlErrorCheck, NoErrorIsSilent)
{
    LogCapture capture;
    EXPECT_TRUE(GL_error_check());
    EXPECT_TRUE(capture.Lines().empty());
}

// A real driver error is taken off the queue and described.
TEST_F(GlErrorCheck, DriverErrorIsReported)
{
    glEnable(0x1234);
    LogCapture capture;
    EXPECT_FALSE(GL_error_check());
    EXPECT_EQ(capture.Messages(),
              std::vector<std::string>{"An unacceptable value is specified for an enumerated argument. 0x00000500"});
    EXPECT_TRUE(GL_error_check());
}

// Each code has its description, with the code in eight hex digits.
TEST_F(GlErrorCheck, EachCodeHasItsMessage)
{
    const std::pair<GLenum, std::string> cases[] = {
        {GL_INVALID_ENUM, "An unacceptable value is specified for an enumerated argument. 0x00000500"},
        {GL_INVALID_VALUE, "A numeric argument is out of range. 0x00000501"},
        {GL_INVALID_OPERATION, "The specified operation is not allowed in the current state. 0x00000502"},
        {GL_OUT_OF_MEMORY, "There is not enough memory left to execute the function. 0x00000505"},
        {GL_INVALID_FRAMEBUFFER_OPERATION, "Unknown gl error. 0x00000506"},
        {0x1234, "Unknown gl error. 0x00001234"},
    };
    for (const auto& c : cases) {
        faults::QueueGlError(c.first);
        LogCapture capture;
        EXPECT_FALSE(GL_error_check());
        EXPECT_EQ(capture.Messages(), std::vector<std::string>{c.second});
        EXPECT_EQ(capture.Stdout(), c.second + "\n");
    }
}

// With two errors queued only the first is reported; the second stays queued.
TEST_F(GlErrorCheck, TakesOnlyOneError)
{
    faults::QueueGlError(GL_INVALID_VALUE);
    faults::QueueGlError(GL_OUT_OF_MEMORY);
    {
        LogCapture capture;
        EXPECT_FALSE(GL_error_check());
        EXPECT_EQ(capture.Messages(), std::vector<std::string>{"A numeric argument is out of range. 0x00000501"});
    }
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_OUT_OF_MEMORY));
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
}

}  // namespace
