#include "GZLMarginals.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <span>

#include "GZLConst_940.h"
#include "GZLOutputStats.h"
#include "GZLSettings.h"
#include "IGZLAlgorithm.h"
#include "data/GZLAlgorithm.h"
#include "data/GZLDesignMatrix.h"
#include "data/GZLRecordAccess.h"
#include "diagnostics/GZLComponentDisplay_940.h"
#include "estimation/GZLOptimizer.h"
#include "support/ITQLinkFunc.h"
#include "support/TQCombinations.h"
#include "support/TQContrasts.h"
#include "support/TQDisplay_940.h"
#include "support/TQDistFun.h"

namespace {

bool Usable(double x) { return !TQMV::IsMissingOrInfinite(x); }
double Negated(double x) { return TQMV::IsMissing(x) ? TQMV::Missing : -x; }

bool IsSequential(TQConst::TQPAdjustMethod method) {
  return method == TQConst::PAdjSeqBonferroni || method == TQConst::PAdjSeqSidak;
}

bool HasContrast(const TQEmmeansSpec& spec) {
  const int type = spec.GetContrastType();
  return type >= TQConst::ContrastSimple && type <= TQConst::ContrastPairwise;
}

TQStatus SpecStatus(int code, bool warning, int spec) {
  TQStatus status(code, warning);
  status.SetDiscreteData(0, spec);
  return status;
}

// Keeps the first status that is not OK, an error before a warning.
void Keep(TQStatus& kept, const TQStatus& status) {
  if (status.IsOK() || kept.IsError()) return;
  if (kept.IsOK() || status.IsError()) kept = status;
}

}  // namespace

// The frequencies of an incomplete design, per request: for every combination of the
// request's factors that occurs, the weight of its records in total and per design
// column. Two counts of disjoint records merge into the count of both.
struct GZLMarginals::IncompleteCounts {
  struct Cell {
    double fTotal = 0.0;
    std::vector<double> fColumns;
  };
  std::vector<std::map<std::vector<int>, Cell>> fCells;

  void Merge(const IncompleteCounts& other) {
    for (std::size_t s = 0; s < fCells.size() && s < other.fCells.size(); ++s)
      for (const auto& [key, cell] : other.fCells[s]) {
        Cell& mine = fCells[s][key];
        mine.fColumns.resize(std::max(mine.fColumns.size(), cell.fColumns.size()), 0.0);
        mine.fTotal += cell.fTotal;
        for (std::size_t j = 0; j < cell.fColumns.size(); ++j) mine.fColumns[j] += cell.fColumns[j];
      }
  }
};

GZLMarginals::GZLMarginals(const GZLSettings& settings, const IGZLAlgorithm& algorithm, GZLDesignMatrix& design,
                           GZLCancelInfo& cancel)
    : fpSettings(&settings),
      fpAlgorithm(&algorithm),
      fpDesign(&design),
      fpCancel(&cancel),
      fFactors(settings.GetFactors()),
      fCovariates(settings.GetCovariates()),
      fModelEffects(settings.GetModelEffects()),
      fTolerance(settings.GetTolerance()),
      fTestType(settings.GetTestType()),
      fPAdjust(settings.GetPAdjustment()),
      fConfidenceLevel(settings.GetConfidenceLevel()),
      fpLink(CreateLinkFunction(settings.GetLinkType(), settings.GetLinkParam())) {
  for (const TQEmmeansSpec& spec : settings.GetEmmeans()) {
    fSpecs.emplace_back();
    fSpecs.back().fSpec = spec;
  }
  // The first request's adjustment governs the model tests of all of them.
  if (!fSpecs.empty()) fPAdjust = fSpecs.front().fSpec.GetPAdjust();
  const GZLOptimizer* optimizer = algorithm.GetOptimizer();
  if (fpLink && optimizer != nullptr && settings.GetLinkType() == TQConst::LinkNegBinomial && Usable(optimizer->GetK()))
    fpLink->SetParam(optimizer->GetK());
}

GZLMarginals::~GZLMarginals() = default;

int GZLMarginals::FactorPosition(int variable) const {
  const auto it = std::find(fFactors.begin(), fFactors.end(), variable);
  return it == fFactors.end() ? -1 : static_cast<int>(it - fFactors.begin());
}

int GZLMarginals::CovariatePosition(int variable) const {
  const auto it = std::find(fCovariates.begin(), fCovariates.end(), variable);
  return it == fCovariates.end() ? -1 : static_cast<int>(it - fCovariates.begin());
}

