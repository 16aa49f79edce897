#pragma once
// Estimated marginal means of a fitted model, with contrasts, pairwise comparisons and overall
// tests of the compared factor.
//
// For each marginal-means request of the settings the object builds a matrix L with one
// row per combination of the categories of the request's factors and one column per
// parameter, so that each mean is l'b:
// - complete design (every combination of the observed categories of each effect's factors is
//   a column): the levels of the factors outside the request are averaged with equal
//   weights, and the covariates are held at the request's values or at their means;
// - otherwise the levels of the other factors are weighted by their observed frequencies within
//   each combination (one pass over the data counts them), and a combination without records
//   has no mean.
// The means are given on the scale of the linear predictor (mean, standard error, limits
// mean -/+ q se) or of the response (g^-1 of the linear predictor, standard error by the delta
// method, limits g^-1 of the linear predictor's limits, in increasing order).
//
// The rows of a request fall into tables, one per combination of the categories of its
// factors other than the compare factor; a table compares the levels of the compare factor by
// the request's contrast (individual tests and the overall test of equal means) or by all
// pairwise differences with the p-value adjustment asked for (none, Bonferroni, sequential
// Bonferroni, Sidak, sequential Sidak). On the response scale the contrasts are of the means of
// the response, with the covariance of the delta method.
//
// Protocol (the algorithm drives it): construct, ComputeEmmeans, SetEmmeansTesting; then the
// getters. A request with an error status has no results; a warning leaves it usable.
// Indices of requests outside the list give InvalidEmmeansIndex (130039), indices of
// tables outside a request's tables InvalidEmmeansTestIndex (130040).
#include <memory>
#include <utility>
#include <vector>

#include "GZLEffectInfo.h"
#include "GZLModelEffect.h"
#include "TQConst.h"
#include "TQEmmeansSpec.h"
#include "support/TQModelTests.h"
#include "support/TQRectMatrix.h"
#include "support/TQStatus.h"
#include "support/TQSymMatrix.h"

class GZLSettings;
class IGZLAlgorithm;
class GZLDesignMatrix;
class GZLOutputStats;
class ITQLinkFunc;

// One record of a pairwise table: the comparison of level a with level b of the compare factor.
struct GZLPairwiseRecord {
  std::vector<int> fLevels;  // {a, b}: categories of the compare factor
  double fEstimate = TQMV::Missing;  // mean of a less mean of b
  double fStdError = TQMV::Missing;
  double fLower = TQMV::Missing;  // limits adjusted as the significance is
  double fUpper = TQMV::Missing;
  double fSig = TQMV::Missing;     // adjusted significance
  double fRawSig = TQMV::Missing;  // unadjusted significance
  double fDF = TQMV::Missing;      // denominator degrees of freedom of the F form (else missing)
  double fWald = TQMV::Missing;    // the statistic (Wald chi-square, or F), 1 degree of freedom
};

class GZLMarginals {
 public:
  // Status of a pairwise table with fewer than two records (a single level to compare).
  static constexpr int kTooFewPairwiseRecords = 330;

  // The settings, the fitted algorithm (parameters, effect layout, estimates) and its design
  // matrix (category counts, covariate means, and the data for the counts of an incomplete
  // design) must outlive the object.
  GZLMarginals(const GZLSettings& settings, const IGZLAlgorithm& algorithm, GZLDesignMatrix& design,
               GZLCancelInfo& cancel);
  GZLMarginals(const GZLMarginals&) = delete;
  GZLMarginals& operator=(const GZLMarginals&) = delete;
  ~GZLMarginals();

  // Validates the requests and builds their L matrices and tables (an incomplete design
  // takes one pass over the data). Returns an error that stops everything (1 when the host
  // cancelled, NewPass when the data cannot be read again, LMatrixEmpty for a multinomial
  // model, which has no marginal means), else OK; the statuses of single requests are
  // read with GetSpecStatus.
  TQStatus ComputeEmmeans();
  // The covariance of the estimates (P x P; the object keeps a copy) and, from the output
  // statistics, the residual degrees of freedom of t quantiles and F statistics. InternalError
  // for a null covariance.
  TQStatus SetEmmeansTesting(const TQSymMatrix* covariance, const GZLOutputStats& outputStats);

