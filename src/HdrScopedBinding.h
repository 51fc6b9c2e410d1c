// The calling thread's render context made current for one entry point and
// the host's binding given back on every way out. The registry is looked up
// afresh at each step: an entry point may tear it down while bound.
#ifndef HDR_SCOPED_BINDING_H
#define HDR_SCOPED_BINDING_H

#include "HdrRender.h"

class HdrScopedBinding {
public:
    HdrScopedBinding() : bound_(HdrRender::GetInstance()->Bind()) {}
    ~HdrScopedBinding()
    {
        if (bound_) {
            HdrRender::GetInstance()->Unbind();
        }
    }
    HdrScopedBinding(const HdrScopedBinding&) = delete;
    HdrScopedBinding& operator=(const HdrScopedBinding&) = delete;

    bool Bound() const { return bound_; }

    // Gives the host's binding back now, where the caller reports the
    // result; the destructor then does nothing.
    bool Release()
    {
        bound_ = false;
        return HdrRender::GetInstance()->Unbind();
    }

private:
    bool bound_;
};

#endif
