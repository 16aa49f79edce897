#pragma once
// Reading a delimited text file into the record cache that the tool streams to the engine.
//
// One read of the file, its blocks tokenized in place on every core, keeps the columns that the
// model uses, in the order they were requested; a column's position is its field index in a
// record. Numeric columns hold their values; factor columns hold category codes 0..K-1 in sorted
// order of their values (numeric order when every non-missing value is a number, else byte-wise
// string order) and keep the original text of each category for output. Empty cells and NA are
// missing (TQMV::Missing). The records go to a temporary file (see RecordCache.h); the table
// keeps only the header, the category dictionaries and per-column counts, so its memory does
// not grow with the number of records.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <istream>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "GZLProgress.h"
#include "tools/RecordCache.h"

enum class CsvColumnKind { Numeric, Factor };

struct CsvColumnRequest {
  CsvColumnRequest() = default;
  CsvColumnRequest(std::string name, CsvColumnKind kind = CsvColumnKind::Numeric, std::string header = {})
      : name(std::move(name)), kind(kind), header(std::move(header)) {}

  std::string name;
  CsvColumnKind kind = CsvColumnKind::Numeric;
  // The header name of the file's column when it differs from name, so that one column of the
  // file can be kept twice: as numbers and as categories.
  std::string header;

  const std::string& HeaderName() const noexcept { return header.empty() ? name : header; }
};

struct CsvColumn {
  std::string name;
  bool isFactor = false;
  // Factor columns: the text of each category, indexed by its code.
  std::vector<std::string> labels;
  // Factor columns: true when the categories were ordered as numbers.
  bool numericLabels = false;
  // Cells that are empty or NA.
  std::uint64_t missing = 0;
};

// Where a long read stands, for a progress display.
struct CsvReadProgress {
  std::uint64_t bytesRead = 0;
  std::uint64_t totalBytes = 0;  // 0 when the size of the input is not known
  std::uint64_t records = 0;
  double seconds = 0.0;
  bool finished = false;  // the last report of the read
};

// The message of a read stopped by its cancel query.
inline constexpr char kCsvReadCancelled[] = "reading the data was cancelled";

struct CsvReadOptions {
  char separator = ',';
  // Directory of the record cache; empty for $TMPDIR, else /tmp.
  std::string temporaryDirectory;
  // Called about every quarter of a second during reads of at least progressMinBytes, and once
  // at the end of such a read; empty for none.
  std::function<void(const CsvReadProgress&)> progress;
  std::uint64_t progressMinBytes = std::uint64_t{50} << 20;
  // Asked between blocks; a read that it cancels fails with kCsvReadCancelled.
  TQQueryCancel* cancel = nullptr;
  // Bytes read at once, and threads that tokenize the blocks (0: one per core).
  std::size_t blockBytes = std::size_t{1} << 20;
  unsigned threads = 0;
};

class CsvTable {
 public:
  // Reads the requested columns from text with a header line. A name requested twice with the
  // same kind is kept once; with different kinds it is an error. On failure returns false and
  // leaves a one-line message in error (line numbers count the header as line 1); the table is
  // then empty and no temporary file remains.
  static bool Read(std::istream& in, const std::vector<CsvColumnRequest>& columns,
                   const CsvReadOptions& options, CsvTable& table, std::string& error);
  static bool ReadFile(const std::string& path, const std::vector<CsvColumnRequest>& columns,
                       const CsvReadOptions& options, CsvTable& table, std::string& error);

  std::size_t NumRows() const noexcept { return fNumRows; }
  std::size_t NumColumns() const noexcept { return fColumns.size(); }

  const CsvColumn& Column(std::size_t column) const noexcept { return fColumns[column]; }
  const std::vector<CsvColumn>& Columns() const noexcept { return fColumns; }
  // Field index of a kept column, -1 when the name was not requested.
  int ColumnIndex(std::string_view name) const noexcept;

  // Every name of the file's header, in file order (kept or not).
  const std::vector<std::string>& HeaderNames() const noexcept { return fHeader; }

  // The records in file order (null before a successful read); stream them with a
  // CacheRecordSource, or order them by subject with RecordCache::SortedBy.
  const std::shared_ptr<const RecordCache>& Records() const noexcept { return fRecords; }

 private:
  friend class CsvTableBuilder;
  std::vector<std::string> fHeader;
  std::vector<CsvColumn> fColumns;
  std::shared_ptr<const RecordCache> fRecords;
  std::size_t fNumRows = 0;
};

// Reads a number the way the table reads numeric cells: optional surrounding blanks, an optional
// sign, decimal or exponent notation. False for anything else, including infinities and NaN.
bool ParseCsvNumber(std::string_view text, double& value);

// The fields of the record whose text starts at the byte offset of the file (a cached record's
// FileOffset), as the table read them: unquoted, trimmed, not yet parsed.
bool ReadCsvRecordAt(const std::string& path, std::uint64_t offset, char separator, std::vector<std::string>& fields,
                     std::string& error);
