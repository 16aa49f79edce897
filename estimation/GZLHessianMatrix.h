#pragma once
// The information matrix of one data pass: the P x P block of the regression parameters and,
// when the scale or the negative binomial k is estimated by maximum likelihood (a
// log-likelihood function is attached for it), the row of the extra parameter theta = log(phi)
// or log(k). The block holds the information (positive semi-definite); the extra row and corner
// are accumulated as second derivatives of the log-likelihood and negated by GetHessian, so
// that the whole (P+1)-row matrix is an information matrix too.
//
// The beta block uses the expected (Fisher) information unless observed information is asked
// for and the link is not canonical; the observed weight can be negative.
#include <cstddef>
#include <vector>

#include "estimation/GZLRankOne.h"
#include "support/TQSymMatrix.h"

class GZLSettings;
class IGZLLogLikeFunc;
class TQBitSet;
struct GZLDesignRow;

class GZLHessianMatrix {
 public:
  GZLHessianMatrix(int nParams, IGZLLogLikeFunc* llForExtra, const GZLSettings& settings);
  virtual ~GZLHessianMatrix() = default;
  GZLHessianMatrix(const GZLHessianMatrix&) = default;
  GZLHessianMatrix& operator=(const GZLHessianMatrix&) = default;

  // The negative binomial k used by the extra row.
  virtual void SetDistParam(double k) { fK = k; }
  double GetDistParam() const noexcept { return fK; }

  // Stores phi and the information type; zeroes the beta block, the extra row and its corner.
  void Reset(double phi, bool useExpected);

  // The weight of one record in the beta block: w / (phi V g'^2), plus, for observed
  // information, (y - mu)(w / phi)(V' / (V^2 g'^2) + g'' / (V g'^3)).
  double RecordWeight(double w, double y, double mu, double V, double Vd, double g1, double g2) const noexcept {
    const double g1sq = g1 * g1;
    double W = w / (fPhi * V * g1sq);
    if (fbObserved) W += (y - mu) * (w / fPhi) * (Vd / (V * V * g1sq) + g2 / (V * g1sq * g1));
    return W;
  }
  // The cross derivative of the record's beta score with respect to theta, per unit of x_j.
  double ExtraRowFactor(double w, double y, double mu, double V, double g1) const noexcept {
    if (!fbNegBinDist) return -w * (y - mu) / (V * fPhi * g1);
    if (fbNegBinLink) return w * mu / fPhi;
    const double a = 1.0 + fK * mu;
    return -w * fK * (y - mu) / (a * a * fPhi * g1);
  }

  // One record in sparse form (indices increasing, parameters in the model, non-zero values):
  // the beta block grows by W x x', the extra row (when on) by c x and its corner by paramDeriv2.
  void UpdateForRow(const int* __restrict indices, const double* __restrict values, int count, double W, double c,
                    double paramDeriv2) noexcept {
    if (!fbSkipBeta) GZLSparseRankOneUpdate(fHessian.Data(), fBatch.RowStarts(), indices, values, count, W);
    if (fbExtra) {
      double* e = fExtraRow.data();
      for (int a = 0; a < count; ++a) e[indices[a]] += c * values[a];
      fCorner += paramDeriv2;
    }
  }

  // One record split into its dense leading block lead[0 .. D-1] (D as set by SetDenseLead) and
  // further entries in sparse form (indices increasing, all at least D); otherwise as above.
  void UpdateForRow(const double* __restrict lead, const int* __restrict indices, const double* __restrict values,
                    int count, double W, double c, double paramDeriv2) noexcept {
    if (!fbSkipBeta) fBatch.Add(fHessian.Data(), lead, indices, values, count, W);
    if (fbExtra) {
      double* e = fExtraRow.data();
      const int D = fBatch.GetDense();
      for (int b = 0; b < D; ++b) e[b] += c * lead[b];
      for (int a = 0; a < count; ++a) e[indices[a]] += c * values[a];
      fCorner += paramDeriv2;
    }
  }
  // The width of the dense leading block of the split records that follow.
  void SetDenseLead(int dense) noexcept { fBatch.SetDense(fHessian.Data(), dense); }
  int GetDenseLead() const noexcept { return fBatch.GetDense(); }

  // The same for a whole design row with the redundancy set (set bit = in the model), after the
  // validity conditions: false, with nothing added, unless V > 0, g' != 0 and phi > 0.
  bool UpdateForRow(const GZLDesignRow& row, const TQBitSet& inModel, double y, double mu, double V, double Vd,
                    double g1, double g2, double paramDeriv2);

  // Adds what another accumulator of the same model gathered over other records.
  void Merge(const GZLHessianMatrix& other) noexcept;

  // The beta block alone without the extra parameter, else the (P+1)-row information.
  void GetHessian(TQSymMatrix& out) const;
  const TQSymMatrix& GetBetaBlock() const noexcept {
    fBatch.Flush(fHessian.Data());
    return fHessian;
  }
  const std::vector<double>& GetExtraRow() const noexcept { return fExtraRow; }
  double GetCorner() const noexcept { return fCorner; }
  bool HasExtraParam() const noexcept { return fbExtra; }
  bool IsObserved() const noexcept { return fbObserved; }
  int GetNumParams() const noexcept { return fNParams; }
  double GetPhi() const noexcept { return fPhi; }
  void Display() const;

 private:
  int fNParams;
  double fPhi = 1.0;
  IGZLLogLikeFunc* fpLogLikeFunc;
  // The beta block and the split records not yet added to it; reading the block adds them.
  mutable TQSymMatrix fHessian;
  mutable GZLBatchedRankOne fBatch;
  std::vector<double> fExtraRow;
  double fCorner = 0.0;
  const GZLSettings* fpSettings;
  bool fbSkipBeta = false;
  bool fbCanonical;
  bool fbUseExpected = true;
  bool fbNegBinDist;
  bool fbNegBinLink;
  double fK;
  // Derived: the extra row is on; observed information is in use (expected flag off and the
  // link not canonical).
  bool fbExtra;
  bool fbObserved = false;
};
