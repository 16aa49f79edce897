// Reading CSV data for the command-line tool: fields, missing values, factor coding, errors, the
// record cache (round trip, blocks read on several threads, rewinding, sorted reading) and its
// temporary file.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "support/TQMV.h"
#include "tools/CsvTable.h"
#include "tools/FitControl.h"
#include "tools/RecordCache.h"

namespace {

using Kind = CsvColumnKind;
using Rows = std::vector<std::vector<double>>;

bool ReadText(const std::string& text, const std::vector<CsvColumnRequest>& columns, CsvTable& table,
              std::string& error, const CsvReadOptions& options = {}) {
  std::istringstream in(text);
  return CsvTable::Read(in, columns, options, table, error);
}

bool ReadText(const std::string& text, const std::vector<CsvColumnRequest>& columns, CsvTable& table,
              std::string& error, char separator) {
  CsvReadOptions options;
  options.separator = separator;
  return ReadText(text, columns, table, error, options);
}

// Every record of a cache as the engine sees it, with the file offset of each.
Rows ReadAll(const RecordCache& cache, std::vector<std::uint64_t>* offsets = nullptr, std::size_t bufferBytes = 1 << 20) {
  CacheRecordSource source(cache, bufferBytes);
  Rows rows;
  EXPECT_EQ(source.Rewind(), 0);
  while (source.HasMoreRecords()) {
    const Record* r = source.NextRecord();
    if (r == nullptr) break;
    rows.emplace_back(r->Data(), r->Data() + r->Size());
    if (offsets != nullptr) offsets->push_back(source.FileOffset());
  }
  EXPECT_FALSE(source.Failed());
  return rows;
}

Rows ReadAll(const CsvTable& table) { return ReadAll(*table.Records()); }

std::vector<double> ColumnValues(const CsvTable& table, std::size_t column) {
  std::vector<double> values;
  for (const auto& row : ReadAll(table)) values.push_back(row[column]);
  return values;
}

// Missing values compare equal here (TQMV::Missing is one number).
bool SameRows(const Rows& a, const Rows& b) { return a == b; }

int OpenFileCount() {
  int n = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++n;
  return n;
}

// A fresh, empty directory for record caches.
std::string CacheDirectory(const std::string& name) {
  const std::string dir = ::testing::TempDir() + "/gzl_cache_" + name + "_" + std::to_string(::getpid());
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  return dir;
}

bool IsEmptyDirectory(const std::string& dir) { return std::filesystem::is_empty(dir); }

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

  // Names: "Lee" (trimmed) < "Smith, J"; the empty quoted cell is missing.
  EXPECT_EQ(table.Column(1).labels, (std::vector<std::string>{"Lee", "Smith, J"}));
  const std::vector<double> names = ColumnValues(table, 1);
  EXPECT_EQ(names[0], 1.0);
  EXPECT_EQ(names[1], 0.0);
  EXPECT_TRUE(TQMV::IsMissing(names[2]));

  EXPECT_EQ(table.Column(2).labels, (std::vector<std::string>{"plain", "said \"hi\"", "two\nlines"}));
  EXPECT_EQ(ColumnValues(table, 2), (std::vector<double>{1.0, 2.0, 0.0}));

  // Each cached record knows where its text starts, so its original fields can be read again.
  const std::string path = ::testing::TempDir() + "/quoted.csv";
  std::ofstream(path, std::ios::binary) << text;
  ASSERT_TRUE(CsvTable::ReadFile(path, {{"x", Kind::Numeric}}, {}, table, error)) << error;
  std::vector<std::uint64_t> offsets;
  ReadAll(*table.Records(), &offsets);
  ASSERT_EQ(offsets.size(), 3u);
  std::vector<std::string> fields;
  ASSERT_TRUE(ReadCsvRecordAt(path, offsets[1], ',', fields, error)) << error;
  EXPECT_EQ(fields, (std::vector<std::string>{"2", "Lee", "-1e2", "two\nlines"}));
  ASSERT_TRUE(ReadCsvRecordAt(path, offsets[0], ',', fields, error)) << error;
  EXPECT_EQ(fields, (std::vector<std::string>{"1", "Smith, J", "2.5", "said \"hi\""}));
  ASSERT_TRUE(ReadCsvRecordAt(path, offsets[2], ',', fields, error)) << error;
  EXPECT_EQ(fields, (std::vector<std::string>{"3", "", "+0.5", "plain"}));
}

