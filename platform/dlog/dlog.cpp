// Logger stand-in: formats each line and hands it to the installed sink, or
// by default to the system log (syslog), never to standard output.
#include "dlog.h"
#include "dlog_standin.h"

#include <syslog.h>

#include <cstdio>
#include <mutex>
#include <string>

namespace {

std::mutex sinkMutex;
dlog_standin_sink installedSink = nullptr;
void* installedUser = nullptr;

bool IsKnownBuffer(int logId)
{
    return logId >= LOG_ID_MAIN && logId < LOG_ID_MAX;
}

bool IsKnownPriority(int prio)
{
    return prio >= DLOG_DEFAULT && prio <= DLOG_SILENT;
}

int SyslogPriority(int prio)
{
    switch (prio) {
    case DLOG_FATAL:
        return LOG_CRIT;
    case DLOG_ERROR:
        return LOG_ERR;
    case DLOG_WARN:
        return LOG_WARNING;
    case DLOG_INFO:
        return LOG_INFO;
    default:
        return LOG_DEBUG;
    }
}

const char* BufferName(int logId)
{
    static const char* const names[] = {"main", "radio", "system", "apps"};
    return names[logId];
}

}  // namespace

extern "C" {

int __dlog_vprint(log_id_t log_id, int prio, const char* tag, const char* fmt, va_list ap)
{
    if (tag == nullptr || fmt == nullptr || !IsKnownBuffer(log_id) || !IsKnownPriority(prio)) {
        return DLOG_ERROR_INVALID_PARAMETER;
    }
    va_list measure;
    va_copy(measure, ap);
    const int length = vsnprintf(nullptr, 0, fmt, measure);
    va_end(measure);
    if (length < 0) {
        return DLOG_ERROR_INVALID_PARAMETER;
    }
    std::string message(static_cast<size_t>(length), '\0');
    vsnprintf(&message[0], message.size() + 1, fmt, ap);
    if (prio == DLOG_SILENT) {
        return length;
    }

    std::lock_guard<std::mutex> lock(sinkMutex);
    if (installedSink != nullptr) {
        installedSink(installedUser, log_id, prio, tag, message.c_str());
    } else {
        syslog(LOG_USER | SyslogPriority(prio), "[%s] %s: %s", BufferName(log_id), tag, message.c_str());
    }
    return length;
}

int __dlog_print(log_id_t log_id, int prio, const char* tag, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const int result = __dlog_vprint(log_id, prio, tag, fmt, ap);
    va_end(ap);
    return result;
}

int dlog_vprint(log_priority prio, const char* tag, const char* fmt, va_list ap)
{
    return __dlog_vprint(LOG_ID_APPS, prio, tag, fmt, ap);
}

int dlog_print(log_priority prio, const char* tag, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const int result = __dlog_vprint(LOG_ID_APPS, prio, tag, fmt, ap);
    va_end(ap);
    return result;
}

void dlog_standin_set_sink(dlog_standin_sink sink, void* user)
{
    std::lock_guard<std::mutex> lock(sinkMutex);
    installedSink = sink;
    installedUser = user;
}

}  // extern "C"
