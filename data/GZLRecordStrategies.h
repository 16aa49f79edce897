#pragma once
// The per-record strategies of the design matrix: each answers whether a record is usable and
// what it contributes to the design row. They are chosen once from the settings, so the
// per-record path carries no tests on the settings. None of IsValid / Fill allocates.
//
// Roles: response (DP), frequency weight (FW), scale ("omega") weight (OW), offset (OF), and
// the subpopulation strategy (BI) that groups records into covariate patterns for the
// binomial and multinomial goodness-of-fit statistics.
#include <cstdint>
#include <memory>
#include <vector>

#include "GZLRecord.h"
#include "data/GZLDesignRow.h"

class GZLSettings;
class GZLDesignMatrix;

// ---- response ----
class IGZLDPStrategy {
 public:
  virtual ~IGZLDPStrategy() = default;
  virtual bool IsValid(const Record& record) const = 0;
  virtual void Fill(const Record& record, GZLDesignRow& row) const = 0;
};

// A single response variable. Every distribution but the normal (type 0) rejects a negative
// response: the flag holds the distribution type and non-zero switches the sign test on.
class GZLDPSingle final : public IGZLDPStrategy {
 public:
  GZLDPSingle(int response, int nonNegative) noexcept : fResponse(response), fNonNegative(nonNegative) {}
  bool IsValid(const Record& record) const override;
  void Fill(const Record& record, GZLDesignRow& row) const override;

 private:
  int fResponse;
  int fNonNegative;
};

// Events and trials variables: 0 <= events <= trials, trials > 0.
class GZLDPEventsTrials final : public IGZLDPStrategy {
 public:
  GZLDPEventsTrials(int events, int trials) noexcept : fEvents(events), fTrials(trials) {}
  bool IsValid(const Record& record) const override;
  void Fill(const Record& record, GZLDesignRow& row) const override;

 private:
  int fEvents;
  int fTrials;
};

// Events with a constant number of trials: 0 <= events <= trials.
class GZLDPEventsConstant final : public IGZLDPStrategy {
 public:
  GZLDPEventsConstant(int events, double trials) noexcept : fEvents(events), fTrials(trials) {}
  bool IsValid(const Record& record) const override;
  void Fill(const Record& record, GZLDesignRow& row) const override;

 private:
  int fEvents;
  double fTrials;
};

// ---- frequency weight ----
class IGZLFWStrategy {
 public:
  virtual ~IGZLFWStrategy() = default;
  virtual bool IsValid(const Record& record) const = 0;
  virtual void Fill(const Record& record, GZLDesignRow& row) const = 0;
};

class GZLFWNone final : public IGZLFWStrategy {
 public:
  bool IsValid(const Record&) const override { return true; }
  void Fill(const Record&, GZLDesignRow&) const override {}
};

// A weight of 0 makes the record invalid: it is not counted at all.
class GZLFWVar final : public IGZLFWStrategy {
 public:
  explicit GZLFWVar(int weight) noexcept : fWeight(weight) {}
  bool IsValid(const Record& record) const override;
  void Fill(const Record& record, GZLDesignRow& row) const override;

 private:
  int fWeight;
};

// ---- scale weight ----
class IGZLOWStrategy {
 public:
  virtual ~IGZLOWStrategy() = default;
  virtual bool IsValid(const Record& record) const = 0;
  virtual void Fill(const Record& record, GZLDesignRow& row) const = 0;
};

class GZLOWNone final : public IGZLOWStrategy {
 public:
  bool IsValid(const Record&) const override { return true; }
  void Fill(const Record&, GZLDesignRow&) const override {}
};

class GZLOWVar final : public IGZLOWStrategy {
 public:
  explicit GZLOWVar(int weight) noexcept : fWeight(weight) {}
  bool IsValid(const Record& record) const override;
  void Fill(const Record& record, GZLDesignRow& row) const override;

 private:
  int fWeight;
};

// ---- offset ----
class IGZLOFStrategy {
 public:
  virtual ~IGZLOFStrategy() = default;
  virtual bool IsValid(const Record& record) const = 0;
  virtual void Fill(const Record& record, GZLDesignRow& row) const = 0;
};

