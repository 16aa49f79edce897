#pragma once
// Turns records into design rows. In the dictionary pass it validates every record, gathers
// the data statistics and counts, and learns each effect's category combinations; then it
// gives every effect a block of columns. In every later pass it builds, for each valid record,
// one design row that the accumulators consume. One row object is reused for all records.
//
// How a later pass runs (the optimizer, the tests of effects, scoring):
//   if (!design.RestartPass()) -> status NewPass (BeginPass() returns exactly that status)
//   while (GZLDesignRow* row = design.GetNextRow()) { ... row->fValues, row->fResponse ... }
// GetNextRow skips records that fail the validity tests; a returned row may still carry
// fbInvalid (its combination was never seen in the dictionary pass, or a covariate product
// overflowed), which the accumulators refuse.
#include <memory>
#include <vector>

#include "GZLEventsCount.h"
#include "GZLFactorCounts.h"
#include "GZLDataStats.h"
#include "GZLRecord.h"
#include "TQConst.h"
#include "data/GZLDesignMatrixEffect.h"
#include "data/GZLDesignRow.h"
#include "data/GZLRecordStrategies.h"
#include "support/TQRectMatrix.h"
#include "support/TQStatus.h"

class GZLSettings;

class GZLDesignMatrix {
 public:
  // Creates the strategies, counts, statistics and one effect per settings effect; reads no
  // record.
  explicit GZLDesignMatrix(const GZLSettings& settings);
  GZLDesignMatrix(const GZLDesignMatrix&) = delete;
  GZLDesignMatrix& operator=(const GZLDesignMatrix&) = delete;
  virtual ~GZLDesignMatrix();

  // ---- the virtual operations ------------------------------------------------------------
  // One record of a later pass into row. status: OK, or InvalidRecords (warning) when the
  // record fails the validity tests (row then not built). skipWeights: scoring, where response
  // and weights need not be valid.
  virtual void BuildRow(TQStatus& status, const Record& record, GZLDesignRow& row, bool skipWeights);
  // Rewinds the source and resets the per-pass state; false when the source cannot rewind.
  virtual bool RestartPass();
  // One record of the dictionary pass (status as ValidateRecord).
  virtual void ProcessDictionaryRecord(TQStatus& status, const Record& record);
  // OK, or InvalidRecords (warning): response, frequency and scale weights (not with
  // skipWeights), offset, subpopulation, then every model factor (rounded into its
  // categories) and every model covariate (readable).
  virtual TQStatus ValidateRecord(TQStatus& status, const Record& record, bool skipWeights);

  // ---- passes ----------------------------------------------------------------------------
  // The whole dictionary pass over the source, then the column assignment (and the scaled
  // design's transforms). Errors: NoValidRecords, InvalidRecordsOverflow, 1 (cancelled).
  // Otherwise the status of the last record: InvalidRecords (warning) when it was invalid.
  TQStatus RunDictionaryPass(TQStatus& status, IGZLRecordSource& source);
  // RestartPass as a status: OK, or the error NewPass.
  TQStatus BeginPass();
  // The next complete row of the current pass, or null at its end. With a reduced model the
  // column list is cut to the reduced size.
  GZLDesignRow* GetNextRow();
  // The record of the row GetNextRow handed out last (null before the first): valid until the
  // next call, for a pass that needs fields the row does not carry.
  const Record* GetCurrentRecord() const noexcept { return fpCurrentRecord; }
  // The next covariate pattern's row with its aggregated response (binomial and multinomial
  // grouping), or null; call after BeginPass, not mixed with GetNextRow in the same pass.
  GZLDesignRow* NextPatternRow() { return fStrategies.fpSubpopulation->NextPatternRow(); }
  int GetNPatterns() const { return fStrategies.fpSubpopulation->GetNPatterns(); }

  void SetRecordSource(IGZLRecordSource* source) noexcept { fpSource = source; }
  IGZLRecordSource* GetRecordSource() const noexcept { return fpSource; }

  // Rows restricted to the first n parameters (the intercept-only model of the omnibus test).
  // False unless 0 <= n <= number of parameters.
  bool SetReducedModel(int n);
  // Back to full rows.
  void ClearReducedModel() noexcept { fbReducedModel = false; }
  bool IsReducedModel() const noexcept { return fbReducedModel; }
  int GetReducedNParams() const noexcept { return fReducedNParams; }
  int GetReducedNParamsNominal() const noexcept { return fReducedNParamsNominal; }

  // ---- row helpers (used by the strategies and by scoring) -------------------------------
  // A row in its state before a record: zeros, intercept column 1.0, no response, unit
  // weights, no offset.
  void ResetRow(GZLDesignRow& row) const;
  // Response, frequency weight and scale weight of a record into row.
  void FillResponseAndWeights(const Record& record, GZLDesignRow& row) const;
  // The matrix's own row (the one GetNextRow returns).
  GZLDesignRow& GetRow() noexcept { return fRow; }

