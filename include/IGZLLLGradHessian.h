#pragma once
// The log-likelihood, its gradient and its Hessian at given parameters, for iterative
// procedures other than the main optimizer (constrained refits, likelihood-ratio tests, profile
// likelihood intervals, GEE).
//
// Parameters: the P regression parameters in design order, followed by theta = log(phi) or
// log(k) exactly when the scale or the negative binomial k is estimated by maximum likelihood.
// Hessians handed to callers are Hessians of the log-likelihood (the information with its sign
// changed).
#include <vector>

#include "GZLConst_940.h"
#include "support/TQStatus.h"
#include "support/TQSymMatrix.h"

class GZLOptimizer;

class IGZLLLGradHessian {
 public:
  virtual ~IGZLLLGradHessian() = default;

  // One data pass at `params`. With llOnly only the log-likelihood is computed.
  virtual void ComputeLLGradHessian(TQStatus& status, const std::vector<double>& params, double phi, double k,
                                    double& logLikelihood, std::vector<double>& gradient, TQSymMatrix& hessian,
                                    bool llOnly) = 0;
  // Runs the separation decision when it is due at `iteration` (atEnd: the check made once at
  // the end of a fit shorter than the start iteration) and maps its warning to the stopping
  // criterion (8 complete, 9 quasi-complete separation).
  virtual void CheckSeparation(TQStatus& status, int ignored, int iteration, bool atEnd,
                               GZLConst_940::StoppingCriteria& criterion) = 0;
  virtual int GetNumBadRecords() const = 0;
  virtual void SetInitialScale(double scale) = 0;
  // The moment estimate of the scale at `params`, in a pass of its own.
  virtual void ComputeInitialScale(TQStatus& status, const std::vector<double>& params) = 0;
  virtual double GetInitialScale() const = 0;
  virtual void SetAuxValue(double value) = 0;
  virtual double GetAuxValue() const = 0;
  virtual GZLOptimizer* GetOptimizer() const = 0;
  // Inverse of the stored information with redundancy detection, and the Newton direction.
  virtual void ComputeInverse(TQStatus& status) = 0;
  // beta += step * direction; phi or k moved on the log scale.
  virtual void UpdateParameters(TQStatus& status, std::vector<double>& beta, double& phi, double& k,
                                double step) = 0;
  virtual bool IsExtraParamRedundant() const = 0;
  virtual void SetExpectedHessian(bool useExpected) = 0;
  virtual void Display() const = 0;
};
