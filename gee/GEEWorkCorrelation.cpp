#include "gee/GEEWorkCorrelation.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "GZLSettings.h"
#include "diagnostics/GZLComponentDisplay_940.h"
#include "gee/GEEDesignMatrix.h"
#include "support/TQDisplay_940.h"

namespace {

// Powers of 16 for the residual factor: up[k] = 16^(k+1), down[k] = 16^-(k+1), built by
// repeated multiplication (exact: powers of two).
struct SixteenPowers {
  std::array<double, 40> up{};
  std::array<double, 40> down{};
  SixteenPowers() {
    double u = 1.0, d = 1.0;
    for (std::size_t k = 0; k < up.size(); ++k) {
      u *= 16.0;
      d *= 0.0625;
      up[k] = u;
      down[k] = d;
    }
  }
};

const SixteenPowers& Powers() {
  static const SixteenPowers powers;
  return powers;
}

}  // namespace

// ---- GEECorrelationMoments -------------------------------------------------------------------

void GEECorrelationMoments::Reset(std::size_t nSums) {
  fMaxAbs = -DBL_MAX;
  fFactor = 1.0;
  fN = 0.0;
  fS2 = 0.0;
  fSP.assign(nSums, 0.0);
  fC.assign(nSums, 0.0);
}

void GEECorrelationMoments::Rescale(double maxAbs) noexcept {
  if (!(maxAbs > fMaxAbs)) return;
  fMaxAbs = maxAbs;
  const double factor = GEEWorkCorrelation::ScaleFactor(maxAbs);
  if (factor == fFactor) return;
  // A ratio of powers of 16: the rescaled sums are those of the new factor, exactly.
  const double r = factor / fFactor;
  const double r2 = r * r;
  fS2 *= r2;
  for (double& sp : fSP) sp *= r2;
  fFactor = factor;
}

void GEECorrelationMoments::Merge(const GEECorrelationMoments& other) {
  Rescale(other.fMaxAbs);
  const double r = fFactor / other.fFactor;
  const double r2 = r * r;
  fN += other.fN;
  fS2 += other.fS2 * r2;
  const std::size_t n = std::min(fSP.size(), other.fSP.size());
  for (std::size_t k = 0; k < n; ++k) {
    fSP[k] += other.fSP[k] * r2;
    fC[k] += other.fC[k];
  }
}

// ---- GEEWorkCorrelation ----------------------------------------------------------------------

GEEWorkCorrelation::GEEWorkCorrelation(GEEDesignMatrix& design, const GZLSettings& settings)
    : fCorrType(settings.GetGEECorrType()),
      fpDesign(&design),
      fpLink(CreateLinkFunction(settings.GetLinkType(), settings.GetLinkParam())),
      fpVariance(CreateVarianceFunction(settings.GetDistType(), settings.GetDistParam())),
      fbAdjust(settings.IsAdjustCorr()),
      fpFixedValues(&settings.GetWorkCorrMatrix()),
      fMDependentPar(settings.GetGEEMDependentPar()),
      fpSettings(&settings),
      fCoding(settings) {}

GEEWorkCorrelation::~GEEWorkCorrelation() = default;

double GEEWorkCorrelation::ScaleFactor(double maxAbs) noexcept {
  if (!(maxAbs > 0.0) || maxAbs == 1.0 || !std::isfinite(maxAbs)) return 1.0;
  const double e = std::log(maxAbs) / std::log(16.0);
  const SixteenPowers& p = Powers();
  if (maxAbs > 1.0) return p.down[static_cast<std::size_t>(std::min(std::trunc(e), 39.0))];
  return p.up[static_cast<std::size_t>(std::min(std::trunc(-e), 39.0))];
}

double GEEWorkCorrelation::Correlation(double sp, double denominator, double phi) noexcept {
  if (TQMV::IsMissing(denominator) || TQMV::IsMissing(phi) || denominator == 0.0 || phi == 0.0) return 0.0;
  const double rho = sp / denominator / phi;
  if (std::isnan(rho)) return 0.0;
  // A deliberate clamp that keeps R usable; there is no other bound.
  if (rho >= 1.0) return 0.9999;
  if (rho <= -1.0) return -0.9999;
  return rho;
}