TQStatus GZLMarginals::ComputeEmmeans() {
  fStatus = TQStatus();
  if (fpSettings->IsMultinomial()) {
    // The means of a multinomial model would be per response category; none are formed.
    for (std::size_t i = 0; i < fSpecs.size(); ++i)
      fSpecs[i].fStatus = SpecStatus(GZLStatusCode::LMatrixEmpty, false, static_cast<int>(i));
    return fStatus = TQStatus::Error(GZLStatusCode::LMatrixEmpty);
  }

  // Observed categories (positive weighted count) of every factor, and the covariate means.
  const TQFactorCounts& counts = fpDesign->GetFactorCounts();
  fObservedCategories.assign(fFactors.size(), {});
  for (std::size_t f = 0; f < fFactors.size(); ++f)
    if (const std::vector<TQFactorCounts::Count>* c = counts.GetCountsPtr(static_cast<int>(f)))
      for (std::size_t k = 0; k < c->size(); ++k)
        if ((*c)[k].first > 0.0) fObservedCategories[f].push_back(static_cast<int>(k));
  fCovariateMeans.clear();
  for (int v : fCovariates) {
    const DataStat stat = fpDesign->GetDataStats().GetCovariateStat(v);
    fCovariateMeans.push_back(stat.fWeightedN > 0.0 ? stat.fMean : TQMV::Missing);
  }

  // The design is complete when every effect has a column for each combination of the
  // observed categories of its factors (and none for another).
  fbCompleteDesign = true;
  const std::vector<GZLEffectInfo>& effects = fpAlgorithm->GetEffectInfo();
  for (std::size_t e = 0; e < effects.size() && e < fModelEffects.size(); ++e) {
    long cells = 1;
    for (int f : fModelEffects[e].GetFactors()) {
      const int pos = FactorPosition(f);
      cells *= pos < 0 ? 0 : static_cast<long>(fObservedCategories[static_cast<std::size_t>(pos)].size());
    }
    if (fModelEffects[e].GetNFactors() > 0 && cells != effects[e].fNValues) fbCompleteDesign = false;
  }

  bool anyUsable = false;
  for (std::size_t i = 0; i < fSpecs.size(); ++i) {
    fCurrentSpec = static_cast<int>(i);
    fSpecs[i].fStatus = ValidateSpec(fSpecs[i]);
    anyUsable = anyUsable || !fSpecs[i].fStatus.IsError();
  }
  if (!anyUsable) return fStatus;

  IncompleteCounts incomplete;
  if (!fbCompleteDesign) {
    const TQStatus status = ComputeIncompleteCounts(incomplete);
    if (status.IsError()) return fStatus = status;
  }
  for (std::size_t i = 0; i < fSpecs.size(); ++i) {
    Spec& s = fSpecs[i];
    if (s.fStatus.IsError()) continue;
    fCurrentSpec = static_cast<int>(i);
    if (fbCompleteDesign) {
      const TQStatus status = SetCompleteLMatrix(s);
      if (status.IsError()) return fStatus = status;
    } else {
      SetIncompleteLMatrix(s, incomplete, static_cast<int>(i));
    }
    SetTables(s);
    // An incomplete design may leave no table with two levels to compare.
    if (!fbCompleteDesign && s.fCompare >= 0 && HasContrast(s.fSpec) &&
        std::none_of(s.fTables.begin(), s.fTables.end(), [](const Table& t) { return t.fLevels.size() >= 2; }))
      s.fStatus = SpecStatus(GZLStatusCode::OneCategCompareFactor, false, static_cast<int>(i));
  }
  return fStatus;
}

TQStatus GZLMarginals::ValidateSpec(Spec& s) const {
  const int index = fCurrentSpec;
  TQEmmeansSpec& spec = s.fSpec;
  const TQStatus invalid = SpecStatus(GZLStatusCode::InvalidEmmeansIndex, false, index);
  const std::vector<int>& factors = spec.GetFactors();
  for (std::size_t i = 0; i < factors.size(); ++i)
    if (FactorPosition(factors[i]) < 0 || std::find(factors.begin(), factors.begin() + i, factors[i]) != factors.begin() + i)
      return invalid;
  s.fCompare = -1;
  if (!spec.GetCompareFactors().empty()) {
    const auto it = std::find(factors.begin(), factors.end(), spec.GetCompareFactors().front());
    if (it == factors.end()) return invalid;
    s.fCompare = static_cast<int>(it - factors.begin());
  }
  for (auto& [variable, value] : spec.GetCovariates()) {
    const int pos = CovariatePosition(variable);
    if (pos < 0 || (!TQMV::IsMissing(value) && !std::isfinite(value))) return invalid;
    // A covariate without a value is held at its mean.
    if (TQMV::IsMissing(value)) value = fCovariateMeans[static_cast<std::size_t>(pos)];
  }

  TQStatus status;
  if (s.fCompare < 0 || !HasContrast(spec)) return status;
  const std::vector<int>& levels =
      fObservedCategories[static_cast<std::size_t>(FactorPosition(factors[static_cast<std::size_t>(s.fCompare)]))];
  const int k = static_cast<int>(levels.size());
  if (k == 1) return SpecStatus(GZLStatusCode::OneCategCompareFactor, true, index);
  const int r = spec.GetRefCateg();
  if (spec.GetContrastType() == TQConst::ContrastSimple && r >= 0 &&
      std::find(levels.begin(), levels.end(), r) == levels.end())
    status = SpecStatus(GZLStatusCode::InvalidContrastCateg, true, index);
  if (spec.GetContrastType() == TQConst::ContrastPolynomial) {
    std::vector<double> metric = spec.GetMetricValueList();
    if (metric.empty())
      for (int i = 1; i <= k; ++i) metric.push_back(i);
    if (static_cast<int>(metric.size()) < k) return SpecStatus(GZLStatusCode::PolynShortMetric, false, index);
    if (static_cast<int>(metric.size()) > k) {
      // Only the first K values are used.
      status = SpecStatus(GZLStatusCode::PolynLongMetric, true, index);
      metric.resize(static_cast<std::size_t>(k));
    }
    TQRectMatrix check;
    if (k >= 2 && !TQContrasts::ComputePolynomialContrast(metric, check))
      return SpecStatus(GZLStatusCode::PolynShortMetric, false, index);
    spec.SetMetricValueList(std::move(metric));
  }
  return status;
}