  TQStatus GetStatus() const noexcept { return fStatus; }
  int GetNEmmeansSpecs() const noexcept { return static_cast<int>(fSpecs.size()); }
  // The status of a request (130039 for an index out of range). Warnings: 130035 (the
  // compare factor has one observed category), 130037 (polynomial metric longer than the
  // levels), 130038 (reference category not observed; the last level is used). Errors: 130036
  // (polynomial metric shorter than the levels, or not all different), 130039 (a factor or
  // covariate that is not in the model, or a compare factor that is not among the factors),
  // 130035 (no table of an incomplete design has two levels of the compare factor).
  TQStatus GetSpecStatus(int spec) const;
  // The statuses of a request's tables (130041, 130042, 130043), each once.
  const std::vector<TQStatus>& GetTableWarnings(int spec) const;
  // Adds the warnings of ComputeEmmeans (the requests' and their tables') to a driver's
  // list, each once.
  void AddWarnings(std::vector<TQStatus>& warnings) const;
  // Whether the means weight the levels of the other factors equally (a complete design).
  bool IsDesignComplete() const noexcept { return fbCompleteDesign; }

  // The means of a request, one per row of L, with the request as used (missing
  // covariate values replaced by the means, the default polynomial metric filled in) and L.
  // The categories of each mean are listed in the order of the request's factors.
  TQStatus GetEmmeansStats(int spec, const TQEmmeansSpec*& specOut, const TQRectMatrix*& L,
                           std::vector<TQEmmeansStats>& stats) const;

  // The tables of a request: 0 when it has no compare factor or no contrast type.
  int GetNEmmeansTests(int spec, TQStatus& status) const;
  // The contrast tests of table `test`: the other factors' (variable, category) pairs, the
  // compared categories, the contrast matrix (one row per contrast, one column per compared
  // category; empty for pairwise comparisons), the individual tests (unadjusted) and the
  // overall test of equal means. A table with a single category has no tests: warning 130041
  // for pairwise comparisons, error for contrasts.
  TQStatus GetEmmeansTests(int spec, int test, std::vector<std::pair<int, int>>& others, std::vector<int>& levels,
                           TQRectMatrix& contrast, std::vector<TQTestStats>& individual,
                           TQTestStats& overall) const;
  // Records of a pairwise table: K (K - 1) for K compared categories (0 for a bad index).
  int GetNPairwiseEmmeansTests(int spec, int test) const;
  // The pairwise table: record (a, b) at a (K - 1) + (b < a ? b : b - 1) for positions a, b of
  // the compared categories. Warning 330 when the table has fewer than two records.
  TQStatus GetPairwiseEmmeansTests(int spec, int test, std::vector<std::pair<int, int>>& others,
                                   std::vector<int>& levels, std::vector<GZLPairwiseRecord>& records) const;
  // The joint test that the means of the table are equal.
  TQStatus GetPairwiseOverallTest(int spec, int test, std::vector<std::pair<int, int>>& others,
                                  TQTestStats& overall) const;
  // One list per table: the category of each factor of the request in that table, -1 at
  // the compare factor. False for a bad index or a request with an error.
  bool GetPWCombinations(int spec, std::vector<std::vector<int>>& combinations) const;
  // A driver's GetPWCombinations: its marginal means, made and computed on the first request
  // when the fit did not make them and `canMake` allows it (a built model without records
  // refused for the link), asked for the combinations of `spec` into `combinations`; null when
  // there are none or the index is rejected.
  static const std::vector<std::vector<int>>* PWCombinationsOfFit(std::unique_ptr<GZLMarginals>& marginals,
                                                                   bool canMake, const GZLSettings& settings,
                                                                   const IGZLAlgorithm& algorithm,
                                                                   GZLDesignMatrix& design, GZLCancelInfo& cancel,
                                                                   int spec,
                                                                   std::vector<std::vector<int>>& combinations);

