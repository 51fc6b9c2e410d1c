// System-information stand-in: a table of integer keys, each either without a
// value (reads answer NOT_SUPPORTED), with a value, or set to fail with an
// error code. The table is first filled from HDRGPU_SYSTEM_INFO_<key>=<int>
// environment variables, and filled again from them by
// system_info_standin_reset(); the control calls override it.
#include "system_info.h"
#include "system_info_standin.h"

#include <climits>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <unordered_map>

extern char** environ;

namespace {

constexpr char kEnvPrefix[] = "HDRGPU_SYSTEM_INFO_";

struct Entry {
    bool isError = false;
    int value = 0;  // the value, or the error code when isError
};

struct State {
    std::mutex mutex;
    std::unordered_map<int, Entry> entries;
    bool loaded = false;
};

// Never destroyed: reads may come from other threads or atexit handlers.
State& GetState()
{
    static State* const state = new State;
    return *state;
}

// Strict decimal int32: optional '-', then one or more digits, nothing else
// (no spaces, no '+', no hexadecimal); false when out of range.
bool ParseInt32(const char* begin, const char* end, int* out)
{
    const char* p = begin;
    bool negative = false;
    if (p != end && *p == '-') {
        negative = true;
        ++p;
    }
    if (p == end) {
        return false;
    }
    int64_t magnitude = 0;
    for (; p != end; ++p) {
        if (*p < '0' || *p > '9') {
            return false;
        }
        magnitude = magnitude * 10 + (*p - '0');
        if (magnitude > static_cast<int64_t>(INT_MAX) + 1) {
            return false;
        }
    }
    const int64_t result = negative ? -magnitude : magnitude;
    if (result < INT_MIN || result > INT_MAX) {
        return false;
    }
    *out = static_cast<int>(result);
    return true;
}

// Caller holds state.mutex. Adds every well-formed HDRGPU_SYSTEM_INFO_<key>=<int>
// of the environment as a value; ignores malformed ones.
void LoadEnvironmentLocked(State& state)
{
    state.loaded = true;
    if (environ == nullptr) {
        return;
    }
    const size_t prefixLength = sizeof(kEnvPrefix) - 1;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const char* text = *entry;
        if (std::strncmp(text, kEnvPrefix, prefixLength) != 0) {
            continue;
        }
        const char* keyBegin = text + prefixLength;
        const char* equals = std::strchr(keyBegin, '=');
        if (equals == nullptr) {
            continue;
        }
        int key = 0;
        int value = 0;
        if (!ParseInt32(keyBegin, equals, &key) ||
            !ParseInt32(equals + 1, equals + 1 + std::strlen(equals + 1), &value)) {
            continue;
        }
        Entry e;
        e.value = value;
        state.entries[key] = e;
    }
}

// Locks the state, filling it from the environment on first use.
class LockedState {
public:
    LockedState() : state_(GetState()), lock_(state_.mutex)
    {
        if (!state_.loaded) {
            LoadEnvironmentLocked(state_);
        }
    }
    State* operator->() { return &state_; }
    State& get() { return state_; }

private:
    State& state_;
    std::lock_guard<std::mutex> lock_;
};

}  // namespace

extern "C" {

int system_info_get_value_int(system_info_key_e key, int* value)
{
    if (value == nullptr) {
        return SYSTEM_INFO_ERROR_INVALID_PARAMETER;
    }
    LockedState state;
    const auto it = state->entries.find(key);
    if (it == state->entries.end()) {
        return SYSTEM_INFO_ERROR_NOT_SUPPORTED;
    }
    if (it->second.isError) {
        return it->second.value;
    }
    *value = it->second.value;
    return SYSTEM_INFO_ERROR_NONE;
}

void system_info_standin_set_int(system_info_key_e key, int value)
{
    LockedState state;
    Entry e;
    e.value = value;
    state->entries[key] = e;
}

void system_info_standin_set_error(system_info_key_e key, int error)
{
    LockedState state;
    if (error == SYSTEM_INFO_ERROR_NONE) {
        // A read must never report success without a value: 0 clears the key.
        state->entries.erase(key);
        return;
    }
    Entry e;
    e.isError = true;
    e.value = error;
    state->entries[key] = e;
}

void system_info_standin_clear(system_info_key_e key)
{
    LockedState state;
    state->entries.erase(key);
}

void system_info_standin_reset(void)
{
    LockedState state;
    state->entries.clear();
    LoadEnvironmentLocked(state.get());
}

}  // extern "C"
