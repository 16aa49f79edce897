#pragma once
// The estimating equations of a GEE model behind the interface through which iterative
// procedures ask for a "log-likelihood, gradient and Hessian" at given parameters (the
// constrained refits of the generalized score tests of effects). One call is one subject pass at
// the parameters with the fitted working correlation: the gradient is the estimating function U,
// the Hessian is -H (H = sum D' V^- D, the model-based information). A GEE model has no
// likelihood: the log-likelihood comes back missing. There is no separation check and no
// extra parameter: the scale and k stay those of the fit.
#include <vector>

#include "IGZLLLGradHessian.h"
#include "support/TQMV.h"

class GEEOptimizer;

class GEELLGradHessian final : public IGZLLLGradHessian {
 public:
  // optimizer: a finished GEE fit (its working correlation, scale and k are used); borrowed.
  explicit GEELLGradHessian(GEEOptimizer& optimizer) noexcept : fpOptimizer(&optimizer) {}

  // params: the P regression parameters; phi: the scale of the working covariance (the fit's
  // when not positive); k is ignored. With llOnly nothing but the (missing) log-likelihood.
  void ComputeLLGradHessian(TQStatus& status, const std::vector<double>& params, double phi, double k,
                            double& logLikelihood, std::vector<double>& gradient, TQSymMatrix& hessian,
                            bool llOnly) override;
  void CheckSeparation(TQStatus& status, int ignored, int iteration, bool atEnd,
                       GZLConst_940::StoppingCriteria& criterion) override;
  int GetNumBadRecords() const override { return fNBadRecords; }
  void SetInitialScale(double scale) override { fInitialScale = scale; }
  // The Pearson moment estimate X2 / (N - p) at params (X2 / N with the adjust flag off).
  void ComputeInitialScale(TQStatus& status, const std::vector<double>& params) override;
  double GetInitialScale() const override { return fInitialScale; }
  void SetAuxValue(double value) override { fAuxValue = value; }
  double GetAuxValue() const override { return fAuxValue; }
  GZLOptimizer* GetOptimizer() const override;
  // The inverse of the last information with redundancy detection, and the step H^- U.
  void ComputeInverse(TQStatus& status) override;
  // beta += step x direction; phi and k do not move.
  void UpdateParameters(TQStatus& status, std::vector<double>& beta, double& phi, double& k, double step) override;
  bool IsExtraParamRedundant() const override { return false; }
  // The GEE information is always D' V^- D: ignored.
  void SetExpectedHessian(bool) override {}
  void Display() const override;

  const TQSymMatrix& GetInverse() const noexcept { return fInverse; }
  const std::vector<double>& GetDirection() const noexcept { return fDirection; }

 private:
  GEEOptimizer* fpOptimizer;
  int fNBadRecords = 0;
  double fInitialScale = TQMV::Missing;
  double fAuxValue = TQMV::Missing;
  std::vector<double> fGradient;
  TQSymMatrix fInformation;
  TQSymMatrix fInverse;
  std::vector<double> fDirection;
};