  // The quantile of probability p (p < 0: the two-sided quantile of the confidence level):
  // normal for test types 2 and 3, t with the residual degrees of freedom for 0 and 1.
  double ComputePercentile(double p) const;
  // The quantile of the limits of k comparisons under an adjustment method: none 0.5c + 0.5,
  // Bonferroni 1 - (1 - c) / (2k), Sidak 0.5 c^(1/k) + 0.5; missing for the sequential methods.
  // Normal for test type 2, t otherwise.
  double ComputeAdjPercentile(TQConst::TQPAdjustMethod method, int k) const;
  // The step-down adjustment of a pairwise table of K levels (method 2 or 4): the significances
  // of the records with a < b, taken in increasing order, become m_j p_j (Bonferroni) or
  // 1 - (1 - p_j)^m_j (Sidak) with m_j = m - j + 1, never below the previous one, and the
  // limits follow; the mirror records (b, a) take the same significance and negated limits.
  void ProcessSequentialAdjustment(std::vector<GZLPairwiseRecord>& records, int k,
                                   TQConst::TQPAdjustMethod method) const;

  void Display() const;

 private:
  struct Table {
    std::vector<std::pair<int, int>> fOthers;  // (factor variable, category)
    std::vector<int> fOtherLevels;             // categories per factor of the request, -1 at the compare factor
    std::vector<int> fRows;                    // rows of L in increasing order of the compared category
    std::vector<int> fLevels;                  // the compared categories
    TQStatus fStatus;                          // a table that cannot be tested keeps an error
  };
  struct Spec {
    TQEmmeansSpec fSpec;  // as used
    TQStatus fStatus;
    int fCompare = -1;  // position of the compare factor among the request's factors
    TQRectMatrix fL;
    std::vector<std::vector<int>> fRowLevels;
    std::vector<Table> fTables;
    std::vector<TQStatus> fTableWarnings;
  };
  struct IncompleteCounts;

  TQStatus ValidateSpec(Spec& s) const;
  // c_e of every effect: the product of its covariates at the request's values (or means).
  std::vector<double> ComputeCovarExpressions(const Spec& s) const;
  TQStatus SetCompleteLMatrix(Spec& s);
  TQStatus ComputeIncompleteCounts(IncompleteCounts& counts);
  void SetIncompleteLMatrix(Spec& s, const IncompleteCounts& counts, int index);
  void SetTables(Spec& s) const;
  // The contrast of a table over its K compared categories (empty for pairwise comparisons).
  TQStatus BuildContrast(const Spec& s, const Table& t, TQRectMatrix& contrast) const;
  // Rows of L of a table.
  TQRectMatrix TableRows(const Spec& s, const Table& t) const;
  TQStatus RunTests(const Spec& s, const TQRectMatrix& C, const TQRectMatrix& L, int nComparisons, double quantile,
                    TQTestStats* overall, std::vector<TQTestStats>* individual) const;
  // The request and table, or an index error.
  TQStatus FindTable(int spec, int test, const Spec*& s, const Table*& t) const;
  int FactorPosition(int variable) const;
  int CovariatePosition(int variable) const;

  const GZLSettings* fpSettings;
  const IGZLAlgorithm* fpAlgorithm;
  GZLDesignMatrix* fpDesign;
  GZLCancelInfo* fpCancel;
  std::vector<int> fFactors;
  std::vector<int> fCovariates;
  std::vector<std::vector<int>> fObservedCategories;  // per factor of the settings
  std::vector<double> fCovariateMeans;                // per covariate of the settings
  std::vector<GZLModelEffect> fModelEffects;
  double fTolerance;
  TQConst::TQTestType fTestType;
  TQConst::TQPAdjustMethod fPAdjust;
  double fConfidenceLevel;
  std::unique_ptr<ITQLinkFunc> fpLink;
  std::vector<Spec> fSpecs;
  TQStatus fStatus;
  bool fbCompleteDesign = true;
  int fCurrentSpec = -1;
  // After SetEmmeansTesting.
  double fDF = TQMV::Missing;
  double fZ = TQMV::Missing;
  std::unique_ptr<TQModelTests> fpModelTests;
};
