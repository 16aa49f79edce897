#pragma once
// One data pass of the estimation: turns the current parameter vector into the log-likelihood,
// its gradient and the information matrix over all valid records, extended by the row of
// theta = log(phi) or log(k) when the scale or the negative binomial k is estimated by maximum
// likelihood. The same pass gathers the fitted-probability extremes on which the separation
// check of binary and multinomial models rests.
//
// The factory owns the link, variance and log-likelihood function objects of the model and the
// two accumulators. The per-record step is compiled once per common distribution/link pair
// against the concrete function classes (no virtual dispatch, no allocation, no settings lookup
// in the record loop); other pairs go through the abstract interfaces. Ordinal and nominal
// multinomial models hand their rows to accumulators of their own (GZLOrdAccumStats, compiled
// per cumulative link, and GZLNomAccumStats). Large passes share their rows with a second thread
// through GZLSharedPass.
#include <cfloat>
#include <cmath>
#include <memory>
#include <vector>

#include "GZLSettings.h"
#include "estimation/GZLCompensatedSum.h"
#include "estimation/GZLGradientVector.h"
#include "estimation/GZLHessianMatrix.h"
#include "support/TQBitSet.h"
#include "support/TQStatus.h"
#include "support/TQSymMatrix.h"

class ITQLinkFunc;
class IGZLVarianceFunc;
class IGZLLogLikeFunc;
class IGZLRowSource;
class GZLSharedPass;
class GZLOrdAccumStats;
class GZLNomAccumStats;
struct GZLDesignRow;

class GZLStatFactory {
 public:
  // Which compiled record step a pass uses.
  enum StepKind : int { StepGeneric = 0, StepPoissonLog, StepBinomialLogit, StepNormalIdentity, StepGammaLog };

  GZLStatFactory(IGZLRowSource& source, const GZLSettings& settings);
  ~GZLStatFactory();
  GZLStatFactory(const GZLStatFactory&) = delete;
  GZLStatFactory& operator=(const GZLStatFactory&) = delete;

  // OK, or the error met while building the function objects (130009 for invalid settings,
  // 130094 when a function object cannot be made).
  TQStatus GetStatus() const noexcept { return fStatus; }

  // One full data pass at beta (P values; a longer vector is cut to P) and phi. llOnly: only the
  // log-likelihood. plainMatrices: hand out the P-sized gradient and information even when the
  // extra parameter is estimated. Ordinal and nominal multinomial models go through their own
  // accumulators (thresholds first for the ordinal model, logit-major blocks for the nominal
  // one). Errors: 130089 (source cannot rewind), 1 (cancelled), 130073 (no valid record),
  // 130018 (log-likelihood missing).
  void ComputeLLGradHessian(TQStatus& status, const std::vector<double>& beta, double phi, bool useExpected,
                            bool llOnly, bool plainMatrices);

  // One record through the generic step, outside a pass (the accumulators must have been reset
  // by a pass, or by ResetAccumulators). True when the record is valid.
  bool UpdateForRow(const GZLDesignRow& row, const std::vector<double>& beta, bool llOnly);
  void ResetAccumulators(double phi, bool useExpected);

  // The negative binomial k to the variance, log-likelihood, Hessian accumulator and (negative
  // binomial link) link objects. False when one of them is missing.
  bool SetDistParam(double k);
  double GetDistParam() const noexcept { return fDistParam; }

  // ---- passes of their own (each rewinds the source; 130089 when it cannot, 1 when cancelled) ----
  // The weighted least squares regression of the starting values: at the starting means
  // (binomial (n y + 0.5) / (n + 1), else y) accumulates the augmented cross-product
  // [X'WX X'Wz; z'WX z'Wz] ((P+1) rows) of the working response z = (eta0 - o) + (y - mu0) g'
  // with W = f s / (phi V) (1/g')^2. `used` counts the records that entered, `seen` all rows.
  void ComputeStartingRegression(TQStatus& status, double phi, TQSymMatrix& augmented, int& used, int& seen);
  // The moment estimate of the scale at beta: the mean over the usable records of
  // (g(y) - o - x'beta)^2 (f s / V(y)) (1/g'(y))^2; 0 when nothing counted. `skipped` gets the
  // number of records that could not be used. 130018 when records were seen but none counted.
  double ComputeInitialScale(TQStatus& status, const std::vector<double>& beta, int& skipped);
  // X'X of the complete rows (GetRowWidth columns), each weighted by f s; with leadingOne a
  // unit column comes first (standing for the thresholds of an ordinal model).
  void ComputeCrossProducts(TQStatus& status, TQSymMatrix& crossProducts, bool leadingOne = false);
  // Sum of f s (y - (o + x'beta))^2; a residual whose response and fitted value agree to 8 units
  // in the last place counts as 0.
  double ComputeResidualSS(TQStatus& status, const std::vector<double>& beta);

  // Separation decision for the last pass: warning 130044, 130045 or OK.
  void CheckSeparation(TQStatus& status) const;