TEST(ToolCsv, MissingValuesAndCategoryCodes) {
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
  EXPECT_EQ(table.Column(0).missing, 3u);
  // Missing factor cells are not categories.
  EXPECT_EQ(table.Column(1).labels, (std::vector<std::string>{"a", "b"}));
  const std::vector<double> g = ColumnValues(table, 1);
  EXPECT_EQ(g[0], 0.0);
  EXPECT_EQ(g[1], 1.0);
  EXPECT_TRUE(TQMV::IsMissing(g[2]));
  EXPECT_TRUE(TQMV::IsMissing(g[3]));
  EXPECT_EQ(g[4], 0.0);
  EXPECT_EQ(table.Column(1).missing, 2u);

  // A category seen only where the response is missing keeps its place in the sorted codes,
  // and spellings of one number share a code: codes first given to "c", "2" and "2.0" end up
  // unused or shared.
  ASSERT_TRUE(ReadText("y,g,n\n1,d,3\nNA,c,2\n2,b,2.0\n3,d,10\n", {{"y", Kind::Numeric}, {"g", Kind::Factor},
                                                                  {"n", Kind::Factor}},
                       table, error))
      << error;
  EXPECT_EQ(table.Column(1).labels, (std::vector<std::string>{"b", "c", "d"}));
  EXPECT_EQ(table.Column(2).labels, (std::vector<std::string>{"2", "3", "10"}));
  EXPECT_EQ(table.Records()->Levels(1), 3u);
  EXPECT_TRUE(SameRows(ReadAll(table), Rows{{1, 2, 1}, {TQMV::Missing, 1, 0}, {2, 0, 0}, {3, 2, 2}}));
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
  EXPECT_TRUE(SameRows(ReadAll(table), Rows{{TQMV::Missing, 3.0}}));
}

TEST(ToolCsv, Errors) {
  CsvTable table;
  std::string error;

  EXPECT_FALSE(ReadText("x,y\n1,2\n3,abc\n", {{"x", Kind::Numeric}, {"y", Kind::Numeric}}, table, error));
  EXPECT_EQ(error, "line 3, column 'y': 'abc' is not a number");
  EXPECT_EQ(table.NumRows(), 0u);
  EXPECT_EQ(table.Records(), nullptr);

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

  EXPECT_FALSE(ReadText("x,y\n1,a\"b\n", {{"x", Kind::Numeric}}, table, error));
  EXPECT_EQ(error, "line 2: quote inside an unquoted field");

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

  CsvReadOptions nowhere;
  nowhere.temporaryDirectory = "/nonexistent";
  EXPECT_FALSE(ReadText("x\n1\n", {{"x", Kind::Numeric}}, table, error, nowhere));
  EXPECT_EQ(error.rfind("cannot create a temporary file in '/nonexistent': ", 0), 0u) << error;
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
                          "e5", "12a", ".", "-."}) {
    v = 42.0;
    EXPECT_FALSE(ParseCsvNumber(bad, v)) << bad;
    EXPECT_EQ(v, 42.0) << bad;
  }
  EXPECT_TRUE(ParseCsvNumber("-0", v));
  EXPECT_TRUE(std::signbit(v));

  // Plain decimals take a short cut that must give the correctly rounded value, bit for bit;
  // lengths around the limits of the short cut (19 digits, 2^53, 22 decimals) included.
  std::mt19937_64 rng(7);
  for (int i = 0; i < 20000; ++i) {
    std::string text = rng() % 2 ? "-" : "";
    const int digits = 1 + static_cast<int>(rng() % 24);
    const int point = static_cast<int>(rng() % (digits + 1));
    for (int d = 0; d < digits; ++d) {
      if (d == point && d > 0) text += '.';
      text += static_cast<char>('0' + rng() % 10);
    }
    for (const std::string& cell : {text, std::string("9007199254740993"), std::string("0.1234567890123456789012")}) {
      double expected = 0.0;
      std::from_chars(cell.data(), cell.data() + cell.size(), expected);
      ASSERT_TRUE(ParseCsvNumber(cell, v)) << cell;
      ASSERT_EQ(std::memcmp(&v, &expected, sizeof v), 0) << cell;
    }
  }
}

