// A cheap guard against unserialised calls: the host must serialise its calls
// into the library, and one that does not gets a refusal and a log line
// instead of two threads racing through the same engine and registry.
//
// One process-wide flag, taken with an atomic exchange at the top of each
// entry point and released on return; no lock, no waiting. A thread that
// already holds the flag (an entry point that calls another, such as a
// failed initialisation tearing down) goes through.
#ifndef HDR_CALL_GUARD_H
#define HDR_CALL_GUARD_H

#include "HdrCommon.h"

#include <atomic>

class HdrCallGuard {
public:
    HdrCallGuard()
    {
        if (HeldHere()) {
            return;
        }
        held_ = !Busy().exchange(true, std::memory_order_acquire);
        HeldHere() = held_;
        refused_ = !held_;
    }
    ~HdrCallGuard()
    {
        if (held_) {
            HeldHere() = false;
            Busy().store(false, std::memory_order_release);
        }
    }
    HdrCallGuard(const HdrCallGuard&) = delete;
    HdrCallGuard& operator=(const HdrCallGuard&) = delete;

    // Another thread's call is in progress.
    bool Refused() const { return refused_; }

private:
    static std::atomic<bool>& Busy()
    {
        static std::atomic<bool> busy{false};
        return busy;
    }
    static bool& HeldHere()
    {
        thread_local bool held = false;
        return held;
    }

    bool held_ = false;
    bool refused_ = false;
};

// First line of every entry point: refuses the call, logged, with
// failureValue (empty for a function without a result) while another
// thread's call is in progress.
#define HDR_CALL_GUARD(failureValue)                                                                             \
    HdrCallGuard hdrCallGuard;                                                                                   \
    if (hdrCallGuard.Refused()) {                                                                                \
        HDR_LOG("%d ERROR: another call into the library is in progress, calls must be serialised\n", __LINE__); \
        return failureValue;                                                                                     \
    }

#endif