  // Parameters in the model (set bit) receive gradient and information contributions.
  void SetRedundancy(const TQBitSet& inModel);
  const TQBitSet& GetRedundancy() const noexcept { return fInitRedunInfo; }

  // Also accumulate the non-kernel part of the log-likelihood over the valid records of the
  // next passes (GetLogLikeConstant).
  void SetComputeConstant(bool on) noexcept { fbComputeConstant = on; }
  // Force the generic record step (the compiled steps must give the same sums).
  void SetUseGenericStep(bool on) noexcept { fbForceGeneric = on; }
  // A pass of a compiled step or of a multinomial accumulator over at least this many
  // observations shares its records with a second thread when the machine has two cores or more; the host's source is still read by
  // the calling thread alone. Which records each thread takes depends only on their order, so
  // the sums do not vary from run to run (they differ from those of one thread by rounding).
  // A negative value keeps every pass on the calling thread.
  void SetParallelThreshold(double observations) noexcept { fParallelThreshold = observations; }
  static constexpr double kDefaultParallelThreshold = 32768.0;
  // Whether the last pass shared its records with the second thread.
  bool WasLastPassParallel() const noexcept { return fbLastPassParallel; }

  StepKind GetStepKind() const noexcept { return fStepKind; }
  // The accumulator of a multinomial model (null for other models), as the last pass left it.
  const GZLOrdAccumStats* GetOrdinalAccumulator() const noexcept;
  const GZLNomAccumStats* GetNominalAccumulator() const noexcept;
  // Multinomial models: the fitted probability of every response category at one design row
  // and beta (P values), in the model's order of the categories (ordinal: by category; nominal:
  // the non-reference categories, then the reference). False for a row of the wrong length,
  // another model, or an argument the link cannot take.
  bool ComputeCategoryProbabilities(const GZLDesignRow& row, const std::vector<double>& beta,
                                    std::vector<double>& pi);
  // For the nominal model, the position of each response code in that order (-1: none).
  const std::vector<int>& GetResponseMap() const noexcept { return fResponseMap; }
  // Columns of a design row: P, less the thresholds of an ordinal model, or P / (C - 1) for a
  // nominal model.
  int GetRowWidth() const noexcept { return fRowWidth; }

  // ---- results of the last pass ----
  double GetLogLikelihood() const noexcept { return fLogLikelihood; }
  double GetLogLikeConstant() const noexcept { return fLogLikeConstant; }
  const std::vector<double>& GetGradient() const noexcept { return fGradient; }
  const TQSymMatrix& GetHessian() const noexcept { return fHessian; }
  int GetNumInvalidRecords() const noexcept { return fNInvalid; }
  int GetNumValidRecords() const noexcept { return fNValid; }
  // Rows the design matrix could not complete (flagged invalid) among the invalid records.
  int GetNumFlaggedRows() const noexcept { return fNFlagged; }
  // Unweighted sum of the fitted means of the valid records.
  double GetSumFittedMeans() const noexcept { return fSumMu; }
  double GetMinObservedProb() const noexcept { return fMain.minP; }
  double GetMaxObservedProb() const noexcept { return fMain.maxP; }
  double GetMinProb() const noexcept { return fMain.minPi; }

  ITQLinkFunc* GetLinkFunction() const noexcept { return fpLinkFunc.get(); }
  IGZLVarianceFunc* GetVarianceFunction() const noexcept { return fpVarianceFunc.get(); }
  IGZLLogLikeFunc* GetLogLikeFunction() const noexcept { return fpLogLikeFunc.get(); }
  const GZLGradientVector* GetGradientFunc() const noexcept { return fpGradientFunc.get(); }
  const GZLHessianMatrix* GetHessianFunc() const noexcept { return fpHessianFunc.get(); }
  IGZLRowSource& GetSource() const noexcept { return *fpSource; }
  const GZLSettings& GetSettings() const noexcept { return *fpSettings; }
  bool HasExtraParam() const noexcept { return fbExtra; }
  int GetNumParams() const noexcept { return fNParams; }
  void Display() const;

 private:
  // The in-model indices and the length of their leading run 0, 1, 2, ...
  void SetModelIndices();
  struct PassCounts {
    int valid = 0;
    int invalid = 0;
    int flagged = 0;
    double sumMu = 0.0;
    bool cancelled = false;
  };
  // What the records of one thread add to during a pass: the log-likelihood sums and their
  // flags, the separation extremes, the counts, the sparse-row scratch, the width of the dense
  // leading block (-1 before the first record) and the two accumulators.
  struct PassShare {
    GZLCompensatedSum kernelSum;
    GZLCompensatedSum constantSum;
    bool kernelBad = false;
    bool constantBad = false;
    double minP = DBL_MAX;
    double maxP = -DBL_MAX;
    double minPi = DBL_MAX;
    PassCounts counts;
    std::vector<int> indices;
    std::vector<double> values;
    int lead = -1;
    GZLGradientVector* gradient = nullptr;
    GZLHessianMatrix* hessian = nullptr;
    // Back to the start of a pass (the accumulators are reset by their owner).
    void Clear() noexcept;
    // Adds another share's sums, flags, extremes and counts (not its accumulators).
    void Merge(const PassShare& other) noexcept;
  };

