// Seven-parameter transfer curves (g, a, b, c, d, e, f):
//   y = c·x + f         for x < d
//   y = (a·x + b)^g + e  for x >= d
// on |x|, with the sign of x restored (odd extension). Float32 throughout.
#ifndef HDR_GENERATE_TRANSFER_FUNCTION_H
#define HDR_GENERATE_TRANSFER_FUNCTION_H

float skcms_TransferFunction_eval(const float* tf, float x);

// The curve of the same form that undoes src, written to dst (seven floats).
// False, with dst untouched, when src cannot be inverted in that form.
bool skcms_TransferFunction_invert(const float* src, float* dst);

// How an inversion ended. The two NaN outcomes are the ones the checked
// inversion above reports as failed assertions.
enum class CurveInversion {
    kInverted,
    kRefused,
    kScaleNotANumber,
    kOffsetNotANumber,
};

// The inversion without any logging: the work array inv (seven floats) holds
// the inverse when the result is kInverted, and the partial values the
// assertions look at otherwise.
CurveInversion InvertTransferCurve(const float* src, float* inv);

#endif
