#pragma once
// A small streaming writer of indented JSON. Numbers that cannot be computed (the missing-value
// marker, NaN, infinities) are written as null, so the document is always valid JSON.
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

class JsonWriter {
 public:
  explicit JsonWriter(std::ostream& out) : fOut(out) {}

  void BeginObject() { Open('{'); }
  void EndObject() { Close('}'); }
  void BeginArray() { Open('['); }
  void EndArray() { Close(']'); }
  // Inside an object: the key of the next value.
  void Key(std::string_view key);

  void String(std::string_view value);
  void Number(double value);
  void Integer(std::int64_t value);
  void Bool(bool value);
  void Null();

  // Key and value in one call.
  template <typename T>
  void Member(std::string_view key, const T& value) {
    Key(key);
    Value(value);
  }

  // True once the outermost value is complete.
  bool Done() const noexcept { return fStarted && fStack.empty(); }

  static std::string Escape(std::string_view text);

 private:
  void Value(std::string_view v) { String(v); }
  void Value(const std::string& v) { String(v); }
  void Value(const char* v) { String(v); }
  void Value(double v) { Number(v); }
  void Value(int v) { Integer(v); }
  void Value(long v) { Integer(v); }
  void Value(long long v) { Integer(v); }
  void Value(unsigned v) { Integer(v); }
  void Value(unsigned long v) { Integer(static_cast<std::int64_t>(v)); }
  void Value(unsigned long long v) { Integer(static_cast<std::int64_t>(v)); }
  void Value(bool v) { Bool(v); }

  // Writes the separator and indentation that precede a value.
  void BeforeValue();
  void Open(char bracket);
  void Close(char bracket);
  void NewLine();

  struct Level {
    bool isObject;
    int count;
  };
  std::ostream& fOut;
  std::vector<Level> fStack;
  bool fAfterKey = false;
  bool fStarted = false;
};
