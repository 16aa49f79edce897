#include "estimation/GZLDesignRowSource.h"

#include "GZLDataStats.h"
#include "data/GZLDesignMatrix.h"
#include "support/TQRectMatrix.h"

bool GZLDesignRowSource::RestartPass() { return fpDesign->RestartPass(); }

const GZLDesignRow* GZLDesignRowSource::GetNextRow() { return fpDesign->GetNextRow(); }

int GZLDesignRowSource::GetNumParameters() const {
  return fpDesign->IsReducedModel() ? fpDesign->GetReducedNParams() : fpDesign->GetNumOfParams();
}

double GZLDesignRowSource::GetNumObservations() const { return fpDesign->GetSumFreqWeights(); }

double GZLDesignRowSource::GetResponseSumOfSquares(bool corrected, bool withScaleWeight) const {
  const GZLDataStats& stats = fpDesign->GetDataStats();
  const DataStat& s = withScaleWeight ? stats.GetDependentW2Stat() : stats.GetDependentStat();
  if (corrected) return s.fSumSqDev;
  // About 0: the squared deviations plus the weight times the squared mean.
  return s.fSumSqDev + s.fWeightedN * s.fMean * s.fMean;
}

const TQRectMatrix* GZLDesignRowSource::GetBackTransform() const {
  const TQRectMatrix& a = fpDesign->GetBackTransform();
  const int p = fpDesign->GetNumOfParams();
  if (!fpDesign->IsScaledDesign() || fpDesign->IsReducedModel() || a.GetNumRows() != p || a.GetNumCols() != p)
    return nullptr;
  return &a;
}

const TQRectMatrix* GZLDesignRowSource::GetForwardTransform() const {
  const TQRectMatrix& b = fpDesign->GetForwardTransform();
  const int p = fpDesign->GetNumOfParams();
  if (!fpDesign->IsScaledDesign() || fpDesign->IsReducedModel() || b.GetNumRows() != p || b.GetNumCols() != p)
    return nullptr;
  return &b;
}
