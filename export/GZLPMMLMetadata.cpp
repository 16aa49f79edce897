#include "GZLPMMLMetadata.h"

#include "support/TQDisplay_940.h"

bool GZLPMMLVariable::Setup(int index, const std::string& name, const std::string& label, GZLMeasLevel level,
                            GZLDataType type) {
  if (index >= 0) fIndex = index;
  fName = name;
  fLabel = label;
  fMeasLevel = level;
  if (level == MeasContinuous && type == DataString) return false;
  fDataType = type;
  return !name.empty() && level != MeasUnknown && index >= 0;
}

void GZLPMMLVariable::AddDiscreteUserMissing(const std::string& value, const std::string& label) {
  fMissingValues.push_back(value);
  fMissingLabels.push_back(label);
}

void GZLPMMLVariable::SetMissingInterval(const std::string& low, const std::string& high) {
  fMissingLow = low;
  fMissingHigh = high;
  fbMissingInterval = true;
}

bool GZLPMMLVariable::SetValidValues(const std::vector<std::string>& values, const std::vector<std::string>& labels) {
  if (fMeasLevel != MeasNominal && fMeasLevel != MeasOrdinal) return false;
  if (values.size() != labels.size()) return false;
  fValidValues = values;
  fValidLabels = labels;
  return true;
}

bool GZLPMMLVariable::GetMissingInterval(std::string& low, std::string& high) const {
  low = fMissingLow;
  high = fMissingHigh;
  return fbMissingInterval;
}

void GZLPMMLVariable::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLPMMLVariable display start");
  DisplayI("Index", fIndex);
  DisplayS("Name", fName);
  DisplayS("Label", fLabel);
  DisplayI("Measurement level", fMeasLevel);
  DisplayI("Data type", fDataType);
  DisplaySV("Discrete missing values", fMissingValues);
  DisplaySV("Labels of discrete missing values", fMissingLabels);
  DisplayB("Missing interval is set", fbMissingInterval);
  if (fbMissingInterval) DisplaySV("Missing interval", {fMissingLow, fMissingHigh});
  DisplaySV("Valid values", fValidValues);
  DisplaySV("Labels of valid values", fValidLabels);
  DisplayText(1, "GZLPMMLVariable display end");
}

void GZLPMMLMetadata::SetApplicInfo(const std::string& name, const std::string& version, const std::string& copyright) {
  fApplicName = name;
  fApplicVersion = version;
  fCopyright = copyright;
}

bool GZLPMMLMetadata::AddVariableInfo(const GZLPMMLVariable& variable) {
  const int index = variable.GetIndex();
  if (index < 0 || variable.GetName().empty()) return false;
  if (GetVariable(index) != nullptr) return false;
  for (const GZLPMMLVariable& v : fVariables)
    if (v.GetName() == variable.GetName()) return false;
  if (static_cast<std::size_t>(index) >= fIndex.size()) fIndex.resize(static_cast<std::size_t>(index) + 1, -1);
  fIndex[static_cast<std::size_t>(index)] = static_cast<int>(fVariables.size());
  fVariables.push_back(variable);
  return true;
}

const GZLPMMLVariable* GZLPMMLMetadata::GetVariable(int fieldIndex) const noexcept {
  if (fieldIndex < 0 || static_cast<std::size_t>(fieldIndex) >= fIndex.size()) return nullptr;
  const int position = fIndex[static_cast<std::size_t>(fieldIndex)];
  return position < 0 ? nullptr : &fVariables[static_cast<std::size_t>(position)];
}

void GZLPMMLMetadata::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLPMMLMetadata display start");
  DisplayI("Number of Variables", GetNVariables());
  DisplayIV("Internal index: ", fIndex);
  DisplayText(1, "Variables: ");
  for (const GZLPMMLVariable& v : fVariables) v.Display();
  DisplayS("Application name", fApplicName);
  DisplayS("Application version", fApplicVersion);
  DisplayS("Copyright", fCopyright);
  DisplayB("Recode into UTF8?", fbUTF8Recoding);
  DisplayText(1, "GZLPMMLMetadata display end");
}
