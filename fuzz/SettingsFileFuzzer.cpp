// Fuzz target of the settings file reader, HdrFactorySettings::GetParameterInFile.
//
// Each input is written, byte for byte, to one temporary file of the process
// and read into a record holding the factory defaults. The reader may return
// or throw std::invalid_argument or std::out_of_range; anything else it
// throws escapes and is reported as a crash. Every outcome is compared with
// an independent model of the file format: the kind of outcome, the record's
// eleven fields (all from the file or untouched on success, untouched on an
// exception) and the number of "LoadSettings set" lines logged.
#include "HdrFactorySettings.h"

#include <dlog_standin.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr const char* kKeys[11] = {
    "MDB_V1",        "MDB_V2",        "MDB_T1",        "MDB_T2",        "GAMMA_MUL",     "GAIN_CURVE_P0",
    "GAIN_CURVE_P1", "GAIN_CURVE_P2", "GAIN_CURVE_G0", "GAIN_CURVE_G1", "GAIN_CURVE_G2",
};

std::string inputPath;
int inputFd = -1;

// Logger lines of the current input: all of them, and the key lines.
size_t loggedLines = 0;
size_t loggedSetLines = 0;

void CountingSink(void*, log_id_t, int, const char*, const char* message)
{
    ++loggedLines;
    if (std::strstr(message, "> LoadSettings set : parameter_values[") != nullptr) {
        ++loggedSetLines;
    }
}

void RemoveInputFile()
{
    if (!inputPath.empty()) {
        unlink(inputPath.c_str());
    }
}

[[noreturn]] void Fail(const char* what)
{
    std::fprintf(stderr, "settings file fuzzer: %s\n", what);
    std::abort();
}

// Once per process: the temporary file, a logger that only counts, and
// standard output (the reader's second copy of every line) to /dev/null.
void SetUpOnce()
{
    if (inputFd >= 0) {
        return;
    }
    // A memory file system where there is one: every input rewrites the
    // file, which on a disk file system can cost a write-back per input.
    for (const char* directory : {"/dev/shm", "/tmp"}) {
        std::string pattern = std::string(directory) + "/hdrgpu-settings-fuzz-XXXXXX";
        inputFd = mkstemp(&pattern[0]);
        if (inputFd >= 0) {
            inputPath = pattern;
            break;
        }
    }
    if (inputFd < 0) {
        Fail("cannot create the temporary input file");
    }
    std::atexit(RemoveInputFile);

    std::fflush(stdout);
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null >= 0) {
        dup2(null, STDOUT_FILENO);
        close(null);
    }
    dlog_standin_set_sink(CountingSink, nullptr);
}

// Overwrites the file with the input, then cuts it to the input's length
// (cutting to zero first would make some file systems, ext4 among them,
// flush the file at every close).
void WriteInput(const uint8_t* data, size_t size)
{
    size_t written = 0;
    while (written < size) {
        const ssize_t n = pwrite(inputFd, data + written, size - written, static_cast<off_t>(written));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            Fail("cannot write the input file");
        }
        written += static_cast<size_t>(n);
    }
    if (ftruncate(inputFd, static_cast<off_t>(size)) != 0) {
        Fail("cannot cut the input file to length");
    }
}

// --- The model -------------------------------------------------------------

enum class Outcome { Returned, InvalidArgument, OutOfRange };

struct Expectation {
    Outcome outcome = Outcome::Returned;
    int32_t values[11] = {};
    size_t setLines = 0;
};

// A value word as the standard conversion reads it in base 10: as a C string
// (it ends at a NUL byte), after leading white space, an optional sign and at
// least one decimal digit; whatever follows the digits is ignored. Values
// beyond int32 are out of range.
Outcome ReadDecimal(const std::string& word, int32_t& value)
{
    const char* s = word.c_str();
    while (*s == ' ' || *s == '\t' || *s == '\n' || *s == '\v' || *s == '\f' || *s == '\r') {
        ++s;
    }
    bool negative = false;
    if (*s == '+' || *s == '-') {
        negative = *s == '-';
        ++s;
    }
    if (*s < '0' || *s > '9') {
        return Outcome::InvalidArgument;
    }
    uint64_t magnitude = 0;
    bool beyond = false;
    for (; *s >= '0' && *s <= '9'; ++s) {
        if (!beyond) {
            magnitude = magnitude * 10 + static_cast<uint64_t>(*s - '0');
            beyond = magnitude > 2147483648ull;
        }
    }
    if (beyond || (!negative && magnitude > 2147483647ull)) {
        return Outcome::OutOfRange;
    }
    value = static_cast<int32_t>(negative ? -static_cast<int64_t>(magnitude) : static_cast<int64_t>(magnitude));
    return Outcome::Returned;
}

