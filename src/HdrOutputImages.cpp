// The output-image kind a build makes.
#include "HdrOutputImages.h"

std::unique_ptr<const OutputImages> MakeBuildOutputImages()
{
#ifdef HDRGPU_NATIVE_SURFACE_IMAGES
    return std::make_unique<NativeSurfaceImages>();
#else
    return std::make_unique<SurfaceCopyImages>();
#endif
}