std::vector<double> GZLMarginals::ComputeCovarExpressions(const Spec& s) const {
  std::vector<double> expressions(fModelEffects.size(), 1.0);
  for (std::size_t e = 0; e < fModelEffects.size(); ++e) {
    const std::vector<int> covariates = fModelEffects[e].GetCovariates();
    const std::vector<int> powers = fModelEffects[e].GetCovMultiplicities();
    double product = 1.0;
    for (std::size_t c = 0; c < covariates.size(); ++c) {
      double value = TQMV::Missing;
      const int pos = CovariatePosition(covariates[c]);
      if (pos >= 0) value = fCovariateMeans[static_cast<std::size_t>(pos)];
      for (const auto& [variable, fixed] : s.fSpec.GetCovariates())
        if (variable == covariates[c]) value = fixed;
      if (TQMV::IsMissing(value) || TQMV::IsMissing(product)) {
        product = TQMV::Missing;
        continue;
      }
      product *= std::pow(value, c < powers.size() ? powers[c] : 1);
      if (!std::isfinite(product)) product = TQMV::Missing;
    }
    expressions[e] = product;
  }
  return expressions;
}

TQStatus GZLMarginals::SetCompleteLMatrix(Spec& s) {
  const std::vector<int>& factors = s.fSpec.GetFactors();
  std::vector<std::vector<int>> lists;
  std::vector<int> position(fFactors.size(), -1);  // settings factor -> position in the request
  for (std::size_t i = 0; i < factors.size(); ++i) {
    const int pos = FactorPosition(factors[i]);
    lists.push_back(fObservedCategories[static_cast<std::size_t>(pos)]);
    position[static_cast<std::size_t>(pos)] = static_cast<int>(i);
  }
  const std::vector<double> expressions = ComputeCovarExpressions(s);
  const std::vector<GZLEffectInfo>& effects = fpAlgorithm->GetEffectInfo();
  const std::vector<TQRegrParameter>& parameters = fpAlgorithm->GetRegrParameters();
  const int p = static_cast<int>(parameters.size());

  // n_e: the number of combinations of the observed categories of the effect's factors outside
  // the request, over which the mean averages with equal weights.
  std::vector<double> weights(effects.size(), 0.0);
  std::vector<bool> covered(static_cast<std::size_t>(p), false);
  for (std::size_t e = 0; e < effects.size() && e < fModelEffects.size(); ++e) {
    double n = 1.0;
    for (int f : fModelEffects[e].GetFactors()) {
      const int pos = FactorPosition(f);
      if (position[static_cast<std::size_t>(pos)] < 0) n *= fObservedCategories[static_cast<std::size_t>(pos)].size();
    }
    weights[e] = TQMV::IsMissing(expressions[e]) ? TQMV::Missing : expressions[e] / n;
    for (int j = effects[e].fStart; j < effects[e].fStart + effects[e].fNValues && j < p; ++j) covered[j] = true;
  }

  TQCombinations combinations;
  combinations.Set(lists);
  std::vector<int> combination;
  std::vector<double> row(static_cast<std::size_t>(p));
  s.fL = TQRectMatrix(0, p);
  s.fRowLevels.clear();
  while (combinations.Next(combination)) {
    if (fpCancel->IsCancelled()) return TQStatus::Error(1);
    std::fill(row.begin(), row.end(), 0.0);
    for (int j = 0; j < p; ++j)
      if (!covered[j] && fpSettings->GetInterceptUse()) row[j] = 1.0;
    for (std::size_t e = 0; e < effects.size() && e < fModelEffects.size(); ++e) {
      for (int j = effects[e].fStart; j < effects[e].fStart + effects[e].fNValues && j < p; ++j) {
        const TQRegrParameter& parameter = parameters[static_cast<std::size_t>(j)];
        bool match = true;
        for (int f = 0; f < parameter.GetNFactors() && match; ++f) {
          const int pos = FactorPosition(parameter.GetFactors()[f]);
          const int at = pos < 0 ? -1 : position[static_cast<std::size_t>(pos)];
          if (at >= 0) match = parameter.GetCategories()[f] == combination[static_cast<std::size_t>(at)];
        }
        if (match) row[j] = weights[e];
      }
    }
    s.fL.AppendRow(row);
    s.fRowLevels.push_back(combination);
  }
  return TQStatus();
}

