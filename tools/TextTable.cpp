#include "tools/TextTable.h"

#include <algorithm>
#include <cstdio>

#include "support/TQMV.h"

TextTable::TextTable(std::string title, std::vector<std::string> headers, std::vector<Align> align)
    : fTitle(std::move(title)), fHeaders(std::move(headers)), fAlign(std::move(align)) {
  fAlign.resize(fHeaders.size(), Align::Left);
}

void TextTable::AddRow(std::vector<std::string> cells) {
  cells.resize(fHeaders.size());
  fRows.push_back(std::move(cells));
}

void TextTable::Write(std::ostream& out) const {
  std::vector<std::size_t> width(fHeaders.size(), 0);
  for (std::size_t c = 0; c < fHeaders.size(); ++c) {
    width[c] = fHeaders[c].size();
    for (const auto& row : fRows) width[c] = std::max(width[c], row[c].size());
  }
  auto writeLine = [&](const std::vector<std::string>& cells) {
    std::string line = "  ";
    for (std::size_t c = 0; c < cells.size(); ++c) {
      const std::string pad(width[c] - cells[c].size(), ' ');
      line += fAlign[c] == Align::Right ? pad + cells[c] : cells[c] + pad;
      if (c + 1 < cells.size()) line += "  ";
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    out << line << '\n';
  };
  out << fTitle << '\n';
  writeLine(fHeaders);
  std::size_t total = 0;
  for (const std::size_t w : width) total += w;
  total += fHeaders.empty() ? 0 : 2 * (fHeaders.size() - 1);
  out << "  " << std::string(total, '-') << '\n';
  for (const auto& row : fRows) writeLine(row);
}

std::string FormatSignificance(double p) {
  if (TQMV::IsMissingOrInfinite(p)) return ".";
  if (p < 0.0001) return "<.0001";
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%.4f", p);
  return buffer;
}

std::string FormatNumber(double value, int significant) {
  if (TQMV::IsMissingOrInfinite(value)) return ".";
  char buffer[40];
  std::snprintf(buffer, sizeof buffer, "%.*g", std::clamp(significant, 1, 17), value);
  return buffer;
}
