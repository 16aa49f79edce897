#pragma once
// The design matrix as the estimation passes see it: its rows, restarted per pass, and the
// totals of its dictionary pass.
#include "estimation/IGZLRowSource.h"

class GZLDesignMatrix;

class GZLDesignRowSource final : public IGZLRowSource {
 public:
  explicit GZLDesignRowSource(GZLDesignMatrix& design) noexcept : fpDesign(&design) {}

  bool RestartPass() override;
  const GZLDesignRow* GetNextRow() override;
  const GZLDesignRow* GetNextPatternRow() override;
  // The parameters of the rows handed out: those of the reduced model while one is set.
  int GetNumParameters() const override;
  double GetNumObservations() const override;
  bool GetResponseCategories(std::vector<int>& categories, std::vector<double>& counts,
                             std::vector<double>& offsetTotals) const override;
  double GetResponseSumOfSquares(bool corrected, bool withScaleWeight) const override;
  // The design's transforms while the whole scaled design is in use (not a reduced model).
  const TQRectMatrix* GetBackTransform() const override;
  const TQRectMatrix* GetForwardTransform() const override;

  GZLDesignMatrix& GetDesignMatrix() const noexcept { return *fpDesign; }

 private:
  GZLDesignMatrix* fpDesign;
};
