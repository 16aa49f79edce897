#pragma once
// Plain-text tables for the tool's readable output: a title, a header row and aligned columns.
#include <ostream>
#include <string>
#include <vector>

class TextTable {
 public:
  enum class Align { Left, Right };

  TextTable(std::string title, std::vector<std::string> headers, std::vector<Align> align = {});

  // A row shorter than the header is padded with empty cells.
  void AddRow(std::vector<std::string> cells);
  bool Empty() const noexcept { return fRows.empty(); }

  // Title, header, a rule, the rows; every line indented by two spaces, columns two spaces apart.
  void Write(std::ostream& out) const;

 private:
  std::string fTitle;
  std::vector<std::string> fHeaders;
  std::vector<Align> fAlign;
  std::vector<std::vector<std::string>> fRows;
};

// A number for a table cell: up to `significant` significant digits, "." when it is missing or
// not finite.
std::string FormatNumber(double value, int significant = 6);
// A significance for a table cell: four decimals, "<.0001" below that, "." when missing.
std::string FormatSignificance(double p);
