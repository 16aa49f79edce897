#include "estimation/GZLNomAccumStats.h"

#include <cmath>

#include "data/GZLDesignRow.h"
#include "support/TQDisplay_940.h"
#include "support/TQMV.h"
#include "support/TQPower.h"

GZLNomAccumStats::GZLNomAccumStats(int nBasicParams, int nCategories)
    : GZLNomAccumStatsBase(nBasicParams, nCategories),
      fNLogits(fNCategories > 1 ? fNCategories - 1 : 0),
      fInModel(fNLogits * fNBasicParams, true) {
  const std::size_t p = static_cast<std::size_t>(fNBasicParams);
  const std::size_t L = static_cast<std::size_t>(fNLogits);
  fGradient.assign(L * p, 0.0);
  fBlocks.resize(L * (L + 1) / 2);
  for (Block& b : fBlocks) {
    b.sums = TQSymMatrix(fNBasicParams);
    b.batch.Resize(fNBasicParams);
  }
  fIdx.assign(p, 0);
  fVal.assign(p, 0.0);
  fEta.assign(L, 0.0);
  fExp.assign(L + 1, 0.0);
  fPi.assign(L + 1, 0.0);
  fResidual.assign(L, 0.0);
  SetModelIndices();
}

void GZLNomAccumStats::SetResponseMap(const std::vector<int>& codeToPosition) { fResponseMap = codeToPosition; }

void GZLNomAccumStats::SetRedundancy(const TQBitSet& inModel) {
  fInModel = inModel;
  fInModel.Resize(fNLogits * fNBasicParams, false);
  SetModelIndices();
}

void GZLNomAccumStats::SetModelIndices() {
  fModelIndices.clear();
  for (int j = 0; j < fNBasicParams; ++j) {
    bool in = false;
    for (int c = 0; c < fNLogits && !in; ++c) in = fInModel.Test(c * fNBasicParams + j);
    if (in) fModelIndices.push_back(j);
  }
  fLeadCount = 0;
  while (fLeadCount < static_cast<int>(fModelIndices.size()) &&
         fModelIndices[static_cast<std::size_t>(fLeadCount)] == fLeadCount)
    ++fLeadCount;
  fLead = -1;
}

void GZLNomAccumStats::Clear(bool llOnly) {
  fTally.Clear();
  fbLLOnly = llOnly;
  fbSeparationCheck = true;
  fLead = -1;
  std::fill(fGradient.begin(), fGradient.end(), 0.0);
  for (Block& b : fBlocks) {
    b.sums.Zero();
    b.batch.Clear();
  }
}

bool GZLNomAccumStats::UpdateForRow(const GZLDesignRow& row, const std::vector<double>& beta) {
  if (beta.size() < static_cast<std::size_t>(GetNumParams())) {
    ++fTally.invalid;
    return false;
  }
  return UpdateForRow<GZLDesignRow>(row, beta.data());
}

namespace {
// exp of a predictor shifted by the largest one (so at most 0): below the safe range it is 0.
inline double ShiftedExp(double z) noexcept { return z < TQPower::gMachineMinExp ? 0.0 : std::exp(z); }
}  // namespace

void GZLNomAccumStats::Probabilities(const double* eta, int nLogits, double* exps, double* pi, double& top,
                                     double& sum) noexcept {
  const int L = nLogits;
  top = 0.0;  // the reference category's predictor
  for (int c = 0; c < L; ++c) top = std::max(top, eta[c]);
  const double eRef = ShiftedExp(-top);
  sum = eRef;
  for (int c = 0; c < L; ++c) {
    exps[c] = ShiftedExp(eta[c] - top);
    sum += exps[c];
  }
  exps[L] = eRef;
  for (int c = 0; c <= L; ++c) pi[c] = exps[c] / sum;
}

double GZLNomAccumStats::SoftmaxOfEta(int y, double& logPiY) {
  const int L = fNLogits;
  double top = 0.0, sum = 0.0;
  Probabilities(fEta.data(), L, fExp.data(), fPi.data(), top, sum);
  const double eRef = fExp[static_cast<std::size_t>(L)];
  double smallest = 1.0;
  for (int c = 0; c <= L; ++c) smallest = std::min(smallest, fPi[static_cast<std::size_t>(c)]);
  // 1 - pi_c as the sum of the other categories' terms, running sums from both ends.
  double before = 0.0;
  for (int c = 0; c < L; ++c) {
    fResidual[static_cast<std::size_t>(c)] = before;
    before += fExp[static_cast<std::size_t>(c)];
  }
  double after = eRef;
  for (int c = L - 1; c >= 0; --c) {
    fResidual[static_cast<std::size_t>(c)] = (fResidual[static_cast<std::size_t>(c)] + after) / sum;
    after += fExp[static_cast<std::size_t>(c)];
  }
  logPiY = (y < L ? fEta[static_cast<std::size_t>(y)] : 0.0) - top - std::log(sum);
  return smallest;
}