TQStatus GZLMarginals::ComputeIncompleteCounts(IncompleteCounts& counts) {
  GZLDesignMatrix& design = *fpDesign;
  const int p = static_cast<int>(fpAlgorithm->GetRegrParameters().size());
  counts.fCells.assign(fSpecs.size(), {});
  const TQStatus begin = design.BeginPass();
  if (begin.IsError()) return begin;

  // Per effect a key buffer for the column lookup; per request its factors' fields.
  std::vector<std::vector<int>> keys;
  for (int e = 0; e < design.GetNumEffects(); ++e)
    keys.emplace_back(static_cast<std::size_t>(design.GetEffect(e).GetNFactors()), 0);
  std::vector<int> columns(static_cast<std::size_t>(design.GetNumEffects()), -1);
  std::vector<int> key;
  while (const GZLDesignRow* row = design.GetNextRow()) {
    if (fpCancel->IsCancelled()) return TQStatus::Error(1);
    const Record* record = design.GetCurrentRecord();
    if (row->fbInvalid || record == nullptr) continue;
    bool found = true;
    for (int e = 0; e < design.GetNumEffects() && found; ++e) {
      columns[static_cast<std::size_t>(e)] = design.GetEffect(e).FindColumn(*record, keys[static_cast<std::size_t>(e)]);
      found = columns[static_cast<std::size_t>(e)] >= 0 && columns[static_cast<std::size_t>(e)] < p;
    }
    if (!found) continue;
    for (std::size_t i = 0; i < fSpecs.size(); ++i) {
      if (fSpecs[i].fStatus.IsError()) continue;
      const std::vector<int>& factors = fSpecs[i].fSpec.GetFactors();
      key.resize(factors.size());
      for (std::size_t f = 0; f < factors.size(); ++f) {
        const double v = GZLRecordAccess::Read(*record, factors[f]);
        key[f] = v >= 0.0 ? static_cast<int>(v + 0.5) : -1;
      }
      auto it = counts.fCells[i].find(key);
      if (it == counts.fCells[i].end()) {
        it = counts.fCells[i].emplace(key, IncompleteCounts::Cell()).first;
        it->second.fColumns.assign(static_cast<std::size_t>(p), 0.0);
      }
      it->second.fTotal += row->fFreqWeight;
      for (int c : columns) it->second.fColumns[static_cast<std::size_t>(c)] += row->fFreqWeight;
    }
  }
  return TQStatus();
}

void GZLMarginals::SetIncompleteLMatrix(Spec& s, const IncompleteCounts& counts, int index) {
  const std::vector<double> expressions = ComputeCovarExpressions(s);
  const std::vector<GZLEffectInfo>& effects = fpAlgorithm->GetEffectInfo();
  const int p = static_cast<int>(fpAlgorithm->GetRegrParameters().size());
  std::vector<double> factor(static_cast<std::size_t>(p), fpSettings->GetInterceptUse() ? 1.0 : 0.0);
  std::vector<bool> covered(static_cast<std::size_t>(p), false);
  for (std::size_t e = 0; e < effects.size() && e < expressions.size(); ++e)
    for (int j = effects[e].fStart; j < effects[e].fStart + effects[e].fNValues && j < p; ++j) {
      covered[j] = true;
      factor[j] = expressions[e];
    }
  // Each combination with records is a row: the average design row of its records, with the
  // covariates at the request's values.
  s.fL = TQRectMatrix(0, p);
  s.fRowLevels.clear();
  std::vector<double> row(static_cast<std::size_t>(p));
  for (const auto& [levels, cell] : counts.fCells[static_cast<std::size_t>(index)]) {
    if (!(cell.fTotal > 0.0)) continue;
    for (int j = 0; j < p; ++j) {
      const double c = cell.fColumns[static_cast<std::size_t>(j)];
      if (!covered[j])
        row[j] = factor[j];
      else if (c > 0.0)
        row[j] = TQMV::IsMissing(factor[j]) ? TQMV::Missing : factor[j] * c / cell.fTotal;
      else
        row[j] = 0.0;
    }
    s.fL.AppendRow(row);
    s.fRowLevels.push_back(levels);
  }
}

void GZLMarginals::SetTables(Spec& s) const {
  s.fTables.clear();
  s.fTableWarnings.clear();
  if (s.fCompare < 0 || !HasContrast(s.fSpec)) return;
  const std::vector<int>& factors = s.fSpec.GetFactors();
  const int compareVariable = factors[static_cast<std::size_t>(s.fCompare)];
  const std::vector<int>& observed = fObservedCategories[static_cast<std::size_t>(FactorPosition(compareVariable))];
  if (observed.size() < 2) return;
  const std::size_t at = static_cast<std::size_t>(s.fCompare);
  for (std::size_t r = 0; r < s.fRowLevels.size(); ++r) {
    std::vector<int> others = s.fRowLevels[r];
    others[at] = -1;
    auto it = std::find_if(s.fTables.begin(), s.fTables.end(), [&](const Table& t) { return t.fOtherLevels == others; });
    if (it == s.fTables.end()) {
      Table t;
      t.fOtherLevels = others;
      for (std::size_t f = 0; f < factors.size(); ++f)
        if (f != at) t.fOthers.emplace_back(factors[f], others[f]);
      s.fTables.push_back(std::move(t));
      it = s.fTables.end() - 1;
    }
    it->fRows.push_back(static_cast<int>(r));
  }
  const int type = s.fSpec.GetContrastType();
  const int reference = s.fSpec.GetRefCateg();
  const bool referenceObserved = std::find(observed.begin(), observed.end(), reference) != observed.end();
  for (Table& t : s.fTables) {
    std::sort(t.fRows.begin(), t.fRows.end(),
              [&](int a, int b) { return s.fRowLevels[static_cast<std::size_t>(a)][at] < s.fRowLevels[static_cast<std::size_t>(b)][at]; });
    for (int r : t.fRows) t.fLevels.push_back(s.fRowLevels[static_cast<std::size_t>(r)][at]);
    // Tables of an incomplete design may lack levels of the compare factor.
    std::vector<TQStatus> found;
    if (t.fLevels.size() < observed.size()) found.push_back(TQStatus::Warning(GZLStatusCode::IncompleteCompareFactor));
    if (t.fLevels.size() < 2)
      t.fStatus = TQStatus(GZLStatusCode::OneCategCompareCombination, type == TQConst::ContrastPairwise);
    else if (type == TQConst::ContrastSimple && referenceObserved &&
             std::find(t.fLevels.begin(), t.fLevels.end(), reference) == t.fLevels.end())
      found.push_back(TQStatus::Warning(GZLStatusCode::HiRefCatDifferent));  // the table's last level instead
    if (!t.fStatus.IsOK()) found.push_back(t.fStatus);
    for (const TQStatus& w : found)
      if (std::find(s.fTableWarnings.begin(), s.fTableWarnings.end(), w) == s.fTableWarnings.end())
        s.fTableWarnings.push_back(w);
  }
}

