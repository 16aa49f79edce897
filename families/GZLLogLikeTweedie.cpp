// Tweedie log-likelihood for 1 < p < 2 by the series method:
//   log f(y) = (omega/phi) (y mu^(1-p)/(1-p) - mu^(2-p)/(2-p)) + log W - log y   (y > 0),
//   log f(0) = -(omega/phi) mu^(2-p)/(2-p),
// with W = sum_j W_j, log W_j = j log z - log Gamma(j+1) - log Gamma(-j alpha),
// alpha = (2-p)/(1-p) and
//   log z = (1-alpha) log omega - alpha log y + alpha log(p-1) - log(2-p) - (1-alpha) log phi.
// The terms W_j peak near j = y^(2-p) omega/((2-p) phi); one range of j per pass covers every
// record's peak, out to where the terms are negligible against it.
#include <algorithm>
#include <cmath>
#include <string>

#include "GZLConst_940.h"
#include "families/GZLFamilyUtil.h"
#include "families/GZLLogLikeFunc.h"
#include "support/TQDisplay_940.h"
#include "support/TQDistFun.h"
#include "support/TQMV.h"
#include "support/TQPower.h"

using GZLFamilyUtil::AddTerm;
using GZLFamilyUtil::Checked;
using TQMV::IsMissing;

namespace {

// A record whose series peaks beyond this index cannot be summed in reasonable time; it takes
// no part in the boundaries and its kernel is missing.
constexpr double kMaxPeakIndex = 1.0e7;
// Index ranges up to this many terms keep their log-gamma constants between records.
constexpr int64_t kMaxCachedTerms = int64_t{1} << 21;

}  // namespace

GZLLogLikeTweedie::GZLLogLikeTweedie(double p) : fP(p), fAlpha(TQMV::Missing) {
  if (!IsMissing(p) && p > 1.0 && p < 2.0) {
    fAlpha = (2.0 - p) / (1.0 - p);
    fLogZConst = fAlpha * std::log(p - 1.0) - std::log(2.0 - p);
  }
  fLogW = fG1 = fG2 = fT1 = fT2 = fZ = TQMV::Missing;
}

double GZLLogLikeTweedie::LogZ(double y, double omega) const {
  if (IsMissing(fAlpha) || !(y > 0.0) || !(omega > 0.0) || !(fPhi > 0.0)) return TQMV::Missing;
  const double a = fAlpha;
  return Checked((1.0 - a) * (std::log(omega) - std::log(fPhi)) - a * std::log(y) + fLogZConst);
}

// ---------------------------------------------------------------------------------------------
// Index-boundary pass

void GZLLogLikeTweedie::StartIndexBoundaryPass() {
  fPassMinLogZ = fPassMaxLogZ = fPassMinJMax = fPassMaxJMax = 0.0;
  fPassCount = fPassZeros = fPassRecords = 0;
}

void GZLLogLikeTweedie::AddIndexBoundaryRecord(double y, double omega) {
  ++fPassRecords;
  if (y == 0.0) {
    ++fPassZeros;
    return;
  }
  if (IsMissing(y) || IsMissing(omega) || !(y > 0.0) || !(omega > 0.0) || IsMissing(fAlpha)) return;
  double y2p = TQMV::Missing;
  if (!TQPower::Power(y, 2.0 - fP, y2p)) return;
  const double lz = LogZ(y, omega);
  const double jmax = y2p * omega / ((2.0 - fP) * fPhi);
  if (IsMissing(lz) || TQMV::IsMissingOrInfinite(jmax) || jmax > kMaxPeakIndex) return;
  if (fPassCount == 0) {
    fPassMinLogZ = fPassMaxLogZ = lz;
    fPassMinJMax = fPassMaxJMax = jmax;
  } else {
    fPassMinLogZ = std::min(fPassMinLogZ, lz);
    fPassMaxLogZ = std::max(fPassMaxLogZ, lz);
    fPassMinJMax = std::min(fPassMinJMax, jmax);
    fPassMaxJMax = std::max(fPassMaxJMax, jmax);
  }
  ++fPassCount;
}

