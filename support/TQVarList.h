#pragma once
// The variable list a PMML writer reads: the host's variable metadata looked up by record field
// index, and the category encoders (category index -> the category's value as the data spell
// it). Built from the host's GZLPMMLMetadata; a value, copied in.
#include <string>
#include <utility>

#include "GZLPMMLMetadata.h"

class TQVarList {
 public:
  TQVarList() = default;
  explicit TQVarList(GZLPMMLMetadata metadata) : fMetadata(std::move(metadata)) {}

  int GetNVariables() const noexcept { return fMetadata.GetNVariables(); }
  // In the order of registration.
  const GZLPMMLVariable& GetVariableAt(int position) const {
    return fMetadata.GetVariableInfo()[static_cast<std::size_t>(position)];
  }
  // The variable of a record field, or null.
  const GZLPMMLVariable* GetVariable(int fieldIndex) const noexcept { return fMetadata.GetVariable(fieldIndex); }
  // The value of category `category` of a field, or null when the field or the category is not
  // known.
  const std::string* GetCategoryValue(int fieldIndex, int category) const noexcept {
    const GZLPMMLVariable* v = GetVariable(fieldIndex);
    if (v == nullptr || category < 0 || category >= v->GetNValidValues()) return nullptr;
    return &v->GetValidValues()[static_cast<std::size_t>(category)];
  }
  const GZLPMMLMetadata& GetMetadata() const noexcept { return fMetadata; }

 private:
  GZLPMMLMetadata fMetadata;
};

// The application that writes a document (the PMML Header): name, version and copyright.
class TQApplicInfo4XML {
 public:
  TQApplicInfo4XML() = default;
  TQApplicInfo4XML(std::string name, std::string version, std::string copyright)
      : fName(std::move(name)), fVersion(std::move(version)), fCopyright(std::move(copyright)) {}
  explicit TQApplicInfo4XML(const GZLPMMLMetadata& metadata)
      : TQApplicInfo4XML(metadata.GetApplicName(), metadata.GetApplicVersion(), metadata.GetCopyrightStr()) {}

  const std::string& GetName() const noexcept { return fName; }
  const std::string& GetVersion() const noexcept { return fVersion; }
  const std::string& GetCopyright() const noexcept { return fCopyright; }

 private:
  std::string fName;
  std::string fVersion;
  std::string fCopyright;
};