class GZLOFNone final : public IGZLOFStrategy {
 public:
  bool IsValid(const Record&) const override { return true; }
  void Fill(const Record&, GZLDesignRow&) const override {}
};

class GZLOFVar final : public IGZLOFStrategy {
 public:
  explicit GZLOFVar(int offset) noexcept : fOffset(offset) {}
  bool IsValid(const Record& record) const override;
  void Fill(const Record& record, GZLDesignRow& row) const override;

 private:
  int fOffset;
};

class GZLOFValue final : public IGZLOFStrategy {
 public:
  explicit GZLOFValue(double offset) noexcept : fOffset(offset) {}
  bool IsValid(const Record&) const override { return true; }
  void Fill(const Record&, GZLDesignRow& row) const override { row.fOffset = fOffset; }

 private:
  double fOffset;
};

// ---- subpopulations ----
// The base class serves every model without covariate patterns: no test, no patterns.
class GZLBIStrategy {
 public:
  virtual ~GZLBIStrategy() = default;
  virtual bool IsValid(const Record&) const { return true; }
  // Dictionary pass: adds the valid record to its pattern.
  virtual void Accumulate(const Record&) {}
  // Row building: prepares the row (and the record's pattern key).
  virtual void PrepareRow(const Record&, GZLDesignRow&) {}
  // The next pattern's row, found by reading forward through the current pass of the design
  // matrix, with the pattern's totals written into it; null when every pattern was returned
  // or the pass ended first.
  virtual GZLDesignRow* NextPatternRow() { return nullptr; }
  virtual int GetNPatterns() const { return 0; }
  virtual void ResetPatterns() {}
};

// Binomial events/trials: the scale weight is multiplied by the trials.
class GZLBIRM final : public GZLBIStrategy {
 public:
  void PrepareRow(const Record&, GZLDesignRow& row) override { row.fScaleWeight *= row.fTrials; }
};

// The covariate patterns of the grouping strategies: keys of keySize doubles, each followed by
// its totals of valueSize doubles, numbered in order of first appearance and found through an
// open-addressing hash of the keys. Keys compare element by element with ==. The patterns are
// kept in blocks that are never moved, so that a growing table copies nothing but its index.
class GZLPatternTable {
 public:
  GZLPatternTable(int keySize, int valueSize);
  // The totals of the pattern with this key; a new pattern is added with zero totals.
  double* FindOrAdd(const double* key);
  int Size() const noexcept { return fCount; }
  const double* Key(int pattern) const noexcept { return Entry(pattern); }
  const double* Values(int pattern) const noexcept { return Entry(pattern) + fKeySize; }

 private:
  static constexpr int kBlockShift = 12;  // patterns per block: 4096
  double* Entry(int pattern) const noexcept {
    return fBlocks[static_cast<std::size_t>(pattern >> kBlockShift)].get() +
           static_cast<std::size_t>(pattern & ((1 << kBlockShift) - 1)) * fStride;
  }
  std::uint32_t Hash(const double* key) const noexcept;
  void Grow();

  std::size_t fKeySize;
  std::size_t fStride;
  std::vector<std::unique_ptr<double[]>> fBlocks;
  // Per slot the key's hash (high half; it also places the key) and the pattern number plus 1
  // (low half; 0 for an empty slot): a probe compares keys only when the hashes agree, and the
  // index grows without reading a key.
  std::vector<std::uint64_t> fSlots;
  int fCount = 0;
};

// Shared part of the grouping strategies: the pattern key of a record is the values of all
// model factors (in model order) followed by all model covariates, unrounded.
class GZLPatternStrategyBase : public GZLBIStrategy {
 public:
  GZLPatternStrategyBase(GZLDesignMatrix& design, const GZLSettings& settings);
  void PrepareRow(const Record& record, GZLDesignRow& row) override;
  const std::vector<double>& GetCurrentKey() const noexcept { return fCurrentKey; }

