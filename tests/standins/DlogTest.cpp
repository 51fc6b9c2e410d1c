// Behaviour of the logger stand-in.
#include "dlog.h"
#include "dlog_standin.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Line {
    log_id_t id;
    int prio;
    std::string tag;
    std::string message;
};

struct Recorder {
    std::mutex mutex;
    std::vector<Line> lines;
};

void RecordLine(void* user, log_id_t log_id, int prio, const char* tag, const char* message)
{
    Recorder* recorder = static_cast<Recorder*>(user);
    std::lock_guard<std::mutex> lock(recorder->mutex);
    recorder->lines.push_back(Line{log_id, prio, tag, message});
}

// Every test starts with a recording sink and ends with the default (system log) restored.
class DlogTest : public ::testing::Test {
protected:
    void SetUp() override { dlog_standin_set_sink(RecordLine, &recorder_); }
    void TearDown() override { dlog_standin_set_sink(nullptr, nullptr); }

    std::vector<Line> Lines()
    {
        std::lock_guard<std::mutex> lock(recorder_.mutex);
        return recorder_.lines;
    }

    Recorder recorder_;
};

int CallVprint(log_priority prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));
int CallVprint(log_priority prio, const char* tag, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const int result = dlog_vprint(prio, tag, fmt, ap);
    va_end(ap);
    return result;
}

int CallRawVprint(log_id_t id, int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
int CallRawVprint(log_id_t id, int prio, const char* tag, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const int result = __dlog_vprint(id, prio, tag, fmt, ap);
    va_end(ap);
    return result;
}

// Runs fn with file descriptor fd redirected to a temporary file; returns what was written there.
template <typename Fn>
std::string CaptureFd(int fd, Fn fn)
{
    std::fflush(nullptr);
    FILE* capture = std::tmpfile();
    if (capture == nullptr) {
        ADD_FAILURE() << "tmpfile failed";
        return {};
    }
    const int saved = dup(fd);
    if (saved < 0 || dup2(fileno(capture), fd) < 0) {
        ADD_FAILURE() << "dup failed";
        std::fclose(capture);
        return {};
    }
    fn();
    std::fflush(nullptr);
    dup2(saved, fd);
    close(saved);
    std::string text;
    std::rewind(capture);
    char buffer[256];
    size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof(buffer), capture)) > 0) {
        text.append(buffer, n);
    }
    std::fclose(capture);
    return text;
}

// The error codes and buffer ids have the platform's values.
TEST_F(DlogTest, CodesHavePlatformValues)
{
    EXPECT_EQ(DLOG_ERROR_NONE, 0);
    EXPECT_EQ(DLOG_ERROR_INVALID_PARAMETER, -22);
    EXPECT_EQ(LOG_ID_MAIN, 0);
    EXPECT_EQ(LOG_ID_APPS, 3);
    EXPECT_EQ(LOG_ID_MAX, 4);
}

// The sink receives buffer id, priority, tag and the formatted text exactly.
TEST_F(DlogTest, SinkReceivesFormattedLine)
{
    EXPECT_EQ(__dlog_print(LOG_ID_SYSTEM, DLOG_WARN, "HDR_TAG", "w=%d h=%u %s %c%%", 1920, 1080u, "ok", 'x'),
              19);
    const std::vector<Line> lines = Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].id, LOG_ID_SYSTEM);
    EXPECT_EQ(lines[0].prio, DLOG_WARN);
    EXPECT_EQ(lines[0].tag, "HDR_TAG");
    EXPECT_EQ(lines[0].message, "w=1920 h=1080 ok x%");
}

// The return value is the length in bytes of the formatted message.
TEST_F(DlogTest, ReturnsMessageLength)
{
    EXPECT_EQ(dlog_print(DLOG_INFO, "T", "%d-%s", 42, "abc"), 6);
    EXPECT_EQ(dlog_print(DLOG_INFO, "T", "%s", ""), 0);
    const std::string longText(5000, 'q');
    EXPECT_EQ(dlog_print(DLOG_INFO, "T", "%s", longText.c_str()), 5000);
    const std::vector<Line> lines = Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].message, "42-abc");
    EXPECT_EQ(lines[1].message, "");
    EXPECT_EQ(lines[2].message, longText);
}

// dlog_print writes to the apps buffer.
TEST_F(DlogTest, DlogPrintGoesToAppsBuffer)
{
    EXPECT_EQ(dlog_print(DLOG_ERROR, "APP", "boom"), 4);
    const std::vector<Line> lines = Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].id, LOG_ID_APPS);
    EXPECT_EQ(lines[0].prio, DLOG_ERROR);
    EXPECT_EQ(lines[0].tag, "APP");
}

// dlog_vprint formats its va_list and writes to the apps buffer.
TEST_F(DlogTest, DlogVprintGoesToAppsBuffer)
{
    EXPECT_EQ(CallVprint(DLOG_DEBUG, "V", "%s=%d", "n", 7), 3);
    const std::vector<Line> lines = Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].id, LOG_ID_APPS);
    EXPECT_EQ(lines[0].prio, DLOG_DEBUG);
    EXPECT_EQ(lines[0].message, "n=7");
}

// __dlog_vprint formats its va_list into the given buffer.
TEST_F(DlogTest, RawVprintUsesGivenBuffer)
{
    EXPECT_EQ(CallRawVprint(LOG_ID_MAIN, DLOG_INFO, "M", "%05d", 12), 5);
    const std::vector<Line> lines = Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].id, LOG_ID_MAIN);
    EXPECT_EQ(lines[0].message, "00012");
}