// A file read in small blocks on several threads gives the table of one read in one piece:
// blocks that start inside a quoted field, a CR-only line end, blank lines, CRLF inside quotes.
TEST(ToolCsv, BlocksOnThreadsGiveTheSameTable) {
  std::string text = "\xEF\xBB\xBFid,name,x,note,g\r\n";
  for (int i = 0; i < 120; ++i) {
    text += std::to_string(i) + ",";
    switch (i % 5) {
      case 0: text += "plain"; break;
      case 1: text += "\"with, comma\""; break;
      case 2: text += "\"doubled \"\"quotes\"\"\""; break;
      case 3: text += "\"two\r\nlines, " + std::to_string(i % 4) + "\""; break;
      default: text += " NA "; break;
    }
    text += ',';
    text += i % 7 == 0 ? "" : i % 11 == 0 ? "NA" : std::to_string(i * 0.25 - 3);
    text += i % 3 == 0 ? ",\"note\nover\nlines\"," : ",n,";
    text += i % 4 == 0 ? "2.0" : i % 4 == 1 ? "2" : i % 4 == 2 ? "10" : "-1";
    text += i % 9 == 0 ? "\r" : i % 2 == 0 ? "\r\n" : "\n";
    if (i % 13 == 0) text += "  \n";
  }
  const std::vector<CsvColumnRequest> columns = {
      {"g", Kind::Factor}, {"x", Kind::Numeric}, {"name", Kind::Factor}, {"id", Kind::Numeric}};
  CsvTable whole;
  std::string error;
  ASSERT_TRUE(ReadText(text, columns, whole, error)) << error;
  ASSERT_EQ(whole.NumRows(), 120u);
  EXPECT_EQ(whole.Column(0).labels, (std::vector<std::string>{"-1", "2.0", "10"}));
  EXPECT_EQ(whole.Column(2).labels.size(), 7u);  // plain, comma, quotes, 4 two-line texts
  std::vector<std::uint64_t> wholeOffsets;
  const Rows expected = ReadAll(*whole.Records(), &wholeOffsets);

  for (const std::size_t blockBytes : {1, 2, 3, 7, 16, 64, 333}) {
    for (const unsigned threads : {1u, 2u, 3u}) {
      CsvReadOptions options;
      options.blockBytes = blockBytes;
      options.threads = threads;
      CsvTable table;
      ASSERT_TRUE(ReadText(text, columns, table, error, options)) << error << " block " << blockBytes;
      std::vector<std::uint64_t> offsets;
      EXPECT_TRUE(SameRows(ReadAll(*table.Records(), &offsets), expected)) << "block " << blockBytes;
      EXPECT_EQ(offsets, wholeOffsets) << "block " << blockBytes;
      for (std::size_t c = 0; c < columns.size(); ++c) {
        EXPECT_EQ(table.Column(c).labels, whole.Column(c).labels);
        EXPECT_EQ(table.Column(c).missing, whole.Column(c).missing);
      }
    }
  }
  EXPECT_EQ(whole.Column(1).missing, 27u);  // 18 empty (i % 7 == 0) and 9 NA (i % 11 == 0 only)
}

class AfterCalls : public TQQueryCancel {
 public:
  explicit AfterCalls(int allowed) : fAllowed(allowed) {}
  bool IsCancelled() override { return ++fCalls > fAllowed; }

 private:
  int fAllowed;
  int fCalls = 0;
};

// An error in the middle of a file, or a cancelled read, ends the read with its message and
// leaves nothing behind: no file in the cache's directory, no open file. The cache's file has
// no name even while it is in use.
TEST(ToolCsv, FailedReadsLeaveNoTemporaryFile) {
  const std::string dir = CacheDirectory("failed");
  const std::string path = ::testing::TempDir() + "/middle.csv";
  {
    std::ofstream out(path, std::ios::binary);
    out << "y,x,note\n";
    for (int i = 0; i < 400; ++i) {
      out << i << ',' << (i == 250 ? "abc" : std::to_string(i % 10)) << ',' << (i % 50 == 0 ? "\"a\nb\"" : "c")
          << '\n';
    }
  }
  const int openBefore = OpenFileCount();
  CsvReadOptions options;
  options.temporaryDirectory = dir;
  options.blockBytes = 256;
  options.threads = 2;
  CsvTable table;
  std::string error;
  const std::vector<CsvColumnRequest> columns = {{"y", Kind::Numeric}, {"x", Kind::Numeric}};
  EXPECT_FALSE(CsvTable::ReadFile(path, columns, options, table, error));
  // Record 250 starts on line 257: after the header, 250 records and 5 quoted line breaks.
  EXPECT_EQ(error, "line 257, column 'x': 'abc' is not a number");
  EXPECT_TRUE(IsEmptyDirectory(dir));
  EXPECT_EQ(OpenFileCount(), openBefore);

  AfterCalls cancel(3);
  options.cancel = &cancel;
  EXPECT_FALSE(CsvTable::ReadFile(path, columns, options, table, error));
  EXPECT_EQ(error, kCsvReadCancelled);
  EXPECT_TRUE(IsEmptyDirectory(dir));
  EXPECT_EQ(OpenFileCount(), openBefore);

  options.cancel = nullptr;
  ASSERT_TRUE(CsvTable::ReadFile(path, {{"y", Kind::Numeric}}, options, table, error)) << error;
  EXPECT_EQ(table.NumRows(), 400u);
  EXPECT_TRUE(IsEmptyDirectory(dir));
  EXPECT_EQ(OpenFileCount(), openBefore + 1);
  table = CsvTable();
  EXPECT_EQ(OpenFileCount(), openBefore);
  std::filesystem::remove_all(dir);
}

