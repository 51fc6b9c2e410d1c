// Compiles against the installed public header only.
#include <HdrGpuBackend.h>

#include <cstdio>

int main()
{
    GpuGenerateHdrInitOption option{};
    option.usePBO = true;
    std::printf("HdrInfo %zu GpuGenerateHdrInitOption %zu\n", sizeof(HdrInfo), sizeof option);
    // LP64 (64-bit Linux) or ILP32 (i386, armhf) layout.
    const bool lp64 = sizeof(void*) == 8;
    return sizeof(HdrInfo) == (lp64 ? 224u : 196u) && sizeof option == (lp64 ? 24u : 16u) ? 0 : 1;
}
