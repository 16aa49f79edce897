#pragma once
// The models of the benchmarks: a Poisson log model with an intercept, 10 covariates and two
// factors of 10 and 5 levels (1 + 10 + 10 + 5 = 26 design columns), its generated records
// (1,000,000 of them by default) served from memory, and the generator of its records for
// benchmarks that lay records out their own way; on the same design and predictors a binary
// logit model, an ordinal model of 5 categories (cumulative logit) and a nominal model of 4
// categories, whose records carry the three responses. Records are generated once, on first
// use, outside any timing.
#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "GZLModelEffect.h"
#include "GZLRecord.h"
#include "GZLSettings.h"

namespace bench_model {

constexpr int kRecords = 1000000;
constexpr int kCovariates = 10;
constexpr int kLevelsA = 10;
constexpr int kLevelsB = 5;
constexpr int kOrdinalCategories = 5;
constexpr int kNominalCategories = 4;
// Fields: y, x1..x10, A, B; the response models' records add the ordinal and nominal responses
// (y is then the binary one).
constexpr int kFields = 1 + kCovariates + 2;
constexpr int kOrdinalField = kFields;
constexpr int kNominalField = kFields + 1;

// The models (the benchmarks' argument).
enum Model : int { kPoisson = 0, kBinaryLogit, kOrdinal, kNominal };

// Draws the covariates and factor levels of a record (fields 1 .. 12) and its Poisson response
// (field 0), whose linear predictor is raised by `shift`; or, for the response models, the
// binary, ordinal and nominal responses on the same linear predictor.
class RecordGenerator {
 public:
  explicit RecordGenerator(unsigned long long seed) : fRng(seed) {}
  // Fields 1 .. 12; returns the linear predictor.
  double FillPredictors(double* r, double shift) {
    double eta = 0.5 + shift;
    for (int c = 0; c < kCovariates; ++c) {
      r[1 + c] = fNormal(fRng);
      eta += (0.1 * (c + 1) - 0.5) * r[1 + c];
    }
    const int a = fLevelA(fRng), b = fLevelB(fRng);
    r[1 + kCovariates] = a;
    r[2 + kCovariates] = b;
    return eta + 0.05 * a - 0.1 * b;
  }
  void Fill(double* r, double shift) {
    std::poisson_distribution<int> y(std::exp(FillPredictors(r, shift)));
    r[0] = y(fRng);
  }
  void FillResponseModels(double* r, double shift = 0.0) {
    const double eta = FillPredictors(r, shift);
    const double u = fUniform(fRng);
    r[0] = fUniform(fRng) < 1.0 / (1.0 + std::exp(-(eta - 0.5))) ? 1.0 : 0.0;
    // Ordinal: a logistic latent variable cut into five categories.
    const double latent = eta + std::log(u) - std::log1p(-u);
    r[kOrdinalField] = (latent > -1.0) + (latent > 0.0) + (latent > 1.0) + (latent > 2.0);
    // Nominal: three logits against the last category.
    const double a = r[1 + kCovariates];
    const double e[3] = {std::exp(0.5 * eta), std::exp(0.2 - 0.5 * eta), std::exp(0.3 * r[1] - 0.1 * a)};
    const double v = fUniform(fRng) * (1.0 + e[0] + e[1] + e[2]);
    r[kNominalField] = v < e[0] ? 0.0 : (v < e[0] + e[1] ? 1.0 : (v < e[0] + e[1] + e[2] ? 2.0 : 3.0));
  }
  std::mt19937_64& Rng() noexcept { return fRng; }

