#pragma once
// Reading a delimited text file into the dense numeric table that the tool streams to the
// engine as records.
//
// Only the columns that the model uses are kept, in the order they were requested; a column's
// position in the table is its field index in a record. Numeric columns hold their values;
// factor columns hold category codes 0..K-1 in sorted order of their values (numeric order when
// every non-missing value is a number, else byte-wise string order) and keep the original text
// of each category for output. Empty cells and NA are missing (TQMV::Missing).
#include <cstddef>
#include <istream>
#include <string>
#include <string_view>
#include <vector>

enum class CsvColumnKind { Numeric, Factor };

struct CsvColumnRequest {
  std::string name;
  CsvColumnKind kind = CsvColumnKind::Numeric;
};

struct CsvColumn {
  std::string name;
  bool isFactor = false;
  // Factor columns: the text of each category, indexed by its code.
  std::vector<std::string> labels;
  // Factor columns: true when the categories were ordered as numbers.
  bool numericLabels = false;
};

struct CsvReadOptions {
  char separator = ',';
};

class CsvTable {
 public:
  // Reads the requested columns from text with a header line. A name requested twice with the
  // same kind is kept once; with different kinds it is an error. On failure returns false and
  // leaves a one-line message in error (line numbers count the header as line 1).
  static bool Read(std::istream& in, const std::vector<CsvColumnRequest>& columns,
                   const CsvReadOptions& options, CsvTable& table, std::string& error);
  static bool ReadFile(const std::string& path, const std::vector<CsvColumnRequest>& columns,
                       const CsvReadOptions& options, CsvTable& table, std::string& error);

  std::size_t NumRows() const noexcept { return fNumRows; }
  std::size_t NumColumns() const noexcept { return fColumns.size(); }

  // Row-major values: row r occupies [r * NumColumns(), (r + 1) * NumColumns()).
  const std::vector<double>& Data() const noexcept { return fData; }
  const double* Row(std::size_t row) const noexcept { return fData.data() + row * fColumns.size(); }
  double Value(std::size_t row, std::size_t column) const noexcept {
    return fData[row * fColumns.size() + column];
  }

  const CsvColumn& Column(std::size_t column) const noexcept { return fColumns[column]; }
  const std::vector<CsvColumn>& Columns() const noexcept { return fColumns; }
  // Field index of a kept column, -1 when the name was not requested.
  int ColumnIndex(std::string_view name) const noexcept;

  // Every name of the file's header, in file order (kept or not).
  const std::vector<std::string>& HeaderNames() const noexcept { return fHeader; }
  // The line of the file on which a data row starts (1-based, header = line 1).
  std::size_t LineOfRow(std::size_t row) const noexcept { return fRowLines[row]; }

 private:
  std::vector<std::string> fHeader;
  std::vector<CsvColumn> fColumns;
  std::vector<double> fData;
  std::vector<std::size_t> fRowLines;
  std::size_t fNumRows = 0;
};

// Reads a number the way the table reads numeric cells: optional surrounding blanks, an optional
// sign, decimal or exponent notation. False for anything else, including infinities and NaN.
bool ParseCsvNumber(std::string_view text, double& value);