  // ---- layout ----------------------------------------------------------------------------
  // Number of regression parameters P: intercept + effect columns (ordinal: K-1 thresholds +
  // effect columns).
  int GetNumOfParams() const noexcept { return fNParams; }
  // (K-1) x P for a nominal response, else 0.
  int GetNumOfParamsNominal() const noexcept { return fNParamsNominal; }
  // Length of a full design row: P, or P - K + 1 for an ordinal response.
  int GetRowSize() const noexcept { return fRowSize; }
  // K for multinomial responses, 2 for a binary binomial response, else 0.
  int GetNResponseCategories() const noexcept { return fNResponseCategs; }
  // Nominal response, after the dictionary pass: the categories with a positive weighted count
  // in ascending order with the reference category moved to the end. The reference is the
  // settings' reference category when it was observed; otherwise the first observed category
  // for a negative setting, else the last one, with warning 319 when the setting was positive.
  // Error 318 when fewer than two categories were observed.
  TQStatus GetNominalCategoryOrder(std::vector<int>& order) const;
  bool HasIntercept() const noexcept { return fbIntercept; }
  TQConst::DistType GetDistType() const noexcept { return fDistType; }
  TQConst::TQDependentType GetResponseType() const noexcept { return fResponseType; }
  int GetNumEffects() const noexcept { return static_cast<int>(fEffects.size()); }
  const GZLDesignMatrixEffect& GetEffect(int i) const { return *fEffects[static_cast<std::size_t>(i)]; }
  const GZLSettings& GetSettings() const noexcept { return *fpSettings; }

  // ---- what the dictionary pass counted --------------------------------------------------
  const GZLDataStats& GetDataStats() const noexcept { return fDataStats; }
  // Counts of the model's factors, with the response categories and offset totals.
  const TQFactorCounts& GetFactorCounts() const noexcept { return fFactorCounts; }
  // Counts of the factors used in effects (no response counts).
  const TQFactorCounts& GetEffectFactorCounts() const noexcept { return fEffectFactorCounts; }
  const GZLEventsCount& GetEventsCount() const noexcept { return fEventsCount; }
  // Every record fetched in the dictionary pass.
  int GetNumRecords() const noexcept { return fNRecords; }
  // The valid ones.
  int GetNumCompleteRecords() const noexcept { return fNCompleteRecords; }
  double GetSumFreqWeights() const noexcept { return fSumFreqWeights; }
  // Sum of trials x frequency weight (events/trials responses).
  double GetWeightedTrials() const noexcept { return fWeightedTrials; }
  // Records of the current later pass that failed the validity tests.
  int GetNumRejectedInPass() const noexcept { return fNRejectedInPass; }

  // ---- scaled design (settings' transform-effects option) --------------------------------
  bool IsScaledDesign() const noexcept { return fbScaledDesign; }
  bool IsResponseCentred() const noexcept { return fbResponseCentring; }
  // The value subtracted from response and offset (the weighted response mean), and its
  // companion (the response's standard deviation).
  double GetResponseCentre() const noexcept { return fResponseCentre; }
  double GetResponseCentreCompanion() const noexcept { return fResponseCentreCompanion; }
  // Unscaled = A x scaled (back transform); scaled = B x unscaled (forward). P x P, or the
  // nominal model's size; empty without the scaled design.
  const TQRectMatrix& GetBackTransform() const noexcept { return fBackTransform; }
  const TQRectMatrix& GetForwardTransform() const noexcept { return fForwardTransform; }

  void Display() const;

 protected:
  // Largest record field index with a role in the settings (-1 when none).
  int GetMaxVariableIndex() const;
  // Column assignment after the dictionary pass.
  void AssignColumns();
  // Transform matrices of the scaled design. False on a value that is not finite.
  bool BuildTransforms();

  const GZLSettings* fpSettings;
  const std::vector<int>* fpFactors;
  const std::vector<int>* fpFactorSizes;
  int fNFactors;
  std::vector<int> fCovariates;
  int fNCovariates;
  GZLRecordStrategies fStrategies;
  TQFactorCounts fFactorCounts;
  TQFactorCounts fEffectFactorCounts;
  GZLEventsCount fEventsCount;
  GZLDataStats fDataStats;
  double fResponseCentre = 0.0;
  double fResponseCentreCompanion = 0.0;
  IGZLRecordSource* fpSource = nullptr;
  const Record* fpCurrentRecord = nullptr;
  int fNRecords = 0;
  int fNCompleteRecords = 0;
  double fSumFreqWeights = 0.0;
  int fNParams = 0;
  int fNParamsNominal = 0;
  int fRowSize = 0;
  GZLDesignRow fRow;
  std::vector<std::unique_ptr<GZLDesignMatrixEffect>> fEffects;
  int fNEffects = 0;
  bool fbReducedModel = false;
  int fReducedNParams = 0;
  int fReducedNParamsNominal = 0;
  int fReducedRowSize = 0;
  double fWeightedTrials = 0.0;
  int fTrialsVar = -1;
  double fConstantTrials = 0.0;
  TQConst::TQDependentType fResponseType;
  TQConst::DistType fDistType;
  int fNResponseCategs = 0;
  bool fbScaledDesign = false;
  bool fbResponseCentring = false;
  bool fbIntercept = false;
  TQRectMatrix fBackTransform;
  TQRectMatrix fForwardTransform;
  int fNRejectedInPass = 0;
  // Which strategies do anything per record, decided once from the strategies chosen: the
  // per-record path skips the virtual calls of those that neither test nor fill.
  bool fbFreqWeightVar = false;
  bool fbScaleWeightVar = false;
  bool fbOffsetTested = false;
  bool fbOffsetFilled = false;
  bool fbSubpopulationActive = false;
  // The row plan made by the column assignment: plain covariate effects as (field, column)
  // pairs written inline, every other effect through its own writer. Until then every effect
  // goes through its writer.
  struct DirectColumn {
    int fField;
    std::size_t fColumn;
  };
  std::vector<DirectColumn> fDirectColumns;
  std::vector<GZLDesignMatrixEffect*> fWrittenEffects;
  bool fbRowPlan = false;
};
