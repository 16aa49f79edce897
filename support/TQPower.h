#pragma once
// Overflow-safe elementary arithmetic: a result that would overflow (or is undefined) comes back
// as the missing value instead of an infinity or a NaN.
namespace TQPower {

// Largest and smallest arguments of exp() whose result is a finite, normal double.
extern const double gMachineMaxExp;
extern const double gMachineMinExp;

// result = x^y. On success returns true. When x^y is undefined (negative x with a non-integer y,
// 0 to a negative power), overflows, or an argument is missing, result is set to TQMV::Missing
// and false is returned.
bool Power(double x, double y, double& result);

// exp(x), or missing when x > gMachineMaxExp or x is missing; 0 when x < gMachineMinExp.
double Exponent(double x);

// a*b, or missing when the product overflows or an argument is missing.
double Multiply(double a, double b);

// True when a and b agree to within `ulps` units in the last place (relative to the larger
// magnitude); two zeros, or a zero and a value below the smallest normal, are equal.
bool AlmostEqual(double a, double b, double ulps);

}  // namespace TQPower
