#include "GZLPMMLExporter.h"

#include <algorithm>
#include <ostream>

#include <pugixml.hpp>

#include "GZLConst_940.h"
#include "GZLSettings.h"
#include "support/TQDisplay_940.h"
#include "support/TQMV.h"
#include "support/TQPMMLExporter.h"
#include "support/TQPMMLRegrExporter.h"
#include "support/TQStatXMLUtil.h"
#include "support/TQSymMatrix.h"
#include "support/TQVarList.h"

namespace {

// Kinds of variable in the second datum of NoMetadataForVar.
constexpr int kFactorVariable = 0;
constexpr int kCovariateVariable = 1;
constexpr int kOtherVariable = 2;

const char* LinkName(TQConst::LinkType link) noexcept {
  static const char* const kNames[] = {"cloglog", "identity", "log",     "logc",      "logit",
                                       "negbin",  "loglog",   "oddspower", "power",   "probit",
                                       "cauchit", "cumcloglog", "cumlogit", "cumloglog", "cumprobit"};
  return link >= 0 && link <= TQConst::LinkCumProbit ? kNames[link] : nullptr;
}

const char* DistributionName(TQConst::DistType dist) noexcept {
  static const char* const kNames[] = {"normal",  "binomial",    "gamma",   "igauss", "negbin",
                                       "poisson", "multinomial", "tweedie", nullptr};
  return dist >= 0 && dist <= TQConst::DistNominalMultinomial ? kNames[dist] : nullptr;
}

void AppendLiftData(pugi::xml_node quality, const std::vector<LiftInfo>& gains, const std::string* value,
                    const std::string* displayValue) {
  pugi::xml_node lift = quality.append_child("LiftData");
  if (value != nullptr) lift.append_attribute("targetFieldValue").set_value(value->c_str());
  if (displayValue != nullptr) lift.append_attribute("targetFieldDisplayValue").set_value(displayValue->c_str());
  pugi::xml_node graph = lift.append_child("ModelLiftGraph").append_child("LiftGraph");
  auto column = [&](const char* element, double LiftInfo::*member) {
    std::vector<double> values;
    values.reserve(gains.size());
    for (const LiftInfo& g : gains) values.push_back(g.*member);
    TQStatXMLUtil::AppendArray(graph.append_child(element), values);
  };
  column("XCoordinates", &LiftInfo::fX);
  column("YCoordinates", &LiftInfo::fY);
  column("BoundaryValues", &LiftInfo::fBoundaryValue);
  column("BoundaryValueMeans", &LiftInfo::fBoundaryValueMean);
}

}  // namespace

GZLPMMLExporter::GZLPMMLExporter(const GZLSettings& settings, const TQVarList& variables,
                                 const TQApplicInfo4XML* application, const std::vector<TQRegrParameter>& parameters,
                                 const std::vector<double>& estimates, const TQBitSet& redundant, double k)
    : fSettings(settings),
      fEffects(settings.GetModelEffects()),
      fVariables(variables),
      fpApplication(application),
      fParameters(parameters),
      fEstimates(estimates),
      fRedundant(redundant),
      fbOrdinal(settings.GetDistType() == TQConst::DistOrdinalMultinomial),
      fDistParam(k),
      fpRegrExporter(std::make_unique<TQPMMLRegrExporter>(settings, variables, parameters, estimates, redundant)) {}

GZLPMMLExporter::~GZLPMMLExporter() = default;

bool GZLPMMLExporter::IsBinary() const noexcept { return fSettings.IsSingleDependentForBinomial(); }

int GZLPMMLExporter::ReferenceCategory() const {
  const int reference = fSettings.GetDependentRefCateg();
  return reference == -1 ? fSettings.GetDependentSize() - 1 : reference;
}

std::string GZLPMMLExporter::ResponseCategory(int category) const {
  return fpRegrExporter->CategoryValue(fSettings.GetDependent(), category);
}

TQStatus GZLPMMLExporter::NoMetadata(int field, int kind) {
  TQStatus status = TQStatus::Error(GZLStatusCode::NoMetadataForVar);
  status.SetDiscreteData(0, field);
  status.SetDiscreteData(1, kind);
  return status;
}