TQStatus GZLMarginals::SetEmmeansTesting(const TQSymMatrix* covariance, const GZLOutputStats& outputStats) {
  if (covariance == nullptr) return TQStatus::Error(GZLStatusCode::InternalError);
  const GZLOptimizer* optimizer = fpAlgorithm->GetOptimizer();
  if (optimizer == nullptr) return TQStatus::Error(GZLStatusCode::InternalError);
  fDF = outputStats.GetNDegFreedom();
  fZ = ComputePercentile(-1.0);
  fpModelTests = std::make_unique<TQModelTests>(optimizer->GetParamEstimates(), optimizer->GetInitRedunInfo(),
                                                *covariance, fDF);
  fpModelTests->SetTestType(fTestType);
  fpModelTests->SetPAdjustment(fPAdjust);
  fpModelTests->SetLinkFunction(fpLink.get());
  fpModelTests->SetConfidenceLevel(fConfidenceLevel);
  return TQStatus();
}

TQStatus GZLMarginals::GetSpecStatus(int spec) const {
  if (spec < 0 || spec >= GetNEmmeansSpecs()) return TQStatus::Error(GZLStatusCode::InvalidEmmeansIndex);
  return fSpecs[static_cast<std::size_t>(spec)].fStatus;
}

const std::vector<TQStatus>& GZLMarginals::GetTableWarnings(int spec) const {
  static const std::vector<TQStatus> kNone;
  if (spec < 0 || spec >= GetNEmmeansSpecs()) return kNone;
  return fSpecs[static_cast<std::size_t>(spec)].fTableWarnings;
}

void GZLMarginals::AddWarnings(std::vector<TQStatus>& warnings) const {
  GZLAlgorithm::AddWarning(warnings, fStatus);
  for (const Spec& s : fSpecs) {
    GZLAlgorithm::AddWarning(warnings, s.fStatus);
    for (const TQStatus& w : s.fTableWarnings) GZLAlgorithm::AddWarning(warnings, w);
  }
}

double GZLMarginals::ComputePercentile(double p) const {
  if (p < 0.0) p = 0.5 * fConfidenceLevel + 0.5;
  switch (fTestType) {
    case TQConst::TestType2:
    case TQConst::TestType3:
      return TQDistFun::IdfStdNorm(p);
    case TQConst::TestType0:
    case TQConst::TestType1:
      return TQDistFun::IdfT(p, fDF);
  }
  return TQMV::Missing;
}

double GZLMarginals::ComputeAdjPercentile(TQConst::TQPAdjustMethod method, int k) const {
  const double c = fConfidenceLevel;
  double p = TQMV::Missing;
  if (method == TQConst::PAdjNone)
    p = 0.5 * c + 0.5;
  else if (method == TQConst::PAdjBonferroni && k > 0)
    p = 1.0 - (1.0 - c) / (2.0 * k);
  else if (method == TQConst::PAdjSidak && k > 0)
    p = 0.5 * std::pow(c, 1.0 / k) + 0.5;
  if (TQMV::IsMissing(p)) return TQMV::Missing;
  // Test type 3 takes the t quantile here, unlike ComputePercentile.
  return fTestType == TQConst::TestType2 ? TQDistFun::IdfStdNorm(p) : TQDistFun::IdfT(p, fDF);
}

