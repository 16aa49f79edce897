#pragma once
// The parts of a PMML document that every model shares: the root element of a PMML version
// with its namespace, the Header, the DataDictionary of a variable list, vendor Extension
// elements, and the writing of the finished tree to a stream. The tree is pugixml's.
#include <iosfwd>
#include <string>

#include <pugixml.hpp>

class TQVarList;
class TQApplicInfo4XML;
class GZLPMMLVariable;

enum class TQPMMLVersion { V3_2, V4_0, V4_1, V4_3 };

class TQPMMLExporter {
 public:
  // The vendor's name in the extender attribute of its Extension elements.
  static constexpr const char* kExtender = "gzl";

  explicit TQPMMLExporter(TQPMMLVersion version = TQPMMLVersion::V4_3) noexcept : fVersion(version) {}

  TQPMMLVersion GetVersion() const noexcept { return fVersion; }
  // "4.3", "http://www.dmg.org/PMML-4_3", "pmml-4-3.xsd".
  static const char* VersionString(TQPMMLVersion version) noexcept;
  static const char* Namespace(TQPMMLVersion version) noexcept;
  static const char* SchemaFile(TQPMMLVersion version) noexcept;

  // Empties the document and gives it an XML declaration and the PMML root element (with its
  // namespace and version), which it returns.
  pugi::xml_node CreateRoot(pugi::xml_document& document) const;
  // A Header with the application's copyright and the description; with `withApplication` an
  // Application element of the application's name and version. Returns the new element, or an
  // empty node when the parent is empty.
  pugi::xml_node ExportHeader(pugi::xml_node parent, const TQApplicInfo4XML& application,
                              const std::string& description, bool withApplication) const;
  // One DataField per variable of the list whose measurement level is known, in the list's
  // order: categories as valid Values, discrete missing values as Values with property
  // "missing" (PMML has no missing interval: a vendor Extension keeps it).
  pugi::xml_node ExportDataDictionary(pugi::xml_node parent, const TQVarList& variables) const;
  // <Extension extender=".." name=".." value=".."/>.
  pugi::xml_node ExportExtension(pugi::xml_node parent, const std::string& name, const std::string& value) const;
  // False when the stream fails.
  static bool WriteTree(const pugi::xml_document& document, std::ostream& out, bool indent);

  // A variable with a known measurement level (continuous, nominal or ordinal).
  static bool IsUseful(const GZLPMMLVariable& variable) noexcept;

 private:
  TQPMMLVersion fVersion;
};
