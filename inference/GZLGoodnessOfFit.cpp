#include "inference/GZLGoodnessOfFit.h"

#include <algorithm>
#include <cmath>

#include "GZLConst_940.h"
#include "support/TQDisplay_940.h"

namespace {
// A finished criterion: missing unless it is a finite number.
double Finite(double x) { return std::isfinite(x) ? x : TQMV::Missing; }
}  // namespace

GZLGoodnessOfFit::GZLGoodnessOfFit(double deviance, double pearson, double phi, double logLike,
                                   double nObs, double sampleSize, int nParams, int distType,
                                   int scaleMethod, int kMethod, bool restricted)
    : fDeviance(deviance),
      fPearson(pearson),
      fPhi(phi),
      fL(logLike),
      fN(nObs),
      fSampleSize(sampleSize),
      fD(nParams),
      fDistType(distType),
      fScaleMethod(scaleMethod),
      fKMethod(kMethod),
      fbRestricted(restricted) {}

double GZLGoodnessOfFit::GetResidualDF() const {
  if (TQMV::IsMissingOrInfinite(fN)) return TQMV::Missing;
  double df = fN - fD;
  if (fScaleMethod == GZLConst_940::ScaleMLE) df += 1.0;
  return df;
}

double GZLGoodnessOfFit::GetScaledDeviance() const {
  if (TQMV::IsMissingOrInfinite(fDeviance) || TQMV::IsMissing(fPhi) || !(fPhi > 0.0)) return TQMV::Missing;
  return Finite(fDeviance / fPhi);
}

double GZLGoodnessOfFit::GetScaledPearson() const {
  if (TQMV::IsMissingOrInfinite(fPearson) || TQMV::IsMissing(fPhi) || !(fPhi > 0.0)) return TQMV::Missing;
  return Finite(fPearson / fPhi);
}

double GZLGoodnessOfFit::GetDevianceByDF() const {
  const double df = GetResidualDF();
  if (TQMV::IsMissingOrInfinite(fDeviance) || TQMV::IsMissing(df) || !(df > 0.0)) return TQMV::Missing;
  return Finite(fDeviance / df);
}

double GZLGoodnessOfFit::GetPearsonByDF() const {
  const double df = GetResidualDF();
  if (TQMV::IsMissingOrInfinite(fPearson) || TQMV::IsMissing(df) || !(df > 0.0)) return TQMV::Missing;
  return Finite(fPearson / df);
}

// In the restricted form the scale alone counts as the covariance parameter and m = n - (d - 1)
// observations remain for the fixed effects.
double GZLGoodnessOfFit::GetAIC() const {
  if (TQMV::IsMissingOrInfinite(fL)) return TQMV::Missing;
  if (fbRestricted) return Finite(-2.0 * fL + 2.0);
  return Finite(-2.0 * fL + 2.0 * fD);
}

double GZLGoodnessOfFit::GetAICC() const {
  if (TQMV::IsMissingOrInfinite(fL) || TQMV::IsMissingOrInfinite(fSampleSize)) return TQMV::Missing;
  const double n = fSampleSize;
  const double d = fD;
  if (fbRestricted) {
    const double m = n - (d - 1.0);
    if (m - 2.0 <= 0.0) return TQMV::Missing;
    return Finite(-2.0 * fL + 2.0 * m / (m - 2.0));
  }
  if (n - d - 1.0 <= 0.0) return TQMV::Missing;
  return Finite(-2.0 * fL + 2.0 * d * n / (n - d - 1.0));
}

double GZLGoodnessOfFit::GetBIC() const {
  if (TQMV::IsMissingOrInfinite(fL) || TQMV::IsMissingOrInfinite(fSampleSize)) return TQMV::Missing;
  if (fbRestricted) {
    const double m = fSampleSize - (fD - 1.0);
    if (m <= 0.0) return TQMV::Missing;
    return Finite(-2.0 * fL + std::log(m));
  }
  if (!(fSampleSize > 0.0)) return TQMV::Missing;
  return Finite(-2.0 * fL + fD * std::log(fSampleSize));
}

double GZLGoodnessOfFit::GetCAIC() const {
  if (TQMV::IsMissingOrInfinite(fL) || TQMV::IsMissingOrInfinite(fSampleSize)) return TQMV::Missing;
  if (fbRestricted) {
    const double m = fSampleSize - (fD - 1.0);
    if (m <= 0.0) return TQMV::Missing;
    return Finite(-2.0 * fL + std::log(m) + 1.0);
  }
  if (!(fSampleSize > 0.0)) return TQMV::Missing;
  return Finite(-2.0 * fL + fD * (std::log(fSampleSize) + 1.0));
}

bool GZLGoodnessOfFit::IsAICCNotComputable() const {
  if (TQMV::IsMissingOrInfinite(fL)) return false;
  if (TQMV::IsMissingOrInfinite(fSampleSize)) return true;
  // The restricted form's condition m - 2 <= 0 is the same inequality, n - d - 1 <= 0.
  return fSampleSize - fD - 1.0 <= 0.0;
}

void GZLGoodnessOfFit::AddWarnings(std::vector<TQStatus>& warnings) const {
  if (!IsAICCNotComputable()) return;
  const TQStatus warning = TQStatus::Warning(GZLStatusCode::AICCNotComputable);
  if (std::find(warnings.begin(), warnings.end(), warning) == warnings.end()) warnings.push_back(warning);
}

double GZLGoodnessOfFit::GetPseudoR2(double spreadOfMeans) const {
  if (TQMV::IsMissingOrInfinite(spreadOfMeans) || TQMV::IsMissingOrInfinite(fDeviance) ||
      TQMV::IsMissingOrInfinite(fN) || fN - 1.0 == 0.0)
    return 0.0;
  const double denominator = fDeviance / (fN - 1.0) + spreadOfMeans;
  if (!(denominator > 0.0) || !std::isfinite(denominator)) return 0.0;
  const double r2 = spreadOfMeans / denominator;
  return std::isfinite(r2) ? r2 : 0.0;
}

void GZLGoodnessOfFit::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLGoodnessOfFit display start");
  DisplayDF("Deviance", fDeviance);
  DisplayDF("Pearson chi-square", fPearson);
  DisplayDF("Scale (phi) value", fPhi);
  DisplayDF("Loglikelihood used for information criteria", fL);
  DisplayDF("Number of observations", fN);
  DisplayDF("Sample size of information criteria", fSampleSize);
  DisplayI("Number of parameters", fD);
  DisplayC("Probability distribution type", static_cast<TQConst::DistType>(fDistType));
  DisplayI("Scale parameter type", fScaleMethod);
  DisplayI("Distribution parameter type", fKMethod);
  DisplayB("Restricted information criteria indicator", fbRestricted);
  DisplayDF("Reserved", fReserved);
  DisplayText(1, "GZLGoodnessOfFit display end");
}