TQStatus GZLPMMLExporter::CheckConsistency() {
  TQStatus status;
  auto noCategories = [](int field) {
    TQStatus s = TQStatus::Error(GZLStatusCode::NoFactorCategs);
    s.SetDiscreteData(0, field);
    return s;
  };
  for (int field : fpRegrExporter->GetActiveFactors()) {
    const GZLPMMLVariable* v = fVariables.GetVariable(field);
    if (v == nullptr) {
      status = NoMetadata(field, kFactorVariable);
      continue;
    }
    if (v->GetMeasLevel() != MeasContinuous && v->GetNValidValues() == 0) {
      status = noCategories(field);
      break;
    }
  }
  if (!status.IsError()) {
    for (int field : fpRegrExporter->GetActiveCovariates())
      if (fVariables.GetVariable(field) == nullptr) status = NoMetadata(field, kCovariateVariable);
  }
  // Beyond the factors and covariates: the document names the response, the offset and trials
  // variables, every category the parameters use, and the response categories of a
  // classification model; a list that lacks them cannot describe the model.
  if (!status.IsError()) {
    std::vector<int> others = {fSettings.GetDependent()};
    if (fSettings.GetOffsetType() == TQConst::OffsetVariable) others.push_back(fSettings.GetOffset());
    if (fSettings.GetDependentType() == TQConst::DependentEventsTrials) others.push_back(fSettings.GetTrials());
    for (int field : others)
      if (!status.IsError() && fVariables.GetVariable(field) == nullptr) status = NoMetadata(field, kOtherVariable);
  }
  auto listed = [this](int field, int category) {
    const GZLPMMLVariable* v = fVariables.GetVariable(field);
    return v == nullptr || v->GetMeasLevel() == MeasContinuous || category < v->GetNValidValues();
  };
  for (const TQRegrParameter& p : fParameters) {
    if (status.IsError()) break;
    for (int i = 0; i < p.GetNFactors() && !status.IsError(); ++i)
      if (!listed(p.GetFactors()[static_cast<std::size_t>(i)], p.GetCategories()[static_cast<std::size_t>(i)]))
        status = noCategories(p.GetFactors()[static_cast<std::size_t>(i)]);
    if (!status.IsError() && fSettings.GetModelType() != TQConst::RegModelOther && !IsBinary() &&
        !listed(fSettings.GetDependent(), p.GetTargetCategory()))
      status = noCategories(fSettings.GetDependent());
  }
  if (!status.IsError() && fSettings.GetModelType() != TQConst::RegModelOther) {
    const int needed = std::max(ReferenceCategory(), IsBinary() ? 1 : 0);
    if (!listed(fSettings.GetDependent(), needed)) status = noCategories(fSettings.GetDependent());
  }
  if (!status.IsError()) fbConsistencyChecked = true;
  fStatus = status;
  return status;
}

TQStatus GZLPMMLExporter::ExportPMML(std::ostream& out, const TQSymMatrix* covariance) {
  TQStatus status = fStatus;
  if (!status.IsError() && covariance != nullptr &&
      covariance->GetNumRows() != static_cast<int>(fParameters.size()))
    status = TQStatus::Error(GZLStatusCode::InvalidCovarianceMatrix);
  if (!status.IsError() && (fEstimates.size() != fParameters.size() ||
                            fRedundant.Size() != static_cast<int>(fParameters.size())))
    status = TQStatus::Error(GZLStatusCode::InternalError);
  if (!status.IsError() && !fbConsistencyChecked) status = CheckConsistency();
  pugi::xml_node root;
  if (!status.IsError()) {
    fpDocument = std::make_unique<pugi::xml_document>();
    const TQPMMLExporter base(TQPMMLVersion::V4_3);
    root = base.CreateRoot(*fpDocument);
    // The host's application, or the library's own when it names none.
    const TQApplicInfo4XML given = fpApplication != nullptr ? *fpApplication : TQApplicInfo4XML();
    const bool named = !given.GetName().empty();
    const TQApplicInfo4XML application(named ? given.GetName() : kGZLDefaultApplicName,
                                       named ? given.GetVersion() : kGZLDefaultApplicVersion,
                                       given.GetCopyright().empty() ? kGZLDefaultCopyright : given.GetCopyright());
    if (!root || !base.ExportHeader(root, application, "", true) || !base.ExportDataDictionary(root, fVariables))
      status = TQStatus::Error(GZLStatusCode::OutputFileError);
  }
  if (!status.IsError()) {
    AddModel(root, covariance);
    if (!TQPMMLExporter::WriteTree(*fpDocument, out, true)) status = TQStatus::Error(GZLStatusCode::OutputFileError);
  }
  fStatus = status;
  return status;
}

