#pragma once
// The compact binary copy of a data file's records that `gzl fit` fits from, and the record
// source that streams it to the engine.
//
// The records live in a temporary file that has no name from the moment it is created (it is
// unlinked at once where the system cannot create it nameless), so it disappears with the
// process however that ends: normal exit, an error, Ctrl-C or a kill. The process itself holds
// only the block of records it is reading, so its memory does not grow with the number of records.
//
// A stored record is the byte offset of its text in the data file (8 bytes), the numeric columns
// as doubles (missing: TQMV::Missing), then the factor columns as 32-bit category codes (missing:
// kMissingCode), padded to a multiple of 8 bytes. Category codes are stored as the reader first
// assigned them; each factor column carries the map from stored code to the final category code,
// applied as records are decoded.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "GZLRecord.h"

// Where each column of a stored record lies.
class CacheLayout {
 public:
  static constexpr std::uint32_t kMissingCode = 0xFFFFFFFFu;

  CacheLayout() = default;
  // One entry per column, in field order: true for a factor (category codes), false for a number.
  explicit CacheLayout(const std::vector<bool>& factorColumns);

  std::size_t NumColumns() const noexcept { return fOffsets.size(); }
  std::size_t RecordBytes() const noexcept { return fRecordBytes; }
  bool IsFactor(std::size_t column) const noexcept { return fFactor[column]; }
  // Byte offset of the column's value within a stored record.
  std::size_t Offset(std::size_t column) const noexcept { return fOffsets[column]; }

 private:
  std::vector<std::size_t> fOffsets;
  std::vector<bool> fFactor;
  std::size_t fRecordBytes = sizeof(std::uint64_t);
};

class RecordCache {
 public:
  // Creates an empty cache in a temporary file of the directory (empty: $TMPDIR, else /tmp).
  // Null with a one-line message when the file cannot be created.
  static std::shared_ptr<RecordCache> Create(const std::string& directory, const CacheLayout& layout,
                                             std::string& error);
  ~RecordCache();
  RecordCache(const RecordCache&) = delete;
  RecordCache& operator=(const RecordCache&) = delete;

  const CacheLayout& Layout() const noexcept { return fLayout; }
  std::uint64_t NumRecords() const noexcept { return fRecords; }
  const std::string& Directory() const noexcept { return fDirectory; }

  // Appends whole stored records (bytes is a multiple of the record size).
  bool Append(const void* data, std::size_t bytes, std::string& error);
  // Reads count stored records from record first on into out; false on a read error.
  bool ReadRecords(std::uint64_t first, std::size_t count, void* out) const;

  // The final category code of each stored code of a factor column, and its number of categories.
  void SetCategoryCodes(std::size_t column, std::vector<std::uint32_t> codes, std::size_t levels);
  std::size_t Levels(std::size_t column) const noexcept { return fLevels[column]; }
  std::uint32_t CategoryCode(std::size_t column, std::uint32_t stored) const noexcept { return fCodes[column][stored]; }

  // Writes the fields of one stored record into row (NumColumns values): numbers as they are,
  // factors as final category codes, missing values as TQMV::Missing.
  void Decode(const unsigned char* stored, double* row) const noexcept;
  // The byte offset in the data file at which the stored record's text starts.
  static std::uint64_t FileOffset(const unsigned char* stored) noexcept;

  // The records ordered by the final codes of the key columns (factor columns, each ascending,
  // missing values last) and then by their position: the same cache when the records already
  // stand in that order, else a sorted copy in a temporary file of its own. Runs of 16 MB are
  // sorted in memory through an index of (keys, place) and merged, so the sort's memory does
  // not grow with the number of records (runBytes sets the size of the runs). records and
  // sorted may be the same pointer.
  static bool SortedBy(const std::shared_ptr<const RecordCache>& records, const std::vector<int>& keyColumns,
                       std::shared_ptr<const RecordCache>& sorted, std::string& error,
                       std::size_t runBytes = std::size_t{16} << 20);

 private:
  RecordCache(int fd, std::string directory, const CacheLayout& layout);

  int fFd;
  std::string fDirectory;
  CacheLayout fLayout;
  std::uint64_t fRecords = 0;
  std::vector<std::vector<std::uint32_t>> fCodes;  // per column; empty for numbers
  std::vector<std::size_t> fLevels;
  // (byte offset, column) of the numbers and of the factors, for decoding without a test per field.
  std::vector<std::pair<std::size_t, std::size_t>> fNumbers;
  std::vector<std::pair<std::size_t, std::size_t>> fFactors;
};

// Streams a cache to the engine: sequential reads of a few MB at a time, one decoded record
// held at once, back to the first record on Rewind. A read error ends the pass early and makes
// every later Rewind fail; the caller asks Failed() after the fit.
class CacheRecordSource final : public IGZLRecordSource {
 public:
  explicit CacheRecordSource(const RecordCache& cache, std::size_t bufferBytes = std::size_t{4} << 20);

  bool HasMoreRecords() override { return !fbFailed && fNext < fCache.NumRecords(); }
  const Record* NextRecord() override;
  long RecordCount() override { return static_cast<long>(fCache.NumRecords()); }
  int Rewind() override;

  // Byte offset in the data file of the record last returned (to find its text again).
  std::uint64_t FileOffset() const noexcept { return fCurrentOffset; }
  bool Failed() const noexcept { return fbFailed; }

 private:
  const RecordCache& fCache;
  std::size_t fBufferRecords;  // capacity in records; a small cache is read once and kept
  std::unique_ptr<unsigned char[]> fBuffer;
  std::uint64_t fBufferFirst = 0;  // record number of the buffer's first record
  std::size_t fBufferCount = 0;    // records loaded
  std::uint64_t fNext = 0;
  std::uint64_t fCurrentOffset = 0;
  std::vector<double> fRow;
  Record fRecord;
  bool fbFailed = false;
};
