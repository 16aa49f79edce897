#include "GZLFactorCounts.h"

#include <string>

#include "data/GZLRecordAccess.h"
#include "support/TQDisplay_940.h"

GZLFactorCounts::GZLFactorCounts(const std::vector<int>& factors, const std::vector<int>& factorSizes, int weightVar,
                                 int responseVar, int nResponseCategs, int offsetVar, double offsetValue,
                                 TQConst::TQOffsetType offsetType)
    : fFactors(factors),
      fFactorSizes(factorSizes),
      fNFactors(static_cast<int>(factors.size())),
      fWeightVar(weightVar),
      fResponseVar(responseVar),
      fNResponseCategs(nResponseCategs),
      fOffsetVar(offsetVar),
      fOffsetValue(offsetValue),
      fOffsetType(offsetType) {
  fFactorSizes.resize(factors.size(), 0);
  fCounts.resize(factors.size());
  for (std::size_t i = 0; i < factors.size(); ++i)
    fCounts[i].assign(static_cast<std::size_t>(fFactorSizes[i] > 0 ? fFactorSizes[i] : 0), Count(0.0, 0.0));
  fbHasResponseCounts = responseVar >= 0 && nResponseCategs >= 1;
  if (fbHasResponseCounts) {
    fResponseCounts.assign(static_cast<std::size_t>(nResponseCategs), Count(0.0, 0.0));
    fOffsetCounts.assign(static_cast<std::size_t>(nResponseCategs), Count(0.0, 0.0));
  }
}

bool GZLFactorCounts::Update(const Record& record) noexcept {
  using GZLRecordAccess::Read;
  using GZLRecordAccess::RoundCategory;
  const double w = fWeightVar >= 0 ? Read(record, fWeightVar) : 1.0;
  double offset = 0.0;
  if (fOffsetType == TQConst::OffsetValue)
    offset = fOffsetValue;
  else if (fOffsetType == TQConst::OffsetVariable)
    offset = Read(record, fOffsetVar);
  bool ok = true;
  for (int f = 0; f < fNFactors; ++f) {
    const int c = RoundCategory(Read(record, fFactors[static_cast<std::size_t>(f)]),
                                fFactorSizes[static_cast<std::size_t>(f)]);
    if (c < 0) {
      ok = false;
      continue;
    }
    Count& count = fCounts[static_cast<std::size_t>(f)][static_cast<std::size_t>(c)];
    count.first += w;
    count.second += 1.0;
  }
  if (!ok) return false;
  if (fbHasResponseCounts) {
    const int c = RoundCategory(Read(record, fResponseVar), fNResponseCategs);
    if (c < 0) return false;
    Count& count = fResponseCounts[static_cast<std::size_t>(c)];
    count.first += w;
    count.second += 1.0;
    Count& off = fOffsetCounts[static_cast<std::size_t>(c)];
    off.first += offset * w;
    off.second += w;
  }
  return true;
}

int GZLFactorCounts::GetNCategories(int factor) const noexcept {
  if (factor < 0 || factor >= fNFactors) return -1;
  return fFactorSizes[static_cast<std::size_t>(factor)];
}

int GZLFactorCounts::GetNActiveCategories(int factor) const noexcept {
  if (factor < 0 || factor >= fNFactors) return -1;
  int n = 0;
  for (const Count& c : fCounts[static_cast<std::size_t>(factor)])
    if (c.first > 0.0) ++n;
  return n;
}

const std::vector<GZLFactorCounts::Count>* GZLFactorCounts::GetCountsPtr(int factor) const noexcept {
  if (factor < 0 || factor >= fNFactors) return nullptr;
  return &fCounts[static_cast<std::size_t>(factor)];
}

const std::vector<GZLFactorCounts::Count>* GZLFactorCounts::GetDependCountsPtr() const noexcept {
  return fbHasResponseCounts ? &fResponseCounts : nullptr;
}

const std::vector<GZLFactorCounts::Count>* GZLFactorCounts::GetOffsetCountsForDepCatPtr() const noexcept {
  return fbHasResponseCounts ? &fOffsetCounts : nullptr;
}

namespace {
void SplitCounts(const std::vector<GZLFactorCounts::Count>& counts, std::vector<double>& weighted,
                 std::vector<double>& unweighted) {
  weighted.clear();
  unweighted.clear();
  for (const auto& c : counts) {
    weighted.push_back(c.first);
    unweighted.push_back(c.second);
  }
}
}  // namespace

void GZLFactorCounts::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLFactorCounts display start");
  DisplayI("The number of factors", fNFactors);
  DisplayI("Index of the weight variable", fWeightVar);
  DisplayIV("Vector of factor indices", fFactors);
  DisplayIV("Vector of factor numbers of categories", fFactorSizes);
  std::vector<double> weighted, unweighted;
  for (int f = 0; f < fNFactors; ++f) {
    DisplayI("Factor number (starting from 0)", f);
    SplitCounts(fCounts[static_cast<std::size_t>(f)], weighted, unweighted);
    DisplayDV("Vector of weighted case counts for categories of this factor", weighted);
    DisplayDV("Vector of unweighted case counts for categories of this factor", unweighted);
  }
  DisplayI("Index of the dependent categorical variable", fResponseVar);
  DisplayI("Number of categories for dependent variable", fNResponseCategs);
  if (fbHasResponseCounts) {
    SplitCounts(fResponseCounts, weighted, unweighted);
    DisplayDV("Vector of weighted case counts for categories of the dependent variable", weighted);
    DisplayDV("Vector of unweighted case counts for categories of the dependent variable", unweighted);
  } else {
    DisplayText(1, "Vector of case counts for categories of the dependent variable undefined");
  }
  DisplayText(1, "GZLFactorCounts display end");
}
