#pragma once
// A symmetric matrix in packed storage: the lower triangle, row by row, so element (i, j)
// with i >= j sits at i*(i+1)/2 + j, and (i, j) and (j, i) name the same element.
//
// It carries the cross-product, information, covariance and working-correlation matrices of
// the engine, with the numerical kernels the estimation needs: rank-one updates (the per-record
// hot path), sweep, Cholesky with redundancy detection, generalized inverse, and an indefinite
// solve for the constrained (KKT) systems.
//
// Conventions shared by every operation below:
// - Redundancy sets (TQBitSet): one bit per row; a set bit means the row/column (parameter) is
//   in the model, i.e. not aliased.
// - The `diagonal` argument of the factorizations is the ORIGINAL diagonal of the matrix (taken
//   with GetDiagonal or GetNCheckDiagonal before any update). It makes the singularity test
//   relative: pivot k is singular when its current value is <= tolerance * diagonal[k]
//   (a value <= 0 is always singular). It must hold at least GetNumRows() entries.
// - Size mismatches never crash: the operation returns false / -1 / missing and leaves its
//   outputs unchanged unless stated otherwise. Nothing throws except allocation failure.
// - Hot-path operations (UpdateXX*) do not allocate.
#include <span>
#include <string>
#include <vector>

class TQBitSet;
class TQRectMatrix;

class TQSymMatrix {
 public:
  TQSymMatrix() = default;
  // n x n matrix with every element equal to fill (negative n counts as 0).
  explicit TQSymMatrix(int n, double fill = 0.0);

  int GetNumRows() const noexcept { return fN; }
  int Size() const noexcept { return fN; }
  bool IsEmpty() const noexcept { return fN == 0; }
  // Number of stored elements n(n+1)/2.
  size_t PackedSize() const noexcept { return fData.size(); }

  // New size; the leading min(old, n) block keeps its values, new elements get fill.
  void Resize(int n, double fill = 0.0);
  void Fill(double value) noexcept;
  void Zero() noexcept { Fill(0.0); }

  static size_t Index(int i, int j) noexcept {
    return i >= j ? static_cast<size_t>(i) * (i + 1) / 2 + j : static_cast<size_t>(j) * (j + 1) / 2 + i;
  }
  // Either order of indices; no bounds check.
  double& operator()(int i, int j) noexcept { return fData[Index(i, j)]; }
  double operator()(int i, int j) const noexcept { return fData[Index(i, j)]; }
  double Get(int i, int j) const noexcept { return fData[Index(i, j)]; }
  void Set(int i, int j, double v) noexcept { fData[Index(i, j)] = v; }
  // The packed lower triangle.
  double* Data() noexcept { return fData.data(); }
  const double* Data() const noexcept { return fData.data(); }

  bool operator==(const TQSymMatrix& o) const noexcept { return fN == o.fN && fData == o.fData; }

  // Full n x n copy / from the lower triangle of a square rectangular matrix (false if not
  // square).
  void ToRect(TQRectMatrix& out) const;
  bool FromRect(const TQRectMatrix& a);

  // --- diagonal ---
  void GetDiagonal(std::vector<double>& out) const;
  // Copy of the diagonal in which every entry d <= tolerance (zero, negative or tiny) is replaced
  // by `replacement`, so that the relative singularity test of the factorizations stays
  // meaningful (with replacement 1.0 it becomes an absolute test for those rows). Returns the
  // number of replaced entries.
  int GetNCheckDiagonal(std::vector<double>& out, double tolerance, double replacement) const;

  // --- element-wise ---
  void ChangeSign() noexcept;
  void MultiplyByNumber(double a) noexcept;
  // this += a * x (sizes must match).
  bool ComputeAXpY(double a, const TQSymMatrix& x) noexcept;
  // Off-diagonal elements with |a_ij| < threshold become 0 (the diagonal is kept).
  void ZeroOutNonDiag(double threshold) noexcept;
  // Every element (diagonal included) with |a_ij| < threshold becomes 0.
  void ZeroOutAllSmall(double threshold) noexcept;
  // Rows/columns whose diagonal is < threshold become 0 (diagonal included). Returns how many.
  int ZeroOutRowsForSmallDiag(double threshold) noexcept;

