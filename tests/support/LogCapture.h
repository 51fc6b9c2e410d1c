// Captures what the host sees of the library's logging: every line handed to
// the platform logger (buffer, priority, tag, text) and everything printed on
// standard output, for the lifetime of the object.
#ifndef HDRGPU_TEST_LOG_CAPTURE_H
#define HDRGPU_TEST_LOG_CAPTURE_H

#include <mutex>
#include <string>
#include <vector>

namespace hdrtest {

struct LoggedLine {
    int logId;
    int priority;
    std::string tag;
    std::string text;
};

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LoggedLine> Lines() const;
    // Texts of the logger lines, in order.
    std::vector<std::string> Texts() const;
    // Message parts (prefix removed) of the logger lines, in order.
    std::vector<std::string> Messages() const;
    // Standard output printed since construction.
    std::string Stdout() const;
    // Forgets everything captured so far.
    void Clear();

    void Append(LoggedLine line);

private:
    mutable std::mutex mutex_;
    std::vector<LoggedLine> lines_;
    int savedStdout_ = -1;
    int captureFd_ = -1;
};

// A library line taken apart: "<file>: <function>(<line>) > <message>".
struct ParsedLine {
    std::string file;
    std::string function;
    int line = -1;
    std::string message;
};
// Parses text; a text without the prefix yields line -1 and the whole text as message.
ParsedLine Parse(const std::string& text);

// The logger text of a library line: "<file>: <function>(<line>) > <message>".
std::string Logged(const char* file, const char* function, int line, const std::string& message);

// printf into a std::string.
std::string Format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace hdrtest

#endif
