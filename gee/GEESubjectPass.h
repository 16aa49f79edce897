#pragma once
// One pass of the generalized estimating equations over the subjects at beta, with the working
// correlation R and the scale phi. For subject i with records j (design row x_j, scale weight a_j,
// frequency weight w of the subject):
//   D_i = rows x_j / g'(mu_j),  e_i = y_j - mu_j,  s_j = sqrt(V(mu_j) / a_j),
//   V_i(j, k) = R(pos_j, pos_k) s_j s_k phi,  W_i = V_i^- D_i (the generalized inverse),
//   U += w W_i' e_i,  H += w W_i' D_i,  X2 += sum |a_j / V_j| e_j^2 f_j.
// The robust pass at the final estimates adds instead M += w u_i u_i' with u_i = W_i' e_i (a
// subject of weight w counts as w identical subjects), the quasi-likelihood Q under independence
// and the generalized linear model's information of the independence model (the QIC trace term
// needs it at the same estimates and phi).
//
// An ordinal response (cumulative links) enters as the C - 1 indicators 1(y = c) of each record,
// c = 0 .. C - 2, at the positions (C - 1) pos + c of the block working correlation: the rows of
// D_i are the derivatives of the category probabilities pi_c, the residuals 1(y = c) - pi_c and
// the standard deviations s = sqrt(pi_c (1 - pi_c) / a), so that V_i = phi S R_i S has the
// record's own block diag(pi_c (1 - pi_c)). Each subject's block R_i is made positive definite
// on its own. The robust pass then gathers the weighted cross-products of the basic design (a
// column for the thresholds, then the row's columns) for the hypotheses of the effect tests, and
// no quasi-likelihood.
//
// U, H and M are kept over the parameters in the model only (set by SetActive) and expanded to
// all P parameters when read. Per-subject work lives in buffers that grow to the largest subject
// and are reused: a pass allocates nothing per record once they have grown.
#include <memory>
#include <vector>

#include "GZLSettings.h"
#include "estimation/GZLHessianMatrix.h"
#include "estimation/GZLRankOne.h"
#include "estimation/GZLStatFactory.h"
#include "gee/GEEDesignMatrix.h"
#include "gee/GEEQuasiLikelihood.h"
#include "gee/GEERecordFit.h"
#include "support/LinkFunctions.h"
#include "support/TQBitSet.h"
#include "support/TQStatus.h"
#include "support/TQSymMatrix.h"

class ITQLinkFunc;
class IGZLVarianceFunc;

// The Pearson sum of the scale estimate.
class GEEScaleParameter {
 public:
  virtual ~GEEScaleParameter() = default;
  // Adds |a / V| e^2 f; a record with V = 0 has no Pearson residual and adds nothing.
  virtual void accumulate(double e, double a, double V, double f) noexcept {
    if (V != 0.0) fSum.Add(std::fabs(a / V) * e * e * f);
  }
  virtual void Display() const;
  void Clear() noexcept { fSum.Clear(); }
  double GetValue() const noexcept { return fSum.Get(); }
  void Merge(const GEEScaleParameter& other) noexcept { fSum.Merge(other.fSum); }

 private:
  GZLCompensatedSum fSum;
};

// What the subjects of (part of) a pass add up to; mergeable in a fixed order.
struct GEEPassSums {
  int fK = 0;
  std::vector<double> fU;  // K entries
  std::vector<double> fH;  // K x K, lower triangle row by row
  // Rank-one updates of fH not added yet (FlushPending before fH is read).
  GZLBatchedRankOne fBatch;
  GEEScaleParameter fPearson;
  int fNValid = 0;
  int fNInvalid = 0;
  // A subject whose covariance kept no position: the pass ends.
  bool fbFailed = false;
  // Robust pass: the middle matrix (K x K, packed like fH), Q, and the information of the
  // independence model (owned by the pass object).
  std::vector<double> fMeat;
  GZLCompensatedSum fQ;
  GZLHessianMatrix* fpInformation = nullptr;

  void Reset(int K, bool robust);
  void FlushPending() noexcept {
    if (!fH.empty()) fBatch.Flush(fH.data());
  }
  // Adds another part's sums (both flushed first).
  void Merge(GEEPassSums& other);
};

class GEESubjectPass {
 public:
  explicit GEESubjectPass(const GZLSettings& settings);
  ~GEESubjectPass();
  GEESubjectPass(const GEESubjectPass&) = delete;
  GEESubjectPass& operator=(const GEESubjectPass&) = delete;

  // The negative binomial k for the variance function, the quasi-likelihood and (negative
  // binomial link) the link.
  void SetDistParam(double k);
  // The parameters that take part (set bit = in the model), P of them.
  void SetActive(const TQBitSet& inModel);

