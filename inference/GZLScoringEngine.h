#pragma once
// Scores records one at a time after a fit: the outputs a score-type mask asks for, each
// computed from per-record ingredients (linear predictor, quadratic forms of the design row,
// mean, valid-case test, residuals, leverage) that are evaluated at most once per record and
// cached, so asking for every output costs one evaluation of each ingredient.
//
// The algorithm creates one engine on its first Score and hands it, on every call, what the fit
// provides (GZLScoringFit). The engine copies what it keeps of it (estimates, covariance and
// inverse information) only when the fit changed, so a record costs the design row, a dot
// product, one or two sparse quadratic forms and a handful of link, variance and deviance
// evaluations; nothing is allocated per record.
//
// GEE models score through the same path with their own fit (model type 1, the robust
// covariance, no inverse information): the mask then refuses leverage and the outputs built on
// it, and the score object refuses to store them.
//
// Multinomial responses take the per-category branch (ScoreCategories), with the covariance the
// fit hands over (model-based, or the one a GEE fit chooses):
// - ordinal (cumulative link F, thresholds theta_0 .. theta_{K-2} first, then beta): predictor j
//   is theta_j - x'beta + o, the argument of F in P(Y <= j) exactly as the fit and the PMML
//   document take it (the offset shifts every cumulative predictor up); category k has
//   probability F(eta_k) - F(eta_{k-1}) (F = 0 below the first, 1 above the last);
// - nominal (one block of p parameters per non-reference category, the reference last):
//   predictor j is x'beta_j without the offset, and the probabilities are the softmax of the
//   predictors with 0 for the reference.
// The lists follow the model's category order (ordinal ascending, nominal with the reference
// last); the standard error of a predictor is sqrt(a'Ca) for its gradient a. The interval of a
// category probability is formed on the logit scale, where it stays inside (0, 1):
// expit(logit(pi) -/+ q se(pi) / (pi (1 - pi))), se(pi) by the delta method; a probability of 0
// or 1 has no interval (missing limits).
#include <memory>
#include <utility>
#include <vector>

#include "GZLConst_940.h"
#include "GZLRecord.h"
#include "TQConst.h"
#include "data/GZLDesignRow.h"
#include "support/LinkFunctions.h"
#include "support/TQMV.h"
#include "support/TQStatus.h"

class GZLDesignMatrix;
class GZLSettings;
class GZLScoreStats;
class ITQLinkFunc;
class IGZLVarianceFunc;
class IGZLDevianceFunc;
class TQSymMatrix;

// What scoring takes from a fit, gathered by the driver on every Score call. Pointers are
// borrowed for the duration of the call only.
struct GZLScoringFit {
  GZLConst_940::ModelType fModelType = GZLConst_940::GZLM;
  // Changes with every fit of the driver, so that a refit re-primes the engine even when it
  // reproduces the previous estimates (its covariance may differ).
  long fFitCount = 0;
  // The estimates in the order of the design row's columns (for a scaled design, those of the
  // scaled columns, which are what the rows hold).
  const std::vector<double>* fpEstimates = nullptr;
  // The covariance matrix of the estimates used for the standard errors is fCovarianceSign
  // times *fpCovariance (its leading block when the matrix is larger than the row); null when
  // there is none.
  const TQSymMatrix* fpCovariance = nullptr;
  double fCovarianceSign = 1.0;
  // The inverse information matrix of the leverage, likewise; null when there is none (GEE).
  const TQSymMatrix* fpInverseInformation = nullptr;
  double fInverseInformationSign = 1.0;
  double fPhi = 1.0;
  // The negative binomial k of the fit (missing for other distributions).
  double fK = TQMV::Missing;
  // Non-redundant regression parameters (p of Cook's distance).
  int fNNonRedundant = 0;
  // Degrees of freedom of the t quantile of the intervals (test type 0).
  double fDF = TQMV::Missing;
  // 0: the raw propensity is 1 - mean; 1: the mean.
  int fPropensityCategory = 1;
  // Multinomial response: the category codes in the model's order (ordinal ascending, nominal
  // with the reference last), one per category probability; null for other responses.
  const std::vector<int>* fpCategories = nullptr;
};

