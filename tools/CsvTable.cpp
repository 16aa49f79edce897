#include "tools/CsvTable.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <fstream>
#include <iterator>
#include <new>
#include <sstream>
#include <unordered_map>

#include "support/TQMV.h"

namespace {

// Splits the text into records of fields. Quoted fields may hold separators, doubled quotes and
// line breaks; blanks around an unquoted field are dropped; CR before LF is ignored; lines that
// hold nothing but blanks are skipped.
class CsvRecordReader {
 public:
  CsvRecordReader(std::string_view text, char separator) : fText(text), fSeparator(separator) {
    if (fText.substr(0, 3) == "\xEF\xBB\xBF") fText.remove_prefix(3);  // UTF-8 byte order mark
  }

  // Next record into fields; false at the end of the text or on an error (then error is set).
  bool Next(std::vector<std::string>& fields, std::size_t& startLine, std::string& error) {
    fields.clear();
    SkipBlankLines();
    if (fPos >= fText.size()) return false;
    startLine = fLine;
    for (;;) {
      std::string field;
      if (!ReadField(field, error)) return false;
      fields.push_back(std::move(field));
      if (fPos >= fText.size()) return true;
      const char c = fText[fPos];
      if (c == fSeparator) {
        ++fPos;
        continue;
      }
      // End of line (ReadField stops only at a separator, a line break or the end).
      if (c == '\r') ++fPos;
      if (fPos < fText.size() && fText[fPos] == '\n') ++fPos;
      ++fLine;
      return true;
    }
  }

 private:
  bool IsBlank(char c) const { return (c == ' ' || c == '\t') && c != fSeparator; }

  void SkipBlankLines() {
    for (;;) {
      std::size_t p = fPos;
      while (p < fText.size() && IsBlank(fText[p])) ++p;
      if (p < fText.size() && fText[p] == '\r') ++p;
      if (p < fText.size() && fText[p] == '\n') {
        fPos = p + 1;
        ++fLine;
        continue;
      }
      if (p >= fText.size()) fPos = p;
      return;
    }
  }

  bool AtFieldEnd(std::size_t p) const {
    return p >= fText.size() || fText[p] == fSeparator || fText[p] == '\n' || fText[p] == '\r';
  }

  bool ReadField(std::string& field, std::string& error) {
    while (fPos < fText.size() && IsBlank(fText[fPos])) ++fPos;
    if (fPos < fText.size() && fText[fPos] == '"') return ReadQuotedField(field, error);
    const std::size_t begin = fPos;
    while (!AtFieldEnd(fPos)) {
      if (fText[fPos] == '"') {
        error = "line " + std::to_string(fLine) + ": quote inside an unquoted field";
        return false;
      }
      ++fPos;
    }
    std::size_t end = fPos;
    while (end > begin && IsBlank(fText[end - 1])) --end;
    field.assign(fText.substr(begin, end - begin));
    return true;
  }

  bool ReadQuotedField(std::string& field, std::string& error) {
    const std::size_t openLine = fLine;
    ++fPos;  // opening quote
    for (;;) {
      if (fPos >= fText.size()) {
        error = "line " + std::to_string(openLine) + ": quoted field is not closed";
        return false;
      }
      const char c = fText[fPos++];
      if (c == '"') {
        if (fPos < fText.size() && fText[fPos] == '"') {
          field.push_back('"');
          ++fPos;
          continue;
        }
        break;
      }
      if (c == '\n') ++fLine;
      if (c == '\r' && fPos < fText.size() && fText[fPos] == '\n') continue;  // CRLF inside quotes
      field.push_back(c);
    }
    while (fPos < fText.size() && IsBlank(fText[fPos])) ++fPos;
    if (!AtFieldEnd(fPos)) {
      error = "line " + std::to_string(fLine) + ": unexpected text after a closing quote";
      return false;
    }
    return true;
  }

  std::string_view fText;
  char fSeparator;
  std::size_t fPos = 0;
  std::size_t fLine = 1;
};

bool IsMissingCell(std::string_view cell) { return cell.empty() || cell == "NA"; }

// Gives each distinct text of a factor column a provisional code in order of first appearance.
struct FactorCollector {
  std::unordered_map<std::string, int> codes;
  std::vector<std::string> texts;

  int Code(const std::string& text) {
    const auto [it, inserted] = codes.emplace(text, static_cast<int>(texts.size()));
    if (inserted) texts.push_back(text);
    return it->second;
  }
};

// Orders the categories of a factor column and returns the final code of each provisional code.
std::vector<int> FinalFactorCodes(const FactorCollector& collector, CsvColumn& column) {
  const std::size_t n = collector.texts.size();
  std::vector<double> numbers(n, 0.0);
  bool allNumeric = true;
  for (std::size_t i = 0; i < n && allNumeric; ++i) allNumeric = ParseCsvNumber(collector.texts[i], numbers[i]);

  std::vector<int> order(n);
  for (std::size_t i = 0; i < n; ++i) order[i] = static_cast<int>(i);
  // Stable, so among texts of equal value ("1" and "1.0") the first seen comes first.
  if (allNumeric) {
    std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return numbers[a] < numbers[b]; });
  } else {
    std::sort(order.begin(), order.end(),
              [&](int a, int b) { return collector.texts[a] < collector.texts[b]; });
  }

  std::vector<int> finalCode(n, 0);
  column.labels.clear();
  column.numericLabels = allNumeric;
  for (std::size_t k = 0; k < n; ++k) {
    const int id = order[k];
    // Texts that denote the same number are one category, labelled by the first spelling.
    const bool sameAsPrevious = allNumeric && k > 0 && numbers[order[k - 1]] == numbers[id];
    if (!sameAsPrevious) column.labels.push_back(collector.texts[id]);
    finalCode[id] = static_cast<int>(column.labels.size()) - 1;
  }
  return finalCode;
}