TQStatus GZLMarginals::GetEmmeansStats(int spec, const TQEmmeansSpec*& specOut, const TQRectMatrix*& L,
                                       std::vector<TQEmmeansStats>& stats) const {
  stats.clear();
  if (spec < 0 || spec >= GetNEmmeansSpecs()) return TQStatus::Error(GZLStatusCode::InvalidEmmeansIndex);
  const Spec& s = fSpecs[static_cast<std::size_t>(spec)];
  if (s.fStatus.IsError()) return s.fStatus;
  if (!fpModelTests) return TQStatus::Error(GZLStatusCode::InternalError);
  specOut = &s.fSpec;
  L = &s.fL;
  const bool response = s.fSpec.GetEmmScaleType() == TQConst::EmmScaleOriginal;
  for (int r = 0; r < s.fL.GetNumRows(); ++r) {
    TQEmmeansStats m;
    m.fLevels = s.fRowLevels[static_cast<std::size_t>(r)];
    double eta = TQMV::Missing, v = TQMV::Missing;
    fpModelTests->ComputeLinearCombination(std::span<const double>(s.fL.Row(r), static_cast<std::size_t>(s.fL.GetNumCols())),
                                           eta, v);
    const double se = TQMV::IsMissing(v) ? TQMV::Missing : std::sqrt(v);
    const bool limits = Usable(eta) && Usable(se) && Usable(fZ);
    if (!response) {
      m.fEstimate = Usable(eta) ? eta : TQMV::Missing;
      m.fStdError = se;
      if (limits) {
        m.fLower = eta - fZ * se;
        m.fUpper = eta + fZ * se;
      }
    } else if (Usable(eta) && fpLink) {
      // The mean of the response with the delta method's standard error; the interval is that
      // of the linear predictor carried through the inverse link.
      int st = 0;
      const double mu = fpLink->GetMu(eta, &st);
      if (st == 0 && Usable(mu)) {
        m.fEstimate = mu;
        const double d = fpLink->GetFirstDeriv(mu, &st);
        if (st == 0 && Usable(d) && d != 0.0 && Usable(v)) m.fStdError = std::sqrt(std::max(0.0, v / (d * d)));
      }
      if (limits) {
        int s1 = 0, s2 = 0;
        const double a = fpLink->GetMu(eta - fZ * se, &s1);
        const double b = fpLink->GetMu(eta + fZ * se, &s2);
        if (s1 == 0 && s2 == 0 && Usable(a) && Usable(b)) {
          m.fLower = std::min(a, b);
          m.fUpper = std::max(a, b);
        }
      }
    }
    stats.push_back(std::move(m));
  }
  return s.fStatus;
}

int GZLMarginals::GetNEmmeansTests(int spec, TQStatus& status) const {
  status = GetSpecStatus(spec);
  if (status.IsError()) return 0;
  return static_cast<int>(fSpecs[static_cast<std::size_t>(spec)].fTables.size());
}

TQStatus GZLMarginals::FindTable(int spec, int test, const Spec*& s, const Table*& t) const {
  if (spec < 0 || spec >= GetNEmmeansSpecs()) return TQStatus::Error(GZLStatusCode::InvalidEmmeansIndex);
  s = &fSpecs[static_cast<std::size_t>(spec)];
  if (s->fStatus.IsError()) return s->fStatus;
  if (s->fTables.empty()) return TQStatus::Error(GZLStatusCode::InternalError);
  if (test < 0 || test >= static_cast<int>(s->fTables.size()))
    return TQStatus::Error(GZLStatusCode::InvalidEmmeansTestIndex);
  if (!fpModelTests) return TQStatus::Error(GZLStatusCode::InternalError);
  t = &s->fTables[static_cast<std::size_t>(test)];
  return TQStatus();
}

TQRectMatrix GZLMarginals::TableRows(const Spec& s, const Table& t) const {
  TQRectMatrix rows(static_cast<int>(t.fRows.size()), s.fL.GetNumCols());
  for (std::size_t i = 0; i < t.fRows.size(); ++i)
    std::copy(s.fL.Row(t.fRows[i]), s.fL.Row(t.fRows[i]) + s.fL.GetNumCols(), rows.Row(static_cast<int>(i)));
  return rows;
}

TQStatus GZLMarginals::RunTests(const Spec& s, const TQRectMatrix& C, const TQRectMatrix& L, int nComparisons,
                                double quantile, TQTestStats* overall, std::vector<TQTestStats>* individual) const {
  if (s.fSpec.GetEmmScaleType() == TQConst::EmmScaleOriginal)
    return fpModelTests->ComputeOriginalOvAndIndTests(C, L, nComparisons, quantile, overall, individual);
  return fpModelTests->ComputeOvAndIndTests(C, L, nComparisons, quantile, overall, individual);
}

TQStatus GZLMarginals::BuildContrast(const Spec& s, const Table& t, TQRectMatrix& contrast) const {
  const int k = static_cast<int>(t.fLevels.size());
  contrast = TQRectMatrix();
  bool built = true;
  switch (s.fSpec.GetContrastType()) {
    case TQConst::ContrastSimple: {
      // The reference among the table's levels, searched from the last; the last level when it
      // is negative or absent.
      int r = k - 1;
      for (int i = k - 1; i >= 0 && s.fSpec.GetRefCateg() >= 0; --i)
        if (t.fLevels[static_cast<std::size_t>(i)] == s.fSpec.GetRefCateg()) {
          r = i;
          break;
        }
      built = TQContrasts::ComputeSimpleContrast(k, r, contrast);
      break;
    }
    case TQConst::ContrastDeviation:
    case TQConst::ContrastHelmert:
    case TQConst::ContrastDifference:
    case TQConst::ContrastRepeated: {
      using Builder = bool (*)(int, TQRectMatrix&);
      static constexpr Builder kBuilders[] = {TQContrasts::ComputeDeviationContrast, TQContrasts::ComputeHelmertContrast,
                                              TQContrasts::ComputeDifferenceContrast,
                                              TQContrasts::ComputeRepeatedContrast};
      built = kBuilders[s.fSpec.GetContrastType() - TQConst::ContrastDeviation](k, contrast);
      break;
    }
    case TQConst::ContrastPolynomial: {
      // The metric values of the table's levels (one value per observed level, in order).
      const int variable = s.fSpec.GetFactors()[static_cast<std::size_t>(s.fCompare)];
      const std::vector<int>& observed = fObservedCategories[static_cast<std::size_t>(FactorPosition(variable))];
      const std::vector<double>& all = s.fSpec.GetMetricValueList();
      std::vector<double> metric;
      for (int level : t.fLevels) {
        const std::size_t at = static_cast<std::size_t>(std::find(observed.begin(), observed.end(), level) - observed.begin());
        if (at < all.size()) metric.push_back(all[at]);
      }
      built = static_cast<int>(metric.size()) == k && TQContrasts::ComputePolynomialContrast(metric, contrast);
      break;
    }
    default:
      break;
  }
  return built ? TQStatus() : TQStatus::Error(GZLStatusCode::InternalError);
}

