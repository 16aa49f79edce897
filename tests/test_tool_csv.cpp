// Reading CSV data for the command-line tool: fields, missing values, factor coding, errors.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "support/TQMV.h"
#include "tools/CsvTable.h"

namespace {

using Kind = CsvColumnKind;

bool ReadText(const std::string& text, const std::vector<CsvColumnRequest>& columns, CsvTable& table,
              std::string& error, char separator = ',') {
  std::istringstream in(text);
  CsvReadOptions options;
  options.separator = separator;
  return CsvTable::Read(in, columns, options, table, error);
}

std::vector<double> ColumnValues(const CsvTable& table, std::size_t column) {
  std::vector<double> values;
  for (std::size_t r = 0; r < table.NumRows(); ++r) values.push_back(table.Value(r, column));
  return values;
}

}  // namespace

TEST(ToolCsv, QuotedFieldsCrlfAndLayout) {
  // Quoted separators, doubled quotes, a line break inside quotes, CRLF endings, blanks around
  // fields, and a blank line; columns are kept in request order, not file order.
  const std::string text =
      "id,\"name, full\",x,note\r\n"
      "1,\"Smith, J\",2.5,\"said \"\"hi\"\"\"\r\n"
      "2, Lee ,  -1e2 ,\"two\nlines\"\r\n"
      "\r\n"
      "3,\"\",+0.5,plain\r\n";
  CsvTable table;
  std::string error;
  ASSERT_TRUE(ReadText(text, {{"x", Kind::Numeric}, {"name, full", Kind::Factor}, {"note", Kind::Factor}}, table,
                       error))
      << error;
  ASSERT_EQ(table.NumRows(), 3u);
  ASSERT_EQ(table.NumColumns(), 3u);
  EXPECT_EQ(table.Column(0).name, "x");
  EXPECT_EQ(table.ColumnIndex("note"), 2);
  EXPECT_EQ(table.ColumnIndex("id"), -1);
  EXPECT_EQ(table.HeaderNames(), (std::vector<std::string>{"id", "name, full", "x", "note"}));

  EXPECT_EQ(ColumnValues(table, 0), (std::vector<double>{2.5, -100.0, 0.5}));
  // Row-major storage: row 1 holds x, name, note of the second record.
  EXPECT_EQ(table.Row(1)[0], -100.0);

  // Names: "Lee" (trimmed) < "Smith, J"; the empty quoted cell is missing.
  EXPECT_EQ(table.Column(1).labels, (std::vector<std::string>{"Lee", "Smith, J"}));
  EXPECT_EQ(table.Value(0, 1), 1.0);
  EXPECT_EQ(table.Value(1, 1), 0.0);
  EXPECT_TRUE(TQMV::IsMissing(table.Value(2, 1)));

  EXPECT_EQ(table.Column(2).labels, (std::vector<std::string>{"plain", "said \"hi\"", "two\nlines"}));
  EXPECT_EQ(ColumnValues(table, 2), (std::vector<double>{1.0, 2.0, 0.0}));

  // Records start on lines 2, 3 and 6 (the quoted line break and the blank line count).
  EXPECT_EQ(table.LineOfRow(0), 2u);
  EXPECT_EQ(table.LineOfRow(1), 3u);
  EXPECT_EQ(table.LineOfRow(2), 6u);
}

TEST(ToolCsv, MissingValues) {
  const std::string text = "y,g\n1,a\n,b\nNA,NA\n4,\n\"NA\",a\n";
  CsvTable table;
  std::string error;
  ASSERT_TRUE(ReadText(text, {{"y", Kind::Numeric}, {"g", Kind::Factor}}, table, error)) << error;
  ASSERT_EQ(table.NumRows(), 5u);
  const std::vector<double> y = ColumnValues(table, 0);
  EXPECT_EQ(y[0], 1.0);
  EXPECT_TRUE(TQMV::IsMissing(y[1]));
  EXPECT_TRUE(TQMV::IsMissing(y[2]));
  EXPECT_EQ(y[3], 4.0);
  EXPECT_TRUE(TQMV::IsMissing(y[4]));
  // Missing factor cells are not categories.
  EXPECT_EQ(table.Column(1).labels, (std::vector<std::string>{"a", "b"}));
  const std::vector<double> g = ColumnValues(table, 1);
  EXPECT_EQ(g[0], 0.0);
  EXPECT_EQ(g[1], 1.0);
  EXPECT_TRUE(TQMV::IsMissing(g[2]));
  EXPECT_TRUE(TQMV::IsMissing(g[3]));
  EXPECT_EQ(g[4], 0.0);
}

TEST(ToolCsv, FactorOrdering) {
  // Numbers are ordered as numbers: 10 after 9; "2.0" and "2" are one category labelled by the
  // first spelling seen. A column with any text is ordered as text: "10" before "9".
  const std::string text = "n,s,t\n10,10,b\n9,9,B\n2.0,x,a\n2,9,b\n-1,10,A\n";
  CsvTable table;
  std::string error;
  ASSERT_TRUE(ReadText(text, {{"n", Kind::Factor}, {"s", Kind::Factor}, {"t", Kind::Factor}}, table, error)) << error;
  EXPECT_TRUE(table.Column(0).numericLabels);
  EXPECT_EQ(table.Column(0).labels, (std::vector<std::string>{"-1", "2.0", "9", "10"}));
  EXPECT_EQ(ColumnValues(table, 0), (std::vector<double>{3, 2, 1, 1, 0}));

  EXPECT_FALSE(table.Column(1).numericLabels);
  EXPECT_EQ(table.Column(1).labels, (std::vector<std::string>{"10", "9", "x"}));
  EXPECT_EQ(ColumnValues(table, 1), (std::vector<double>{0, 1, 2, 1, 0}));

  // Byte order: upper case before lower case.
  EXPECT_EQ(table.Column(2).labels, (std::vector<std::string>{"A", "B", "a", "b"}));
  EXPECT_EQ(ColumnValues(table, 2), (std::vector<double>{3, 1, 2, 3, 0}));
}

