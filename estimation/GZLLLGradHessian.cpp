#include "estimation/GZLLLGradHessian.h"

#include <cmath>

#include "GZLSettings.h"
#include "estimation/GZLOptimizer.h"
#include "estimation/GZLStatFactory.h"
#include "support/TQDisplay_940.h"
#include "support/TQPower.h"

GZLLLGradHessian::GZLLLGradHessian(const GZLSettings& settings, GZLOptimizerForGZLM& optimizer,
                                   IGZLRowSource& source)
    : fpSettings(&settings),
      fpOptimizer(&optimizer),
      fpStatFactory(std::make_unique<GZLStatFactory>(source, settings)),
      fCSIteration(settings.GetCSIteration()) {
  fbUpdateK = settings.GetDistType() == TQConst::DistNegBinomial &&
              settings.GetDistParamType() == GZLConst_940::DistParamMLE;
  fbExtra = settings.GetScaleType() == GZLConst_940::ScaleMLE || fbUpdateK;
  fpStatFactory->SetRedundancy(optimizer.GetInitRedunInfo());
  if (settings.GetDistType() == TQConst::DistNegBinomial && !TQMV::IsMissing(optimizer.GetK()))
    fpStatFactory->SetDistParam(optimizer.GetK());
}

GZLLLGradHessian::~GZLLLGradHessian() = default;

GZLOptimizer* GZLLLGradHessian::GetOptimizer() const { return fpOptimizer; }

void GZLLLGradHessian::ComputeLLGradHessian(TQStatus& status, const std::vector<double>& params, double phi,
                                            double k, double& logLikelihood, std::vector<double>& gradient,
                                            TQSymMatrix& hessian, bool llOnly) {
  status.Clear();
  const int P = fpStatFactory->GetNumParams();
  if (fbUpdateK && fpStatFactory->GetHessianFunc() != nullptr) fpStatFactory->SetDistParam(k);
  std::vector<double> beta(params.begin(), params.begin() + std::min<std::ptrdiff_t>(
                                                               static_cast<std::ptrdiff_t>(params.size()), P));
  beta.resize(static_cast<std::size_t>(P), 0.0);
  fpStatFactory->ComputeLLGradHessian(status, beta, phi, fbUseExpected, llOnly, false);
  fNBadRecords = fpStatFactory->GetNumInvalidRecords();
  if (status.IsError()) return;
  fLogLikelihood = fpStatFactory->GetLogLikelihood();
  if (TQMV::IsMissing(fLogLikelihood)) {
    status = TQStatus::Error(GZLStatusCode::InternalError);
    return;
  }
  logLikelihood = fLogLikelihood;
  if (llOnly) return;
  fGradient = fpStatFactory->GetGradient();
  fHessian = fpStatFactory->GetHessian();
  gradient = fGradient;
  hessian = fHessian;
  // Redundancy: a parameter in the model before that is aliased now, or an aliased extra
  // parameter, makes the information singular.
  TQBitSet set;
  fpOptimizer->CholInverse(fHessian, fInverseHessian, set);
  bool singular = set.IsNewFalse(fpOptimizer->GetInitRedunInfo(), P);
  if (fbExtra && !set.Test(P)) {
    fbExtraRedundant = true;
    singular = true;
  }
  if (singular) status = TQStatus::Warning(GZLStatusCode::SingularHessian);
  hessian.ChangeSign();
}

void GZLLLGradHessian::CheckSeparation(TQStatus& status, int, int iteration, bool atEnd,
                                       GZLConst_940::StoppingCriteria& criterion) {
  status.Clear();
  // The models whose fits check for separation (binary, ordinal and nominal responses).
  if (!fpOptimizer->IsSeparationModel() || fCSIteration < 1) return;
  const bool due = atEnd ? (iteration < fCSIteration) : (fCSIteration <= iteration);
  if (!due) return;
  fpStatFactory->CheckSeparation(status);
  if (status.GetErrorCode() == GZLStatusCode::CompleteSeparation)
    criterion = GZLConst_940::CompleteSeparation;
  else if (status.GetErrorCode() == GZLStatusCode::QuasiCompleteSeparation)
    criterion = GZLConst_940::QuasiCompleteSeparation;
}

void GZLLLGradHessian::ComputeInitialScale(TQStatus& status, const std::vector<double>& params) {
  int skipped = 0;
  const double scale = fpStatFactory->ComputeInitialScale(status, params, skipped);
  fMaxSkipped = std::max(fMaxSkipped, skipped);
  fInitScale = status.IsError() ? 0.0 : scale;
}

void GZLLLGradHessian::ComputeInverse(TQStatus& status) {
  status.Clear();
  if (fpOptimizer == nullptr || fHessian.GetNumRows() != static_cast<int>(fGradient.size())) {
    status = TQStatus::Error(GZLStatusCode::InternalError);
    return;
  }
  TQBitSet set;
  if (fpOptimizer->CholInverse(fHessian, fInverseHessian, set) <= 0) {
    status = TQStatus::Error(GZLStatusCode::InternalError);
    return;
  }
  fInverseHessian.ComputeSV(fGradient, fDirection);
}

void GZLLLGradHessian::UpdateParameters(TQStatus& status, std::vector<double>& beta, double& phi, double& k,
                                        double step) {
  status.Clear();
  const std::size_t P = static_cast<std::size_t>(fpStatFactory->GetNumParams());
  const bool updatePhi = fpSettings->GetScaleType() == GZLConst_940::ScaleMLE;
  if (fDirection.size() < P || (fbExtra && fDirection.size() != P + 1) || beta.size() < P) {
    status = TQStatus::Error(GZLStatusCode::InternalError);
    return;
  }
  if ((updatePhi && !(phi > 0.0)) || (fbUpdateK && !(k > 0.0))) {
    status = TQStatus::Error(GZLStatusCode::InternalError);
    return;
  }
  for (std::size_t j = 0; j < P; ++j) beta[j] += step * fDirection[j];
  if (updatePhi || fbUpdateK) {
    double& value = updatePhi ? phi : k;
    const double moved = TQPower::Exponent(std::log(value) + step * fDirection[P]);
    if (TQMV::IsMissing(moved)) {
      status = TQStatus::Error(GZLStatusCode::InternalError);
      return;
    }
    value = moved;
  }
}

void GZLLLGradHessian::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLLLGradHessian display start");
  DisplayD("Initial scale", fInitScale);
  DisplayD("Auxiliary value", fAuxValue);
  DisplayB("Use expected information indicator", fbUseExpected);
  DisplayI("Iteration number for checking cs/qcs", fCSIteration);
  DisplayI("Number of bad records", fNBadRecords);
  DisplayD("The log-likelihood value", fLogLikelihood);
  DisplayDV("Gradient vector", fGradient, false);
  fHessian.Display("Hessian matrix");
  fInverseHessian.Display("Inverse Hessian matrix");
  DisplayDV("Product of Hessian inverse and gradient", fDirection, false);
  DisplayB("Extra parameter redundant indicator", fbExtraRedundant);
  DisplayText(1, "GZLLLGradHessian display end");
}
