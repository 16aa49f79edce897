#include "inference/GZLModelEffectTest.h"

#include <algorithm>

#include "GZLConst_940.h"
#include "GZLSettings.h"
#include "support/TQDisplay_940.h"

namespace {

TQStatus Internal() { return TQStatus::Error(GZLStatusCode::InternalError); }

// The hypothesis rows of the columns [first, first + count) that are in `set`, from a matrix
// swept on `set`: the row of such a column k is 1 at k, 0 at the other swept columns, and at an
// unswept column the coefficient of k in its regression on the swept ones. Entries that are
// rounding noise are cleaned first. Row index: the column plus one.
void RowsOfSweptColumns(const TQSymMatrix& swept, const TQBitSet& set, int first, int count, TQRectMatrix& L,
                        std::vector<int>& rowIndices) {
  const int n = swept.GetNumRows();
  rowIndices.clear();
  L = TQRectMatrix(0, n);
  if (count < 1) return;
  TQSymMatrix cleaned(swept);
  cleaned.ZeroOutAllSmall(GZLModelEffectTestData::kSmallEntry);
  TQRectMatrix h;
  if (!cleaned.ExtractH(first, first + count - 1, set, h)) return;
  h.CheckForOnes(GZLModelEffectTestData::kSmallEntry);
  L = TQRectMatrix(set.Count(first, count), n);
  int row = 0;
  for (int k = first; k < first + count; ++k) {
    if (!set.Test(k)) continue;
    L.CopyColToRow(h, k - first, row++);
    rowIndices.push_back(k + 1);
  }
}

// Columns `columns` of m, as the columns of a new n x columns.size() matrix.
TQRectMatrix SelectColumns(const TQRectMatrix& m, const std::vector<int>& columns) {
  TQRectMatrix out(m.GetNumRows(), static_cast<int>(columns.size()));
  for (int i = 0; i < m.GetNumRows(); ++i)
    for (std::size_t c = 0; c < columns.size(); ++c) out(i, static_cast<int>(c)) = m(i, columns[c]);
  return out;
}

void AddOnce(std::vector<TQStatus>& list, const TQStatus& status) {
  if (status.IsOK()) return;
  if (std::find(list.begin(), list.end(), status) == list.end()) list.push_back(status);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Shared data

GZLModelEffectTestData::GZLModelEffectTestData(const GZLSettings& settings,
                                               const std::vector<GZLEffectInfo>& effectInfo, int nParams,
                                               const TQSymMatrix& sscp)
    : fNParams(nParams), fTolerance(settings.GetTolerance()), fSSCP(sscp) {
  const TQConst::DistType dist = settings.GetDistType();
  fbOrdinal = dist == TQConst::DistOrdinalMultinomial;
  fbNominal = dist == TQConst::DistNominalMultinomial;
  fbMultinomial = fbOrdinal || fbNominal;
  // The thresholds of an ordinal model are tested like an intercept, which it always has.
  fbInterceptTest = settings.GetInterceptUse() || fbOrdinal;
  const std::vector<TQModelEffect>& effects = settings.GetModelEffects();
  const int n = fSSCP.GetNumRows();
  bool fits = true;

  if (fbInterceptTest) {
    TestLayout t;
    t.fCount = 1;
    // The intercept as an effect without variables, on the same model variables as the others,
    // so that containment treats it like any effect.
    if (!effects.empty())
      t.fEffect.Setup(effects.front().GetNModelFactors(), effects.front().GetNModelCovariates(),
                      effects.front().GetVarIndices());
    fTests.push_back(std::move(t));
  }
  // The effect columns of an ordinal model follow the one column of its thresholds.
  const int shift = fbOrdinal ? 1 : 0;
  for (std::size_t i = 0; i < effects.size(); ++i) {
    if (i >= effectInfo.size()) {
      fits = false;
      break;
    }
    TestLayout t;
    t.fSettingsEffect = static_cast<int>(i);
    t.fFirst = effectInfo[i].fStart + shift;
    t.fCount = effectInfo[i].fNValues;
    t.fEffect = effects[i];
    fTests.push_back(std::move(t));
  }
  for (const TestLayout& t : fTests)
    if (t.fFirst < 0 || t.fCount < 0 || t.fFirst + t.fCount > n) fits = false;
  if (fbOrdinal)
    fits = fits && fNParams >= n;
  else if (fbNominal)
    fits = fits && n > 0 && fNParams % n == 0;
  else
    fits = fits && fNParams == n;

  const std::size_t nt = fTests.size();
  fContained.assign(nt * nt, false);
  for (std::size_t t = 0; t < nt; ++t)
    for (std::size_t u = 0; u < nt; ++u)
      if (t != u) fContained[t * nt + u] = fTests[t].fEffect.IsContainedIn(fTests[u].fEffect);

  fSSCP.GetDiagonal(fDiagonal);
  // The general estimable functions: the rows of H = G X'WX of the estimable columns.
  TQSymMatrix swept(fSSCP);
  TQBitSet set(n);
  fGEF = TQRectMatrix(0, n);
  if (n > 0 && swept.Sweep(0, n, fTolerance, fDiagonal, set) > 0) {
    TQRectMatrix h;
    swept.ExtractH(0, n - 1, set, h);
    for (int k = 0; k < n; ++k) {
      if (!set.Test(k)) continue;
      std::vector<double> row(static_cast<std::size_t>(n));
      for (int j = 0; j < n; ++j) row[static_cast<std::size_t>(j)] = h(j, k);
      fGEF.AppendRow(row);
    }
  }
  if (!fits)
    fStatus = Internal();
  else if (fGEF.GetNumRows() == 0)
    fStatus = TQStatus::Error(GZLStatusCode::GEFMatrixEmpty);
}

bool GZLModelEffectTestData::IsContainedIn(int test, int other) const {
  const int n = GetNumTests();
  if (test < 0 || other < 0 || test >= n || other >= n) return false;
  return fContained[static_cast<std::size_t>(test) * static_cast<std::size_t>(n) + static_cast<std::size_t>(other)];
}

bool GZLModelEffectTestData::ExpandToParameters(const TQRectMatrix& basic, TQRectMatrix& out) const {
  const int n = GetBasicSize();
  if (basic.GetNumCols() != n) return false;
  if (fbNominal) {
    if (n == 0 || fNParams % n != 0) return false;
    basic.CreateBlockDiagonal(fNParams / n, out);
    return true;
  }
  if (fbOrdinal) {
    // Column 0 stands for the first threshold; the others get zero columns after it. The
    // cumulative predictor is theta - x'beta, so a row over (1, x) that weighs the intercept by
    // a weighs the first threshold by -a against the effects' parameters (a row of an effect,
    // whose intercept entry is 0, is unchanged).
    const int extra = fNParams - n;
    if (extra < 0 || n < 1) return false;
    TQRectMatrix expanded(basic.GetNumRows(), fNParams);
    for (int i = 0; i < basic.GetNumRows(); ++i) {
      expanded(i, 0) = basic(i, 0) == 0.0 ? 0.0 : -basic(i, 0);
      for (int j = 1; j < n; ++j) expanded(i, j + extra) = basic(i, j);
    }
    out = std::move(expanded);
    return true;
  }
  if (fNParams != n) return false;
  out = basic;
  return true;
}

TQStatus GZLModelEffectTestData::ComputeCorrectedModelTest(TQModelTestStats& result) const {
  result.Clear();
  result.AddEffect(0);
  if (fStatus.IsError()) return fStatus;
  if (!fpModelTests) return Internal();
  const int n = GetBasicSize();
  TQSymMatrix swept(fSSCP);
  TQBitSet set(n);
  // The intercept (thresholds) first, so that the rows of the rest are adjusted for it.
  const int start = fbInterceptTest ? 1 : 0;
  if (start > 0) swept.Sweep(0, 1, fTolerance, fDiagonal, set);
  if (swept.Sweep(start, n - start, fTolerance, fDiagonal, set) < 1) return TQStatus();
  TQRectMatrix basic, full, L;
  std::vector<int> rows, kept;
  RowsOfSweptColumns(swept, set, start, n - start, basic, rows);
  basic.ExtractFullRank(kFullRankTolerance, full, kept, true);
  if (!ExpandToParameters(full, L)) return Internal();
  TQStatus status;
  fpModelTests->ComputeModelTest(L, status, result, 0);
  std::vector<int> keptRows;
  for (int i : kept) keptRows.push_back(rows[static_cast<std::size_t>(i)]);
  result.AddRowIndices(0, keptRows);
  return status;
}

void GZLModelEffectTestData::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLModelEffectTestData display start");
  DisplayI("Status", fStatus.GetErrorCode());
  DisplayB("Intercept in the model indicator", fbInterceptTest);
  DisplayB("Multinomial model", fbMultinomial);
  DisplayB("Nominal model", fbNominal);
  DisplayI("Number of parameters", fNParams);
  DisplayI("Number of tests", GetNumTests());
  for (int t = 0; t < GetNumTests(); ++t)
    DisplayIV("Test " + std::to_string(t) + ": effect, first column, columns",
              {GetSettingsEffect(t), GetFirstColumn(t), GetNumColumns(t)});
  DisplayDF("Singularity tolerance", fTolerance);
  fSSCP.Display("The original SSCP matrix X'*W*X");
  DisplayDV("Diagonal of the original SSCP matrix", fDiagonal, true);
  fGEF.Display("The general estimable function");
  if (fpModelTests) fpModelTests->Display();
  DisplayText(1, "GZLModelEffectTestData display end");
}

// ---------------------------------------------------------------------------------------------
// The loop shared by both types

GZLDefaultModelEffectTest::~GZLDefaultModelEffectTest() = default;

void GZLDefaultModelEffectTest::SetData(const GZLModelEffectTestData* data) {
  fpData = data;
  fStats.Clear();
  fLMatrices.clear();
  fWarnings.clear();
}

TQStatus GZLDefaultModelEffectTest::CheckData(bool needModelTests) const {
  if (fpData == nullptr) return Internal();
  if (fpData->GetStatus().IsError()) return fpData->GetStatus();
  if (needModelTests && fpData->GetModelTests() == nullptr) return Internal();
  return TQStatus();
}

TQStatus GZLDefaultModelEffectTest::BuildTestL(int test, TQRectMatrix& L, std::vector<int>& rowIndices) {
  L = TQRectMatrix(0, fpData->GetNumParams());
  rowIndices.clear();
  TQRectMatrix basic;
  std::vector<int> basicRows;
  if (BuildLMatrix(test, basic, basicRows).IsError()) return TQStatus::Warning(GZLStatusCode::InternalError);
  if (basic.GetNumRows() == 0) return TQStatus();
  TQRectMatrix full;
  std::vector<int> kept;
  basic.ExtractFullRank(GZLModelEffectTestData::kFullRankTolerance, full, kept, true);
  if (!fpData->ExpandToParameters(full, L)) {
    L = TQRectMatrix(0, fpData->GetNumParams());
    return TQStatus::Warning(GZLStatusCode::InternalError);
  }
  for (int i : kept) rowIndices.push_back(basicRows[static_cast<std::size_t>(i)]);
  return TQStatus();
}

void GZLDefaultModelEffectTest::ComputeTests(TQStatus& status) {
  fStats.Clear();
  fLMatrices.clear();
  fWarnings.clear();
  status = CheckData(true);
  if (!status.IsOK()) return;
  BeginTests();
  const TQModelTests& tests = *fpData->GetModelTests();
  for (int t = 0; t < fpData->GetNumTests(); ++t) {
    fStats.AddEffect(t);
    TQRectMatrix L;
    std::vector<int> rows;
    AddOnce(fWarnings, BuildTestL(t, L, rows));
    if (L.GetNumRows() > 0) {
      TQStatus st;
      tests.ComputeModelTest(L, st, fStats, t);
      fStats.AddRowIndices(t, rows);
      AddOnce(fWarnings, st);
    }
    fLMatrices.push_back(std::move(L));
  }
  if (!fWarnings.empty()) status = fWarnings.back();
}

TQStatus GZLDefaultModelEffectTest::ComputeLMatrices(std::vector<TQRectMatrix>& matrices) {
  matrices.clear();
  TQStatus status = CheckData(false);
  if (!status.IsOK()) return status;
  BeginTests();
  for (int t = 0; t < fpData->GetNumTests(); ++t) {
    TQRectMatrix L;
    std::vector<int> rows;
    const TQStatus st = BuildTestL(t, L, rows);
    if (!st.IsOK()) status = st;
    matrices.push_back(std::move(L));
  }
  return status;
}

void GZLDefaultModelEffectTest::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, std::string(ClassName()) + " display start");
  DisplayB("Shared data present", fpData != nullptr);
  for (std::size_t t = 0; t < fLMatrices.size(); ++t)
    fLMatrices[t].Display("The contrast L matrix of test " + std::to_string(t));
  fStats.Display("Model test statistics");
  DisplayI("Number of warnings", static_cast<int>(fWarnings.size()));
  DisplayText(1, std::string(ClassName()) + " display end");
}

