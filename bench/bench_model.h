#pragma once
// The model of the benchmarks: a Poisson log model with an intercept, 10 covariates and two
// factors of 10 and 5 levels (1 + 10 + 10 + 5 = 26 design columns), its generated records
// (1,000,000 of them by default) served from memory, and the generator of its records for
// benchmarks that lay records out their own way. Records are generated once, on first use,
// outside any timing.
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
// Fields: y, x1..x10, A, B.
constexpr int kFields = 1 + kCovariates + 2;

// Draws the covariates and factor levels of a record (fields 1 .. 12) and its Poisson response
// (field 0), whose linear predictor is raised by `shift`.
class RecordGenerator {
 public:
  explicit RecordGenerator(unsigned long long seed) : fRng(seed) {}
  void Fill(double* r, double shift) {
    double eta = 0.5 + shift;
    for (int c = 0; c < kCovariates; ++c) {
      r[1 + c] = fNormal(fRng);
      eta += (0.1 * (c + 1) - 0.5) * r[1 + c];
    }
    const int a = fLevelA(fRng), b = fLevelB(fRng);
    r[1 + kCovariates] = a;
    r[2 + kCovariates] = b;
    eta += 0.05 * a - 0.1 * b;
    std::poisson_distribution<int> y(std::exp(eta));
    r[0] = y(fRng);
  }
  std::mt19937_64& Rng() noexcept { return fRng; }

 private:
  std::mt19937_64 fRng;
  std::normal_distribution<double> fNormal{0.0, 0.3};
  std::uniform_int_distribution<int> fLevelA{0, kLevelsA - 1};
  std::uniform_int_distribution<int> fLevelB{0, kLevelsB - 1};
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

inline FlatSource& Source() {
  static FlatSource source;
  return source;
}

// The model's distribution, link, response, predictors and effects.
inline void AddModel(GZLSettings& s) {
  s.SetDistType(TQConst::DistPoisson);
  s.SetLinkType(TQConst::LinkLog);
  s.SetScaleType(GZLConst_940::ScaleFixed);
  s.SetDependent(0);
  s.SetInterceptUse(true);
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

inline std::unique_ptr<GZLSettings> MakeSettings() {
  auto s = std::make_unique<GZLSettings>();
  AddModel(*s);
  return s;
}

}  // namespace bench_model