void GEEWorkCorrelation::SetDistParam(double k) {
  if (fpVariance) fpVariance->SetParam(k);
  if (fpLink && fpSettings->GetLinkType() == TQConst::LinkNegBinomial) fpLink->SetParam(k);
}

void GEEWorkCorrelation::Update(TQStatus& status, const std::vector<double>& beta, int p, TQSymMatrix& R) {
  fP = static_cast<double>(p);
  fDim = fpDesign->GetCorrDimension();
  status = TQStatus();
  switch (fCorrType) {
    case GZLConst_940::Independent: Independent(status, beta, R); break;
    case GZLConst_940::AR1: AutoRegressive(status, beta, R); break;
    case GZLConst_940::Exchangeable: Exchangeable(status, beta, R); break;
    case GZLConst_940::FixedCorr: Fixed(status, *fpFixedValues, R); break;
    case GZLConst_940::MDependent: MDependent(status, beta, R); break;
    case GZLConst_940::Unstructured: Unstructured(status, beta, R); break;
    default: return;  // an unknown type leaves R and the status alone
  }
  fStatus = status;
}

std::size_t GEEWorkCorrelation::NumSums() const {
  switch (fCorrType) {
    case GZLConst_940::AR1:
    case GZLConst_940::Exchangeable: return 1;
    case GZLConst_940::MDependent: return static_cast<std::size_t>(LagCount());
    case GZLConst_940::Unstructured: return fDim > 1 ? static_cast<std::size_t>(fDim) * (fDim - 1) / 2 : 0;
    default: return 0;
  }
}

int GEEWorkCorrelation::LagCount() const {
  const double m = std::floor(fMDependentPar);
  if (!(m > 0.0)) return 0;
  return static_cast<int>(std::min(m, static_cast<double>(std::max(fDim - 1, 0))));
}

bool GEEWorkCorrelation::SubjectResiduals(const GEESubject& subject, const std::vector<double>& beta, int& m) {
  // fPresent: 0 no record at the position, 1 a record without a usable residual, 2 a residual.
  fResiduals.assign(static_cast<std::size_t>(fDim), TQMV::Missing);
  fPresent.assign(static_cast<std::size_t>(fDim), 0);
  m = 0;
  bool any = false;
  for (int j = 0; j < subject.fNRecords; ++j) {
    const GZLDesignRow& row = subject.fRows[static_cast<std::size_t>(j)];
    std::size_t k = 0;
    if (!TakePosition(subject, j, m, k)) continue;
    any = true;
    if (row.fbInvalid || !fpLink || !fpVariance) continue;
    const std::size_t n = std::min(row.fValues.size(), beta.size());
    const GEERecordFit fit = GEEFitRecord(row, beta.data(), n, *fpLink, *fpVariance, fCoding, false);
    if (TQMV::IsMissing(fit.fMu) || TQMV::IsMissing(fit.fV) || !(fit.fV > 0.0)) continue;
    const double r = std::sqrt(row.fScaleWeight / fit.fV) * (fit.fY - fit.fMu);
    if (!std::isfinite(r)) continue;
    fResiduals[k] = r;
    fPresent[k] = 2;
  }
  return any;
}

bool GEEWorkCorrelation::TakePosition(const GEESubject& subject, int j, int& m, std::size_t& k) {
  const int given = subject.fPositions[static_cast<std::size_t>(j)];
  const int pos = given >= 0 ? given : j;
  if (pos >= fDim) return false;
  k = static_cast<std::size_t>(pos);
  if (fPresent[k] == 0) {
    ++m;
    fPresent[k] = 1;
  }
  return true;
}

