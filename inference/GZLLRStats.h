#pragma once
// Likelihood-ratio tests of model effects: each effect's hypothesis is tested by refitting the
// model under it (constrained estimation through GZLSeqQuad) and comparing the constrained
// maximum of the log-likelihood with the unconstrained one.
// - GZLTypeIIILRStats: the type III hypotheses L beta = 0, one refit per effect.
// - GZLTypeILRStats: the sequential hypotheses: the fit of the effects before an effect (every
//   later effect's parameters, and its own, held at 0) against the fit that adds the effect;
//   one refit per tested effect, the last effect compared with the unconstrained fit.
//
// Every effect, in the engine's test order, gets 7 values (missing where they do not apply):
//   0 chi-square 2 (LLu - LLc), divided by the fitted scale phi under the deviance and Pearson
//     scale methods (the refits then run at unit scale), 0 when negative;
//   1 degrees of freedom (rows of the full-rank hypothesis);   2 significance 1 - CdfChi;
//   3 F = chi-square / df, 4 the residual degrees of freedom, 5 max(0, 1 - CdfF), and
//   6 the deviance of the constrained fit: deviance and Pearson scale methods only;
// a status and the stopping criterion of its refit. An effect without a hypothesis has status
// 130083 and no values. The refits start from the unconstrained estimates, scale and k; the
// scale (ML) and k (estimated) are re-estimated in each.
#include <vector>

#include "GZLConst_940.h"
#include "support/TQMV.h"
#include "support/TQRectMatrix.h"
#include "support/TQStatus.h"

class GZLSettings;
class GZLOptimizerForGZLM;
class GZLLLGradHessian;
class GZLModelEffectTestData;
class ProgressListener;

class GZLLRStatsBase {
 public:
  static constexpr int kNValues = 7;

  // optimizer: the finished fit (its rows serve the refits); df2: the residual degrees of
  // freedom of the F form.
  GZLLRStatsBase(const GZLSettings& settings, GZLOptimizerForGZLM& optimizer, double df2);
  virtual ~GZLLRStatsBase();
  GZLLRStatsBase(const GZLLRStatsBase&) = delete;
  GZLLRStatsBase& operator=(const GZLLRStatsBase&) = delete;

  // The tests of every effect. data: the layout of the effects; hypotheses: for each effect in
  // test order its L over the fit's parameters, of full row rank (no row: no test). Returns the
  // overall status: OK; 130086 when every effect ended in error (not all for want of a
  // hypothesis) or the fit is perfect; 130094 when the unconstrained fit cannot be evaluated;
  // 1 when the host cancelled (the results are then incomplete and must not be published).
  TQStatus Compute(const GZLModelEffectTestData& data, const std::vector<TQRectMatrix>& hypotheses);

  const std::vector<std::vector<double>>& GetStats() const noexcept { return fStats; }
  TQStatus GetStatus() const noexcept { return fStatus; }
  const std::vector<TQStatus>& GetStatusEff() const noexcept { return fStatusEff; }
  const std::vector<GZLConst_940::StoppingCriteria>& GetStoppingCrits() const noexcept { return fCriteria; }
  // Data passes of the last Compute and the constrained fits they served.
  int GetNumPasses() const noexcept { return fNPasses; }
  int GetNumRefits() const noexcept { return fNRefits; }
  double GetUnconstrainedLogLikelihood() const noexcept { return fLLUnconstrained; }
  void Display() const;

 protected:
  struct Refit {
    TQStatus status;
    GZLConst_940::StoppingCriteria criterion = GZLConst_940::NoCriterionSatisfied;
    double logLikelihood = TQMV::Missing;
  };
  // The maximum under constraints C beta = 0 (C over the fit's parameters).
  Refit Fit(const TQRectMatrix& constraints);
  // Values of effect e from the log-likelihoods with and without its hypothesis.
  void SetValues(int e, double llWith, double llWithout, double df);
  virtual void RunTests(const GZLModelEffectTestData& data, const std::vector<TQRectMatrix>& hypotheses) = 0;
  virtual ProgressListener* GetListener() const = 0;
  virtual const char* ClassName() const = 0;

  const GZLSettings* fpSettings;
  GZLOptimizerForGZLM* fpOptimizer;
  double fDF2;
  bool fbDP = false;
  double fPhiRefit = 1.0;
  double fLLUnconstrained = TQMV::Missing;
  std::vector<std::vector<double>> fStats;
  std::vector<TQStatus> fStatusEff;
  std::vector<GZLConst_940::StoppingCriteria> fCriteria;
  TQStatus fStatus;
  bool fbCancelled = false;
  int fNPasses = 0;
  int fNRefits = 0;

 private:
  GZLLLGradHessian* fpModel = nullptr;
};

class GZLTypeIIILRStats final : public GZLLRStatsBase {
 public:
  using GZLLRStatsBase::GZLLRStatsBase;

 protected:
  void RunTests(const GZLModelEffectTestData& data, const std::vector<TQRectMatrix>& hypotheses) override;
  ProgressListener* GetListener() const override;
  const char* ClassName() const override { return "GZLTypeIIILRStats"; }
};

class GZLTypeILRStats final : public GZLLRStatsBase {
 public:
  using GZLLRStatsBase::GZLLRStatsBase;

 protected:
  void RunTests(const GZLModelEffectTestData& data, const std::vector<TQRectMatrix>& hypotheses) override;
  ProgressListener* GetListener() const override;
  const char* ClassName() const override { return "GZLTypeILRStats"; }
};
