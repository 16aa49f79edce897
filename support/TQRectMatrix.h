#pragma once
// A dense rectangular matrix of doubles, stored row-major.
//
// Used for contrast (L) matrices, the per-subject derivative blocks of GEE, the transform
// matrices of the scaled design and the hypothesis matrices of the effect tests.
//
// Conventions: indices are 0-based; element access does not check bounds (callers own their
// sizes); every operation that combines matrices checks the sizes and returns false (or -1)
// without touching the output on a mismatch. Nothing throws except allocation failure.
#include <span>
#include <string>
#include <vector>

class TQBitSet;
class TQSymMatrix;

class TQRectMatrix {
 public:
  TQRectMatrix() = default;
  // rows x cols matrix filled with fill (negative sizes count as 0).
  TQRectMatrix(int rows, int cols, double fill = 0.0);

  int GetNumRows() const noexcept { return fRows; }
  int GetNumCols() const noexcept { return fCols; }
  bool IsEmpty() const noexcept { return fRows == 0 || fCols == 0; }

  // New size; the overlapping top-left block keeps its values, new elements get fill.
  void Resize(int rows, int cols, double fill = 0.0);
  void Fill(double value) noexcept;
  void Zero() noexcept { Fill(0.0); }

  double& operator()(int i, int j) noexcept { return fData[static_cast<size_t>(i) * fCols + j]; }
  double operator()(int i, int j) const noexcept { return fData[static_cast<size_t>(i) * fCols + j]; }
  double Get(int i, int j) const noexcept { return (*this)(i, j); }
  void Set(int i, int j, double v) noexcept { (*this)(i, j) = v; }
  double* Row(int i) noexcept { return fData.data() + static_cast<size_t>(i) * fCols; }
  const double* Row(int i) const noexcept { return fData.data() + static_cast<size_t>(i) * fCols; }
  double* Data() noexcept { return fData.data(); }
  const double* Data() const noexcept { return fData.data(); }

  bool operator==(const TQRectMatrix& o) const noexcept {
    return fRows == o.fRows && fCols == o.fCols && fData == o.fData;
  }

  // --- element-wise ---
  void ChangeSign() noexcept;
  void MultiplyByNumber(double a) noexcept;
  // Entries with |a_ij| < threshold become exactly 0.
  void ZeroOutAllSmall(double threshold) noexcept;
  // Entries within tolerance of 1 (|a_ij - 1| <= tolerance) become exactly 1.
  void CheckForOnes(double tolerance) noexcept;

  // --- products (out is resized; false on a size mismatch) ---
  void Transpose(TQRectMatrix& out) const;
  bool Multiply(const TQRectMatrix& b, TQRectMatrix& out) const;          // out = this * b
  bool ComputeRV(std::span<const double> v, std::vector<double>& out) const;       // out = R v
  bool ComputeRTransV(std::span<const double> v, std::vector<double>& out) const;  // out = R' v
  void ComputeRByRTrans(TQSymMatrix& out) const;  // out = R R' (rows x rows), e.g. L L'
  void ComputeRTransByR(TQSymMatrix& out) const;  // out = R' R (cols x cols), e.g. X'X
  // out = R S (rows x S.size); false when cols != S.size. Same as S.ComputeRS(*this, out).
  bool ComputeRS(const TQSymMatrix& s, TQRectMatrix& out) const;

  // --- rows and columns ---
  // Row dstRow of this := column srcCol of src; false when the sizes do not fit
  // (src.GetNumRows() must equal GetNumCols()).
  bool CopyColToRow(const TQRectMatrix& src, int srcCol, int dstRow) noexcept;
  // Appends a row (its length must equal GetNumCols(), or the matrix must be empty with 0
  // columns, in which case it takes the row's length).
  bool AppendRow(std::span<const double> row);

  // Block-diagonal repetition: out = diag(A, A, ..., A) with k copies of this matrix
  // ((k*rows) x (k*cols)); k < 1 gives an empty matrix. Used to repeat a contrast for each
  // logit of a nominal model.
  void CreateBlockDiagonal(int k, TQRectMatrix& out) const;

  // Rank of the rows: a row counts as independent when the squared norm of its residual
  // after projection on the earlier independent rows is > tolerance * its own squared norm
  // (and the row is not zero). With 1e-16 this keeps rows independent to about 1e-8 relative.
  int Rank(double tolerance) const;
  // Keeps the independent rows (byRows true) or columns (byRows false), in their order, in
  // out, and their 0-based indices in indices. Returns the rank. The test is that of Rank.
  int ExtractFullRank(double tolerance, TQRectMatrix& out, std::vector<int>& indices,
                      bool byRows = true) const;

  // --- helpers of the type III hypothesis construction (columns are candidate vectors) ---
  // Replaces every column of this (rows == b.rows) by its residual after orthogonal
  // projection on the column space of b. kept (resized to GetNumCols(), all set first) loses
  // the bit of every column whose residual's squared norm is <= tolerance * its original
  // squared norm. False on a row mismatch.
  bool ResidOfOrthProjection(const TQRectMatrix& b, double tolerance, TQBitSet& kept);
  // Eliminates row `row` from the columns: the column p with the largest |a(row, p)| is the
  // pivot; every other column j gets col_j -= a(row, j) / a(row, p) * col_p, and the pivot
  // column is then zeroed so it cannot pivot again. Returns p, or -1 when every |a(row, j)| is
  // <= tolerance * (largest absolute element of the matrix) (nothing to eliminate) or row is
  // out of range.
  int ZeroOutPivotRow(int row, double tolerance);
  // Cleans column col: entries with |a| <= tolerance * max|column| become 0, and the column is
  // scaled so that its first non-zero entry is +1 (a zero column is left as it is).
  // False when col is out of range.
  bool ColClean(int col, double tolerance);

  // "TQRectMatrix display start", the size, one line per row, "TQRectMatrix display end".
  void Display(const std::string& title = "") const;

 private:
  int fRows = 0;
  int fCols = 0;
  std::vector<double> fData;
};