void GZLPMMLExporter::AddModel(pugi::xml_node root, const TQSymMatrix* covariance) {
  pugi::xml_node model = root.append_child("GeneralRegressionModel");
  AddModelType(model);
  const char* name = fSettings.IsModelGEE() && !fbOrdinal ? "GEE" : "GZLM";
  model.append_attribute("modelName").set_value(name);
  model.append_attribute("algorithmName").set_value(name);
  AddFunctionName(model);
  AddTrials(model);
  AddOffset(model);
  AddLink(model);
  AddDistribution(model);
  const TQPMMLExporter base(TQPMMLVersion::V4_3);
  base.ExportExtension(model, "modelID", TQStatXMLUtil::FormatInt(fSettings.GetModelID()));

  const TQPMMLRegrExporter& regr = *fpRegrExporter;
  regr.ExportMiningSchema(model, fSettings.GetOffsetType() == TQConst::OffsetVariable ? fSettings.GetOffset() : -1,
                          fSettings.GetDependentType() == TQConst::DependentEventsTrials ? fSettings.GetTrials() : -1);
  AddModelExplanation(model);
  regr.ExportParameterList(model);
  regr.ExportFactorList(model);
  regr.ExportCovariateList(model);
  regr.ExportPPMatrix(model);
  const int reference = ReferenceCategory();
  if (covariance != nullptr) regr.ExportPCovMatrix(model, *covariance, fSettings.GetCovbType(), IsBinary(), reference);
  regr.ExportParamMatrix(model, IsBinary(), reference);
}

void GZLPMMLExporter::AddModelType(pugi::xml_node model) const {
  const TQConst::TQRegModelType type = fSettings.GetModelType();
  model.append_attribute("modelType")
      .set_value(type == TQConst::RegModelBinaryOrNominal ? "multinomialLogistic"
                 : type == TQConst::RegModelOrdinal       ? "ordinalMultinomial"
                                                          : "generalizedLinear");
}

void GZLPMMLExporter::AddFunctionName(pugi::xml_node model) const {
  if (fSettings.GetModelType() == TQConst::RegModelOther) {
    model.append_attribute("functionName").set_value("regression");
    return;
  }
  model.append_attribute("functionName").set_value("classification");
  AddTargetRefCategory(model);
}

void GZLPMMLExporter::AddTargetRefCategory(pugi::xml_node model) const {
  model.append_attribute("targetReferenceCategory").set_value(ResponseCategory(ReferenceCategory()).c_str());
}

void GZLPMMLExporter::AddFieldName(pugi::xml_node model, const char* attribute, int field) const {
  const GZLPMMLVariable* v = fVariables.GetVariable(field);
  if (v != nullptr) model.append_attribute(attribute).set_value(v->GetName().c_str());
}

void GZLPMMLExporter::AddTrials(pugi::xml_node model) const {
  const TQConst::TQDependentType type = fSettings.GetDependentType();
  if (type == TQConst::DependentEventsTrials) {
    AddFieldName(model, "trialsVariable", fSettings.GetTrials());
  } else if (type == TQConst::DependentEventsConstTrials) {
    const double trials = fSettings.GetTrialsValue();
    // The attribute takes integers only; a fractional constant is kept in an extension.
    if (TQStatXMLUtil::IsInteger(trials))
      TQStatXMLUtil::SetInt(model, "trialsValue", static_cast<long long>(trials));
    else
      TQPMMLExporter().ExportExtension(model, "trialsValue", TQStatXMLUtil::FormatDouble(trials));
  }
}

void GZLPMMLExporter::AddOffset(pugi::xml_node model) const {
  const TQConst::TQOffsetType type = fSettings.GetOffsetType();
  if (type == TQConst::OffsetVariable) {
    AddFieldName(model, "offsetVariable", fSettings.GetOffset());
  } else if (type == TQConst::OffsetValue) {
    TQStatXMLUtil::SetDouble(model, "offsetValue", fSettings.GetOffsetValue());
  }
}

void GZLPMMLExporter::AddLink(pugi::xml_node model) const {
  const TQConst::LinkType link = fSettings.GetLinkType();
  const char* name = LinkName(link);
  if (name == nullptr) return;
  if (link >= TQConst::LinkCumCauchit) {
    // The attribute name keeps its trailing blank: the documents have always been written so.
    const std::string value = link == TQConst::LinkCumCauchit ? name : name + 3;
    model.append_attribute("cumulativeLink ").set_value(value.c_str());
  } else {
    model.append_attribute("linkFunction").set_value(name);
  }
  double parameter = TQMV::Missing;
  if (link == TQConst::LinkOddsPower || link == TQConst::LinkPower)
    parameter = fSettings.GetLinkParam();
  else if (fSettings.IsNegBin0())
    parameter = 0.0;
  else if (link == TQConst::LinkNegBinomial)
    parameter = fDistParam;
  if (!TQMV::IsMissing(parameter)) TQStatXMLUtil::SetDouble(model, "linkParameter", parameter);
}

