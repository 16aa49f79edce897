#include "estimation/GZLHessianMatrix.h"

#include <algorithm>

#include "GZLSettings.h"
#include "data/GZLDesignRow.h"
#include "support/TQBitSet.h"
#include "support/TQDisplay_940.h"
#include "support/TQMV.h"

GZLHessianMatrix::GZLHessianMatrix(int nParams, IGZLLogLikeFunc* llForExtra, const GZLSettings& settings)
    : fNParams(std::max(nParams, 0)),
      fpLogLikeFunc(llForExtra),
      fHessian(fNParams),
      fBatch(fNParams),
      fExtraRow(static_cast<std::size_t>(fNParams), 0.0),
      fpSettings(&settings),
      fbCanonical(settings.IsCanonicalLink()),
      fbNegBinDist(settings.GetDistType() == TQConst::DistNegBinomial),
      fbNegBinLink(fbNegBinDist && settings.GetLinkType() == TQConst::LinkNegBinomial),
      fK(settings.GetLinkParam()),
      fbExtra(llForExtra != nullptr) {
  // Without a usable link parameter the distribution's k stands in until SetDistParam.
  if (TQMV::IsMissing(fK) && fbNegBinDist) fK = settings.GetDistParam();
}

void GZLHessianMatrix::Reset(double phi, bool useExpected) {
  fPhi = phi;
  fbUseExpected = useExpected;
  fbObserved = !fbUseExpected && !fbCanonical;
  std::fill(fExtraRow.begin(), fExtraRow.end(), 0.0);
  fCorner = 0.0;
  fHessian.Zero();
  fBatch.Clear();
}

bool GZLHessianMatrix::UpdateForRow(const GZLDesignRow& row, const TQBitSet& inModel, double y, double mu, double V,
                                    double Vd, double g1, double g2, double paramDeriv2) {
  if (!(V > 0.0) || g1 == 0.0 || !(fPhi > 0.0)) return false;
  if (fbExtra && TQMV::IsMissing(paramDeriv2)) return false;
  const double w = row.fFreqWeight * row.fScaleWeight;
  const int n = std::min(fNParams, static_cast<int>(row.fValues.size()));
  // Sparse form of the row: the in-model parameters with a non-zero design value.
  std::vector<int> idx;
  std::vector<double> val;
  idx.reserve(static_cast<std::size_t>(n));
  val.reserve(static_cast<std::size_t>(n));
  for (int j = 0; j < n; ++j) {
    const double x = row.fValues[static_cast<std::size_t>(j)];
    if (x != 0.0 && inModel.Test(j)) {
      idx.push_back(j);
      val.push_back(x);
    }
  }
  const double W = RecordWeight(w, y, mu, V, Vd, g1, g2);
  const double c = fbExtra ? ExtraRowFactor(w, y, mu, V, g1) : 0.0;
  UpdateForRow(idx.data(), val.data(), static_cast<int>(idx.size()), W, c, fbExtra ? paramDeriv2 : 0.0);
  return true;
}

void GZLHessianMatrix::Merge(const GZLHessianMatrix& other) noexcept {
  GZLBatchedRankOne::AddFlushed(fHessian.Data(), fBatch, other.fHessian.Data(), other.fBatch,
                                std::min(fHessian.PackedSize(), other.fHessian.PackedSize()));
  const std::size_t m = std::min(fExtraRow.size(), other.fExtraRow.size());
  for (std::size_t j = 0; j < m; ++j) fExtraRow[j] += other.fExtraRow[j];
  fCorner += other.fCorner;
}

void GZLHessianMatrix::GetHessian(TQSymMatrix& out) const {
  fBatch.Flush(fHessian.Data());
  if (!fbExtra) {
    out = fHessian;
    return;
  }
  out.Resize(fNParams + 1);
  std::copy(fHessian.Data(), fHessian.Data() + fHessian.PackedSize(), out.Data());
  for (int j = 0; j < fNParams; ++j) out(fNParams, j) = -fExtraRow[static_cast<std::size_t>(j)];
  out(fNParams, fNParams) = -fCorner;
}

void GZLHessianMatrix::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLHessianMatrix display start");
  DisplayI("Number of parameters", fNParams);
  DisplayD("Phi (scale) parameter", fPhi);
  fBatch.Flush(fHessian.Data());
  fHessian.Display("The Hessian matrix");
  DisplayDV("The extra row/column of Hessian corresponding to phi", fExtraRow, false);
  DisplayD("The corner element of the extra row/column", fCorner);
  DisplayB("Canonical link indicator", fbCanonical);
  DisplayB("Use expected information indicator", fbUseExpected);
  DisplayB("Negative binomial distribution indicator", fbNegBinDist);
  DisplayB("Negative binomial link indicator", fbNegBinLink);
  DisplayD("Negative binomial parameter k", fK);
  DisplayText(1, "GZLHessianMatrix display end");
}
