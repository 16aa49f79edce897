#pragma once
// Distribution functions on Boost.Math. Outside their domain (or for missing arguments) they
// return TQMV::Missing; they never throw.
namespace TQDistFun {

double CdfChi(double x, double df);          // P(X <= x), X ~ chi-square(df)
double CdfF(double x, double df1, double df2);
double CdfT(double x, double df);
double CdfStdNorm(double x);
// Upper tails P(X > x), with full relative precision far out where 1 - cdf would be 0.
double SfChi(double x, double df);
double SfF(double x, double df1, double df2);
double IdfChi(double p, double df);          // quantile
double IdfT(double p, double df);
double IdfNorm(double p, double mean, double sd);
double IdfStdNorm(double p);
double LogGamma(double x);                   // log |Gamma(x)|, x > 0 (missing at poles)

}  // namespace TQDistFun

namespace TQMathFun {

double Digamma(double x);
double Trigamma(double x);
// Indices of the largest and second-largest of n values (ties: the first occurrence wins).
// With n < 2 the second index is -1; with n < 1 both are -1.
void FindTwoLargest(const double* values, int n, int& largest, int& second);

}  // namespace TQMathFun