// The passes of a fit rewind the cache; reading goes on block after block, and a pass may stop
// early and start over.
TEST(ToolCsv, SourceRewindsTheCache) {
  std::string text = "y,g\n";
  for (int i = 0; i < 10; ++i) text += std::to_string(i) + "," + (i % 2 ? "odd" : "even") + "\n";
  CsvTable table;
  std::string error;
  ASSERT_TRUE(ReadText(text, {{"y", Kind::Numeric}, {"g", Kind::Factor}}, table, error)) << error;
  const RecordCache& cache = *table.Records();
  // Blocks of three records.
  CacheRecordSource source(cache, 3 * cache.Layout().RecordBytes());
  EXPECT_EQ(source.RecordCount(), 10);
  for (int pass = 0; pass < 3; ++pass) {
    ASSERT_EQ(source.Rewind(), 0);
    const int stopAt = pass == 1 ? 4 : 10;
    for (int i = 0; i < stopAt; ++i) {
      ASSERT_TRUE(source.HasMoreRecords());
      const Record* r = source.NextRecord();
      ASSERT_NE(r, nullptr);
      ASSERT_EQ(r->Size(), 2u);
      EXPECT_EQ((*r)[0], i) << "pass " << pass;
      EXPECT_EQ((*r)[1], i % 2 ? 1.0 : 0.0);
    }
    if (stopAt == 10) {
      EXPECT_FALSE(source.HasMoreRecords());
      EXPECT_EQ(source.NextRecord(), nullptr);
    }
  }
  EXPECT_FALSE(source.Failed());
}

// Records ordered by subject and within-subject keys (then by their place in the file), read
// through a sorted copy of the cache; data already in order are streamed as they stand. Keys
// may exceed 64 bits.
TEST(ToolCsv, SortedReading) {
  const std::string text = "s,w,y,x\nb,2,0,1\na,1,1,1\nb,1,2,1\nNA,1,3,1\na,2,4,1\nb,1,5,1\na,1,6,1\n";
  const std::vector<CsvColumnRequest> columns = {
      {"y", Kind::Numeric}, {"s", Kind::Factor}, {"w", Kind::Factor}, {"x", Kind::Numeric}};
  CsvTable table;
  std::string error;
  ASSERT_TRUE(ReadText(text, columns, table, error)) << error;
  std::shared_ptr<const RecordCache> sorted;
  // Sorted in memory at once, and in runs of 1 to 3 records merged.
  for (const std::size_t runRecords : {1000, 1, 2, 3}) {
    ASSERT_TRUE(RecordCache::SortedBy(table.Records(), {1, 2}, sorted, error,
                                      runRecords * table.Records()->Layout().RecordBytes()))
        << error;
    EXPECT_NE(sorted, table.Records());
    std::vector<double> order;
    for (const auto& row : ReadAll(*sorted, nullptr, 2 * sorted->Layout().RecordBytes())) order.push_back(row[0]);
    // a1 (records 1, 6), a2 (4), b1 (2, 5), b2 (0), then the missing subject (3).
    EXPECT_EQ(order, (std::vector<double>{1, 6, 4, 2, 5, 0, 3})) << runRecords;
  }

  // One pointer for the records and their sorted copy.
  std::shared_ptr<const RecordCache> records = table.Records();
  ASSERT_TRUE(RecordCache::SortedBy(records, {2}, records, error)) << error;
  EXPECT_EQ(ReadAll(*records).front()[0], 1.0);

  // Grouped by subject alone they are already in order.
  ASSERT_TRUE(ReadText("s,w,y,x\na,2,0,1\na,1,1,1\nb,1,2,1\n", columns, table, error)) << error;
  ASSERT_TRUE(RecordCache::SortedBy(table.Records(), {1}, sorted, error)) << error;
  EXPECT_EQ(sorted, table.Records());

  EXPECT_FALSE(RecordCache::SortedBy(table.Records(), {1, 3}, sorted, error));
  EXPECT_EQ(error, "a sort key must be a categorical column");

  // Keys beyond 64 bits (a factor of 3 categories before six of 2000 each), in runs of 97 records.
  std::string wide = "f,a,b,c,d,e,g\n";
  const int n = 2000;
  for (int i = 0; i < n; ++i) {
    const int k = (i * 7919) % n;  // every value once, out of order
    wide += std::to_string(k % 3);
    for (int c = 0; c < 6; ++c) {
      wide += ',';
      wide += std::to_string((k + 13 * c) % n);
    }
    wide += '\n';
  }
  std::vector<CsvColumnRequest> wideColumns;
  for (const char* name : {"f", "a", "b", "c", "d", "e", "g"}) wideColumns.push_back({name, Kind::Factor});
  ASSERT_TRUE(ReadText(wide, wideColumns, table, error)) << error;
  ASSERT_TRUE(RecordCache::SortedBy(table.Records(), {0, 1, 2, 3, 4, 5, 6}, sorted, error, 97 * 40)) << error;
  const Rows rows = ReadAll(*sorted);
  ASSERT_EQ(rows.size(), static_cast<std::size_t>(n));
  for (std::size_t i = 1; i < rows.size(); ++i) {
    ASSERT_TRUE(rows[i - 1][0] < rows[i][0] || (rows[i - 1][0] == rows[i][0] && rows[i - 1][1] < rows[i][1])) << i;
  }
}