  // One pass at beta (P values) with R and phi. R is made positive definite first, or each
  // subject's block of it for an ordinal response (rTransformed tells whether that changed it). Errors: NewPass, 1 (cancelled), CantBuildModel (no valid
  // record, a failed subject, or a Pearson sum that is not finite).
  TQStatus Run(GEEDesignMatrix& design, const std::vector<double>& beta, const TQSymMatrix& R, double phi,
               bool robust, bool& rTransformed);

  // ---- results of the last pass, over all P parameters ----
  void GetGradient(std::vector<double>& U) const;
  void GetHessian(TQSymMatrix& H) const;
  void GetMiddleMatrix(TQSymMatrix& M) const;
  void GetIndependenceInformation(TQSymMatrix& info) const;
  double GetPearson() const noexcept { return fSums.fPearson.GetValue(); }
  double GetQuasiLikelihood() const noexcept { return fbHasQuasiLikelihood ? fSums.fQ.Get() : TQMV::Missing; }
  int GetNumValid() const noexcept { return fSums.fNValid; }
  int GetNumInvalid() const noexcept { return fSums.fNInvalid; }
  const GEEScaleParameter& GetScaleParameter() const noexcept { return fSums.fPearson; }

 private:
  // One subject into sums; false ends the pass.
  bool AddSubject(const GEESubject& subject, GEEPassSums& sums);
  // The rows of D, the residuals and the positions of a subject's valid records (each divided
  // by its standard deviation), for a response with a variance function or for the indicators of
  // an ordinal response; the count of rows.
  int ScalarRows(const GEESubject& subject, GEEPassSums& sums);
  int OrdinalRows(const GEESubject& subject, GEEPassSums& sums);
  // Room for the rows of n records of `perRecord` rows each, K columns.
  void Reserve(int n, int perRecord, int K);
  // The generalized inverse of the block of R at the first n positions of fPos into fG; false
  // when no position stays. The inverse of V_i is S^-1 fG S^-1 / phi: inverting the correlation
  // block lets the tolerances act on a matrix free of the data's scale, as the information of
  // the normal model is inverted (and R_i does not change with the estimates).
  bool InvertCorrelation(int n);
  // Robust pass: a valid record's quasi-likelihood term and its share of the information of
  // the independence model.
  void AddIndependenceTerms(const double* x, const GEERecordFit& fit, double f, double a, GEEPassSums& sums);
  // Robust pass, ordinal response: a record's share of the weighted cross-products of the basic
  // design (1, x), weight f a sum_c (d pi_c / d lambda)^2 / (phi pi_c (1 - pi_c)), so that their
  // x block is that of the independence information.
  void AddOrdinalCrossProducts(const double* x, std::size_t columns, double weight, GEEPassSums& sums);
  // Expands a packed K x K matrix over the active parameters to P x P.
  void Expand(const std::vector<double>& packed, TQSymMatrix& out) const;

  const GZLSettings* fpSettings;
  std::unique_ptr<ITQLinkFunc> fpLink;
  std::unique_ptr<IGZLVarianceFunc> fpVariance;
  std::unique_ptr<IGEEQuasiLikeliHoodFunc> fpQuasi;
  std::unique_ptr<GZLHessianMatrix> fpInformation;
  GEEResponseCoding fCoding;
  double fTolerance;
  bool fbObservedInformation;
  // Ordinal response: the cumulative link, the number of thresholds, the per-record points and
  // probabilities, and the derivative row of one indicator over all P parameters.
  bool fbOrdinal;
  const TQCumulativeLinkFunc* fpCumulative = nullptr;
  int fNThresholds = 0;
  std::vector<TQCumulativePoint> fPoints;
  std::vector<double> fPi;
  std::vector<double> fFullRow;
  bool fbBlockTransformed = false;
  int fP = 0;
  std::vector<int> fActive;
  bool fbHasQuasiLikelihood = false;
  GEEPassSums fSums;

  // The pass in progress.
  const double* fpBeta = nullptr;
  TQSymMatrix fR;
  double fPhi = 1.0;
  bool fbRobust = false;
  // Per-subject work: D (n x K) and the residuals, both divided by the records' standard
  // deviations, positions, the block of R and its inverse, Z = R_i^- D, the robust score, the
  // sparse row of the information update.
  std::vector<double> fD;
  std::vector<double> fE;
  std::vector<int> fPos;
  std::vector<char> fSeen;
  TQSymMatrix fV;
  TQSymMatrix fG;
  std::vector<double> fDiagonal;
  std::vector<double> fWork;
  TQBitSet fSet;
  // fG = L L' (Cholesky of the inverse) when it factors: then D' V_i^- D is the sum of the
  // rank-one terms of the rows of L' D.
  TQSymMatrix fL;
  bool fbFactored = false;
  // The positions whose block of R fG inverts.
  std::vector<int> fCachedPos;
  int fCachedN = 0;
  bool fbInverseValid = false;
  std::vector<double> fW;
  std::vector<double> fT;
  std::vector<double> fScore;
  std::vector<int> fIndices;
  std::vector<double> fValues;
  GEESubject fSubject;
};
