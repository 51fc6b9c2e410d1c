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

#endif