// ---------------------------------------------------------------------------------------------
// Type I

void GZLModelEffectTestTypeI::BeginTests() {
  fSwept = fpData != nullptr ? fpData->GetSSCP() : TQSymMatrix();
  fSweptSet = TQBitSet(fSwept.GetNumRows());
}

TQStatus GZLModelEffectTestTypeI::BuildLMatrix(int test, TQRectMatrix& L, std::vector<int>& rowIndices) {
  rowIndices.clear();
  if (fpData == nullptr || test < 0 || test >= fpData->GetNumTests()) return Internal();
  const int n = fpData->GetBasicSize();
  L = TQRectMatrix(0, n);
  // The working copy belongs to a run started by BeginTests.
  if (fSwept.GetNumRows() != n) return Internal();
  const int first = fpData->GetFirstColumn(test), count = fpData->GetNumColumns(test);
  // The sweep goes on from where the effects before this one left it: an effect adds only
  // what the effects before it do not explain.
  const int pivots = fSwept.Sweep(first, count, fpData->GetTolerance(), fpData->GetSSCPDiagonal(), fSweptSet);
  if (pivots < 0) return Internal();
  if (pivots == 0) return TQStatus();
  RowsOfSweptColumns(fSwept, fSweptSet, first, count, L, rowIndices);
  return TQStatus();
}

