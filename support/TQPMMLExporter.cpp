#include "TQPMMLExporter.h"

#include <iterator>
#include <ostream>

#include "TQStatXMLUtil.h"
#include "TQVarList.h"

namespace {

struct VersionInfo {
  const char* version;
  const char* ns;
  const char* schema;
};

// In the order of TQPMMLVersion.
constexpr VersionInfo kVersions[] = {
    {"3.2", "http://www.dmg.org/PMML-3_2", "pmml-3-2.xsd"},
    {"4.0", "http://www.dmg.org/PMML-4_0", "pmml-4-0.xsd"},
    {"4.1", "http://www.dmg.org/PMML-4_1", "pmml-4-1.xsd"},
    {"4.3", "http://www.dmg.org/PMML-4_3", "pmml-4-3.xsd"},
};

const VersionInfo& Info(TQPMMLVersion version) noexcept {
  const auto i = static_cast<std::size_t>(version);
  return i < std::size(kVersions) ? kVersions[i] : kVersions[std::size(kVersions) - 1];
}

}  // namespace

const char* TQPMMLExporter::VersionString(TQPMMLVersion version) noexcept { return Info(version).version; }
const char* TQPMMLExporter::Namespace(TQPMMLVersion version) noexcept { return Info(version).ns; }
const char* TQPMMLExporter::SchemaFile(TQPMMLVersion version) noexcept { return Info(version).schema; }

pugi::xml_node TQPMMLExporter::CreateRoot(pugi::xml_document& document) const {
  document.reset();
  pugi::xml_node declaration = document.append_child(pugi::node_declaration);
  declaration.append_attribute("version").set_value("1.0");
  declaration.append_attribute("encoding").set_value("UTF-8");
  pugi::xml_node root = document.append_child("PMML");
  root.append_attribute("xmlns").set_value(Namespace(fVersion));
  root.append_attribute("version").set_value(VersionString(fVersion));
  return root;
}

pugi::xml_node TQPMMLExporter::ExportHeader(pugi::xml_node parent, const TQApplicInfo4XML& application,
                                            const std::string& description, bool withApplication) const {
  if (!parent) return {};
  pugi::xml_node header = parent.append_child("Header");
  header.append_attribute("copyright").set_value(application.GetCopyright().c_str());
  header.append_attribute("description").set_value(description.c_str());
  if (withApplication) {
    pugi::xml_node app = header.append_child("Application");
    app.append_attribute("name").set_value(application.GetName().c_str());
    app.append_attribute("version").set_value(application.GetVersion().c_str());
  }
  return header;
}

bool TQPMMLExporter::IsUseful(const GZLPMMLVariable& variable) noexcept {
  const GZLMeasLevel level = variable.GetMeasLevel();
  return level == MeasContinuous || level == MeasNominal || level == MeasOrdinal;
}

pugi::xml_node TQPMMLExporter::ExportDataDictionary(pugi::xml_node parent, const TQVarList& variables) const {
  if (!parent) return {};
  pugi::xml_node dictionary = parent.append_child("DataDictionary");
  long long count = 0;
  for (int i = 0; i < variables.GetNVariables(); ++i) {
    const GZLPMMLVariable& v = variables.GetVariableAt(i);
    if (!IsUseful(v)) continue;
    ++count;
    pugi::xml_node field = dictionary.append_child("DataField");
    field.append_attribute("name").set_value(v.GetName().c_str());
    if (!v.GetLabel().empty()) field.append_attribute("displayName").set_value(v.GetLabel().c_str());
    const GZLMeasLevel level = v.GetMeasLevel();
    field.append_attribute("optype").set_value(level == MeasContinuous ? "continuous"
                                               : level == MeasOrdinal  ? "ordinal"
                                                                       : "categorical");
    field.append_attribute("dataType").set_value(v.GetDataType() == DataString ? "string" : "double");
    std::string low, high;
    if (v.GetMissingInterval(low, high)) {
      ExportExtension(field, "missingLow", low);
      ExportExtension(field, "missingHigh", high);
    }
    auto addValues = [&field](const std::vector<std::string>& values, const std::vector<std::string>& labels,
                              const char* property) {
      for (std::size_t k = 0; k < values.size(); ++k) {
        pugi::xml_node value = field.append_child("Value");
        value.append_attribute("value").set_value(values[k].c_str());
        if (k < labels.size() && !labels[k].empty())
          value.append_attribute("displayValue").set_value(labels[k].c_str());
        if (property != nullptr) value.append_attribute("property").set_value(property);
      }
    };
    addValues(v.GetValidValues(), v.GetValidValueLabels(), nullptr);
    addValues(v.GetDiscreteMissingValues(), v.GetDiscreteMissingLabels(), "missing");
  }
  dictionary.prepend_attribute("numberOfFields").set_value(TQStatXMLUtil::FormatInt(count).c_str());
  return dictionary;
}

pugi::xml_node TQPMMLExporter::ExportExtension(pugi::xml_node parent, const std::string& name,
                                               const std::string& value) const {
  if (!parent) return {};
  pugi::xml_node extension = parent.append_child("Extension");
  extension.append_attribute("extender").set_value(kExtender);
  extension.append_attribute("name").set_value(name.c_str());
  extension.append_attribute("value").set_value(value.c_str());
  return extension;
}

bool TQPMMLExporter::WriteTree(const pugi::xml_document& document, std::ostream& out, bool indent) {
  if (!out) return false;
  const unsigned flags = indent ? pugi::format_indent : pugi::format_raw;
  document.save(out, "  ", flags, pugi::encoding_utf8);
  out.flush();
  return static_cast<bool>(out);
}