void GZLPMMLExporter::AddDistribution(pugi::xml_node model) const {
  const TQConst::DistType dist = fSettings.IsNegBin0() ? TQConst::DistPoisson : fSettings.GetDistType();
  const char* name = DistributionName(dist);
  if (name == nullptr || dist == TQConst::DistOrdinalMultinomial) return;
  model.append_attribute("distribution").set_value(name);
  if ((dist == TQConst::DistNegBinomial || dist == TQConst::DistTweedie) && !TQMV::IsMissing(fDistParam))
    TQStatXMLUtil::SetDouble(model, "distParameter", fDistParam);
}

void GZLPMMLExporter::AddModelExplanation(pugi::xml_node model) const {
  const int dependent = fSettings.GetDependent();
  const GZLPMMLVariable* response = fVariables.GetVariable(dependent);
  pugi::xml_node quality = model.append_child("ModelExplanation").append_child("PredictiveModelQuality");
  quality.append_attribute("targetField").set_value(response != nullptr ? response->GetName().c_str() : "");
  TQStatXMLUtil::SetDouble(quality, "numOfRecords", fNumRecords);
  TQStatXMLUtil::SetDouble(quality, "numOfRecordsWeighted", fNumRecordsWeighted);
  TQStatXMLUtil::SetInt(quality, "numOfPredictors", fNumOfPredictors);
  if (!TQMV::IsMissing(fBIC)) TQStatXMLUtil::SetDouble(quality, "BIC", fBIC);
  if (!TQMV::IsMissing(fAICC)) TQStatXMLUtil::SetDouble(quality, "AICc", fAICC);

  const TQConst::DistType dist = fSettings.GetDistType();
  if (dist == TQConst::DistBinomial || fSettings.IsMultinomial()) {
    std::vector<std::string> labels;
    if (fSettings.GetDependentType() == TQConst::DependentSingle) {
      for (int c = 0; c < fSettings.GetDependentSize(); ++c) labels.push_back(ResponseCategory(c));
    } else {
      labels = {"Non-Event", "Event"};
    }
    pugi::xml_node confusion = quality.append_child("ConfusionMatrix");
    TQStatXMLUtil::AppendArray(confusion.append_child("ClassLabels"), labels);
    pugi::xml_node matrix = confusion.append_child("Matrix");
    const int n = fClassification.GetSize();
    if (n > 0) {
      TQStatXMLUtil::SetInt(matrix, "nbRows", n);
      TQStatXMLUtil::SetInt(matrix, "nbCols", n);
    }
    for (int i = 0; i < n; ++i) {
      std::vector<double> row;
      for (int j = 0; j < n; ++j) row.push_back(fClassification.Get(i, j));
      TQStatXMLUtil::AppendArray(matrix, row);
    }
  }

  if (response != nullptr && response->GetMeasLevel() == MeasContinuous) {
    if (!fGainsRegr.empty()) AppendLiftData(quality, fGainsRegr, nullptr, nullptr);
    return;
  }
  for (std::size_t c = 0; c < fGainsCls.size(); ++c) {
    if (fGainsCls[c].empty()) continue;
    const std::string value = ResponseCategory(static_cast<int>(c));
    const std::string* label = nullptr;
    if (response != nullptr && c < response->GetValidValueLabels().size() && !response->GetValidValueLabels()[c].empty())
      label = &response->GetValidValueLabels()[c];
    AppendLiftData(quality, fGainsCls[c], &value, label != nullptr ? label : &value);
  }
}

void GZLPMMLExporter::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLPMMLExporter display start");
  DisplayText(1, "Metadata for PMML:");
  fVariables.GetMetadata().Display();
  DisplayText(1, fSettings.IsModelGEE() ? "Model is GEE" : "Model is GZLM");
  DisplayIV("Factors:", fpRegrExporter->GetActiveFactors());
  DisplayIV("Covariates:", fpRegrExporter->GetActiveCovariates());
  DisplayI("Number of parameters", static_cast<int>(fParameters.size()));
  DisplayDV("Parameter estimates", fEstimates, false);
  DisplayS("Parameter redundancy indicators", fRedundant.ToString());
  DisplayText(1, fbConsistencyChecked ? "Consistency has been checked" : "Consistency has not been checked");
  DisplayI("Error code in status", fStatus.GetErrorCode());
  DisplayText(1, "GZLPMMLExporter display end");
}