 private:
  std::mt19937_64 fRng;
  std::normal_distribution<double> fNormal{0.0, 0.3};
  std::uniform_int_distribution<int> fLevelA{0, kLevelsA - 1};
  std::uniform_int_distribution<int> fLevelB{0, kLevelsB - 1};
  std::uniform_real_distribution<double> fUniform{1e-12, 1.0 - 1e-12};
};

// Records in one contiguous block of doubles.
class FlatSource final : public IGZLRecordSource {
 public:
  // The model's kRecords records.
  FlatSource() : FlatSource(kRecords, kFields) {
    RecordGenerator generator(20240611);
    for (int i = 0; i < kRecords; ++i) generator.Fill(Row(i), 0.0);
  }
  // `records` records of `fields` zeros, for the caller to fill.
  FlatSource(int records, int fields)
      : fRecords(records), fFields(fields), fData(static_cast<std::size_t>(records) * fields) {}
  double* Row(int i) noexcept { return &fData[static_cast<std::size_t>(i) * fFields]; }
  bool HasMoreRecords() override { return fNext < fRecords; }
  const Record* NextRecord() override {
    if (fNext >= fRecords) return nullptr;
    fRecord.Reset(Row(fNext++), static_cast<std::size_t>(fFields));
    return &fRecord;
  }
  long RecordCount() override { return fRecords; }
  int Rewind() override {
    ++fRewinds;
    fNext = 0;
    return 0;
  }
  int fRewinds = 0;

 private:
  int fRecords;
  int fFields;
  std::vector<double> fData;
  int fNext = 0;
  Record fRecord;
};

// The records of a model: the Poisson ones, or those of the response models.
inline FlatSource& Source(int model = kPoisson) {
  static FlatSource poisson;
  if (model == kPoisson) return poisson;
  static FlatSource responses = [] {
    FlatSource s(kRecords, kFields + 2);
    RecordGenerator generator(20240611);
    for (int i = 0; i < kRecords; ++i) generator.FillResponseModels(s.Row(i));
    return s;
  }();
  return responses;
}

// A model's distribution, link, response, predictors and effects.
inline void AddModel(GZLSettings& s, int model = kPoisson) {
  s.SetScaleType(GZLConst_940::ScaleFixed);
  s.SetInterceptUse(true);
  switch (model) {
    case kBinaryLogit:
      s.SetDistType(TQConst::DistBinomial);
      s.SetLinkType(TQConst::LinkLogit);
      s.SetDependent(0);
      break;
    case kOrdinal:
      s.SetDistType(TQConst::DistOrdinalMultinomial);
      s.SetLinkType(TQConst::LinkCumLogit);
      s.SetDependent(kOrdinalField);
      s.SetDependentSize(kOrdinalCategories);
      break;
    case kNominal:
      s.SetDistType(TQConst::DistNominalMultinomial);
      s.SetLinkType(TQConst::LinkLogit);
      s.SetDependent(kNominalField);
      s.SetDependentSize(kNominalCategories);
      s.SetDependentRefCateg(kNominalCategories - 1);
      break;
    default:
      s.SetDistType(TQConst::DistPoisson);
      s.SetLinkType(TQConst::LinkLog);
      s.SetDependent(0);
      break;
  }
  const int fa = 1 + kCovariates, fb = 2 + kCovariates;
  s.AddFactor(fa, kLevelsA);
  s.AddFactor(fb, kLevelsB);
  static std::vector<int> vars;
  vars = {fa, fb};
  for (int c = 0; c < kCovariates; ++c) {
    s.AddCovariate(1 + c);
    vars.push_back(1 + c);
  }
  for (int c = 0; c < kCovariates; ++c) {
    GZLModelEffect e(2, kCovariates, &vars);
    e.AddCovariate(1 + c);
    s.AddModelEffect(e);
  }
  for (int f : {fa, fb}) {
    GZLModelEffect e(2, kCovariates, &vars);
    e.AddNewFactor(f, false);
    s.AddModelEffect(e);
  }
}

inline std::unique_ptr<GZLSettings> MakeSettings(int model = kPoisson) {
  auto s = std::make_unique<GZLSettings>();
  AddModel(*s, model);
  return s;
}

}  // namespace bench_model
