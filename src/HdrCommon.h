// Logging, non-aborting assertions and the GL error check shared by every
// source of the library.
#ifndef HDR_COMMON_H
#define HDR_COMMON_H

#include <GLES3/gl3.h>
#include <dlog.h>
#include <cstdio>

#define HDR_LOG_TAG "TSS"

// The file's base name, computed at compile time so that every log line
// names only the file, whatever path the build gave the compiler.
constexpr const char* HdrSourceBaseName(const char* path)
{
    const char* base = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '/') {
            base = p + 1;
        }
    }
    return base;
}

// The file name every log line carries. A class whose sources are split by
// job keeps the one name its hosts filter on: such a file defines
// HDR_LOG_FILE before any include.
#ifndef HDR_LOG_FILE
#define HDR_LOG_FILE HdrSourceBaseName(__FILE__)
#endif

// One message, two copies: the platform log (main buffer, error priority,
// tag "TSS", prefixed with file, function and line) and standard output
// (the message alone, then a separately printed line break). The arguments
// are evaluated once for each copy.
#define HDR_LOG(fmt, ...)                                                                                         \
    do {                                                                                                          \
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, HDR_LOG_TAG, "%s: %s(%d) > " fmt, HDR_LOG_FILE, __func__, __LINE__, \
                     ##__VA_ARGS__);                                                                              \
        printf(fmt, ##__VA_ARGS__);                                                                               \
        printf("\n");                                                                                             \
    } while (0)

// Lines that may carry sensitive detail go to the system buffer only.
#define HDR_SECURE_LOG(fmt, ...)                                                                                    \
    do {                                                                                                            \
        __dlog_print(LOG_ID_SYSTEM, DLOG_ERROR, HDR_LOG_TAG, "%s: %s(%d) > " fmt, HDR_LOG_FILE, __func__, __LINE__, \
                     ##__VA_ARGS__);                                                                                \
    } while (0)

// A failed check is logged and makes the enclosing function return
// failureValue; it never aborts.
#define HDR_ASSERT(condition, failureValue)                                    \
    do {                                                                       \
        if (!(condition)) {                                                    \
            HDR_LOG("HDR_ASSERT[%s:%d] : %s", __func__, __LINE__, #condition); \
            return failureValue;                                               \
        }                                                                      \
    } while (0)

// Takes every error off the GL error queue without logging (drivers may
// hold several flags: a bounded number is read), so that none is left for
// later calls. Answers the first, or GL_NO_ERROR.
static inline GLenum TakeGlErrors()
{
    const GLenum first = glGetError();
    for (int flags = 0; first != GL_NO_ERROR && flags < 8 && glGetError() != GL_NO_ERROR; ++flags) {
    }
    return first;
}

// Takes one error off the GL error queue; logs it and answers false, or
// answers true when none is pending. Each translation unit gets its own copy.
static inline bool GL_error_check()
{
    const GLenum error = glGetError();
    switch (error) {
    case GL_NO_ERROR:
        return true;
    case GL_INVALID_ENUM:
        HDR_LOG("An unacceptable value is specified for an enumerated argument. 0x%08x", error);
        break;
    case GL_INVALID_VALUE:
        HDR_LOG("A numeric argument is out of range. 0x%08x", error);
        break;
    case GL_INVALID_OPERATION:
        HDR_LOG("The specified operation is not allowed in the current state. 0x%08x", error);
        break;
    case GL_OUT_OF_MEMORY:
        HDR_LOG("There is not enough memory left to execute the function. 0x%08x", error);
        break;
    default:
        HDR_LOG("Unknown gl error. 0x%08x", error);
        break;
    }
    return false;
}

#endif
