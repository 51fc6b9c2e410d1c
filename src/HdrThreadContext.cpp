#include "HdrThreadContext.h"

#include "HdrRender.h"

EGLInfo* FindThreadContext()
{
    HdrRender* render = HdrRender::GetInstance();
    HdrRender::HdrContext* context = render->findContext();
    return context != render->ContextsEnd() ? &context->egl : nullptr;
}

bool BindThreadContext()
{
    return HdrRender::GetInstance()->Bind();
}

bool UnbindThreadContext()
{
    return HdrRender::GetInstance()->Unbind();
}
