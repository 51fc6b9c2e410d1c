// The gain-map program's constants as plain numbers: everything the draw
// uploads, worked out from the picture's metadata, the factory tuning, the
// picture's average level and the output choice. No GL and no logging here,
// so that the arithmetic can be checked on its own.
#ifndef HDR_GENERATE_CONSTANTS_H
#define HDR_GENERATE_CONSTANTS_H

#include "HdrFactorySettings.h"
#include "HdrGenerateTransferFunction.h"
#include "HdrGpuBackend.h"

#include <cstdint>

struct GainMapConstants {
    // Maximum display boost (a linear ratio) and the two tuning levels it is
    // blended from.
    float mdb;
    float mdbV1;
    float mdbV2;

    // Per channel, alpha last.
    float logRatioMin[4];
    float logRatioMax[4];
    float gainmapGamma[4];
    float epsilonSdr[4];
    float epsilonHdr[4];
    int32_t noGamma;

    // 0 shows the SDR rendition, 1 the full HDR one.
    float weight;
    // The boost the output curve is scaled to: min(2^capacityMax, mdb).
    float boost;

    // False when the record's gamut or transfer function is not one the
    // program knows; the constants after the weight are then not uploaded.
    bool gamutValid;
    bool trfnValid;

    float outputGamutTransform[9];
    // The sRGB curve scaled to the boost, how its inversion went, and the
    // curve the program gets (the fixed inverse sRGB curve when the scaled
    // one cannot be inverted).
    float outputCurve[7];
    CurveInversion outputCurveInversion;
    float trfnInv[7];

    float curveGainPoint[3];
    float curveGainGrad[3];
    int32_t outputYUV;
    int32_t inputTrfnType;
    // Identity when the transfer function is not valid.
    float inTrfn[7];

    // Degrees about the screen normal (0 for a rotation code out of 1..3),
    // the mirror flag, and the resulting column-major 4x4 matrix for the
    // vertex stage's row-vector product.
    float rotateDegrees;
    bool mirror;
    float rotateMatrix[16];
};

GainMapConstants ComputeGainMapConstants(const HdrInfo& info, const HdrFactorySettings::Parameter& tuning, int32_t apl,
                                         bool outputYUV);

#endif