// Every known buffer id is accepted and passed through.
TEST_F(DlogTest, EveryKnownBufferIsAccepted)
{
    for (int id = LOG_ID_MAIN; id < LOG_ID_MAX; ++id) {
        EXPECT_EQ(__dlog_print(static_cast<log_id_t>(id), DLOG_INFO, "T", "x"), 1) << id;
    }
    const std::vector<Line> lines = Lines();
    ASSERT_EQ(lines.size(), 4u);
    for (int id = LOG_ID_MAIN; id < LOG_ID_MAX; ++id) {
        EXPECT_EQ(lines[static_cast<size_t>(id)].id, static_cast<log_id_t>(id));
    }
}

// A NULL tag is refused and nothing is written.
TEST_F(DlogTest, NullTagIsRefused)
{
    EXPECT_EQ(dlog_print(DLOG_INFO, nullptr, "x"), DLOG_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(__dlog_print(LOG_ID_MAIN, DLOG_INFO, nullptr, "x"), DLOG_ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(Lines().empty());
}

// A NULL format is refused and nothing is written.
TEST_F(DlogTest, NullFormatIsRefused)
{
    const char* noFormat = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wnonnull"
    EXPECT_EQ(dlog_print(DLOG_INFO, "T", noFormat), DLOG_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(__dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", noFormat), DLOG_ERROR_INVALID_PARAMETER);
#pragma GCC diagnostic pop
    EXPECT_TRUE(Lines().empty());
}

// Buffer ids outside MAIN..APPS (-1, 4 and others) are refused.
TEST_F(DlogTest, UnknownBufferIsRefused)
{
    for (int id : {-1, 4, 5, 100, -100}) {
        EXPECT_EQ(__dlog_print(static_cast<log_id_t>(id), DLOG_INFO, "T", "x"), DLOG_ERROR_INVALID_PARAMETER)
            << id;
    }
    EXPECT_TRUE(Lines().empty());
}

// Priorities outside DEFAULT..SILENT are refused.
TEST_F(DlogTest, UnknownPriorityIsRefused)
{
    for (int prio : {static_cast<int>(DLOG_UNKNOWN), static_cast<int>(DLOG_PRIO_MAX), -1, 100}) {
        EXPECT_EQ(__dlog_print(LOG_ID_MAIN, prio, "T", "x"), DLOG_ERROR_INVALID_PARAMETER) << prio;
        EXPECT_EQ(dlog_print(static_cast<log_priority>(prio), "T", "x"), DLOG_ERROR_INVALID_PARAMETER)
            << prio;
    }
    EXPECT_TRUE(Lines().empty());
}

// Every priority from DEFAULT to FATAL is accepted and passed through.
TEST_F(DlogTest, EveryWritablePriorityIsAccepted)
{
    for (int prio = DLOG_DEFAULT; prio <= DLOG_FATAL; ++prio) {
        EXPECT_EQ(__dlog_print(LOG_ID_MAIN, prio, "T", "ab"), 2) << prio;
    }
    const std::vector<Line> lines = Lines();
    ASSERT_EQ(lines.size(), static_cast<size_t>(DLOG_FATAL - DLOG_DEFAULT + 1));
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].prio, DLOG_DEFAULT + static_cast<int>(i));
    }
}

// A SILENT line is accepted (its length returned) but not delivered.
TEST_F(DlogTest, SilentLineIsAcceptedButNotDelivered)
{
    EXPECT_EQ(dlog_print(DLOG_SILENT, "T", "quiet"), 5);
    EXPECT_TRUE(Lines().empty());
}

// Removing the sink stops delivery to it.
TEST_F(DlogTest, RemovedSinkReceivesNothing)
{
    dlog_standin_set_sink(nullptr, nullptr);
    EXPECT_EQ(dlog_print(DLOG_INFO, "T", "to syslog"), 9);
    EXPECT_TRUE(Lines().empty());
}

// With no sink installed, a line goes to the system log and nothing reaches standard output.
TEST_F(DlogTest, DefaultWritesNothingToStdout)
{
    dlog_standin_set_sink(nullptr, nullptr);
    int result = 0;
    const std::string out = CaptureFd(STDOUT_FILENO, [&result] {
        result = dlog_print(DLOG_ERROR, "HDRGPU_STANDIN_TEST", "must not reach stdout %d", 1);
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "HDRGPU_STANDIN_TEST", "nor this");
    });
    EXPECT_EQ(result, 23);
    EXPECT_EQ(out, "");
}

// The capture helper itself sees what is written to standard output (guards the test above).
TEST_F(DlogTest, CaptureHelperSeesStdout)
{
    const std::string out = CaptureFd(STDOUT_FILENO, [] { std::printf("seen"); });
    EXPECT_EQ(out, "seen");
}

// With a sink installed, nothing reaches standard output either.
TEST_F(DlogTest, SinkWritesNothingToStdout)
{
    const std::string out = CaptureFd(STDOUT_FILENO, [] { dlog_print(DLOG_INFO, "T", "sink only"); });
    EXPECT_EQ(out, "");
    EXPECT_EQ(Lines().size(), 1u);
}

// Lines from many threads all reach the sink, each intact.
TEST_F(DlogTest, ConcurrentLinesAllArriveIntact)
{
    constexpr int kThreads = 8;
    constexpr int kLines = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; ++i) {
                dlog_print(DLOG_INFO, "MT", "thread %d line %d", t, i);
            }
        });
    }
    for (std::thread& th : threads) {
        th.join();
    }
    const std::vector<Line> lines = Lines();
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    for (const Line& line : lines) {
        int t = -1;
        int i = -1;
        EXPECT_EQ(std::sscanf(line.message.c_str(), "thread %d line %d", &t, &i), 2) << line.message;
        EXPECT_EQ(line.message, "thread " + std::to_string(t) + " line " + std::to_string(i));
    }
}

}  // namespace
