#pragma once
// Helpers of the XML writers: numbers in the form an XML schema reads back exactly (shortest
// round-trip decimal; NaN, INF and -INF; the missing-value marker as NaN), integers, and the
// PMML Array element.
#include <string>
#include <vector>

#include <pugixml.hpp>

namespace TQStatXMLUtil {

// The shortest decimal that reads back as the same double ("0.1", "1e-300", "-INF", "NaN").
// The missing-value marker and NaN are "NaN".
std::string FormatDouble(double value);
std::string FormatInt(long long value);
// True when the value is a finite integer that fits a long long (then written without a
// fraction, as integer attributes need).
bool IsInteger(double value) noexcept;

// Sets an attribute to a number as FormatDouble writes it.
void SetDouble(pugi::xml_node node, const char* name, double value);
void SetInt(pugi::xml_node node, const char* name, long long value);

// <Array n=".." type="real|int|string"> children: numbers separated by blanks, strings
// each in double quotes (a quote or backslash inside escaped with a backslash).
pugi::xml_node AppendArray(pugi::xml_node parent, const std::vector<double>& values);
pugi::xml_node AppendArray(pugi::xml_node parent, const std::vector<int>& values);
pugi::xml_node AppendArray(pugi::xml_node parent, const std::vector<std::string>& values);

}  // namespace TQStatXMLUtil