void GEEWorkCorrelation::AddSubject(double w, int m, GEECorrelationMoments& moments) const {
  const double s = moments.fFactor;
  const int d = fDim;
  auto present = [&](int k) { return fPresent[static_cast<std::size_t>(k)] == 2; };
  auto r = [&](int k) { return fResiduals[static_cast<std::size_t>(k)] * s; };
  moments.fN += w * m;
  double s2 = 0.0;
  for (int k = 0; k < d; ++k)
    if (present(k)) s2 += r(k) * r(k);
  moments.fS2 += w * s2;
  switch (fCorrType) {
    case GZLConst_940::Exchangeable:
      for (int k = 1; k < d; ++k) {
        if (!present(k)) continue;
        for (int j = 0; j < k; ++j) {
          if (!present(j)) continue;
          moments.fSP[0] += w * r(j) * r(k);
          moments.fC[0] += w;
        }
      }
      break;
    case GZLConst_940::AR1:
      for (int k = 0; k + 1 < d; ++k) {
        if (!present(k) || !present(k + 1)) continue;
        moments.fSP[0] += w * r(k) * r(k + 1);
        moments.fC[0] += w;
      }
      break;
    case GZLConst_940::MDependent: {
      const int lags = static_cast<int>(moments.fSP.size());
      for (int t = 1; t <= lags; ++t)
        for (int k = 0; k + t < d; ++k) {
          if (!present(k) || !present(k + t)) continue;
          moments.fSP[static_cast<std::size_t>(t - 1)] += w * r(k) * r(k + t);
          moments.fC[static_cast<std::size_t>(t - 1)] += w;
        }
      break;
    }
    case GZLConst_940::Unstructured:
      for (int k = 1; k < d; ++k) {
        if (!present(k)) continue;
        for (int j = 0; j < k; ++j) {
          if (!present(j)) continue;
          const std::size_t idx = static_cast<std::size_t>(k) * (k - 1) / 2 + j;
          moments.fSP[idx] += w * r(j) * r(k);
          moments.fC[idx] += w;
        }
      }
      break;
    default: break;
  }
}

TQStatus GEEWorkCorrelation::GatherMoments(const std::vector<double>& beta, GEECorrelationMoments& moments) {
  moments.Reset(NumSums());
  GEESubject subject;
  return GEERunSubjects(*fpDesign, subject, moments, [&](const GEESubject& s, GEECorrelationMoments& sums) {
    int m = 0;
    if (!SubjectResiduals(s, beta, m)) return true;
    double largest = -DBL_MAX;
    for (std::size_t k = 0; k < fResiduals.size(); ++k)
      if (fPresent[k] == 2) largest = std::max(largest, std::fabs(fResiduals[k]));
    sums.Rescale(largest);
    AddSubject(s.GetFreqWeight(), m, sums);
    return true;
  });
}

void GEEWorkCorrelation::ScaleAndDenominator(TQStatus& status, const GEECorrelationMoments& moments, double count,
                                             double& phi, double& denominator) {
  const double N = moments.fN;
  phi = TQMV::Missing;
  denominator = TQMV::Missing;
  if (fbAdjust && N > fP && count > fP) {
    phi = moments.fS2 / (N - fP);
    denominator = count - fP;
  } else if (N > 0.0) {
    phi = moments.fS2 / N;
    denominator = count;
  } else {
    status = TQStatus::Error(GZLStatusCode::DivideByZero);
  }
}

void GEEWorkCorrelation::ScaleAndDenominators(const GEECorrelationMoments& moments, const std::vector<double>& counts,
                                              double& phi, std::vector<double>& denominators) {
  const double N = moments.fN;
  const bool adjusted =
      fbAdjust && N > fP && std::all_of(counts.begin(), counts.end(), [&](double c) { return c > fP; });
  denominators = counts;
  if (adjusted) {
    phi = moments.fS2 / (N - fP);
    for (double& d : denominators) d -= fP;
  } else {
    // N is not checked here; without records every correlation is 0.
    phi = N > 0.0 ? moments.fS2 / N : 0.0;
  }
}

void GEEWorkCorrelation::ScaleAndDenominatorsMatrix(const GEECorrelationMoments& moments,
                                                    const std::vector<double>& counts, double& phi,
                                                    std::vector<double>& denominators) {
  // The pair counts of every k > j, in the packed order of the sums.
  ScaleAndDenominators(moments, counts, phi, denominators);
}

void GEEWorkCorrelation::Independent(TQStatus& status, const std::vector<double>&, TQSymMatrix& R) {
  status = TQStatus();
  R = TQSymMatrix(fDim, 0.0);
  for (int i = 0; i < fDim; ++i) R(i, i) = 1.0;
}

bool GEEWorkCorrelation::SingleCorrelation(TQStatus& status, const std::vector<double>& beta, double& rho) {
  GEECorrelationMoments moments;
  status = GatherMoments(beta, moments);
  if (status.IsError()) return false;
  double phi, denominator;
  ScaleAndDenominator(status, moments, moments.fC[0], phi, denominator);
  if (status.IsError()) return false;
  rho = Correlation(moments.fSP[0], denominator, phi);
  return true;
}