double GZLNomAccumStats::Softmax(const double* x, const int* idx, const double* val, int m, int lead, double offset,
                                 const double* beta, int y, double& logPiY) {
  const int L = fNLogits;
  const int p = fNBasicParams;
  if (p == 0) {
    // No parameters: every category equally likely, whatever the offset.
    const double pi = 1.0 / fNCategories;
    for (int c = 0; c <= L; ++c) fPi[static_cast<std::size_t>(c)] = pi;
    for (int c = 0; c < L; ++c) fResidual[static_cast<std::size_t>(c)] = 1.0 - pi;
    logPiY = -std::log(static_cast<double>(fNCategories));
    return pi;
  }
  for (int c = 0; c < L; ++c) {
    const double* bc = beta + static_cast<std::size_t>(c) * p;
    double eta = 0.0;
    for (int b = 0; b < lead; ++b) eta += x[b] * bc[b];
    for (int a = 0; a < m; ++a) eta += val[a] * bc[idx[a]];
    fEta[static_cast<std::size_t>(c)] = eta + offset;
  }
  return SoftmaxOfEta(y, logPiY);
}

bool GZLNomAccumStats::ComputeProbabilities(const double* x, std::size_t n, double offset, const double* beta,
                                            std::vector<double>& pi) {
  if (n != static_cast<std::size_t>(fNBasicParams) || fNCategories < 1) return false;
  double logPi = 0.0;
  if (fNBasicParams == 0) {
    Softmax(x, nullptr, nullptr, 0, 0, offset, beta, 0, logPi);
  } else {
    const int p = fNBasicParams;
    for (int c = 0; c < fNLogits; ++c) {
      const double* bc = beta + static_cast<std::size_t>(c) * p;
      double eta = 0.0;
      for (int j = 0; j < p; ++j) eta += x[j] * bc[j];
      fEta[static_cast<std::size_t>(c)] = eta + offset;
    }
    SoftmaxOfEta(0, logPi);
  }
  pi.assign(fPi.begin(), fPi.end());
  return true;
}

void GZLNomAccumStats::Merge(const GZLNomAccumStats& other) {
  fTally.Merge(other.fTally);
  const std::size_t n = std::min(fGradient.size(), other.fGradient.size());
  for (std::size_t i = 0; i < n; ++i) fGradient[i] += other.fGradient[i];
  for (std::size_t b = 0; b < fBlocks.size() && b < other.fBlocks.size(); ++b) {
    Block& to = fBlocks[b];
    Block& from = other.fBlocks[b];
    GZLBatchedRankOne::AddFlushed(to.sums.Data(), to.batch, from.sums.Data(), from.batch,
                                  std::min(to.sums.PackedSize(), from.sums.PackedSize()));
  }
}

const std::vector<double>& GZLNomAccumStats::GetGradient() const {
  return GZLInModelOnly(fGradient, fInModel, fMaskedGradient);
}

void GZLNomAccumStats::GetInformation(TQSymMatrix& out) const {
  const int p = fNBasicParams;
  const int L = fNLogits;
  out.Resize(L * p);
  out.Zero();
  std::size_t b = 0;
  for (int c = 0; c < L; ++c) {
    for (int c2 = 0; c2 <= c; ++c2, ++b) {
      Block& block = fBlocks[b];
      block.batch.Flush(block.sums.Data());
      for (int j = 0; j < p; ++j) {
        const int row = c * p + j;
        if (!fInModel.Test(row)) continue;
        // Within a diagonal block only the lower triangle; off it every (j, k).
        const int kEnd = c2 == c ? j : p - 1;
        for (int k = 0; k <= kEnd; ++k) {
          const int col = c2 * p + k;
          if (!fInModel.Test(col)) continue;
          out(row, col) = block.sums(std::max(j, k), std::min(j, k));
        }
      }
    }
  }
}

void GZLNomAccumStats::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLNomAccumStats display start");
  DisplayI("Number of parameters per logit", fNBasicParams);
  DisplayI("Number of categories", fNCategories);
  TQSymMatrix information;
  GetInformation(information);
  GZLDisplayPassSums(fTally, GetGradient(), information);
  DisplayB("Separation of data check indicator", fbSeparationCheck);
  DisplayText(1, "GZLNomAccumStats display end");
}
