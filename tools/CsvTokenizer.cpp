#include "tools/CsvTokenizer.h"

CsvTokenizer::CsvTokenizer(char* text, std::size_t size, char separator, bool final) noexcept
    : fText(text), fSize(size), fSeparator(separator), fbFinal(final), fStops{} {
  for (const char c : {separator, '\n', '\r', '"'}) fStops[static_cast<unsigned char>(c)] = true;
}

bool CsvTokenizer::AtFieldEnd(std::size_t p) const noexcept {
  return p >= fSize || fText[p] == fSeparator || fText[p] == '\n' || fText[p] == '\r';
}

// False when no record is left in the block.
bool CsvTokenizer::SkipBlankLines() noexcept {
  for (;;) {
    std::size_t p = fPos;
    while (p < fSize && IsBlank(fText[p])) ++p;
    const bool carriageReturn = p < fSize && fText[p] == '\r';
    if (carriageReturn) ++p;
    if (p < fSize && fText[p] == '\n') {
      fPos = p + 1;
      ++fLine;
      continue;
    }
    if (p < fSize) return true;
    // A block other than the last that ends in a CR ends in a lone one (the next block does not
    // start with LF): the blank line is then a record of one empty field, as in one piece.
    if (!fbFinal && carriageReturn) return true;
    fPos = p;
    return false;
  }
}

CsvTokenizer::FieldEnd CsvTokenizer::Fail(std::size_t line, const char* text) noexcept {
  fErrorLine = line;
  fpError = text;
  return FieldEnd::Error;
}

CsvTokenizer::Step CsvTokenizer::Next(std::vector<CsvField>& fields) {
  fields.clear();
  if (!SkipBlankLines()) return Step::End;
  fRecordStart = fPos;
  fRecordLine = fLine;
  for (;;) {
    CsvField field;
    const FieldEnd end = ReadField(field);
    if (end == FieldEnd::Incomplete) return Step::Incomplete;
    if (end == FieldEnd::Error) return Step::Error;
    fields.push_back(field);
    if (fPos >= fSize) return fbFinal ? Step::Record : Step::Incomplete;
    const char c = fText[fPos];
    if (c == fSeparator) {
      ++fPos;
      continue;
    }
    // End of line (a field ends only at a separator, a line break or the end).
    if (c == '\r') ++fPos;
    if (fPos < fSize && fText[fPos] == '\n') ++fPos;
    ++fLine;
    return Step::Record;
  }
}

CsvTokenizer::FieldEnd CsvTokenizer::ReadField(CsvField& field) noexcept {
  while (fPos < fSize && IsBlank(fText[fPos])) ++fPos;
  if (fPos < fSize && fText[fPos] == '"') return ReadQuotedField(field);
  const std::size_t begin = fPos;
  while (fPos < fSize && !fStops[static_cast<unsigned char>(fText[fPos])]) ++fPos;
  if (fPos < fSize && fText[fPos] == '"') return Fail(fLine, ": quote inside an unquoted field");
  std::size_t end = fPos;
  while (end > begin && IsBlank(fText[end - 1])) --end;
  field = {begin, end, false};
  return FieldEnd::Done;
}

CsvTokenizer::FieldEnd CsvTokenizer::ReadQuotedField(CsvField& field) noexcept {
  const std::size_t openLine = fLine;
  ++fPos;  // opening quote
  const std::size_t begin = fPos;
  bool escaped = false;
  std::size_t end = begin;
  for (;;) {
    if (fPos >= fSize) {
      if (fbFinal) return Fail(openLine, ": quoted field is not closed");
      return FieldEnd::Incomplete;
    }
    const char c = fText[fPos++];
    if (c == '"') {
      if (fPos < fSize && fText[fPos] == '"') {
        escaped = true;
        ++fPos;
        continue;
      }
      end = fPos - 1;
      break;
    }
    if (c == '\n') ++fLine;
    if (c == '\r' && fPos < fSize && fText[fPos] == '\n') escaped = true;  // CRLF inside quotes reads as LF
  }
  while (fPos < fSize && IsBlank(fText[fPos])) ++fPos;
  if (!AtFieldEnd(fPos)) return Fail(fLine, ": unexpected text after a closing quote");
  field = {begin, end, escaped};
  return FieldEnd::Done;
}

std::string_view CsvTokenizer::Text(CsvField& field) noexcept {
  if (field.escaped) {
    std::size_t out = field.begin;
    for (std::size_t in = field.begin; in < field.end; ++in) {
      const char c = fText[in];
      if (c == '"') {
        ++in;  // every quote inside a quoted field is doubled
      } else if (c == '\r' && in + 1 < field.end && fText[in + 1] == '\n') {
        continue;
      }
      fText[out++] = c;
    }
    field.end = out;
    field.escaped = false;
  }
  return {fText + field.begin, field.end - field.begin};
}
