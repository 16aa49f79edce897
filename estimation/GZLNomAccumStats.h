#pragma once
// Log-likelihood, gradient and information of the nominal multinomial (multinomial logit) model
// over one data pass.
//
// With C response categories the model has C - 1 logits, one per non-reference category, each
// with the same p parameters (intercept and effect columns of the design row): the parameter
// vector is logit-major, entry c p + j being parameter j of logit c, and the reference category
// is the last, C - 1, with linear predictor 0. For a record with design row x, offset o and
// weight w = f s:
//   eta_c = x'beta_c + o, pi_c = exp(eta_c) / (1 + sum_k exp(eta_k)), pi_ref = 1 / (1 + ...),
//   log-likelihood w log pi_y, gradient of logit c w (1{c = y} - pi_c) x,
//   information block (c, c') w (pi_c 1{c = c'} - pi_c pi_c') x x'.
// The probabilities are formed relative to the largest linear predictor, so nothing overflows
// however large the predictors grow, and log pi_y is taken in the log domain, so it stays
// finite where pi_y itself underflows.
//
// Each block of the information is symmetric in its own right; the lower triangles of the
// C (C - 1) / 2 blocks (c, c'), c' <= c, are accumulated like the information of a binary model
// (dense leading columns in batches, the rest sparse) and assembled into the full (C - 1) p
// matrix at the end of the pass.
//
// Rows are read in sparse form: only design values that are non-zero and whose parameter is in
// the model enter. An accumulator is one thread's share of a pass: two accumulators of the same
// model over disjoint rows merge into the accumulator of all of them.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "estimation/GZLRankOne.h"
#include "estimation/GZLRowTally.h"
#include "support/TQBitSet.h"
#include "support/TQSymMatrix.h"

struct GZLDesignRow;

class GZLNomAccumStatsBase {
 public:
  // p parameters per logit, C response categories.
  GZLNomAccumStatsBase(int nBasicParams, int nCategories) noexcept
      : fNBasicParams(nBasicParams < 0 ? 0 : nBasicParams), fNCategories(nCategories < 0 ? 0 : nCategories) {}
  virtual ~GZLNomAccumStatsBase() = default;
  int GetNBasicParams() const noexcept { return fNBasicParams; }
  int GetNCategories() const noexcept { return fNCategories; }

 protected:
  int fNBasicParams;
  int fNCategories;
};

class GZLNomAccumStats final : public GZLNomAccumStatsBase {
 public:
  GZLNomAccumStats(int nBasicParams, int nCategories);

  // Response codes (the record's response as a category index) to positions 0 .. C-1 of the
  // model, the reference at C - 1; -1 (or a code beyond the map) makes a record invalid.
  // Without a map the code is the position.
  void SetResponseMap(const std::vector<int>& codeToPosition);
  // (C - 1) p bits, logit-major; a set bit is a parameter in the model. A design column enters
  // the sums when its parameter is in the model in at least one logit; the gradient and
  // information of parameters out of the model are zero.
  void SetRedundancy(const TQBitSet& inModel);

  // Back to an empty pass. llOnly: only the log-likelihood and the counts are wanted.
  void Clear(bool llOnly = false);

  // One record at beta ((C - 1) p values): false, counted as invalid, when the row is flagged,
  // has the wrong length, or its response is not a category of the model. Row: a design row
  // or a row with the same members.
  template <class Row>
  bool UpdateForRow(const Row& row, const double* beta);
  bool UpdateForRow(const GZLDesignRow& row, const std::vector<double>& beta);

  // Adds the sums of another accumulator of the same model over other rows.
  void Merge(const GZLNomAccumStats& other);

  // ---- results of the pass ----
  const GZLRowTally& GetTally() const noexcept { return fTally; }
  // Missing when a term was not finite.
  double GetLogLikelihood() const noexcept { return fTally.GetLogLikelihood(); }
  const std::vector<double>& GetGradient() const;
  // The (C - 1) p information matrix.
  void GetInformation(TQSymMatrix& out) const;
  // Fitted probabilities of every category at one design row (positions 0 .. C-1, the
  // reference last), and their logarithms; false for a row of the wrong length. The same
  // arithmetic as the record step.
  bool ComputeProbabilities(const double* x, std::size_t n, double offset, const double* beta,
                            std::vector<double>& pi);
  int GetNumParams() const noexcept { return fNLogits * fNBasicParams; }
  // The probabilities of the L + 1 categories (the reference last) at the predictors eta of
  // the L logits, formed relative to the largest predictor (returned in top, with the sum of
  // the shifted exponentials in sum): exps receives the L + 1 shifted exponentials, pi the
  // probabilities. Allocates nothing.
  static void Probabilities(const double* eta, int nLogits, double* exps, double* pi, double& top,
                            double& sum) noexcept;
  bool GetSeparationCheck() const noexcept { return fbSeparationCheck; }
  void Display() const;