class GZLScoringEngine {
 public:
  // Score-type mask bits. Multinomial responses read bits 0x1 to 0x8 as the per-category lists.
  enum ScoreType : int {
    ScoreXBPRED = 0x1,
    ScoreXBSTDERROR = 0x2,
    ScoreMEANPRED = 0x4,
    ScoreCIMEANPRED = 0x8,
    ScoreLEVERAGE = 0x10,
    ScoreRESID = 0x20,
    ScorePEARSONRESID = 0x40,
    ScoreDEVIANCERESID = 0x80,
    ScoreSTDPEARSONRESID = 0x100,
    ScoreSTDDEVIANCERESID = 0x200,
    ScoreLIKELIHOODRESID = 0x400,
    ScoreCOOK = 0x800,
    ScoreCATPRED = 0x1000,
    ScoreConf1 = 0x2000,
    ScoreConf2 = 0x4000,
    ScoreRawPropensity = 0x8000,
    ScoreAll = 0xFFFF
  };
  // The per-record ingredients; a set bit in GetCacheBits means computed for the last record.
  enum CacheBit : unsigned {
    CacheEta = 1u << 0,
    CacheXCX = 1u << 1,        // x'Cx, C the covariance
    CacheStdErr = 1u << 2,
    CacheMean = 1u << 3,
    CacheInterval = 1u << 4,
    CacheValidCase = 1u << 5,
    CacheResid = 1u << 6,
    CachePearson = 1u << 7,
    CacheXIX = 1u << 8,        // x'I^-1 x, I the information
    CacheLeverage = 1u << 9,
    CacheDeviance = 1u << 10,
    CacheStdFactor = 1u << 11,
    CacheStdPearson = 1u << 12,
    CacheStdDeviance = 1u << 13,
    CacheLikelihood = 1u << 14,
    CacheCook = 1u << 15
  };

  // Takes the link, variance and deviance functions of the settings' distribution, the
  // confidence level and test type, and the factor counts of the fitting data. The design
  // matrix and the settings must outlive the engine.
  GZLScoringEngine(GZLDesignMatrix& design, const GZLSettings& settings);
  ~GZLScoringEngine();
  GZLScoringEngine(const GZLScoringEngine&) = delete;
  GZLScoringEngine& operator=(const GZLScoringEngine&) = delete;

  // Called on every Score. When the fit count or any estimate differs from what the engine
  // holds, the estimates and matrices are copied again and the mask must be validated again;
  // phi, k, p, the degrees of freedom (and with them the t quantile) and the propensity
  // category are taken every time.
  void SetFit(const GZLScoringFit& fit);
  // Stores the mask (a changed mask must be validated again) and validates it: OK, or
  // InvalidScoreType when it asks for nothing or for anything unknown, for leverage-based
  // outputs of a model that is not a plain GZLM or without the matrices they need, for Cook's
  // distance without non-redundant parameters, for standard errors or intervals without a
  // covariance, or for a multinomial predicted category without response counts.
  TQStatus SetScoreType(int mask);
  int GetScoreType() const noexcept { return fMask; }
  bool IsValidated() const noexcept { return fbValidated; }

  // One record into scores (re-initialised first). status: OK; NoScoreSettings when the mask is
  // not valid for the current fit; CaseWithUnusedCategory when a model factor is missing or
  // names a category without weight in the fit (no output); InvalidRecords from the design row
  // (validity tests without those of the response and weights; no output); ScoringFailed when
  // a requested linear predictor or list cannot be formed (the other outputs are delivered).
  void ScoreRecord(TQStatus& status, const Record& record, GZLScoreStats& scores);

  // The ingredients computed for the last record (CacheBit values).
  unsigned GetCacheBits() const noexcept { return fCache; }
  // The critical value of the intervals (missing for test types other than 0 and 2).
  double GetCriticalValue() const noexcept { return fCritical; }

  // Multinomial predicted category: the most probable of K categories; probabilities within
  // sqrt(machine epsilon) / (K + 1) of the running maximum tie with it, and of tied categories
  // the one with the largest count wins (the earliest on equal counts). -1 when a probability
  // is missing or the lists are empty.
  static int PickCategory(const std::vector<double>& probabilities, const std::vector<double>& counts);

  void Display() const;

 private:
  bool Validate(int mask) const;
  void ComputeCriticalValue(double df);
  // The per-record ingredients; each computes once per record (see CacheBit).
  double Eta();
  double XCX();
  double XIX();
  double StdErr();
  double Mean();
  void Interval(double& lower, double& upper);
  bool ValidCase();
  double Resid();
  double Pearson();
  double Leverage();
  double DevianceResid();
  double StdFactor();
  // A residual times the standardizing factor (0 stays 0).
  double Standardize(double r);
  double StdPearson();
  double StdDeviance();
  double LikelihoodResid();
  double Cook();
  // The non-zero columns of the row, gathered once per record for the quadratic forms.
  void GatherNonZero();
  // x'A_{rc}x over the non-zero columns for the block of A whose rows are the parameters
  // rowOffset + i and whose columns are colOffset + i (i a column of the row): a diagonal block
  // (equal offsets), or one whose rows all follow its columns.
  double QuadraticForm(const std::vector<double>& packed, std::size_t rowOffset = 0, std::size_t colOffset = 0) const;
  // The multinomial layout of a fit (number of predictors, category codes and counts, scratch).
  void SetCategoryLayout(const GZLScoringFit& fit);
  // The scalar outputs of a single-response model.
  void ScoreScalar(TQStatus& status, GZLScoreStats& scores);
  // The per-category outputs of a multinomial response; a requested list that cannot be formed
  // (a flagged row, a predictor the link cannot take) stays empty and fails the record.
  void ScoreCategories(TQStatus& status, GZLScoreStats& scores);
  // Their ingredients, cached like the scalar ones (CacheEta, CacheMean, CacheXCX, CacheStdErr,
  // CacheInterval); false when the predictors cannot be formed.
  bool CategoryPredictors();
  bool CategoryProbabilities();
  // x'C_bb x and the threshold cross terms (ordinal), or the L x L block forms (nominal); false
  // when the covariance cannot be used.
  bool CategoryForms();
  bool CategoryStdErrs();
  bool CategoryIntervals();
  // Variance of category k's probability by the delta method (missing without the forms).
  double CategoryProbabilityVariance(int k);

