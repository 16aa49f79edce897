#pragma once
// Writes a fitted model as a PMML 4.3 GeneralRegressionModel document. The shared parts
// (root, Header, DataDictionary, MiningSchema, parameter lists and matrices) come from the
// support writers; this class adds the model's attributes (model type, function, reference
// category, trials, offset, link, distribution), the model identifier and the
// ModelExplanation.
//
// Created after a fit with borrowed references that must outlive it. Each ExportPMML rebuilds
// the tree; an error status stays and makes every later export return it at once. The tree is
// written only when every step succeeded, so a failed export writes nothing.
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "GZLRegrParameter.h"
#include "support/TQBitSet.h"
#include "support/TQClassificationMatrix.h"
#include "support/TQStatus.h"

namespace pugi {
class xml_document;
class xml_node;
}  // namespace pugi

class GZLSettings;
class TQVarList;
class TQApplicInfo4XML;
class TQSymMatrix;
class TQPMMLRegrExporter;

// The application named in the Header when the host passes none.
inline constexpr const char* kGZLDefaultApplicName = "Orlen Statistics";
inline constexpr const char* kGZLDefaultApplicVersion = "18.0";
inline constexpr const char* kGZLDefaultCopyright = "Copyright (c) the gzl developers";

class GZLPMMLExporter {
 public:
  // k: the negative binomial k or the Tweedie power (written as distParameter, and as the link
  // parameter of the negative binomial link); missing for other distributions. The redundancy
  // set has a bit set for every parameter in the model.
  GZLPMMLExporter(const GZLSettings& settings, const TQVarList& variables, const TQApplicInfo4XML* application,
                  const std::vector<TQRegrParameter>& parameters, const std::vector<double>& estimates,
                  const TQBitSet& redundant, double k);
  GZLPMMLExporter(const GZLPMMLExporter&) = delete;
  GZLPMMLExporter& operator=(const GZLPMMLExporter&) = delete;
  ~GZLPMMLExporter();

  // Figures of the ModelExplanation.
  void SetAICCValue(double aicc) noexcept { fAICC = aicc; }
  void SetBICValue(double bic) noexcept { fBIC = bic; }
  void SetNumOfPredictors(int n) noexcept { fNumOfPredictors = n; }
  void SetClassification(const TQClassificationMatrix& classification) { fClassification = classification; }
  void SetGainsRegr(const std::vector<LiftInfo>& gains) { fGainsRegr = gains; }
  void SetGainCls(std::vector<std::vector<LiftInfo>> gains) { fGainsCls = std::move(gains); }

  // Every factor and covariate the parameters use needs a variable in the list (130062, with
  // discrete datum 0 the field index and datum 1 0 for a factor, 1 for a covariate, 2 for the
  // response, offset or trials variable); a categorical factor needs its categories (130063;
  // so does a categorical response of a classification model, and every category the
  // parameters name must be listed).
  TQStatus CheckConsistency();
  // Writes the document; with a covariance matrix (P x P, else 130061) also the PCovMatrix.
  TQStatus ExportPMML(std::ostream& out, const TQSymMatrix* covariance);

  TQStatus GetStatus() const noexcept { return fStatus; }
  const TQPMMLRegrExporter& GetPMMLRegrExporter() const noexcept { return *fpRegrExporter; }
  void Display() const;

 private:
  void AddModel(pugi::xml_node root, const TQSymMatrix* covariance);
  void AddModelType(pugi::xml_node model) const;
  void AddFunctionName(pugi::xml_node model) const;
  void AddTargetRefCategory(pugi::xml_node model) const;
  // The attribute names the variable of a record field (nothing when the list lacks it).
  void AddFieldName(pugi::xml_node model, const char* attribute, int field) const;
  void AddTrials(pugi::xml_node model) const;
  void AddOffset(pugi::xml_node model) const;
  void AddLink(pugi::xml_node model) const;
  void AddDistribution(pugi::xml_node model) const;
  void AddModelExplanation(pugi::xml_node model) const;
  // The reference category index of a classification model: the settings' reference category,
  // or the last category when it is -1.
  int ReferenceCategory() const;
  bool IsBinary() const noexcept;
  // The value of a category of the response (its number when the list has none).
  std::string ResponseCategory(int category) const;
  // An error for a variable the list lacks (130062) with its field index and kind.
  static TQStatus NoMetadata(int field, int kind);

  const GZLSettings& fSettings;
  const std::vector<GZLModelEffect>& fEffects;
  const TQVarList& fVariables;
  const TQApplicInfo4XML* fpApplication;
  const std::vector<TQRegrParameter>& fParameters;
  const std::vector<double>& fEstimates;
  const TQBitSet& fRedundant;
  bool fbConsistencyChecked = false;
  TQStatus fStatus;
  std::unique_ptr<pugi::xml_document> fpDocument;
  bool fbOrdinal;
  double fDistParam;
  std::unique_ptr<TQPMMLRegrExporter> fpRegrExporter;
  // Record counts of the ModelExplanation: nothing sets them, so they are written as 0.
  double fNumRecordsWeighted = 0.0;
  double fNumRecords = 0.0;
  double fAICC = 0.0;
  double fBIC = 0.0;
  int fNumOfPredictors = 0;
  TQClassificationMatrix fClassification;
  std::vector<LiftInfo> fGainsRegr;
  std::vector<std::vector<LiftInfo>> fGainsCls;
};
