#include "TQDisplay_940.h"

#include <cstdio>
#include <iostream>
#include <ostream>

#include "TQMV.h"

namespace TQDisplay_940 {
namespace {

std::ostream*& CurrentStream() {
  static std::ostream* stream = nullptr;
  return stream;
}

std::string FormatDouble(double v, int digits) {
  if (TQMV::IsMissing(v)) return "missing";
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.*g", digits, v);
  return buf;
}

// "label: value". A label that already ends in a colon (possibly followed by blanks, as in
// "Number of model effects: ") is not given a second one.
void Label(std::ostream& out, const std::string& label) {
  const auto end = label.find_last_not_of(' ');
  if (end != std::string::npos && label[end] == ':')
    out << label.substr(0, end + 1);
  else
    out << label << ':';
}

void Line(const std::string& label, const std::string& value) {
  std::ostream& out = Stream();
  Label(out, label);
  out << ' ' << value << '\n';
}

template <class T, class F>
void Vector(const std::string& label, const std::vector<T>& values, F format) {
  std::ostream& out = Stream();
  Label(out, label);
  for (const T& v : values) out << ' ' << format(v);
  out << '\n';
}

void Enum(const std::string& label, const char* text) { Stream() << label << " = " << text << '\n'; }

}  // namespace

std::ostream* SetStream(std::ostream* out) {
  std::ostream* previous = CurrentStream();
  CurrentStream() = out;
  return previous;
}

std::ostream& Stream() {
  std::ostream* s = CurrentStream();
  return s ? *s : std::cout;
}

void DisplayB(std::string label, bool value) { Line(label, value ? "true" : "false"); }
void DisplayI(std::string label, int value) { Line(label, std::to_string(value)); }
void DisplayD(std::string label, double value) { Line(label, FormatDouble(value, 6)); }
void DisplayDF(std::string label, double value) { Line(label, FormatDouble(value, 17)); }
void DisplayS(std::string label, std::string value) { Line(label, value); }

void DisplayIV(std::string label, const std::vector<int>& values) {
  Vector(label, values, [](int v) { return std::to_string(v); });
}
void DisplayDV(std::string label, const std::vector<double>& values, bool fullPrecision) {
  const int digits = fullPrecision ? 17 : 6;
  Vector(label, values, [digits](double v) { return FormatDouble(v, digits); });
}
void DisplayBV(std::string label, const std::vector<bool>& values) {
  Vector(label, values, [](bool v) { return std::string(v ? "1" : "0"); });
}
void DisplaySV(std::string label, const std::vector<std::string>& values) {
  Vector(label, values, [](const std::string& v) { return v; });
}

void DisplayC(std::string label, TQConst::DistType value) {
  static const char* const kNames[] = {"Normal",  "Binomial", "Gamma",   "Inverse Gaussian",
                                       "Negative binomial", "Poisson", "Ordinal multinomial",
                                       "Tweedie", "Nominal multinomial"};
  Enum(label, value >= 0 && value <= 8 ? kNames[value] : "unrecognized");
}
void DisplayC(std::string label, TQConst::LinkType value) {
  static const char* const kNames[] = {"Complementary log-log", "Identity", "Log", "Log complement",
                                       "Logit", "Negative binomial", "Negative log-log", "Odds power",
                                       "Power", "Probit", "Cumulative Cauchit",
                                       "Cumulative complementary log-log", "Cumulative logit",
                                       "Cumulative negative log-log", "Cumulative probit"};
  Enum(label, value >= 0 && value <= 14 ? kNames[value] : "unrecognized");
}
void DisplayC(std::string label, TQConst::TQHessianCompMethod value) {
  Enum(label, value == 2 ? "Newton-Raphson" : value == 3 ? "Hybrid" : "Fisher scoring");
}
void DisplayC(std::string label, TQConst::TQConvType value) {
  Enum(label, value == 1 ? "Absolute" : value == 2 ? "Relative" : "unrecognized");
}
void DisplayC(std::string label, TQConst::TQDependentType value) {
  static const char* const kNames[] = {"No dependent", "Single dependent", "Events and trials variables",
                                       "Events variable and constant trials"};
  Enum(label, value >= 0 && value <= 3 ? kNames[value] : "unrecognized");
}
void DisplayC(std::string label, TQConst::TQEffectAnalysisType value) {
  static const char* const kNames[] = {"Type I", "Type III", "Type I and Type III", "None"};
  Enum(label, value >= 0 && value <= 3 ? kNames[value] : "unrecognized");
}
void DisplayC(std::string label, TQConst::TQOffsetType value) {
  static const char* const kNames[] = {"No offset", "Offset variable", "Offset value"};
  Enum(label, value >= 0 && value <= 2 ? kNames[value] : "unrecognized");
}
void DisplayC(std::string label, TQConst::TQCovbType value) {
  Enum(label, value == 0 ? "Model-based" : value == 1 ? "Robust" : "unrecognized");
}

void DisplayText(int level, std::string text) {
  std::ostream& out = Stream();
  for (int i = 1; i < level; ++i) out << "  ";
  out << text << '\n';
}

}  // namespace TQDisplay_940