  // --- rank-one updates: the per-record hot path, no allocation ---
  // A += w x x'. x must have GetNumRows() entries (else nothing happens); w of any sign.
  void UpdateXX(std::span<const double> x, double w) noexcept;
  // As UpdateXX but only elements whose row and column are both in `set` change.
  void UpdateXXNonRedun(std::span<const double> x, const TQBitSet& set, double w) noexcept;
  // As UpdateXXNonRedun with the set given as the increasing list of its indices (faster: the
  // caller builds the list once per pass). Indices must be < GetNumRows().
  void UpdateXXIndexed(std::span<const double> x, std::span<const int> indices, double w) noexcept;
  // Augmented cross-product: the matrix is (p+1) x (p+1) with x of p entries and the response y
  // appended: A += w [x; y][x; y]'.
  void UpdateXXAug(std::span<const double> x, double y, double w) noexcept;

  // --- products ---
  bool ComputeSV(std::span<const double> v, std::vector<double>& out) const;  // out = S v
  // v' S v; missing when the size is wrong.
  double ComputeVSV(std::span<const double> v) const noexcept;
  bool ComputeSR(const TQRectMatrix& r, TQRectMatrix& out) const;   // out = S R (R: n x m)
  bool ComputeRS(const TQRectMatrix& r, TQRectMatrix& out) const;   // out = R S (R: m x n)
  bool ComputeRSRTrans(const TQRectMatrix& r, TQSymMatrix& out) const;  // out = R S R' (R: m x n)
  bool ComputeRTransSR(const TQRectMatrix& r, TQSymMatrix& out) const;  // out = R' S R (R: n x m)
  bool ComputeGMG(const TQSymMatrix& m, TQSymMatrix& out) const;        // out = S M S (sandwich)

  // --- sweep (Goodnight-style, in place on the packed triangle) ---
  // Sign convention: sweeping pivot k with h = a_kk does
  //   a_ij -= a_ik a_kj / h (i, j != k);  a_ik = a_ik / h (i != k);  a_kk = -1 / h,
  // so sweeping a full-rank matrix on every column leaves MINUS its inverse, and sweeping the
  // augmented cross-product [X'X X'y; y'X y'y] on the X columns leaves the regression
  // coefficients (with their natural sign) in the last row and the residual sum of squares in
  // the corner. Reverse-sweeping a pivoted column (a_ik = -a_ik / h) undoes its sweep exactly.
  //
  // Sweeps column k: when k is not in `pivoted` it is swept forward if its current value is
  // > tolerance * diagonal[k] (and > 0), and k is added to `pivoted`; otherwise nothing changes
  // and false is returned (k is redundant given the columns swept so far). When k is already in
  // `pivoted` the sweep is reversed and k leaves the set (false only if a_kk is 0).
  // `pivoted` is resized to GetNumRows() (new bits clear) when smaller.
  bool Sweep(int k, double tolerance, const std::vector<double>& diagonal, TQBitSet& pivoted) noexcept;
  // Forward-sweeps columns first .. first+count-1 in order, skipping those already pivoted.
  // Returns the number of columns newly pivoted (their bits are set in `pivoted`); the failing
  // ones are the redundant columns of the range. -1 on bad arguments.
  int Sweep(int first, int count, double tolerance, const std::vector<double>& diagonal,
            TQBitSet& pivoted) noexcept;

  // The hypothesis matrix of a type I test after the effect's columns [first, last] have been
  // swept (this is the swept matrix, sweptSet the set of all pivoted columns). h becomes
  // n x (last-first+1); for each column c = k - first with k in sweptSet: h(k, c) = 1,
  // h(j, c) = 0 for every other pivoted j, and h(j, c) = a_kj for the non-pivoted j. Columns
  // of non-pivoted k are zero. False on bad arguments.
  bool ExtractH(int first, int last, const TQBitSet& sweptSet, TQRectMatrix& h) const;

  // Regression coefficients of the augmented cross-product matrix (last row = response) on a
  // working copy: the first n-1 columns are swept with the relative test against the matrix's
  // own diagonal; coeffs gets n-1 values (0 for redundant columns), set the pivoted columns.
  // Returns the rank, -1 when the matrix has fewer than 2 rows. rss (optional) gets the
  // residual sum of squares.
  int GetRegCoeffs(double tolerance, std::vector<double>& coeffs, TQBitSet& set,
                   double* rss = nullptr) const;

