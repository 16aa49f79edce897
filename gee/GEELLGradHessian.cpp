#include "gee/GEELLGradHessian.h"

#include "gee/GEEOptimizer.h"
#include "support/TQDisplay_940.h"

void GEELLGradHessian::ComputeLLGradHessian(TQStatus& status, const std::vector<double>& params, double phi, double,
                                            double& logLikelihood, std::vector<double>& gradient,
                                            TQSymMatrix& hessian, bool llOnly) {
  logLikelihood = TQMV::Missing;
  status = TQStatus();
  if (llOnly) return;
  double pearson = TQMV::Missing;
  status = fpOptimizer->EvaluateEstimatingFunction(params, phi > 0.0 ? phi : fpOptimizer->GetPhi(), fGradient,
                                                   fInformation, pearson, fNBadRecords);
  if (status.IsError()) return;
  gradient = fGradient;
  hessian = fInformation;
  hessian.ChangeSign();
}

void GEELLGradHessian::CheckSeparation(TQStatus& status, int, int, bool, GZLConst_940::StoppingCriteria&) {
  status = TQStatus();
}

void GEELLGradHessian::ComputeInitialScale(TQStatus& status, const std::vector<double>& params) {
  std::vector<double> U;
  TQSymMatrix H;
  double pearson = TQMV::Missing;
  status = fpOptimizer->EvaluateEstimatingFunction(params, fpOptimizer->GetPhi(), U, H, pearson, fNBadRecords);
  if (status.IsError()) return;
  const GZLSettings& s = fpOptimizer->GetSettings();
  const double N = fpOptimizer->GetNumObservations();
  const double denominator = s.IsAdjustCorr() ? N - fpOptimizer->GetFinalRedunInfo().Count() : N;
  if (denominator == 0.0) {
    status = TQStatus::Error(GZLStatusCode::CantBuildModel);
    return;
  }
  fInitialScale = pearson / denominator;
}

GZLOptimizer* GEELLGradHessian::GetOptimizer() const { return fpOptimizer; }

void GEELLGradHessian::ComputeInverse(TQStatus& status) {
  status = TQStatus();
  if (fInformation.GetNumRows() == 0) {
    status = TQStatus::Error(GZLStatusCode::NewPass);
    return;
  }
  TQBitSet set;
  if (fpOptimizer->CholInverse(fInformation, fInverse, set) < 0) {
    status = TQStatus::Error(GZLStatusCode::InternalError);
    return;
  }
  fInverse.ComputeSV(fGradient, fDirection);
}

void GEELLGradHessian::UpdateParameters(TQStatus& status, std::vector<double>& beta, double&, double&, double step) {
  status = TQStatus();
  if (fDirection.size() > beta.size()) {
    status = TQStatus::Error(GZLStatusCode::InternalError);
    return;
  }
  for (std::size_t j = 0; j < fDirection.size(); ++j) beta[j] += step * fDirection[j];
}

void GEELLGradHessian::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GEELLGradHessian display start");
  DisplayI("Number of bad records", fNBadRecords);
  DisplayD("Initial scale", fInitialScale);
  DisplayDV("Gradient vector", fGradient, false);
  fInformation.Display("Hessian matrix");
  fInverse.Display("Inverse Hessian matrix");
  DisplayDV("Product of Hessian inverse and gradient", fDirection, false);
  DisplayText(1, "GEELLGradHessian display end");
}
