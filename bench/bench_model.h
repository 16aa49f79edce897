#pragma once
// The models of the benchmarks, on 1,000,000 generated records with 10 covariates and two
// factors of 10 and 5 levels (1 + 10 + 10 + 5 = 26 design columns), served from memory: a
// Poisson log model, and on the same design a binary logit model, an ordinal model of 5
// categories (cumulative logit) and a nominal model of 4 categories. The records are generated
// once, on first use, outside any timing.
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
// Fields: y, x1..x10, A, B; the response models' source adds the ordinal and nominal responses
// (y is then the binary one).
constexpr int kFields = 1 + kCovariates + 2;
constexpr int kOrdinalField = kFields;
constexpr int kNominalField = kFields + 1;

// The models of the benchmarks (their argument).
enum Model : int { kPoisson = 0, kBinaryLogit, kOrdinal, kNominal };

// Records in one contiguous block of doubles: the Poisson records, or those of the response
// models (the same predictors, drawn with the same generator).
class FlatSource final : public IGZLRecordSource {
 public:
  explicit FlatSource(bool responseModels)
      : fFields(responseModels ? kFields + 2 : kFields), fData(static_cast<std::size_t>(kRecords) * fFields) {
    std::mt19937_64 rng(20240611);
    std::normal_distribution<double> normal(0.0, 0.3);
    std::uniform_int_distribution<int> levelA(0, kLevelsA - 1), levelB(0, kLevelsB - 1);
    std::uniform_real_distribution<double> uniform(1e-12, 1.0 - 1e-12);
    for (int i = 0; i < kRecords; ++i) {
      double* r = &fData[static_cast<std::size_t>(i) * fFields];
      double eta = 0.5;
      for (int c = 0; c < kCovariates; ++c) {
        r[1 + c] = normal(rng);
        eta += (0.1 * (c + 1) - 0.5) * r[1 + c];
      }
      const int a = levelA(rng), b = levelB(rng);
      r[1 + kCovariates] = a;
      r[2 + kCovariates] = b;
      eta += 0.05 * a - 0.1 * b;
      if (!responseModels) {
        std::poisson_distribution<int> y(std::exp(eta));
        r[0] = y(rng);
        continue;
      }
      const double u0 = uniform(rng);
      const double logistic = std::log(u0) - std::log1p(-u0);
      r[0] = uniform(rng) < 1.0 / (1.0 + std::exp(-(eta - 0.5))) ? 1.0 : 0.0;
      // Ordinal: a logistic latent variable cut into five categories.
      const double latent = eta + logistic;
      r[kOrdinalField] = (latent > -1.0) + (latent > 0.0) + (latent > 1.0) + (latent > 2.0);
      // Nominal: three logits against the last category.
      const double e[3] = {std::exp(0.5 * eta), std::exp(0.2 - 0.5 * eta), std::exp(0.3 * r[1] - 0.1 * a)};
      const double total = 1.0 + e[0] + e[1] + e[2];
      const double u = uniform(rng) * total;
      r[kNominalField] = u < e[0] ? 0.0 : (u < e[0] + e[1] ? 1.0 : (u < e[0] + e[1] + e[2] ? 2.0 : 3.0));
    }
  }
  bool HasMoreRecords() override { return fNext < kRecords; }
  const Record* NextRecord() override {
    if (fNext >= kRecords) return nullptr;
    fRecord.Reset(&fData[static_cast<std::size_t>(fNext++) * fFields], fFields);
    return &fRecord;
  }
  long RecordCount() override { return kRecords; }
  int Rewind() override {
    ++fRewinds;
    fNext = 0;
    return 0;
  }
  int fRewinds = 0;

 private:
  int fFields;
  std::vector<double> fData;
  int fNext = 0;
  Record fRecord;
};

// The records of a model, generated once, outside the timing.
inline FlatSource& Source(int model = kPoisson) {
  static FlatSource poisson(false);
  if (model == kPoisson) return poisson;
  static FlatSource responses(true);
  return responses;
}

inline std::unique_ptr<GZLSettings> MakeSettings(int model = kPoisson) {
  auto s = std::make_unique<GZLSettings>();
  s->SetScaleType(GZLConst_940::ScaleFixed);
  s->SetInterceptUse(true);
  switch (model) {
    case kBinaryLogit:
      s->SetDistType(TQConst::DistBinomial);
      s->SetLinkType(TQConst::LinkLogit);
      s->SetDependent(0);
      break;
    case kOrdinal:
      s->SetDistType(TQConst::DistOrdinalMultinomial);
      s->SetLinkType(TQConst::LinkCumLogit);
      s->SetDependent(kOrdinalField);
      s->SetDependentSize(kOrdinalCategories);
      break;
    case kNominal:
      s->SetDistType(TQConst::DistNominalMultinomial);
      s->SetLinkType(TQConst::LinkLogit);
      s->SetDependent(kNominalField);
      s->SetDependentSize(kNominalCategories);
      s->SetDependentRefCateg(kNominalCategories - 1);
      break;
    default:
      s->SetDistType(TQConst::DistPoisson);
      s->SetLinkType(TQConst::LinkLog);
      s->SetDependent(0);
      break;
  }
  const int fa = 1 + kCovariates, fb = 2 + kCovariates;
  s->AddFactor(fa, kLevelsA);
  s->AddFactor(fb, kLevelsB);
  static std::vector<int> vars;
  vars = {fa, fb};
  for (int c = 0; c < kCovariates; ++c) {
    s->AddCovariate(1 + c);
    vars.push_back(1 + c);
  }
  for (int c = 0; c < kCovariates; ++c) {
    GZLModelEffect e(2, kCovariates, &vars);
    e.AddCovariate(1 + c);
    s->AddModelEffect(e);
  }
  for (int f : {fa, fb}) {
    GZLModelEffect e(2, kCovariates, &vars);
    e.AddNewFactor(f, false);
    s->AddModelEffect(e);
  }
  return s;
}

}  // namespace bench_model