void GZLModelEffectTestTypeI::Display() const {
  GZLDefaultModelEffectTest::Display();
  fSwept.Display("The swept SSCP matrix");
  TQDisplay_940::DisplayText(1, "Swept columns: " + fSweptSet.ToString());
}

// ---------------------------------------------------------------------------------------------
// Type III

TQStatus GZLModelEffectTestTypeIII::BuildLMatrix(int test, TQRectMatrix& L, std::vector<int>& rowIndices) {
  rowIndices.clear();
  if (fpData == nullptr || test < 0 || test >= fpData->GetNumTests()) return Internal();
  const GZLModelEffectTestData& d = *fpData;
  const int n = d.GetBasicSize();
  const int nTests = d.GetNumTests();
  L = TQRectMatrix(0, n);
  const double tol = d.GetTolerance();
  const std::vector<double>& diagonal = d.GetSSCPDiagonal();
  auto containsTest = [&](int u) { return u != test && d.IsContainedIn(test, u); };
  auto othersNotContaining = [&](int u) { return u != test && !d.IsContainedIn(test, u); };
  const int first = d.GetFirstColumn(test), count = d.GetNumColumns(test);

  // Selection. The effects that do not contain this one are swept first, so the candidates are
  // adjusted for all of them; the candidates are the rows of this effect's pivoted columns.
  TQSymMatrix swept(d.GetSSCP());
  TQBitSet set(n);
  for (int u = 0; u < nTests; ++u)
    if (othersNotContaining(u)) swept.Sweep(d.GetFirstColumn(u), d.GetNumColumns(u), tol, diagonal, set);
  if (count < 1 || swept.Sweep(first, count, tol, diagonal, set) < 1) return TQStatus();
  TQRectMatrix h;
  swept.ExtractH(first, first + count - 1, set, h);
  std::vector<int> pivots, hColumns;
  for (int k = first; k < first + count; ++k)
    if (set.Test(k)) {
      pivots.push_back(k);
      hColumns.push_back(k - first);
    }
  TQRectMatrix candidates = SelectColumns(h, hColumns);

  // The hypotheses of the effects that contain this one, after their further sweep.
  TQSymMatrix further(swept);
  TQBitSet furtherSet(set);
  std::vector<std::vector<double>> spanning;
  for (int u = 0; u < nTests; ++u) {
    if (!containsTest(u)) continue;
    const int fu = d.GetFirstColumn(u), cu = d.GetNumColumns(u);
    if (cu < 1 || further.Sweep(fu, cu, tol, diagonal, furtherSet) < 1) continue;
    TQRectMatrix hu;
    further.ExtractH(fu, fu + cu - 1, furtherSet, hu);
    for (int k = fu; k < fu + cu; ++k) {
      if (!furtherSet.Test(k) || set.Test(k)) continue;
      std::vector<double> column(static_cast<std::size_t>(n));
      for (int j = 0; j < n; ++j) column[static_cast<std::size_t>(j)] = hu(j, k - fu);
      spanning.push_back(std::move(column));
    }
  }
  TQRectMatrix containing(n, static_cast<int>(spanning.size()));
  for (std::size_t c = 0; c < spanning.size(); ++c)
    for (int j = 0; j < n; ++j) containing(j, static_cast<int>(c)) = spanning[c][static_cast<std::size_t>(j)];

  // Construction. Candidates made orthogonal to the containing effects' hypotheses (what is
  // left is not part of theirs); a candidate that vanishes is dropped.
  const int r = candidates.GetNumCols();
  TQBitSet kept(r, true);
  if (containing.GetNumCols() > 0) {
    candidates.ResidOfOrthProjection(containing, GZLModelEffectTestData::kConstructionTolerance, kept);
    for (int c = 0; c < r; ++c)
      if (!kept.Test(c))
        for (int j = 0; j < n; ++j) candidates(j, c) = 0.0;
  }
  // Then restricted to combinations free of the parameters of the effects not containing this
  // one: each of their columns is eliminated from the candidates, using up one candidate.
  for (int u = 0; u < nTests; ++u) {
    if (!othersNotContaining(u)) continue;
    const int fu = d.GetFirstColumn(u), cu = d.GetNumColumns(u);
    for (int c = fu; c < fu + cu; ++c) {
      const int p = candidates.ZeroOutPivotRow(c, GZLModelEffectTestData::kConstructionTolerance);
      if (p >= 0 && kept.Test(p)) kept.Clear(p);
    }
  }
  const int nKept = kept.Count();
  if (nKept == 0) return TQStatus();
  L = TQRectMatrix(nKept, n);
  int row = 0;
  for (int c = 0; c < r; ++c) {
    if (!kept.Test(c)) continue;
    candidates.ColClean(c, GZLModelEffectTestData::kConstructionTolerance);
    L.CopyColToRow(candidates, c, row++);
    rowIndices.push_back(pivots[static_cast<std::size_t>(c)] + 1);
  }
  return TQStatus();
}
