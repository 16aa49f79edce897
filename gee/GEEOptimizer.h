#pragma once
// Solves the generalized estimating equations of a GEE model. From the initial estimates (the
// inner generalized linear model's, or the host's) it estimates the working correlation R, runs a
// subject pass, and then iterates:
//   1. beta += step (step = H^- U of the previous pass);
//   2. phi = X2 / (N - p) with the adjust flag, X2 / N without (X2 of the previous pass), only
//      when the scale is estimated (scale method ML for the normal, gamma and inverse Gaussian
//      distributions; otherwise phi keeps its initial value);
//   3. R re-estimated at beta every `GetUpdateCorr()` iterations;
//   4. a subject pass at beta, the new step and the convergence test on the change of beta.
// After the iterations the Hessian (the information H of the last pass) and its inverse change
// sign, as for every optimizer: the inverse is then minus the model-based covariance. The robust
// pass at the final estimates gives the middle matrix of the sandwich, the quasi-likelihood Q
// and the information of the independence model for QIC.
//
// The base class's parameter vector holds the P regression parameters only: the scale and the
// negative binomial k are not parameters of the estimating equations.
#include <memory>
#include <vector>

#include "estimation/GZLOptimizer.h"
#include "gee/GEESubjectPass.h"
#include "gee/GEEWorkCorrelation.h"

class GEEDesignMatrix;

class GEEOptimizer : public GZLOptimizer {
 public:
  GEEOptimizer(GEEDesignMatrix& design, const GZLSettings& settings);
  ~GEEOptimizer() override;

  // v: P estimates followed by phi; p: the number of non-redundant parameters. False (nothing
  // changes) unless v has P + 1 values.
  bool SetInitialParameters(const std::vector<double>& v, int p);
  // The parameters in the model at the start (from the inner fit or the design); by default all.
  void SetInitialRedundancy(const TQBitSet& inModel);
  // The negative binomial k used by the variance (and negative binomial link) functions.
  void SetK(double k) noexcept { fK = fPrevK = k; }
  // Iteration reports to the settings' model-building listener (on by default).
  void SetReportProgress(bool on);

  // The whole fit; the status is stored and returned. Sets the estimated flag without error.
  TQStatus Run();
  void Run(TQStatus& status) { status = Run(); }
  // The robust pass at the final estimates, R and phi: the middle matrix M, Q and the
  // information of the independence model. NewPass, 1 (cancelled), PostEstimation.
  TQStatus ComputeRobustCovariance();

  // ---- results ----
  const TQSymMatrix& GetWorkCorrelation() const noexcept { return fR; }
  const TQSymMatrix& GetRobustMiddleMatrix() const noexcept { return fM; }
  // The information of the independence model at the final estimates and phi (empty before
  // the robust pass).
  const TQSymMatrix& GetIndependenceInformation() const noexcept { return fIndependenceInfo; }
  double GetQuasiLikelihood() const noexcept { return fQ; }
  double GetPearsonChiSquare() const noexcept { return fX2; }
  bool IsScaleEstimated() const noexcept { return fbScaleEstimated; }
  int GetNonRedundantCount() const noexcept { return fNNonRedundant; }
  double GetNumObservations() const noexcept { return fN; }
  bool IsRTransformed() const noexcept { return fbRTransformed; }
  bool IsFailure() const noexcept { return fbFailure; }
  const std::vector<double>& GetInitialEstimates() const noexcept { return fInitialEstimates; }
  int GetCorrDimension() const noexcept { return fR.GetNumRows(); }
  GEEDesignMatrix& GetDesignMatrix() const noexcept { return *fpDesign; }
  // Whether the last subject pass counted records invalid for the link.
  int GetNumValidRecords() const noexcept { return fNValid; }

  // One subject pass at beta with the fitted R and the given phi, outside the iterations (the
  // generalized score tests and the GEE form of IGZLLLGradHessian): U and H of all P
  // parameters, the Pearson sum and the records refused for the link. The optimizer's
  // estimates and matrices do not change.
  TQStatus EvaluateEstimatingFunction(const std::vector<double>& beta, double phi, std::vector<double>& U,
                                      TQSymMatrix& H, double& pearson, int& invalid);

  // The robust pass at beta with the fitted R and the given phi, outside the iterations (the
  // generalized score tests at constrained estimates): the middle matrix M of the sandwich. The
  // optimizer's own M, Q and matrices do not change.
  TQStatus EvaluateMiddleMatrix(const std::vector<double>& beta, double phi, TQSymMatrix& M);

  void Display() const override;

 private:
  // A subject pass at the current estimates: U, H, X2 and the record counts.
  TQStatus SubjectPass();
  // Inverse of H with redundancy tracking and the step H^- U.
  void InvertAndTrack();
  bool TestConvergence();
  void IterationLoop();
  void ReportProgress(bool allInvalid);
  void ScaleIsZero();

  GEEDesignMatrix* fpDesign;
  std::unique_ptr<GEEWorkCorrelation> fpCorrelation;
  TQSymMatrix fR;
  GEESubjectPass fPass;
  TQSymMatrix fM;
  double fQ = TQMV::Missing;
  TQSymMatrix fIndependenceInfo;
  double fX2 = TQMV::Missing;
  bool fbScaleEstimated = false;
  int fNNonRedundant = 0;
  int fUpdateCorr = 1;
  double fN = 0.0;
  bool fbAdjust = true;
  bool fbRTransformed = false;
  bool fbFailure = false;
  bool fbFirstInversion = true;
  std::vector<double> fInitialEstimates;
  double fInitialPhi = TQMV::Missing;
  double fInitialK = TQMV::Missing;
  int fNValid = 0;
  int fReportCountdown = 0;
};
