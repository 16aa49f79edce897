#include "estimation/GZLDesignRowSource.h"

#include "GZLDataStats.h"
#include "data/GZLDesignMatrix.h"
#include "support/TQRectMatrix.h"

bool GZLDesignRowSource::RestartPass() { return fpDesign->RestartPass(); }

const GZLDesignRow* GZLDesignRowSource::GetNextRow() { return fpDesign->GetNextRow(); }

const GZLDesignRow* GZLDesignRowSource::GetNextPatternRow() { return fpDesign->NextPatternRow(); }

int GZLDesignRowSource::GetNumParameters() const {
  if (fpDesign->GetDistType() == TQConst::DistNominalMultinomial)
    return fpDesign->IsReducedModel() ? fpDesign->GetReducedNParamsNominal() : fpDesign->GetNumOfParamsNominal();
  return fpDesign->IsReducedModel() ? fpDesign->GetReducedNParams() : fpDesign->GetNumOfParams();
}

bool GZLDesignRowSource::GetResponseCategories(std::vector<int>& categories, std::vector<double>& counts,
                                               std::vector<double>& offsetTotals) const {
  IGZLRowSource::GetResponseCategories(categories, counts, offsetTotals);
  const TQConst::DistType dist = fpDesign->GetDistType();
  const TQFactorCounts& factorCounts = fpDesign->GetFactorCounts();
  const std::vector<TQFactorCounts::Count>* responseCounts = factorCounts.GetDependCountsPtr();
  const std::vector<TQFactorCounts::Count>* offsets = factorCounts.GetOffsetCountsForDepCatPtr();
  if (responseCounts == nullptr) return false;
  if (dist == TQConst::DistOrdinalMultinomial) {
    for (std::size_t c = 0; c < responseCounts->size(); ++c) categories.push_back(static_cast<int>(c));
  } else if (dist == TQConst::DistNominalMultinomial) {
    fpDesign->GetNominalCategoryOrder(categories);
  } else {
    return false;
  }
  for (int c : categories) {
    const std::size_t i = static_cast<std::size_t>(c);
    counts.push_back((*responseCounts)[i].first);
    offsetTotals.push_back(offsets != nullptr && i < offsets->size() ? (*offsets)[i].first : 0.0);
  }
  return true;
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
  const int p = GetNumParameters();
  if (!fpDesign->IsScaledDesign() || fpDesign->IsReducedModel() || a.GetNumRows() != p || a.GetNumCols() != p)
    return nullptr;
  return &a;
}

const TQRectMatrix* GZLDesignRowSource::GetForwardTransform() const {
  const TQRectMatrix& b = fpDesign->GetForwardTransform();
  const int p = GetNumParameters();
  if (!fpDesign->IsScaledDesign() || fpDesign->IsReducedModel() || b.GetNumRows() != p || b.GetNumCols() != p)
    return nullptr;
  return &b;
}