 private:
  // Linear predictors eta_c of the listed entries (the leading block x[0 .. lead-1], then the
  // sparse entries), then the probabilities: fPi (C entries), fResidual (1 - pi_c of each
  // logit) and the log of category y's probability. Returns the smallest probability.
  double Softmax(const double* x, const int* idx, const double* val, int m, int lead, double offset,
                 const double* beta, int y, double& logPiY);
  // The probabilities from the linear predictors fEta (C - 1 of them).
  double SoftmaxOfEta(int y, double& logPiY);
  void SetModelIndices();

  int fNLogits;
  std::vector<int> fResponseMap;
  TQBitSet fInModel;
  // Design columns in the model in some logit, and the length of their leading run 0, 1, ...
  std::vector<int> fModelIndices;
  int fLeadCount = 0;
  int fLead = -1;
  bool fbLLOnly = false;
  bool fbSeparationCheck = true;
  GZLRowTally fTally;
  std::vector<double> fGradient;
  mutable std::vector<double> fMaskedGradient;
  // Block (c, c') at c (c + 1) / 2 + c', each with its pending batch of leading blocks.
  struct Block {
    TQSymMatrix sums;
    GZLBatchedRankOne batch;
  };
  mutable std::vector<Block> fBlocks;
  // Per-record scratch, sized once.
  std::vector<int> fIdx;
  std::vector<double> fVal;
  std::vector<double> fEta;
  std::vector<double> fExp;
  std::vector<double> fPi;
  std::vector<double> fResidual;
};

template <class Row>
bool GZLNomAccumStats::UpdateForRow(const Row& row, const double* beta) {
  const int p = fNBasicParams;
  const int C = fNCategories;
  int y = -1;
  if (row.fbInvalid || row.fValues.size() != static_cast<std::size_t>(p)) {
    ++fTally.flagged;
  } else {
    const double shifted = row.fResponse + 0.5;
    if (C > 0 && shifted > -1.0 && shifted < static_cast<double>(fResponseMap.empty() ? C : fResponseMap.size())) {
      const int code = static_cast<int>(shifted);
      y = fResponseMap.empty() ? code : fResponseMap[static_cast<std::size_t>(code)];
    }
  }
  if (y < 0 || y >= C) {
    ++fTally.invalid;
    return false;
  }
  const double w = row.fFreqWeight * row.fScaleWeight;
  const double* x = row.fValues.data();
  int lead = 0, m = 0;
  if (p > 0) {
    if (fLead < 0) {
      fLead = GZLDenseLead(x, fLeadCount);
      for (Block& b : fBlocks) b.batch.SetDense(b.sums.Data(), fLead);
    }
    lead = fLead;
    m = GZLSparseTail(x, fModelIndices.data(), static_cast<int>(fModelIndices.size()), lead, fIdx.data(),
                      fVal.data());
  }
  double logPiY = 0.0;
  const double minPi = Softmax(x, fIdx.data(), fVal.data(), m, lead, row.fOffset, beta, y, logPiY);
  ++fTally.valid;
  fTally.weight += w;
  const double piY = fPi[static_cast<std::size_t>(y)];
  fTally.minP = std::min(fTally.minP, piY);
  fTally.maxP = std::max(fTally.maxP, piY);
  fTally.minPi = std::min(fTally.minPi, minPi);
  const double term = w * logPiY;
  fTally.logLike.Add(term);
  if (!std::isfinite(term)) fTally.logLikeBad = true;
  if (fbLLOnly || p == 0) return true;

  // Gradient: logit c gets w (1{c = y} - pi_c) x.
  const int L = fNLogits;
  double* g = fGradient.data();
  for (int c = 0; c < L; ++c) {
    const double r = w * ((c == y ? 1.0 : 0.0) - fPi[static_cast<std::size_t>(c)]);
    double* gc = g + static_cast<std::size_t>(c) * p;
    for (int b = 0; b < lead; ++b) gc[b] += r * x[b];
    for (int a = 0; a < m; ++a) gc[fIdx[static_cast<std::size_t>(a)]] += r * fVal[static_cast<std::size_t>(a)];
  }
  // Information: block (c, c') by w pi_c (1 - pi_c) on the diagonal, -w pi_c pi_c' off it;
  // 1 - pi_c is the sum of the other probabilities, not a difference from 1.
  Block* block = fBlocks.data();
  for (int c = 0; c < L; ++c) {
    const double wc = w * fPi[static_cast<std::size_t>(c)];
    for (int c2 = 0; c2 <= c; ++c2, ++block) {
      const double W = c2 == c ? wc * fResidual[static_cast<std::size_t>(c)] : -wc * fPi[static_cast<std::size_t>(c2)];
      block->batch.Add(block->sums.Data(), x, fIdx.data(), fVal.data(), m, W);
    }
  }
  return true;
}