  GZLDesignMatrix* fpDesign;
  const GZLSettings* fpSettings;
  int fMask = 0;
  bool fbValidated = false;

  // Hoisted from the settings.
  GZLConst_940::ModelType fModelType = GZLConst_940::GZLM;
  TQConst::DistType fDistType;
  bool fbBinarySingle = false;
  bool fbEventsTrials = false;
  bool fbMultinomial = false;
  int fRefCategory = 0;
  double fEventValue = 1.0;
  double fEventCategory = 1.0;
  double fCentre = 0.0;
  double fConfidenceLevel = 0.95;
  int fTestType = 0;
  bool fbHaveResponseCounts = false;
  bool fbOrdinal = false;

  // From the fit.
  long fFitCount = -1;
  std::vector<double> fEstimates;
  std::vector<double> fCovariance;       // packed lower triangle, P x P
  std::vector<double> fInverseInfo;      // likewise; empty when it is the covariance
  // The fit has the matrix; and all its values can be used.
  bool fbHaveCovariance = false;
  bool fbCovarianceUsable = false;
  bool fbHaveInverseInfo = false;
  bool fbInverseInfoUsable = false;
  bool fbInfoIsCovariance = false;
  double fPhi = 1.0;
  double fK = TQMV::Missing;
  int fNNonRedundant = 0;
  double fDF = TQMV::Missing;
  double fCritical = TQMV::Missing;
  int fPropensityCategory = 1;

  std::unique_ptr<ITQLinkFunc> fpLink;
  std::unique_ptr<IGZLVarianceFunc> fpVariance;
  std::unique_ptr<IGZLDevianceFunc> fpDeviance;
  // The link as a cumulative link (ordinal responses), else null.
  const TQCumulativeLinkFunc* fpCumulativeLink = nullptr;

  // Multinomial layout of the fit: K - 1 predictors (thresholds or logits) over a row of
  // fRowSize columns; false when the estimates do not fit it.
  bool fbCategoriesUsable = false;
  int fNPredictors = 0;
  std::size_t fNParameters = 0;
  std::vector<int> fCategoryCodes;      // empty when the fit names no categories of this number
  std::vector<double> fCategoryCounts;  // weighted counts of the fit, model order

  // The model factors with the categories that had weight in the fit.
  struct FactorCheck {
    int fField;
    std::vector<char> fUsed;
  };
  std::vector<FactorCheck> fFactors;

  // The record being scored.
  GZLDesignRow fRow;
  std::vector<int> fNonZero;
  std::vector<double> fNonZeroValues;
  std::size_t fNNonZero = 0;
  bool fbGathered = false;
  unsigned fCache = 0;
  double fEta = TQMV::Missing;
  double fXCX = TQMV::Missing;
  double fXIX = TQMV::Missing;
  double fStdErr = TQMV::Missing;
  double fMean = TQMV::Missing;
  double fLower = TQMV::Missing;
  double fUpper = TQMV::Missing;
  bool fbValidCase = false;
  double fResid = TQMV::Missing;
  double fPearson = TQMV::Missing;
  double fLeverage = TQMV::Missing;
  double fDevianceResid = TQMV::Missing;
  double fStdFactor = TQMV::Missing;
  double fStdPearson = TQMV::Missing;
  double fStdDeviance = TQMV::Missing;
  double fLikelihood = TQMV::Missing;
  double fCook = TQMV::Missing;
  // Per-category ingredients of the record (sized with the fit).
  std::vector<double> fCatEta;
  std::vector<double> fCatStdErr;
  std::vector<double> fCatProb;
  std::vector<double> fCatExp;
  std::vector<std::pair<double, double>> fCatInterval;
  std::vector<TQCumulativePoint> fCatPoints;
  // Ordinal: u_j = sum_i C(j, T + i) x_i per threshold; nominal: x'C_{c c'} x, L x L.
  std::vector<double> fCatForms;
  double fCatXCX = TQMV::Missing;
};