TQStatus GZLLogLikeTweedie::FinishIndexBoundaryPass() {
  if (fPassCount == 0) {
    if (fPassZeros == fPassRecords) return TQStatus();  // only zero responses: no series needed
    return TQStatus::Error(GZLStatusCode::AllInvalidRecordsForLinkFunction);
  }
  // Stirling's form of log W_j, whose largest value over j is about beta * jmax.
  const double a = fAlpha;
  const double beta = 1.0 - a;
  const double aLogNegA = a * std::log(-a);
  auto stirling = [&](double j, double lz) { return (beta + lz + aLogNegA - beta * std::log(j)) * j; };

  int64_t upper = static_cast<int64_t>(std::max(fPassMaxJMax, 1.0));
  const double upperLimit = beta * fPassMaxJMax - kBoundaryMargin;
  do {
    ++upper;
  } while (stirling(static_cast<double>(upper), fPassMaxLogZ) > upperLimit);

  int64_t lower = static_cast<int64_t>(std::max(fPassMinJMax, 1.0));
  const double lowerLimit = beta * fPassMinJMax - kBoundaryMargin;
  while (lower > 1) {
    --lower;
    if (stirling(static_cast<double>(lower), fPassMinLogZ) <= lowerLimit) break;
  }

  const bool same = fbIndexCacheOK && lower == fLower && upper == fUpper;
  fLower = lower;
  fUpper = upper;
  if (!same) FillIndexCache();
  return TQStatus();
}

TQStatus GZLLogLikeTweedie::ComputeIndexBoundaries(const double* y, const double* omega, std::size_t n) {
  StartIndexBoundaryPass();
  for (std::size_t i = 0; i < n; ++i) AddIndexBoundaryRecord(y[i], omega != nullptr ? omega[i] : 1.0);
  return FinishIndexBoundaryPass();
}

void GZLLogLikeTweedie::FillIndexCache() {
  fbIndexCacheOK = false;
  const int64_t n = fUpper - fLower + 1;
  if (n <= 0 || n > kMaxCachedTerms) {
    fIndexConst.clear();
    return;
  }
  fIndexConst.resize(static_cast<std::size_t>(n));
  for (int64_t i = 0; i < n; ++i) {
    const double j = static_cast<double>(fLower + i);
    const double g1 = TQDistFun::LogGamma(j + 1.0);
    const double g2 = TQDistFun::LogGamma(-j * fAlpha);
    if (IsMissing(g1) || IsMissing(g2)) {
      // Every record's series would fail: keep nothing, so that the per-record path reports it.
      fIndexConst.clear();
      return;
    }
    fIndexConst[static_cast<std::size_t>(i)] = g1 + g2;
  }
  fbIndexCacheOK = true;
}

// ---------------------------------------------------------------------------------------------
// Series per record

bool GZLLogLikeTweedie::SumSeries(double y, double omega, double mu) {
  fLogW = fG1 = fG2 = fT1 = fT2 = TQMV::Missing;
  if (fLower == -1 || fUpper == -1 || IsMissing(fAlpha)) return false;
  const double lz = LogZ(y, omega);
  if (IsMissing(lz)) return false;
  // A record peaking beyond the range that any pass admits cannot be summed.
  double y2p = TQMV::Missing;
  if (!TQPower::Power(y, 2.0 - fP, y2p) || y2p * omega / ((2.0 - fP) * fPhi) > kMaxPeakIndex) return false;

  const int64_t n = fUpper - fLower + 1;
  const bool cached = fbIndexCacheOK && static_cast<int64_t>(fIndexConst.size()) == n;

  // A_j = log W_j. The first sweep finds the largest term, the second sums the terms and their
  // first two index moments relative to it: sum j W_j / W and sum j^2 W_j / W are what the
  // derivatives in log(phi) need.
  double maxA = -HUGE_VAL;
  double sA = 0.0, sB = 0.0, sC = 0.0;
  if (cached) {
    const double* k = fIndexConst.data();
    for (int64_t i = 0; i < n; ++i) {
      const double a = static_cast<double>(fLower + i) * lz - k[i];
      if (a > maxA) maxA = a;
    }
    if (!std::isfinite(maxA)) return false;
    for (int64_t i = 0; i < n; ++i) {
      const double jd = static_cast<double>(fLower + i);
      const double e = std::exp(jd * lz - k[i] - maxA);
      sA += e;
      sB += jd * e;
      sC += jd * jd * e;
    }
  } else {
    // A range too wide to keep: the log-gamma constants are evaluated on the spot, twice.
    auto indexConst = [this](double j) {
      const double g1 = TQDistFun::LogGamma(j + 1.0);
      const double g2 = TQDistFun::LogGamma(-j * fAlpha);
      return (IsMissing(g1) || IsMissing(g2)) ? TQMV::Missing : g1 + g2;
    };
    for (int64_t j = fLower; j <= fUpper; ++j) {
      const double c = indexConst(static_cast<double>(j));
      if (IsMissing(c)) return false;
      const double a = static_cast<double>(j) * lz - c;
      if (a > maxA) maxA = a;
    }
    if (!std::isfinite(maxA)) return false;
    for (int64_t j = fLower; j <= fUpper; ++j) {
      const double jd = static_cast<double>(j);
      const double e = std::exp(jd * lz - indexConst(jd) - maxA);
      sA += e;
      sB += jd * e;
      sC += jd * jd * e;
    }
  }
  if (!(sA > 0.0) || !std::isfinite(sA) || !std::isfinite(sC)) return false;

  fLogW = std::log(sA) + maxA;
  const double am1 = fAlpha - 1.0;
  fG1 = Checked(am1 * sB / sA);
  fG2 = Checked(am1 * am1 * sC / sA);
  double mu1p = TQMV::Missing, mu2p = TQMV::Missing;
  if (TQPower::Power(mu, 1.0 - fP, mu1p) && TQPower::Power(mu, 2.0 - fP, mu2p)) {
    fT1 = Checked(y * omega * mu1p / ((1.0 - fP) * fPhi));
    fT2 = Checked(omega * mu2p / ((2.0 - fP) * fPhi));
  }
  return true;
}

