#include "LogCapture.h"

#include <dlog_standin.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <unistd.h>

namespace hdrtest {

namespace {

void CaptureSink(void* user, log_id_t logId, int prio, const char* tag, const char* message)
{
    static_cast<LogCapture*>(user)->Append({logId, prio, tag, message});
}

}  // namespace

LogCapture::LogCapture()
{
    fflush(stdout);
    FILE* file = tmpfile();
    if (file == nullptr) {
        throw std::runtime_error("tmpfile failed");
    }
    captureFd_ = dup(fileno(file));
    fclose(file);
    savedStdout_ = dup(STDOUT_FILENO);
    if (captureFd_ < 0 || savedStdout_ < 0 || dup2(captureFd_, STDOUT_FILENO) < 0) {
        throw std::runtime_error("redirecting standard output failed");
    }
    dlog_standin_set_sink(CaptureSink, this);
}

LogCapture::~LogCapture()
{
    dlog_standin_set_sink(nullptr, nullptr);
    fflush(stdout);
    dup2(savedStdout_, STDOUT_FILENO);
    close(savedStdout_);
    close(captureFd_);
}

void LogCapture::Append(LoggedLine line)
{
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(std::move(line));
}

std::vector<LoggedLine> LogCapture::Lines() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

std::vector<std::string> LogCapture::Texts() const
{
    std::vector<std::string> texts;
    for (const LoggedLine& line : Lines()) {
        texts.push_back(line.text);
    }
    return texts;
}

std::vector<std::string> LogCapture::Messages() const
{
    std::vector<std::string> messages;
    for (const LoggedLine& line : Lines()) {
        messages.push_back(Parse(line.text).message);
    }
    return messages;
}

std::string LogCapture::Stdout() const
{
    fflush(stdout);
    std::string text;
    char buffer[4096];
    off_t offset = 0;
    for (;;) {
        const ssize_t n = pread(captureFd_, buffer, sizeof buffer, offset);
        if (n <= 0) {
            break;
        }
        text.append(buffer, static_cast<size_t>(n));
        offset += n;
    }
    return text;
}

void LogCapture::Clear()
{
    fflush(stdout);
    if (ftruncate(captureFd_, 0) != 0) {
        throw std::runtime_error("ftruncate failed");
    }
    lseek(captureFd_, 0, SEEK_SET);
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
}

ParsedLine Parse(const std::string& text)
{
    ParsedLine parsed;
    parsed.message = text;
    const size_t colon = text.find(": ");
    const size_t open = colon == std::string::npos ? colon : text.find('(', colon + 2);
    const size_t close = open == std::string::npos ? open : text.find(") > ", open);
    if (close == std::string::npos) {
        return parsed;
    }
    const std::string digits = text.substr(open + 1, close - open - 1);
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) {
        return parsed;
    }
    parsed.file = text.substr(0, colon);
    parsed.function = text.substr(colon + 2, open - colon - 2);
    parsed.line = std::stoi(digits);
    parsed.message = text.substr(close + 4);
    return parsed;
}

std::string Logged(const char* file, const char* function, int line, const std::string& message)
{
    return Format("%s: %s(%d) > ", file, function, line) + message;
}

std::string Format(const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    va_list copy;
    va_copy(copy, args);
    const int length = vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    std::string text(static_cast<size_t>(length > 0 ? length : 0), '\0');
    if (length > 0) {
        vsnprintf(&text[0], text.size() + 1, fmt, args);
    }
    va_end(args);
    return text;
}

}  // namespace hdrtest
