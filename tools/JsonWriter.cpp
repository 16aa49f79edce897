#include "tools/JsonWriter.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "support/TQMV.h"

std::string JsonWriter::Escape(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 2);
  for (const char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char buffer[8];
          std::snprintf(buffer, sizeof buffer, "\\u%04x", static_cast<unsigned>(static_cast<unsigned char>(c)));
          out += buffer;
        } else {
          out += c;
        }
    }
  }
  return out;
}

void JsonWriter::NewLine() {
  fOut << '\n';
  for (std::size_t i = 0; i < fStack.size(); ++i) fOut << "  ";
}

void JsonWriter::BeforeValue() {
  fStarted = true;
  if (fAfterKey) {
    fAfterKey = false;
    return;
  }
  if (fStack.empty()) return;
  if (fStack.back().count++ > 0) fOut << ',';
  NewLine();
}

void JsonWriter::Key(std::string_view key) {
  if (fStack.empty() || !fStack.back().isObject) return;
  if (fStack.back().count++ > 0) fOut << ',';
  NewLine();
  fOut << '"' << Escape(key) << "\": ";
  fAfterKey = true;
}

void JsonWriter::Open(char bracket) {
  BeforeValue();
  fOut << bracket;
  fStack.push_back({bracket == '{', 0});
}

void JsonWriter::Close(char bracket) {
  if (fStack.empty()) return;
  const bool empty = fStack.back().count == 0;
  fStack.pop_back();
  if (!empty) NewLine();
  fOut << bracket;
  if (fStack.empty()) fOut << '\n';
}

void JsonWriter::String(std::string_view value) {
  BeforeValue();
  fOut << '"' << Escape(value) << '"';
}

void JsonWriter::Number(double value) {
  BeforeValue();
  if (TQMV::IsMissingOrInfinite(value)) {
    fOut << "null";
    return;
  }
  // Shortest form that reads back to the same double.
  char buffer[32];
  for (int precision = 15; precision <= 17; ++precision) {
    std::snprintf(buffer, sizeof buffer, "%.*g", precision, value);
    if (std::strtod(buffer, nullptr) == value) break;
  }
  fOut << buffer;
}

void JsonWriter::Integer(std::int64_t value) {
  BeforeValue();
  fOut << value;
}

void JsonWriter::Bool(bool value) {
  BeforeValue();
  fOut << (value ? "true" : "false");
}

void JsonWriter::Null() {
  BeforeValue();
  fOut << "null";
}