// ---------------------------------------------------------------------------------------------

double GZLLogLikeTweedie::AddKernel(double y, double mu, double f, double omega) {
  if (IsMissing(y) || IsMissing(mu) || IsMissing(f) || IsMissing(omega)) return TQMV::Missing;
  double mu2p = TQMV::Missing;
  if (!TQPower::Power(mu, 2.0 - fP, mu2p)) return TQMV::Missing;
  if (y == 0.0) {
    fZ = TQMV::Missing;
    if (IsMissing(fAlpha)) return TQMV::Missing;
    const double z = Checked((omega / fPhi) * f * mu2p / (2.0 - fP));
    if (IsMissing(z)) return TQMV::Missing;
    fZ = z;
    return AddTerm(fKernel, -z);
  }
  if (mu != 0.0 && omega > 0.0 && !IsMissing(fAlpha) && y > 0.0 && SumSeries(y, omega, mu)) {
    double mu1p = TQMV::Missing;
    if (!TQPower::Power(mu, 1.0 - fP, mu1p)) return TQMV::Missing;
    const double term = f * ((mu1p * y / (1.0 - fP) - mu2p / (2.0 - fP)) * omega / fPhi + fLogW);
    return AddTerm(fKernel, term);
  }
  return TQMV::Missing;
}

double GZLLogLikeTweedie::AddConstant(double y, double f, double, double, double) {
  if (IsMissing(y) || IsMissing(f)) return TQMV::Missing;
  if (y > 0.0) return AddTerm(fNonKernel, -f * std::log(y));
  if (y == 0.0) return fNonKernel;
  return TQMV::Missing;
}

// A zero response contributes -Z, Z = (omega/phi) f mu^(2-p)/(2-p), whose derivatives in
// log(phi) are Z and -Z. A positive one has d/dlog(phi) = (alpha-1) E[j] - T1 + T2 and
// d2/dlog(phi)2 = (alpha-1)^2 Var[j] + T1 - T2 per unit of frequency weight, E and Var taken
// over the series terms.
double GZLLogLikeTweedie::GetParamDeriv(double, double y, double f, double) const {
  if (IsMissing(y) || IsMissing(f)) return TQMV::Missing;
  if (y == 0.0) return fZ;
  if (!(y > 0.0) || IsMissing(fG1) || IsMissing(fT1) || IsMissing(fT2)) return TQMV::Missing;
  return Checked((fG1 - fT1 + fT2) * f);
}

double GZLLogLikeTweedie::GetParamDeriv2(double, double y, double f, double) const {
  if (IsMissing(y) || IsMissing(f)) return TQMV::Missing;
  if (y == 0.0) return IsMissing(fZ) ? TQMV::Missing : -fZ;
  if (!(y > 0.0) || IsMissing(fG2) || IsMissing(fG1) || IsMissing(fT1) || IsMissing(fT2))
    return TQMV::Missing;
  return Checked((fG2 - fG1 * fG1 + fT1 - fT2) * f);
}

void GZLLogLikeTweedie::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLLogLikeTweedie display start");
  DisplayBase();
  DisplayDF("Parameter p of the Tweedie distribution", fP);
  DisplayI("The lower index boundary", static_cast<int>(fLower));
  DisplayI("The upper index boundary", static_cast<int>(fUpper));
  DisplayDF("Parameter alpha of the Tweedie series", fAlpha);
  DisplayText(1, "GZLLogLikeTweedie display end");
}