TEST(ToolCsv, ProgressOfLongReads) {
  std::string text = "y\n";
  for (int i = 0; i < 5000; ++i) text += std::to_string(i) + "\n";
  std::vector<CsvReadProgress> reports;
  CsvReadOptions options;
  options.blockBytes = 1000;
  options.progress = [&reports](const CsvReadProgress& p) { reports.push_back(p); };
  CsvTable table;
  std::string error;
  // Below the size from which reads are reported: nothing.
  ASSERT_TRUE(ReadText(text, {{"y", Kind::Numeric}}, table, error, options)) << error;
  EXPECT_TRUE(reports.empty());
  options.progressMinBytes = 0;
  ASSERT_TRUE(ReadText(text, {{"y", Kind::Numeric}}, table, error, options)) << error;
  ASSERT_FALSE(reports.empty());
  EXPECT_TRUE(reports.back().finished);
  EXPECT_EQ(reports.back().records, 5000u);
  EXPECT_EQ(reports.back().bytesRead, text.size());

  // The lines: in a log one every few seconds and the closing one; at a terminal each report
  // overwrites the last.
  auto report = [](double seconds, bool finished) {
    CsvReadProgress p;
    p.bytesRead = 52400000;
    p.totalBytes = 104800000;
    p.records = 500000;
    p.seconds = seconds;
    p.finished = finished;
    return p;
  };
  std::ostringstream log;
  ReadProgressPrinter toLog(&log, false);
  for (const double seconds : {1.0, 5.0, 6.0, 8.0}) toLog(report(seconds, false));
  toLog(report(10.0, true));
  EXPECT_EQ(log.str(),
            "gzl: reading 52.4 of 104.8 MB, 500000 records (0.10 million records per second)\n"
            "gzl: read 52.4 MB, 500000 records in 10.00 s (0.05 million records per second)\n");
  std::ostringstream terminal;
  ReadProgressPrinter toTerminal(&terminal, true);
  toTerminal(report(0.5, false));
  toTerminal(report(1.0, true));
  toTerminal.Finish();  // nothing left to end
  EXPECT_EQ(terminal.str(),
            "\rgzl: reading 52.4 of 104.8 MB, 500000 records (1.00 million records per second)"
            "\rgzl: read 52.4 MB, 500000 records in 1.00 s (0.50 million records per second)  \n");
  // A read that stops early leaves its line to be ended before the message that follows.
  toTerminal(report(0.5, false));
  toTerminal.Finish();
  EXPECT_EQ(terminal.str().substr(terminal.str().size() - 2), ")\n");
}