TQStatus GZLMarginals::GetEmmeansTests(int spec, int test, std::vector<std::pair<int, int>>& others,
                                       std::vector<int>& levels, TQRectMatrix& contrast,
                                       std::vector<TQTestStats>& individual, TQTestStats& overall) const {
  individual.clear();
  overall = TQTestStats();
  contrast = TQRectMatrix();
  const Spec* s = nullptr;
  const Table* t = nullptr;
  TQStatus status = FindTable(spec, test, s, t);
  if (!status.IsOK()) return status;
  others = t->fOthers;
  levels = t->fLevels;
  if (t->fStatus.IsError() || t->fLevels.size() < 2) return t->fStatus;
  status = BuildContrast(*s, *t, contrast);
  if (status.IsError()) return status;
  const TQRectMatrix rows = TableRows(*s, *t);
  TQRectMatrix simple;
  TQContrasts::ComputeSimpleContrast(static_cast<int>(t->fLevels.size()), 0, simple);
  // The overall test does not depend on the full-rank contrast basis: the contrast's own rows
  // when there is a contrast, the simple contrast against the first level otherwise.
  if (contrast.GetNumRows() > 0) {
    status = RunTests(*s, contrast, rows, 1, fZ, &overall, &individual);
  } else {
    status = RunTests(*s, simple, rows, 1, fZ, &overall, nullptr);
  }
  Keep(status, t->fStatus);
  Keep(status, s->fStatus);
  return status;
}

int GZLMarginals::GetNPairwiseEmmeansTests(int spec, int test) const {
  const Spec* s = nullptr;
  const Table* t = nullptr;
  if (!FindTable(spec, test, s, t).IsOK()) return 0;
  const int k = static_cast<int>(t->fLevels.size());
  return k * (k - 1);
}

TQStatus GZLMarginals::GetPairwiseEmmeansTests(int spec, int test, std::vector<std::pair<int, int>>& others,
                                               std::vector<int>& levels,
                                               std::vector<GZLPairwiseRecord>& records) const {
  records.clear();
  const Spec* s = nullptr;
  const Table* t = nullptr;
  TQStatus status = FindTable(spec, test, s, t);
  if (!status.IsOK()) return status;
  others = t->fOthers;
  levels = t->fLevels;
  const int k = static_cast<int>(t->fLevels.size());
  if (k < 2) return TQStatus::Warning(kTooFewPairwiseRecords);
  TQRectMatrix pairs;
  TQContrasts::ComputePairwiseContrast(k, pairs);
  const int m = k * (k - 1) / 2;
  const TQConst::TQPAdjustMethod method = s->fSpec.GetPAdjust();
  std::vector<TQTestStats> tests;
  status = RunTests(*s, pairs, TableRows(*s, *t), m, ComputeAdjPercentile(method, m), nullptr, &tests);
  for (int a = 0; a < k; ++a)
    for (int b = 0; b < k; ++b) {
      if (a == b) continue;
      const TQTestStats& x = tests[static_cast<std::size_t>(TQContrasts::PairwiseRow(k, a, b))];
      GZLPairwiseRecord r;
      r.fLevels = {t->fLevels[static_cast<std::size_t>(a)], t->fLevels[static_cast<std::size_t>(b)]};
      r.fEstimate = x.GetContrastEstimate();
      r.fStdError = x.GetStandardError();
      r.fLower = x.GetLowerConfidenceInterval();
      r.fUpper = x.GetUpperConfidenceInterval();
      r.fRawSig = x.GetSig();
      r.fSig = IsSequential(method) ? x.GetSig() : x.GetAdjSig();
      r.fDF = x.GetDF2();
      r.fWald = x.GetWald();
      records.push_back(std::move(r));
    }
  ProcessSequentialAdjustment(records, k, method);
  Keep(status, t->fStatus);
  Keep(status, s->fStatus);
  return status;
}

TQStatus GZLMarginals::GetPairwiseOverallTest(int spec, int test, std::vector<std::pair<int, int>>& others,
                                              TQTestStats& overall) const {
  overall = TQTestStats();
  const Spec* s = nullptr;
  const Table* t = nullptr;
  TQStatus status = FindTable(spec, test, s, t);
  if (!status.IsOK()) return status;
  others = t->fOthers;
  const int k = static_cast<int>(t->fLevels.size());
  if (k < 2) return t->fStatus;
  TQRectMatrix simple;
  TQContrasts::ComputeSimpleContrast(k, 0, simple);
  status = RunTests(*s, simple, TableRows(*s, *t), 1, fZ, &overall, nullptr);
  Keep(status, s->fStatus);
  return status;
}