  // --- Cholesky ---
  // In-place lower-triangular Cholesky A = L L' (L in the packed triangle). Pivot k (the value
  // of a_kk less the squares of the row's earlier factors) is singular when
  // |pivot| <= tolerance * |diagonal[k]|: row and column k of L become 0 and bit k of `set` is
  // cleared. Set bits mark the factored (non-redundant) rows; `set` is resized to n.
  // A pivot below -tolerance * |diagonal[k]| means the matrix is indefinite: false is returned
  // (the matrix then holds a partial factor). With stopAtSingular true the first singular pivot
  // also returns false instead of being zeroed.
  bool LTChol(const std::vector<double>& diagonal, double tolerance, TQBitSet& set,
              bool stopAtSingular = false) noexcept;
  // LTChol on a copy against the matrix's own diagonal; nonRedundant gets the indices of the
  // independent rows in order. Returns the rank, or -1 when the matrix is indefinite.
  int CholIndNonRed(double tolerance, std::vector<int>& nonRedundant) const;

  // Generalized inverse via Cholesky: pivots with value <= tolerance * diagonal[k] (negative
  // ones included) mark k redundant (bit cleared in `set`, resized to n) and give zero rows and
  // columns in `inverse`; the rest of `inverse` is the inverse of the submatrix of the
  // non-redundant rows. Of a group of dependent columns the later ones are marked. `inverse`
  // is resized to n. Returns the rank (number of set bits), -1 on bad arguments.
  int CholInverse(const std::vector<double>& diagonal, double tolerance, TQSymMatrix& inverse,
                  TQBitSet& set) const;
  // The same with a work buffer of the caller: no allocation once `work`, `inverse` and `set`
  // have held a matrix of this size (per-subject inversions of the GEE passes).
  int CholInverse(const std::vector<double>& diagonal, double tolerance, TQSymMatrix& inverse, TQBitSet& set,
                  std::vector<double>& work) const;

  // --- constrained systems ---
  // this = [H L'; L 0], (n+m) x (n+m) with H n x n and L m x n. False when L.GetNumCols() != n.
  bool ExpandSym(const TQSymMatrix& h, const TQRectMatrix& l);
  // Overwrites the leading h.GetNumRows() rows (the leading block) with h; the rows below keep
  // their values. False when h is larger than this matrix.
  bool ReplaceFirstRows(const TQSymMatrix& h) noexcept;
  // Solves the symmetric, possibly indefinite system A x = rhs restricted to the rows and
  // columns in `set` (Gaussian elimination with partial pivoting on that submatrix); entries of
  // x outside the set are 0. Returns false, leaving x unchanged, when the submatrix is singular
  // (a pivot <= tolerance * its largest absolute element), the set is empty, or sizes are wrong.
  bool SolveIndefinite(const TQBitSet& set, double tolerance, std::span<const double> rhs,
                       std::vector<double>& x) const;

  // --- spectral ---
  // Makes the matrix positive definite: when its smallest eigenvalue is < tolerance, every
  // eigenvalue below tolerance is raised to tolerance and the matrix rebuilt (cyclic Jacobi).
  // Returns true when the matrix was changed.
  bool TransformToPositiveDefinite(double tolerance);
  // Eigenvalues in increasing order (cyclic Jacobi); optional eigenvectors as the columns of
  // vectors (n x n).
  void Eigen(std::vector<double>& values, TQRectMatrix* vectors = nullptr) const;

  // "TQSymMatrix display start", the size, one line per row (lower triangle),
  // "TQSymMatrix display end".
  void Display(const std::string& title = "") const;

 private:
  int fN = 0;
  std::vector<double> fData;
};

// A block-diagonal symmetric matrix stored as its blocks; elements outside the blocks are 0.
class TQSymBlockMatrix {
 public:
  TQSymBlockMatrix() = default;
  void AddBlock(const TQSymMatrix& block);
  void Clear() noexcept { fBlocks.clear(); fStarts.clear(); fN = 0; }

  int GetNumBlocks() const noexcept { return static_cast<int>(fBlocks.size()); }
  int GetNumRows() const noexcept { return fN; }
  const TQSymMatrix& GetBlock(int b) const noexcept { return fBlocks[b]; }
  TQSymMatrix& GetBlock(int b) noexcept { return fBlocks[b]; }
  int GetBlockStart(int b) const noexcept { return fStarts[b]; }

  double Get(int i, int j) const noexcept;  // 0 outside the blocks and out of range
  void ToSymMatrix(TQSymMatrix& out) const;
  bool ComputeSV(std::span<const double> v, std::vector<double>& out) const;
  void Display() const;

 private:
  std::vector<TQSymMatrix> fBlocks;
  std::vector<int> fStarts;
  int fN = 0;
};