TEST(ToolCsv, OtherSeparators) {
  CsvTable table;
  std::string error;
  ASSERT_TRUE(ReadText("a;b\n1,5;x y\n", {{"b", Kind::Factor}}, table, error, ';')) << error;
  EXPECT_EQ(table.Column(0).labels, (std::vector<std::string>{"x y"}));
  ASSERT_FALSE(ReadText("a;b\n1,5;x\n", {{"a", Kind::Numeric}}, table, error, ';'));
  EXPECT_EQ(error, "line 2, column 'a': '1,5' is not a number");

  // With tabs as separators an empty cell between two tabs stays a field.
  ASSERT_TRUE(ReadText("a\tb\tc\n1\t\t3\n", {{"b", Kind::Numeric}, {"c", Kind::Numeric}}, table, error, '\t'))
      << error;
  EXPECT_TRUE(TQMV::IsMissing(table.Value(0, 0)));
  EXPECT_EQ(table.Value(0, 1), 3.0);
}

TEST(ToolCsv, Errors) {
  CsvTable table;
  std::string error;

  EXPECT_FALSE(ReadText("x,y\n1,2\n3,abc\n", {{"x", Kind::Numeric}, {"y", Kind::Numeric}}, table, error));
  EXPECT_EQ(error, "line 3, column 'y': 'abc' is not a number");
  EXPECT_EQ(table.NumRows(), 0u);

  // Cells of unused columns are never read as numbers; a quoted line break shifts the line of
  // the later records.
  EXPECT_TRUE(ReadText("x,y\n1,\"a\nb\"\n2,3\n4,inf\n", {{"x", Kind::Numeric}}, table, error)) << error;
  EXPECT_FALSE(ReadText("x,y\n1,\"a\nb\"\n2,3\ninf,4\n", {{"x", Kind::Numeric}}, table, error));
  EXPECT_EQ(error, "line 5, column 'x': 'inf' is not a number");

  EXPECT_FALSE(ReadText("x,y\n1,2\n", {{"x", Kind::Numeric}, {"z", Kind::Numeric}}, table, error));
  EXPECT_EQ(error, "unknown column 'z' (the header has: x, y)");

  EXPECT_FALSE(ReadText("", {{"x", Kind::Numeric}}, table, error));
  EXPECT_EQ(error, "the file is empty (no header line)");
  EXPECT_FALSE(ReadText(" \n\r\n", {{"x", Kind::Numeric}}, table, error));
  EXPECT_EQ(error, "the file is empty (no header line)");

  EXPECT_FALSE(ReadText("x,y\n1,2\n3\n", {{"x", Kind::Numeric}}, table, error));
  EXPECT_EQ(error, "line 3 has 1 fields, the header has 2");

  EXPECT_FALSE(ReadText("x,y\n1,\"open\n2,3\n", {{"x", Kind::Numeric}}, table, error));
  EXPECT_EQ(error, "line 2: quoted field is not closed");

  EXPECT_FALSE(ReadText("x,y\n1,\"a\"b\n", {{"x", Kind::Numeric}}, table, error));
  EXPECT_EQ(error, "line 2: unexpected text after a closing quote");

  EXPECT_FALSE(ReadText("x,x\n1,2\n", {{"x", Kind::Numeric}}, table, error));
  EXPECT_EQ(error, "column name 'x' appears more than once in the header");

  EXPECT_FALSE(ReadText("x,y\n1,2\n", {{"x", Kind::Numeric}, {"x", Kind::Factor}}, table, error));
  EXPECT_EQ(error, "column 'x' is used both as a factor and as a number");

  // The same column requested twice with one kind is kept once.
  ASSERT_TRUE(ReadText("x,y\n1,2\n", {{"x", Kind::Numeric}, {"x", Kind::Numeric}}, table, error)) << error;
  EXPECT_EQ(table.NumColumns(), 1u);

  // A header alone is a table without rows; a byte order mark is not part of the first name.
  ASSERT_TRUE(ReadText("\xEF\xBB\xBFx,y\n", {{"x", Kind::Numeric}}, table, error)) << error;
  EXPECT_EQ(table.NumRows(), 0u);

  EXPECT_FALSE(CsvTable::ReadFile("/nonexistent/data.csv", {{"x", Kind::Numeric}}, {}, table, error));
  EXPECT_EQ(error, "cannot open '/nonexistent/data.csv'");
}

TEST(ToolCsv, NumberParsing) {
  double v = 0.0;
  EXPECT_TRUE(ParseCsvNumber("+1.5", v));
  EXPECT_EQ(v, 1.5);
  EXPECT_TRUE(ParseCsvNumber(" 2 ", v));
  EXPECT_EQ(v, 2.0);
  EXPECT_TRUE(ParseCsvNumber("-.5", v));
  EXPECT_EQ(v, -0.5);
  EXPECT_TRUE(ParseCsvNumber("1e-3", v));
  EXPECT_EQ(v, 1e-3);
  EXPECT_TRUE(ParseCsvNumber("7.", v));
  EXPECT_EQ(v, 7.0);
  for (const char* bad : {"", "-", "+", "inf", "-inf", "nan", "NaN", "1,5", "0x10", "--1", "+-1", "1e400", "1.2.3",
                          "e5", "12a"}) {
    v = 42.0;
    EXPECT_FALSE(ParseCsvNumber(bad, v)) << bad;
    EXPECT_EQ(v, 42.0) << bad;
  }
}
