#pragma once
// The log-likelihood, gradient and Hessian at given parameters over the data of a fit, for the
// constrained refits and the likelihood-ratio and profile-likelihood computations. It wraps a
// statistics factory on the optimizer's rows and keeps the last pass's results: the
// information (positive semi-definite), its inverse and the Newton direction.
#include <memory>
#include <vector>

#include "IGZLLLGradHessian.h"
#include "support/TQMV.h"

class GZLSettings;
class GZLOptimizerForGZLM;
class GZLStatFactory;
class IGZLRowSource;

class GZLLLGradHessian final : public IGZLLLGradHessian {
 public:
  // optimizer: the owning optimizer (its inversion routine and redundancy sets); source: the
  // rows of the fit.
  GZLLLGradHessian(const GZLSettings& settings, GZLOptimizerForGZLM& optimizer, IGZLRowSource& source);
  ~GZLLLGradHessian() override;

  void ComputeLLGradHessian(TQStatus& status, const std::vector<double>& params, double phi, double k,
                            double& logLikelihood, std::vector<double>& gradient, TQSymMatrix& hessian,
                            bool llOnly) override;
  void CheckSeparation(TQStatus& status, int ignored, int iteration, bool atEnd,
                       GZLConst_940::StoppingCriteria& criterion) override;
  int GetNumBadRecords() const override { return fNBadRecords; }
  void SetInitialScale(double scale) override { fInitScale = scale; }
  void ComputeInitialScale(TQStatus& status, const std::vector<double>& params) override;
  double GetInitialScale() const override { return fInitScale; }
  void SetAuxValue(double value) override { fAuxValue = value; }
  double GetAuxValue() const override { return fAuxValue; }
  GZLOptimizer* GetOptimizer() const override;
  void ComputeInverse(TQStatus& status) override;
  void UpdateParameters(TQStatus& status, std::vector<double>& beta, double& phi, double& k, double step) override;
  bool IsExtraParamRedundant() const override { return fbExtraRedundant; }
  void SetExpectedHessian(bool useExpected) override { fbUseExpected = useExpected; }
  void Display() const override;

  // The stored information of the last pass, its inverse and the Newton direction.
  double GetLogLikelihood() const noexcept { return fLogLikelihood; }
  const std::vector<double>& GetGradient() const noexcept { return fGradient; }
  const TQSymMatrix& GetInformation() const noexcept { return fHessian; }
  const TQSymMatrix& GetInverse() const noexcept { return fInverseHessian; }
  const std::vector<double>& GetDirection() const noexcept { return fDirection; }
  GZLStatFactory& GetStatFactory() noexcept { return *fpStatFactory; }
  // The largest number of records skipped by the initial-scale passes.
  int GetMaxSkippedRecords() const noexcept { return fMaxSkipped; }

 private:
  const GZLSettings* fpSettings;
  GZLOptimizerForGZLM* fpOptimizer;
  std::unique_ptr<GZLStatFactory> fpStatFactory;
  double fInitScale = TQMV::Missing;
  double fAuxValue = TQMV::Missing;
  bool fbUseExpected = true;
  int fCSIteration;
  int fNBadRecords = 0;
  double fLogLikelihood = TQMV::Missing;
  std::vector<double> fGradient;
  TQSymMatrix fHessian;
  TQSymMatrix fInverseHessian;
  std::vector<double> fDirection;
  bool fbExtraRedundant = false;
  bool fbExtra;
  bool fbUpdateK;
  int fMaxSkipped = 0;
};
