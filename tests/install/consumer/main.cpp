// Compiles against the installed public header only.
#include <HdrGpuBackend.h>

#include <cstdio>

int main()
{
    GpuGenerateHdrInitOption option{};
    option.usePBO = true;
    std::printf("HdrInfo %zu GpuGenerateHdrInitOption %zu\n", sizeof(HdrInfo), sizeof option);
    return sizeof(HdrInfo) == 224 && sizeof option == 24 ? 0 : 1;
}
