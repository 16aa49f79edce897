#pragma once
// The host's description of its variables and of the application, for the PMML document: one
// GZLPMMLVariable per record field that the document may mention (name, label, measurement
// level, data type, categories, missing values) collected in a GZLPMMLMetadata. The engine
// reads them through the variable list it is handed (TQVarList, built from the metadata).
//
// Categories: the i-th valid value of a nominal or ordinal variable is the category that the
// records code as i (the engine's category index), spelled as the host's data spell it.
#include <string>
#include <vector>

enum GZLMeasLevel : int { MeasUnknown = 0, MeasContinuous = 1, MeasNominal = 2, MeasOrdinal = 3 };
enum GZLDataType : int { DataNumeric = 0, DataString = 1 };

class GZLPMMLVariable {
 public:
  GZLPMMLVariable() = default;

  // Stores the index (only when it is >= 0), the name, the label and the level. A continuous
  // variable cannot be of type String: the old data type is then kept and the call fails.
  // Succeeds when the name is not empty, the level is known and the index is >= 0.
  bool Setup(int index, const std::string& name, const std::string& label, GZLMeasLevel level,
             GZLDataType type);
  void AddDiscreteUserMissing(const std::string& value, const std::string& label);
  void SetMissingInterval(const std::string& low, const std::string& high);
  // Only for nominal and ordinal variables, and only with one label per value.
  bool SetValidValues(const std::vector<std::string>& values, const std::vector<std::string>& labels);

  int GetIndex() const noexcept { return fIndex; }
  const std::string& GetName() const noexcept { return fName; }
  const std::string& GetLabel() const noexcept { return fLabel; }
  GZLMeasLevel GetMeasLevel() const noexcept { return fMeasLevel; }
  GZLDataType GetDataType() const noexcept { return fDataType; }
  const std::vector<std::string>& GetDiscreteMissingValues() const noexcept { return fMissingValues; }
  const std::vector<std::string>& GetDiscreteMissingLabels() const noexcept { return fMissingLabels; }
  // False when no missing interval is set.
  bool GetMissingInterval(std::string& low, std::string& high) const;
  const std::vector<std::string>& GetValidValues() const noexcept { return fValidValues; }
  const std::vector<std::string>& GetValidValueLabels() const noexcept { return fValidLabels; }
  int GetNValidValues() const noexcept { return static_cast<int>(fValidValues.size()); }

  bool operator==(const GZLPMMLVariable& other) const = default;
  void Reset() { *this = GZLPMMLVariable(); }
  void Display() const;

 private:
  int fIndex = -1;
  std::string fName;
  std::string fLabel;
  GZLMeasLevel fMeasLevel = MeasUnknown;
  GZLDataType fDataType = DataNumeric;
  std::vector<std::string> fMissingValues;
  std::vector<std::string> fMissingLabels;
  std::string fMissingLow;
  std::string fMissingHigh;
  bool fbMissingInterval = false;
  std::vector<std::string> fValidValues;
  std::vector<std::string> fValidLabels;
};

class GZLPMMLMetadata {
 public:
  GZLPMMLMetadata() = default;

  void SetApplicInfo(const std::string& name, const std::string& version, const std::string& copyright);
  // Refused when the variable's index is negative or its name empty, when its index is already
  // registered, or when a variable of the same name is present.
  bool AddVariableInfo(const GZLPMMLVariable& variable);

  int GetNVariables() const noexcept { return static_cast<int>(fVariables.size()); }
  // The variable of a record field, or null.
  const GZLPMMLVariable* GetVariable(int fieldIndex) const noexcept;
  // The list in the order of registration.
  const std::vector<GZLPMMLVariable>& GetVariableInfo() const noexcept { return fVariables; }
  const std::string& GetApplicName() const noexcept { return fApplicName; }
  const std::string& GetApplicVersion() const noexcept { return fApplicVersion; }
  const std::string& GetCopyrightStr() const noexcept { return fCopyright; }
  // The document is always written in UTF-8; the flag tells whether the host's strings still
  // need recoding (hosts of this library hand in UTF-8, so nothing reads it).
  void SetUTF8Recoding(bool recode) noexcept { fbUTF8Recoding = recode; }
  bool NeedUTF8Recoding() const noexcept { return fbUTF8Recoding; }
  void Display() const;

 private:
  std::vector<GZLPMMLVariable> fVariables;
  // Position in fVariables of every field index, -1 where absent.
  std::vector<int> fIndex;
  std::string fApplicName;
  std::string fApplicVersion;
  std::string fCopyright;
  bool fbUTF8Recoding = true;
};
