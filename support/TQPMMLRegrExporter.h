#pragma once
// The elements of a PMML GeneralRegressionModel that every regression model of the engine
// shares: MiningSchema, ParameterList, FactorList, CovariateList, PPMatrix, PCovMatrix and
// ParamMatrix, written from the model's parameter list, its estimates and its redundancy set
// (a set bit: the parameter is in the model), with the variables' names and category values
// from a variable list. The model-specific attributes are the caller's.
//
// Parameters are written one to one, in the parameter list's order, under the names P0000001,
// P0000002, ...; aliased parameters keep their place with beta 0 and df 0.
//
// Parameter matrix in the standard's terms:
//  - a binary model (single binomial response): every PCell carries the non-reference
//    category as targetCategory;
//  - nominal response: every PCell carries its parameter's response category;
//  - ordinal response: the engine's cumulative predictor is theta_j - x'b + offset, the
//    standard's intercept_j + x'b' + offset, so each threshold is a PCell with its category
//    and every other parameter is written with its sign reversed and no targetCategory (the
//    covariances follow the same signs).
#include <string>
#include <vector>

#include <pugixml.hpp>

#include "GZLRegrParameter.h"
#include "TQBitSet.h"
#include "TQConst.h"

class TQRegSettings;
class TQVarList;
class TQSymMatrix;

class TQPMMLRegrExporter {
 public:
  // Everything is borrowed and must outlive the exporter.
  TQPMMLRegrExporter(const TQRegSettings& settings, const TQVarList& variables,
                     const std::vector<TQRegrParameter>& parameters, const std::vector<double>& estimates,
                     const TQBitSet& inModel);

  // Field indices of the factors and covariates that the parameters use, in order of first use.
  const std::vector<int>& GetActiveFactors() const noexcept { return fFactors; }
  const std::vector<int>& GetActiveCovariates() const noexcept { return fCovariates; }

  // The target (usageType predicted), the factors, the covariates, then the offset and trials
  // variables when their indices are >= 0. Variables without metadata are left out.
  pugi::xml_node ExportMiningSchema(pugi::xml_node model, int offsetVariable, int trialsVariable) const;
  pugi::xml_node ExportParameterList(pugi::xml_node model) const;
  // Empty nodes when there is no factor (covariate).
  pugi::xml_node ExportFactorList(pugi::xml_node model) const;
  pugi::xml_node ExportCovariateList(pugi::xml_node model) const;
  pugi::xml_node ExportPPMatrix(pugi::xml_node model) const;
  // The lower triangle over the parameters in the model; empty node when none is.
  pugi::xml_node ExportPCovMatrix(pugi::xml_node model, const TQSymMatrix& covariance, TQConst::TQCovbType type,
                                  bool binary, int referenceCategory) const;
  pugi::xml_node ExportParamMatrix(pugi::xml_node model, bool binary, int referenceCategory) const;

  // "P0000001" for parameter 0.
  static std::string ParameterName(int parameter);
  // "(Intercept)", "Threshold [y=1]", "[a=x]*[b=y]*z**2", "[y=2]: [a=x]".
  std::string ParameterLabel(int parameter) const;
  // The value of category `category` of a field as the variable list spells it; the number
  // itself when the list has no value for it (a factor described as continuous).
  std::string CategoryValue(int field, int category) const;

 private:
  bool IsOrdinal() const noexcept;
  // A model whose parameters carry response categories (ordinal thresholds, nominal blocks).
  bool HasTargetCategories(bool binary) const noexcept;
  // The targetCategory of a parameter's PCell (empty when it has none) and the sign of its beta.
  std::string TargetOf(int parameter, bool binary, int referenceCategory) const;
  double SignOf(int parameter) const noexcept;
  std::string NameOf(int field) const;
  pugi::xml_node PredictorList(pugi::xml_node model, const char* element, const std::vector<int>& fields) const;

  const TQRegSettings& fSettings;
  const TQVarList& fVariables;
  const std::vector<TQRegrParameter>& fParameters;
  const std::vector<double>& fEstimates;
  const TQBitSet& fInModel;
  std::vector<int> fFactors;
  std::vector<int> fCovariates;
};
