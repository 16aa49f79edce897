#include "estimation/GZLDesignRowSource.h"

#include "GZLDataStats.h"
#include "data/GZLDesignMatrix.h"

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