  // The record step, compiled per function classes (abstract classes: virtual calls). Row: a
  // design row, or a row of the second thread's batches (same members).
  template <class Link, class Var, class LL, class Row>
  bool Step(const Row& row, const double* beta, bool llOnly, bool extra, const Link* link, Var* var, LL* ll,
            double& mu, PassShare& share);
  // One row through the step, counted in the share.
  template <class Link, class Var, class LL, class Row>
  void CountedStep(const Row& row, const double* beta, bool llOnly, const Link* link, Var* var, LL* ll,
                   PassShare& share);
  template <class Link, class Var, class LL>
  void RunRecords(const double* beta, bool llOnly);
  // The same pass with the second thread; false, with nothing read, when it cannot start.
  template <class Link, class Var, class LL>
  bool RunRecordsShared(const double* beta, bool llOnly, bool useExpected);
  bool UseSecondThread() const noexcept;
  bool PrepareSecondThread();
  TQStatus RunTweedieBoundaries(double phi);
  // The pass of a multinomial model over its accumulators (the source restarted); true when
  // the host cancelled.
  bool RunMultinomialRecords(const double* beta, double phi, bool useExpected, bool llOnly);
  // Over one accumulator kind, with the second thread when it is wanted and can be had.
  template <class Accum, class StepFn>
  bool RunAccumulator(Accum& main, std::unique_ptr<Accum>& second, const StepFn& step, long keepEvery);
  template <class Link>
  bool RunOrdinalRecords(const double* beta);
  void ResetSeparationStats() noexcept;

  IGZLRowSource* fpSource;
  const GZLSettings* fpSettings;
  TQStatus fStatus;
  TQConst::DistType fDistType;
  double fDistParam;
  double fNCases;
  int fNParams;
  TQConst::LinkType fLinkType;
  double fLinkParam;
  std::unique_ptr<ITQLinkFunc> fpLinkFunc;
  std::unique_ptr<IGZLLogLikeFunc> fpLogLikeFunc;
  std::unique_ptr<IGZLVarianceFunc> fpVarianceFunc;
  std::unique_ptr<GZLGradientVector> fpGradientFunc;
  std::unique_ptr<GZLHessianMatrix> fpHessianFunc;
  double fLogLikelihood;
  std::vector<double> fGradient;
  TQSymMatrix fHessian;
  int fNInvalid = 0;
  int fNValid = 0;
  int fNFlagged = 0;
  bool fbBinomial;
  TQBitSet fInitRedunInfo;

  // Hoisted from the settings for the record loop.
  bool fbExtra = false;          // scale or k estimated by maximum likelihood
  bool fbBinarySingle = false;   // binomial with a single dependent variable
  double fEventValue = 1.0;      // the response value of the event category
  bool fbMultinomial = false;
  bool fbTweedie = false;
  bool fbComputeConstant = false;
  bool fbForceGeneric = false;
  StepKind fStepKind = StepGeneric;
  double fPhi = 1.0;
  double fBoundaryPhi = -1.0;
  double fLogLikeConstant = 0.0;
  double fSumMu = 0.0;
  // In-model parameter indices and the per-record sparse row (sized once).
  std::vector<int> fModelIndices;
  int fLeadCount = 0;
  // The calling thread's share of a pass (the whole pass without the second thread), and the
  // second thread's share with its own accumulators, row ring and thread, made at first use.
  // What one thread writes per record lies on cache lines of its own: a line shared with what
  // the other thread reads would have to travel between the cores at every write.
  static constexpr std::size_t kCacheLine = 128;
  alignas(kCacheLine) PassShare fMain;
  struct alignas(kCacheLine) PaddedShare {
    PassShare share;
  };
  alignas(kCacheLine) std::unique_ptr<PaddedShare> fpSecond;
  std::unique_ptr<GZLGradientVector> fpSecondGradient;
  std::unique_ptr<GZLHessianMatrix> fpSecondHessian;
  std::unique_ptr<GZLSharedPass> fpSharing;
  // Multinomial models: the accumulators of the calling thread and of the second thread.
  int fRowWidth = 0;
  std::unique_ptr<GZLOrdAccumStats> fpOrdAccum;
  std::unique_ptr<GZLOrdAccumStats> fpOrdAccumSecond;
  std::unique_ptr<GZLNomAccumStats> fpNomAccum;
  std::unique_ptr<GZLNomAccumStats> fpNomAccumSecond;
  std::vector<int> fResponseMap;
  double fParallelThreshold = kDefaultParallelThreshold;
  unsigned fHardwareThreads = 1;
  bool fbLastPassParallel = false;
};