std::string JoinNames(const std::vector<std::string>& names) {
  std::string out;
  for (const auto& name : names) {
    if (!out.empty()) out += ", ";
    out += name;
  }
  return out;
}

}  // namespace

bool ParseCsvNumber(std::string_view text, double& value) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  if (!text.empty() && text.front() == '+') {
    text.remove_prefix(1);
    if (!text.empty() && text.front() == '-') return false;
  }
  if (text.empty()) return false;
  // from_chars would also accept "inf" and "nan"; a cell of the table must be a finite number.
  const char first = text.front() == '-' && text.size() > 1 ? text[1] : text.front();
  if (!(std::isdigit(static_cast<unsigned char>(first)) || first == '.')) return false;
  double parsed = 0.0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), parsed);
  if (ec != std::errc() || end != text.data() + text.size() || !std::isfinite(parsed)) return false;
  value = parsed;
  return true;
}

int CsvTable::ColumnIndex(std::string_view name) const noexcept {
  for (std::size_t i = 0; i < fColumns.size(); ++i) {
    if (fColumns[i].name == name) return static_cast<int>(i);
  }
  return -1;
}

bool CsvTable::Read(std::istream& in, const std::vector<CsvColumnRequest>& columns,
                    const CsvReadOptions& options, CsvTable& table, std::string& error) {
  // Built aside so that a failure leaves an empty table.
  error.clear();
  table = CsvTable();
  try {
    CsvTable result;
    if (options.separator == '"' || options.separator == '\n' || options.separator == '\r') {
      error = "the separator cannot be a quote or a line break";
      return false;
    }
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) {
      error = "read error";
      return false;
    }
    CsvRecordReader reader(text, options.separator);
    std::vector<std::string> fields;
    std::size_t line = 0;
    if (!reader.Next(fields, line, error)) {
      if (error.empty()) error = "the file is empty (no header line)";
      return false;
    }
    result.fHeader = fields;
    const std::size_t nFields = fields.size();

    // Resolve the requested columns against the header.
    std::vector<std::size_t> source;  // header position of each kept column
    for (const auto& request : columns) {
      const int kept = result.ColumnIndex(request.name);
      if (kept >= 0) {
        if (result.fColumns[kept].isFactor != (request.kind == CsvColumnKind::Factor)) {
          error = "column '" + request.name + "' is used both as a factor and as a number";
          return false;
        }
        continue;
      }
      const auto found = std::find(result.fHeader.begin(), result.fHeader.end(), request.name);
      if (found == result.fHeader.end()) {
        error = "unknown column '" + request.name + "' (the header has: " + JoinNames(result.fHeader) + ")";
        return false;
      }
      if (std::find(found + 1, result.fHeader.end(), request.name) != result.fHeader.end()) {
        error = "column name '" + request.name + "' appears more than once in the header";
        return false;
      }
      CsvColumn column;
      column.name = request.name;
      column.isFactor = request.kind == CsvColumnKind::Factor;
      result.fColumns.push_back(std::move(column));
      source.push_back(static_cast<std::size_t>(found - result.fHeader.begin()));
    }

    const std::size_t nCols = result.fColumns.size();
    std::vector<FactorCollector> collectors(nCols);
    while (reader.Next(fields, line, error)) {
      if (fields.size() != nFields) {
        error = "line " + std::to_string(line) + " has " + std::to_string(fields.size()) +
                " fields, the header has " + std::to_string(nFields);
        return false;
      }
      for (std::size_t c = 0; c < nCols; ++c) {
        const std::string& cell = fields[source[c]];
        double value = TQMV::Missing;
        if (!IsMissingCell(cell)) {
          if (result.fColumns[c].isFactor) {
            value = collectors[c].Code(cell);
          } else if (!ParseCsvNumber(cell, value)) {
            error = "line " + std::to_string(line) + ", column '" + result.fColumns[c].name + "': '" + cell +
                    "' is not a number";
            return false;
          }
        }
        result.fData.push_back(value);
      }
      result.fRowLines.push_back(line);
      ++result.fNumRows;
    }
    if (!error.empty()) return false;

    for (std::size_t c = 0; c < nCols; ++c) {
      if (!result.fColumns[c].isFactor) continue;
      const std::vector<int> finalCode = FinalFactorCodes(collectors[c], result.fColumns[c]);
      for (std::size_t r = 0; r < result.fNumRows; ++r) {
        double& cell = result.fData[r * nCols + c];
        if (!TQMV::IsMissing(cell)) cell = finalCode[static_cast<std::size_t>(cell)];
      }
    }
    table = std::move(result);
    return true;
  } catch (const std::bad_alloc&) {
    error = "out of memory while reading the data";
  } catch (const std::exception& e) {
    error = std::string("error while reading the data: ") + e.what();
  }
  return false;
}

bool CsvTable::ReadFile(const std::string& path, const std::vector<CsvColumnRequest>& columns,
                        const CsvReadOptions& options, CsvTable& table, std::string& error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    error = "cannot open '" + path + "'";
    return false;
  }
  return Read(in, columns, options, table, error);
}