bool GEEWorkCorrelation::SeveralCorrelations(TQStatus& status, const std::vector<double>& beta, bool matrix,
                                             GEECorrelationMoments& moments, double& phi,
                                             std::vector<double>& denominators) {
  status = GatherMoments(beta, moments);
  if (status.IsError()) return false;
  if (matrix)
    ScaleAndDenominatorsMatrix(moments, moments.fC, phi, denominators);
  else
    ScaleAndDenominators(moments, moments.fC, phi, denominators);
  return true;
}

void GEEWorkCorrelation::Exchangeable(TQStatus& status, const std::vector<double>& beta, TQSymMatrix& R) {
  double rho = 0.0;
  if (!SingleCorrelation(status, beta, rho)) return;
  R = TQSymMatrix(fDim, rho);
  for (int i = 0; i < fDim; ++i) R(i, i) = 1.0;
}

void GEEWorkCorrelation::AutoRegressive(TQStatus& status, const std::vector<double>& beta, TQSymMatrix& R) {
  double rho = 0.0;
  if (!SingleCorrelation(status, beta, rho)) return;
  R = TQSymMatrix(fDim, 0.0);
  for (int i = 0; i < fDim; ++i) {
    double power = 1.0;
    for (int j = i; j >= 0; --j) {
      R(i, j) = power;
      power *= rho;
    }
  }
}

void GEEWorkCorrelation::MDependent(TQStatus& status, const std::vector<double>& beta, TQSymMatrix& R) {
  GEECorrelationMoments moments;
  double phi;
  std::vector<double> denominators;
  if (!SeveralCorrelations(status, beta, false, moments, phi, denominators)) return;
  R = TQSymMatrix(fDim, 0.0);
  for (int i = 0; i < fDim; ++i) R(i, i) = 1.0;
  for (std::size_t t = 1; t <= moments.fSP.size(); ++t) {
    const double rho = Correlation(moments.fSP[t - 1], denominators[t - 1], phi);
    for (int i = static_cast<int>(t); i < fDim; ++i) R(i, i - static_cast<int>(t)) = rho;
  }
}

void GEEWorkCorrelation::Unstructured(TQStatus& status, const std::vector<double>& beta, TQSymMatrix& R) {
  GEECorrelationMoments moments;
  double phi;
  std::vector<double> denominators;
  if (!SeveralCorrelations(status, beta, true, moments, phi, denominators)) return;
  R = TQSymMatrix(fDim, 0.0);
  for (int k = 0; k < fDim; ++k) {
    R(k, k) = 1.0;
    for (int j = 0; j < k; ++j) {
      const std::size_t idx = static_cast<std::size_t>(k) * (k - 1) / 2 + j;
      R(k, j) = Correlation(moments.fSP[idx], denominators[idx], phi);
    }
  }
}

void GEEWorkCorrelation::Fixed(TQStatus& status, const std::vector<double>& values, TQSymMatrix& R) {
  status = TQStatus();
  const std::size_t needed = fDim > 1 ? static_cast<std::size_t>(fDim) * (fDim - 1) / 2 : 0;
  if (values.size() != needed) {
    status = TQStatus::Error(GZLStatusCode::CorrFixedNumberMismatch);
    return;
  }
  // A negative fixed correlation is refused on purpose.
  for (double v : values)
    if (TQMV::IsMissing(v) || v < 0.0 || v > 1.0) {
      status = TQStatus::Error(GZLStatusCode::CorrFixedNumberOutRange);
      return;
    }
  R = TQSymMatrix(fDim, 0.0);
  std::size_t next = 0;
  for (int i = 0; i < fDim; ++i) {
    R(i, i) = 1.0;
    for (int j = 0; j < i; ++j) R(i, j) = values[next++];
  }
}

void GEEWorkCorrelation::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "Start of GEEWorkCorrelation display.");
  GZLComponentDisplay_940::DisplayC("Correlation type", fCorrType);
  DisplayD("Number of non-redundant columns in the design matrix.", fP);
  DisplayText(1, fpDesign != nullptr ? "Design matrix instance" : "Design matrix instance is not defined");
  DisplayB("Indicator of whether adjust correlation or not.", fbAdjust);
  DisplayDV("Parameter value for fixed structure.", *fpFixedValues, false);
  DisplayText(1, "End of GEEWorkCorrelation display.");
}
