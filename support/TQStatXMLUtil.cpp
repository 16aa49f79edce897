#include "TQStatXMLUtil.h"

#include <charconv>
#include <cmath>

#include "TQMV.h"

namespace TQStatXMLUtil {

std::string FormatDouble(double value) {
  if (TQMV::IsMissing(value)) return "NaN";
  if (std::isinf(value)) return value > 0.0 ? "INF" : "-INF";
  char buf[32];
  const auto result = std::to_chars(buf, buf + sizeof buf, value);
  return std::string(buf, result.ptr);
}

std::string FormatInt(long long value) { return std::to_string(value); }

bool IsInteger(double value) noexcept {
  // 2^63 is the first double beyond the range of long long.
  return std::isfinite(value) && value == std::trunc(value) && std::fabs(value) < 9.2233720368547758e18;
}

void SetDouble(pugi::xml_node node, const char* name, double value) {
  node.append_attribute(name).set_value(FormatDouble(value).c_str());
}

void SetInt(pugi::xml_node node, const char* name, long long value) {
  node.append_attribute(name).set_value(FormatInt(value).c_str());
}

namespace {

template <class T, class F>
pugi::xml_node Array(pugi::xml_node parent, const std::vector<T>& values, const char* type, F format) {
  pugi::xml_node array = parent.append_child("Array");
  SetInt(array, "n", static_cast<long long>(values.size()));
  array.append_attribute("type").set_value(type);
  std::string text;
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (i > 0) text += ' ';
    text += format(values[i]);
  }
  array.append_child(pugi::node_pcdata).set_value(text.c_str());
  return array;
}

std::string Quoted(const std::string& s) {
  std::string out = "\"";
  for (char c : s) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + '"';
}

}  // namespace

pugi::xml_node AppendArray(pugi::xml_node parent, const std::vector<double>& values) {
  return Array(parent, values, "real", FormatDouble);
}

pugi::xml_node AppendArray(pugi::xml_node parent, const std::vector<int>& values) {
  return Array(parent, values, "int", [](int v) { return FormatInt(v); });
}

pugi::xml_node AppendArray(pugi::xml_node parent, const std::vector<std::string>& values) {
  return Array(parent, values, "string", Quoted);
}

}  // namespace TQStatXMLUtil
