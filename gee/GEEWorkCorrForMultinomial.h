#pragma once
// The working correlation of an ordinal response (cumulative links). Each record carries the
// C - 1 indicators 1(y = c), c = 0 .. C - 2, so R is a block matrix of dimension (C - 1) d:
// position j owns rows and columns (C - 1) j .. (C - 1) j + C - 2, one per category. The
// diagonal blocks are the identity; the others come from the standardized residuals
//   r_c = (1(y = c) - pi_c) sqrt(a / (pi_c (1 - pi_c)))
// of the records (a: the scale weight) at the current estimates, as (C - 1) x (C - 1) blocks:
//   exchangeable  B = sum over pairs j < k of w (r_j r_k' + r_k r_j') / 2, divided by the
//                 weighted pair count D (D - p with the adjust flag when D > p); every
//                 off-diagonal block is B;
//   AR(1)         the same over adjacent positions; the block at lag t is B^t;
//   M-dependent   one B_t per lag t <= m, D_t - trunc(p) when every D_t exceeds trunc(p); zero
//                 blocks beyond lag m;
//   unstructured  B_kj = sum w r_k r_j' (not symmetrized) per pair of positions k > j, the counts
//                 adjusted as the scalar unstructured counts are;
// with no division by a scale and no clamp (a block of zero pairs is zero). A record with a
// category probability outside (0, 1) adds no residual. The fixed structure: see Fixed.
//
// The subject pass makes each subject's block of R positive definite on its own, since R as a
// whole need not be.
#include <vector>

#include "gee/GEEWorkCorrelation.h"
#include "support/LinkFunctions.h"

// The block sums of a pass (or of part of one): mergeable in a fixed order like the scalar sums.
struct GEEBlockMoments {
  int fBlock = 0;
  // Weighted record count (distinct positions per subject), as the scalar sums count N.
  double fN = 0.0;
  // One fBlock x fBlock matrix (row by row) and one weighted pair count per sum.
  std::vector<double> fB;
  std::vector<double> fC;

  void Reset(std::size_t nSums, int block);
  void Merge(const GEEBlockMoments& other);
  double* Block(std::size_t k) noexcept { return fB.data() + k * static_cast<std::size_t>(fBlock) * fBlock; }
  const double* Block(std::size_t k) const noexcept {
    return fB.data() + k * static_cast<std::size_t>(fBlock) * fBlock;
  }
};

class GEEWorkCorrForMultinomial final : public GEEWorkCorrelation {
 public:
  GEEWorkCorrForMultinomial(GEEDesignMatrix& design, const GZLSettings& settings);
  ~GEEWorkCorrForMultinomial() override;

  void Independent(TQStatus& status, const std::vector<double>& beta, TQSymMatrix& R) override;
  void Exchangeable(TQStatus& status, const std::vector<double>& beta, TQSymMatrix& R) override;
  void AutoRegressive(TQStatus& status, const std::vector<double>& beta, TQSymMatrix& R) override;
  void MDependent(TQStatus& status, const std::vector<double>& beta, TQSymMatrix& R) override;
  void Unstructured(TQStatus& status, const std::vector<double>& beta, TQSymMatrix& R) override;
  // The host's d(d-1)/2 values, checked as for any response (130059, 130060). With two
  // categories (blocks of one) R is d x d with 1 at position 0 and, at each later position i,
  // the last of the i values read for it: the list is read in order, i values per position,
  // and only diagonal elements are written. With more categories a position would read
  // i (C-1)^2 values from a list that holds d(d-1)/2: the structure is refused with
  // CorrFixedNumberMismatch (130059) when d > 1, and is the identity of C - 1 when d = 1.
  void Fixed(TQStatus& status, const std::vector<double>& values, TQSymMatrix& R) override;

  int GetBlockSize() const noexcept { return fBlock; }

 private:
  // One pass: the block sums of every subject at beta. NewPass or a cancel (1) on failure.
  TQStatus GatherBlocks(const std::vector<double>& beta, GEEBlockMoments& moments);
  // The residual vectors of one subject at their positions (fPresent 2 where a record gave
  // one) and m, its number of distinct positions; false when no record has a position in R.
  bool SubjectBlockResiduals(const GEESubject& subject, const std::vector<double>& beta, int& m);
  void AddSubjectBlocks(double w, int m, GEEBlockMoments& moments) const;
  // The one block of the exchangeable and AR(1) structures: its sums and the pair count D,
  // adjusted; false on a failed pass (status set).
  bool SingleBlock(TQStatus& status, const std::vector<double>& beta, GEEBlockMoments& moments, double& D);
  // R of dimension (C - 1) d with identity diagonal blocks and nothing else.
  void IdentityBlocks(TQSymMatrix& R) const;
  // Block (k, j), k > j, of R: the rows of position k and the columns of position j take
  // B / D (zero when D is 0).
  void PlaceBlock(TQSymMatrix& R, int k, int j, const double* B, double D) const;

  int fNCategories;
  int fBlock;
  int fNThresholds;
  // The base's link, as the cumulative link it is (null for any other link).
  const TQCumulativeLinkFunc* fpCumulative;
  // Per subject: fBlock residuals per position (the presence flags are the base's).
  std::vector<double> fBlockResiduals;
  std::vector<TQCumulativePoint> fPoints;
  std::vector<double> fPi;
};