 protected:
  void BuildKey(const Record& record) noexcept;
  // Response, frequency weight and scale weight of the record, through the design matrix's
  // strategies; returns w = frequency weight x scale weight.
  double FillWeights(const Record& record);

  int fResponse;
  int fNVariables;
  std::vector<int> fVariables;  // model factors, then model covariates
  std::vector<double> fCurrentKey;
  GZLDesignMatrix* fpDesign;
  const GZLSettings* fpSettings;
  // The next pattern of the table: reading forward through the current pass, the first row
  // whose key equals the pattern's gets its totals through fill(row, totals); null when every
  // pattern was returned or the pass ended first.
  template <class Fill>
  GZLDesignRow* NextRowOf(const GZLPatternTable& table, Fill fill);

  int fNextPattern = 0;
  GZLDesignRow fScratch;
};

// Binomial single response with factors or covariates: (events, trials) per pattern.
class GZLBIDep final : public GZLPatternStrategyBase {
 public:
  GZLBIDep(GZLDesignMatrix& design, const GZLSettings& settings);
  bool IsValid(const Record& record) const override;
  void Accumulate(const Record& record) override;
  GZLDesignRow* NextPatternRow() override;
  int GetNPatterns() const override { return fNPatterns; }
  void ResetPatterns() override { fNextPattern = 0; }

 private:
  // Per pattern: events, trials.
  GZLPatternTable fPatterns;
  int fNPatterns = 0;
};

// Binomial single response without factors and covariates: one pattern, a row of its own.
class GZLBIDepNullModel final : public GZLPatternStrategyBase {
 public:
  GZLBIDepNullModel(GZLDesignMatrix& design, const GZLSettings& settings);
  bool IsValid(const Record& record) const override;
  void Accumulate(const Record& record) override;
  GZLDesignRow* NextPatternRow() override;
  int GetNPatterns() const override { return 1; }
  void ResetPatterns() override { fNextPattern = 0; }

 private:
  GZLDesignRow fRow;
  double fEvents = 0.0;
  double fTrials = 0.0;
};

// Ordinal or nominal multinomial with factors or covariates: per pattern the total weight and
// the weight of each of the K response categories.
class GZLMultinomialStrategy final : public GZLPatternStrategyBase {
 public:
  GZLMultinomialStrategy(GZLDesignMatrix& design, const GZLSettings& settings);
  bool IsValid(const Record& record) const override;
  void Accumulate(const Record& record) override;
  GZLDesignRow* NextPatternRow() override;
  int GetNPatterns() const override { return fNPatterns; }
  void ResetPatterns() override { fNextPattern = 0; }

 private:
  int fNCategories;
  // Per pattern: the total weight, then the weight of each category.
  GZLPatternTable fPatterns;
  int fNPatterns = 0;
};

// Multinomial without factors and covariates: one pattern, a row of its own.
class GZLMultinomialNullModel final : public GZLPatternStrategyBase {
 public:
  GZLMultinomialNullModel(GZLDesignMatrix& design, const GZLSettings& settings);
  bool IsValid(const Record& record) const override;
  void Accumulate(const Record& record) override;
  GZLDesignRow* NextPatternRow() override;
  int GetNPatterns() const override { return 1; }
  void ResetPatterns() override { fNextPattern = 0; }

 private:
  int fNCategories;
  GZLDesignRow fRow;
  double fTotal = 0.0;
  std::vector<double> fCategories;
};

// The five strategies of a model, chosen from the settings.
struct GZLRecordStrategies {
  std::unique_ptr<IGZLDPStrategy> fpResponse;
  std::unique_ptr<IGZLFWStrategy> fpFreqWeight;
  std::unique_ptr<IGZLOWStrategy> fpScaleWeight;
  std::unique_ptr<IGZLOFStrategy> fpOffset;
  std::unique_ptr<GZLBIStrategy> fpSubpopulation;

  // Selection rules: response by dependent type, weights when their variables are set, offset
  // by offset type, subpopulations by distribution and response type.
  static GZLRecordStrategies Create(const GZLSettings& settings, GZLDesignMatrix& design);
};