// Lines end at '\n'; words are separated by runs of blanks, tabs and
// carriage returns; a line of two or more words whose first word is a key
// sets that key from its second word; the first value that does not convert
// ends the reading with its exception.
Expectation Model(const uint8_t* data, size_t size, const HdrFactorySettings::Parameter& initial)
{
    Expectation expected;
    const int32_t* const first = &initial.MDB_V1;
    for (int i = 0; i < 11; ++i) {
        expected.values[i] = first[i];
    }
    size_t lineStart = 0;
    while (lineStart < size) {
        size_t lineEnd = lineStart;
        while (lineEnd < size && data[lineEnd] != '\n') {
            ++lineEnd;
        }
        std::vector<std::string> words;
        std::string word;
        for (size_t i = lineStart; i <= lineEnd; ++i) {
            const bool separator = i == lineEnd || data[i] == ' ' || data[i] == '\t' || data[i] == '\r';
            if (!separator) {
                word.push_back(static_cast<char>(data[i]));
            } else if (!word.empty()) {
                words.push_back(word);
                word.clear();
            }
        }
        lineStart = lineEnd + 1;
        if (words.size() < 2) {
            continue;
        }
        for (int key = 0; key < 11; ++key) {
            if (words[0] == kKeys[key]) {
                ++expected.setLines;
                int32_t value = 0;
                const Outcome outcome = ReadDecimal(words[1], value);
                if (outcome != Outcome::Returned) {
                    expected.outcome = outcome;
                    for (int i = 0; i < 11; ++i) {
                        expected.values[i] = first[i];
                    }
                    return expected;
                }
                expected.values[key] = value;
                break;
            }
        }
    }
    return expected;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    SetUpOnce();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    SetUpOnce();
    WriteInput(data, size);

    const HdrFactorySettings::Parameter initial{};
    HdrFactorySettings::Parameter param{};
    loggedLines = 0;
    loggedSetLines = 0;
    Outcome outcome = Outcome::Returned;
    bool opened = false;
    try {
        opened = HdrFactorySettings::GetParameterInFile(inputPath, param);
    } catch (const std::invalid_argument& e) {
        outcome = Outcome::InvalidArgument;
        if (std::strcmp(e.what(), "stoi") != 0) {
            Fail("std::invalid_argument with an unexpected text");
        }
    } catch (const std::out_of_range& e) {
        outcome = Outcome::OutOfRange;
        if (std::strcmp(e.what(), "stoi") != 0) {
            Fail("std::out_of_range with an unexpected text");
        }
    }

    const Expectation expected = Model(data, size, initial);
    if (outcome != expected.outcome) {
        Fail("the reader's outcome differs from the file format's");
    }
    if (outcome == Outcome::Returned && !opened) {
        Fail("an existing file was reported unreadable");
    }
    const int32_t* const got = &param.MDB_V1;
    const int32_t* const before = &initial.MDB_V1;
    for (int i = 0; i < 11; ++i) {
        if (outcome != Outcome::Returned && got[i] != before[i]) {
            Fail("a field changed although the reading threw");
        }
        if (got[i] != expected.values[i]) {
            Fail("a field differs from the value the file gives it");
        }
    }
    if (loggedSetLines != expected.setLines) {
        Fail("the number of \"LoadSettings set\" lines differs from the keys read");
    }
    // start, open success, the key lines, then on success the eleven-line
    // dump and end.
    const size_t lines = 2 + expected.setLines + (outcome == Outcome::Returned ? 12 : 0);
    if (loggedLines != lines) {
        Fail("unexpected number of logger lines");
    }
    return 0;
}