void GZLMarginals::ProcessSequentialAdjustment(std::vector<GZLPairwiseRecord>& records, int k,
                                               TQConst::TQPAdjustMethod method) const {
  if (!IsSequential(method) || k - 1 <= 0) return;
  const int km1 = k - 1;
  const int n = static_cast<int>(records.size());
  // The records of the pairs a < b with a significance, in increasing order of it; ties keep
  // the order of the table.
  std::vector<int> order;
  for (int i = 0; i < n; ++i)
    if (i / km1 <= i % km1 && !TQMV::IsMissing(records[static_cast<std::size_t>(i)].fSig)) order.push_back(i);
  std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
    return records[static_cast<std::size_t>(a)].fSig < records[static_cast<std::size_t>(b)].fSig;
  });
  const double c = fConfidenceLevel;
  const double alpha = 1.0 - c;
  const int m = n / 2;
  const bool bonferroni = method == TQConst::PAdjSeqBonferroni;
  double previous = TQMV::Missing;
  for (std::size_t j = 0; j < order.size(); ++j) {
    GZLPairwiseRecord& r = records[static_cast<std::size_t>(order[j])];
    const double mj = m - static_cast<double>(j);
    const double pj = r.fSig;
    double q, P;
    if (bonferroni) {
      q = mj * pj;
      P = 1.0 - alpha / (2.0 * mj);
    } else {
      q = -std::expm1(mj * std::log1p(-pj));
      P = 0.5 * std::pow(c, 1.0 / mj) + 0.5;
    }
    q = std::clamp(q, 0.0, 1.0);
    // Step-down: never below the previous adjusted significance; the limits follow the value
    // carried.
    if (j > 0 && previous >= q) {
      q = previous;
      if (!bonferroni) {
        if (pj > 0.0 && pj < 1.0 && previous < 1.0) {
          const double e = std::log1p(-pj) / std::log1p(-previous);
          if (fTestType == TQConst::TestType2)
            P = 1.0 - 0.5 * e * alpha;
          else if (fTestType == TQConst::TestType0)
            P = 0.5 * std::pow(c, e) + 0.5;
        }
      } else if (pj > 0.0) {
        P = 1.0 - alpha / (2.0 * previous / pj);
      }
    }
    r.fSig = q;
    const double quantile = ComputePercentile(P);
    if (Usable(r.fStdError) && Usable(quantile)) {
      r.fLower = r.fEstimate - r.fStdError * quantile;
      r.fUpper = r.fEstimate + r.fStdError * quantile;
    }
    previous = q;
  }
  // The mirror records (b, a) take the adjusted significance and the negated limits.
  for (int i : order) {
    const GZLPairwiseRecord& r = records[static_cast<std::size_t>(i)];
    const int a = i / km1;
    const int b = i % km1 + 1;
    GZLPairwiseRecord& mirror = records[static_cast<std::size_t>(TQContrasts::PairwiseRow(k, b, a))];
    mirror.fSig = r.fSig;
    mirror.fLower = Negated(r.fUpper);
    mirror.fUpper = Negated(r.fLower);
  }
}

const std::vector<std::vector<int>>* GZLMarginals::PWCombinationsOfFit(std::unique_ptr<GZLMarginals>& marginals,
                                                                       bool canMake, const GZLSettings& settings,
                                                                       const IGZLAlgorithm& algorithm,
                                                                       GZLDesignMatrix& design, GZLCancelInfo& cancel,
                                                                       int spec,
                                                                       std::vector<std::vector<int>>& combinations) {
  if (!marginals) {
    if (!canMake) return nullptr;
    marginals = std::make_unique<GZLMarginals>(settings, algorithm, design, cancel);
    marginals->ComputeEmmeans();
  }
  return marginals->GetPWCombinations(spec, combinations) ? &combinations : nullptr;
}

bool GZLMarginals::GetPWCombinations(int spec, std::vector<std::vector<int>>& combinations) const {
  combinations.clear();
  if (GetSpecStatus(spec).IsError()) return false;
  for (const Table& t : fSpecs[static_cast<std::size_t>(spec)].fTables) combinations.push_back(t.fOtherLevels);
  return true;
}

void GZLMarginals::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLMarginals display start");
  DisplayI("Number of emmeans specifications", GetNEmmeansSpecs());
  DisplayText(1, "Emmeans specifications");
  for (const Spec& s : fSpecs) s.fSpec.Display();
  DisplayB("True if model design is complete", fbCompleteDesign);
  DisplayI("Current emmeans specification index", fCurrentSpec);
  DisplayIV("Factors", fFactors);
  DisplayIV("Covariates", fCovariates);
  DisplayDV("Covariate means", fCovariateMeans, false);
  DisplayDF("Tolerance", fTolerance);
  DisplayI("Test type", fTestType);
  DisplayI("P-value adjustment method", fPAdjust);
  DisplayDF("Confidence level", fConfidenceLevel);
  DisplayDF("Degrees of freedom", fDF);
  DisplayDF("Critical value", fZ);
  GZLComponentDisplay_940::DisplayStatus("Status", fStatus);
  for (std::size_t i = 0; i < fSpecs.size(); ++i) {
    const Spec& s = fSpecs[i];
    DisplayI("Emmeans request", static_cast<int>(i));
    GZLComponentDisplay_940::DisplayStatus("Request status", s.fStatus);
    DisplayI("Number of tables", static_cast<int>(s.fTables.size()));
    s.fL.Display("L matrix");
  }
  if (fpModelTests) fpModelTests->Display();
  DisplayText(1, "GZLMarginals display end");
}
