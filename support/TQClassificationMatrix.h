#pragma once
// Quality figures a host may attach to a model's PMML document: the classification (confusion)
// matrix of a categorical response and the gains (lift) tables.
#include <vector>

// Counts of records by observed category (row) and predicted category (column).
class TQClassificationMatrix {
 public:
  TQClassificationMatrix() = default;
  // n x n counts, all 0 (a negative n gives an empty matrix).
  explicit TQClassificationMatrix(int n) : fN(n > 0 ? n : 0), fCounts(static_cast<std::size_t>(fN) * fN, 0.0) {}

  int GetSize() const noexcept { return fN; }
  bool IsEmpty() const noexcept { return fN == 0; }
  // Indices outside the matrix: Get gives 0, Set does nothing.
  double Get(int observed, int predicted) const noexcept {
    return Inside(observed, predicted) ? fCounts[Pos(observed, predicted)] : 0.0;
  }
  void Set(int observed, int predicted, double count) noexcept {
    if (Inside(observed, predicted)) fCounts[Pos(observed, predicted)] = count;
  }
  bool operator==(const TQClassificationMatrix&) const = default;

 private:
  bool Inside(int i, int j) const noexcept { return i >= 0 && j >= 0 && i < fN && j < fN; }
  std::size_t Pos(int i, int j) const noexcept { return static_cast<std::size_t>(i) * fN + j; }

  int fN = 0;
  std::vector<double> fCounts;
};

// One point of a gains table: the coordinates of the lift graph and the boundary value of the
// score (and the mean of the scores) of its group.
struct LiftInfo {
  double fX = 0.0;
  double fY = 0.0;
  double fBoundaryValue = 0.0;
  double fBoundaryValueMean = 0.0;
  bool operator==(const LiftInfo&) const = default;
};
