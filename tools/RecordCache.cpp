#include "tools/RecordCache.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <queue>
#include <utility>

#include "support/TQMV.h"

namespace {

constexpr std::size_t kCopyBufferBytes = std::size_t{4} << 20;

std::string SystemError(int code) { return std::strerror(code); }
std::string ReadFailure() { return "cannot read the record cache: " + SystemError(errno); }

// Records in a buffer of about the given size, never more than the cache holds.
std::size_t BufferRecords(const RecordCache& cache, std::size_t bytes) {
  const std::size_t wanted = std::max<std::size_t>(1, bytes / cache.Layout().RecordBytes());
  return static_cast<std::size_t>(std::min<std::uint64_t>(wanted, std::max<std::uint64_t>(1, cache.NumRecords())));
}

std::string TemporaryDirectory(const std::string& directory) {
  if (!directory.empty()) return directory;
  const char* fromEnvironment = std::getenv("TMPDIR");
  return fromEnvironment != nullptr && *fromEnvironment != '\0' ? fromEnvironment : "/tmp";
}

// A file without a name in the directory: O_TMPFILE where the file system has it, else a named
// file removed at once. Either way nothing is left behind when the process ends.
int OpenNamelessFile(const std::string& directory, int& errorCode) {
#ifdef O_TMPFILE
  int fd = ::open(directory.c_str(), O_TMPFILE | O_RDWR | O_EXCL | O_CLOEXEC, 0600);
  if (fd >= 0) return fd;
  if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) {
    errorCode = errno;
    return -1;
  }
#endif
  std::string path = directory + "/gzl-records-XXXXXX";
  int named = ::mkstemp(path.data());
  if (named < 0) {
    errorCode = errno;
    return -1;
  }
  ::unlink(path.c_str());
  ::fcntl(named, F_SETFD, FD_CLOEXEC);
  return named;
}

// Reads records of a cache in order, a block at a time.
class CacheScanner {
 public:
  explicit CacheScanner(const RecordCache& cache)
      : fCache(cache),
        fRecordBytes(cache.Layout().RecordBytes()),
        fCapacity(BufferRecords(cache, kCopyBufferBytes)),
        fBuffer(new unsigned char[fCapacity * fRecordBytes]) {}

  // The next stored record, null at the end or on a read error (then failed is set).
  const unsigned char* Next() {
    if (fPos == fCount) {
      const std::uint64_t left = fCache.NumRecords() - fFirst - fCount;
      if (left == 0) return nullptr;
      fFirst += fCount;
      fCount = static_cast<std::size_t>(std::min<std::uint64_t>(left, fCapacity));
      fPos = 0;
      if (!fCache.ReadRecords(fFirst, fCount, fBuffer.get())) {
        failed = true;
        fCount = 0;
        return nullptr;
      }
    }
    return fBuffer.get() + fRecordBytes * fPos++;
  }

  bool failed = false;

 private:
  const RecordCache& fCache;
  std::size_t fRecordBytes;
  std::size_t fCapacity;
  std::unique_ptr<unsigned char[]> fBuffer;
  std::uint64_t fFirst = 0;
  std::size_t fCount = 0;
  std::size_t fPos = 0;
};

using Key128 = unsigned __int128;

// The sort key of the records: the key columns' category codes (missing as one more code) read
// as the digits of one number, the first column most significant.
class SortKey {
 public:
  bool Setup(const RecordCache& cache, const std::vector<int>& columns, std::string& error) {
    const CacheLayout& layout = cache.Layout();
    Key128 range = 1;
    for (int column : columns) {
      if (column < 0 || static_cast<std::size_t>(column) >= layout.NumColumns()) {
        error = "a sort key is not a column of the records";
        return false;
      }
      if (!layout.IsFactor(static_cast<std::size_t>(column))) {
        error = "a sort key must be a categorical column";
        return false;
      }
      const Key128 radix = static_cast<Key128>(cache.Levels(static_cast<std::size_t>(column))) + 1;
      if (range > ~Key128{0} / radix) {
        error = "the sort keys have too many combinations of categories";
        return false;
      }
      range *= radix;
      fColumns.push_back({layout.Offset(static_cast<std::size_t>(column)), radix, column});
    }
    fpCache = &cache;
    return true;
  }

  Key128 Of(const unsigned char* stored) const noexcept {
    Key128 key = 0;
    for (const auto& c : fColumns) {
      std::uint32_t code = 0;
      std::memcpy(&code, stored + c.offset, sizeof code);
      const Key128 digit = code == CacheLayout::kMissingCode ? c.radix - 1 : fpCache->CategoryCode(c.column, code);
      key = key * c.radix + digit;
    }
    return key;
  }

 private:
  struct Column {
    std::size_t offset;
    Key128 radix;
    int column;
  };
  std::vector<Column> fColumns;
  const RecordCache* fpCache = nullptr;
};

// Appends records to a cache through a buffer.
class RecordWriter {
 public:
  RecordWriter(RecordCache& out, std::size_t capacity)
      : fOut(out),
        fRecordBytes(out.Layout().RecordBytes()),
        fCapacity(capacity),
        fBuffer(new unsigned char[capacity * fRecordBytes]) {}

  bool Add(const unsigned char* record, std::string& error) {
    if (fCount == fCapacity && !Flush(error)) return false;
    std::memcpy(fBuffer.get() + fCount * fRecordBytes, record, fRecordBytes);
    ++fCount;
    return true;
  }
  bool Flush(std::string& error) {
    if (fCount > 0 && !fOut.Append(fBuffer.get(), fCount * fRecordBytes, error)) return false;
    fCount = 0;
    return true;
  }

 private:
  RecordCache& fOut;
  std::size_t fRecordBytes;
  std::size_t fCapacity;
  std::unique_ptr<unsigned char[]> fBuffer;
  std::size_t fCount = 0;
};

// Sorts records [first, first + count) of a cache in memory, through an index of (key, place),
// and appends them in that order.
bool WriteSortedRun(const RecordCache& cache, const SortKey& key, std::uint64_t first, std::size_t count,
                    unsigned char* buffer, RecordWriter& out, std::string& error) {
  const std::size_t recordBytes = cache.Layout().RecordBytes();
  if (!cache.ReadRecords(first, count, buffer)) {
    error = ReadFailure();
    return false;
  }
  std::vector<std::pair<Key128, std::size_t>> index(count);
  for (std::size_t i = 0; i < count; ++i) index[i] = {key.Of(buffer + i * recordBytes), i};
  std::sort(index.begin(), index.end());
  for (const auto& entry : index) {
    if (!out.Add(buffer + entry.second * recordBytes, error)) return false;
  }
  return true;
}

// Reads one sorted run of a cache a buffer at a time.
class RunReader {
 public:
  RunReader(const RecordCache& runs, std::uint64_t first, std::uint64_t end, std::size_t capacity)
      : fRuns(runs),
        fRecordBytes(runs.Layout().RecordBytes()),
        fNext(first),
        fEnd(end),
        fCapacity(capacity),
        fBuffer(new unsigned char[capacity * fRecordBytes]) {}

  const unsigned char* Current() const noexcept { return fBuffer.get() + fPos * fRecordBytes; }
  // Moves to the next record (the first one on the first call); false at the end of the run or
  // on a read error (then failed is set).
  bool Advance() {
    if (++fPos < fCount) return true;
    if (fNext == fEnd) return false;
    fCount = static_cast<std::size_t>(std::min<std::uint64_t>(fCapacity, fEnd - fNext));
    fPos = 0;
    if (!fRuns.ReadRecords(fNext, fCount, fBuffer.get())) {
      failed = true;
      return false;
    }
    fNext += fCount;
    return true;
  }

  bool failed = false;

 private:
  const RecordCache& fRuns;
  std::size_t fRecordBytes;
  std::uint64_t fNext;
  std::uint64_t fEnd;
  std::size_t fCapacity;
  std::unique_ptr<unsigned char[]> fBuffer;
  std::size_t fCount = 0;
  std::size_t fPos = 0;
};

// The records in key order (then in their order in the cache) to a new cache: runs of about
// runBytes sorted in memory and, when there are several, merged. Memory stays the same
// whatever the number of records.
bool WriteSortedCopy(const RecordCache& cache, const SortKey& key, std::size_t runBytes,
                     std::shared_ptr<RecordCache>& out, std::string& error) {
  out = RecordCache::Create(cache.Directory(), cache.Layout(), error);
  if (!out) return false;
  const std::size_t runRecords = BufferRecords(cache, runBytes);
  const std::uint64_t n = cache.NumRecords();
  RecordWriter writer(*out, BufferRecords(cache, kCopyBufferBytes));
  if (n <= runRecords) {
    const std::unique_ptr<unsigned char[]> buffer(new unsigned char[runRecords * cache.Layout().RecordBytes()]);
    return WriteSortedRun(cache, key, 0, static_cast<std::size_t>(n), buffer.get(), writer, error) &&
           writer.Flush(error);
  }

  std::shared_ptr<RecordCache> runs = RecordCache::Create(cache.Directory(), cache.Layout(), error);
  if (!runs) return false;
  {
    const std::unique_ptr<unsigned char[]> buffer(new unsigned char[runRecords * cache.Layout().RecordBytes()]);
    RecordWriter runWriter(*runs, BufferRecords(cache, kCopyBufferBytes));
    for (std::uint64_t first = 0; first < n; first += runRecords) {
      const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(runRecords, n - first));
      if (!WriteSortedRun(cache, key, first, count, buffer.get(), runWriter, error)) return false;
    }
    if (!runWriter.Flush(error)) return false;
  }
  // Equal keys come from the earlier run first: runs hold consecutive stretches of the cache.
  const std::size_t nRuns = static_cast<std::size_t>((n + runRecords - 1) / runRecords);
  const std::size_t readerRecords = std::max<std::size_t>(64, runRecords / nRuns);
  std::vector<RunReader> readers;
  readers.reserve(nRuns);
  using Head = std::pair<Key128, std::size_t>;  // key of a run's current record, run
  std::priority_queue<Head, std::vector<Head>, std::greater<Head>> heads;
  for (std::size_t r = 0; r < nRuns; ++r) {
    readers.emplace_back(*runs, r * runRecords, std::min<std::uint64_t>(n, (r + 1) * runRecords), readerRecords);
    if (readers[r].Advance()) heads.push({key.Of(readers[r].Current()), r});
  }
  while (!heads.empty()) {
    const std::size_t r = heads.top().second;
    heads.pop();
    if (!writer.Add(readers[r].Current(), error)) return false;
    if (readers[r].Advance()) heads.push({key.Of(readers[r].Current()), r});
  }
  for (const RunReader& reader : readers) {
    if (reader.failed) {
      error = ReadFailure();
      return false;
    }
  }
  return writer.Flush(error);
}

}  // namespace

CacheLayout::CacheLayout(const std::vector<bool>& factorColumns)
    : fOffsets(factorColumns.size(), 0), fFactor(factorColumns) {
  std::size_t at = sizeof(std::uint64_t);
  for (std::size_t c = 0; c < factorColumns.size(); ++c) {
    if (!factorColumns[c]) {
      fOffsets[c] = at;
      at += sizeof(double);
    }
  }
  for (std::size_t c = 0; c < factorColumns.size(); ++c) {
    if (factorColumns[c]) {
      fOffsets[c] = at;
      at += sizeof(std::uint32_t);
    }
  }
  fRecordBytes = (at + 7) / 8 * 8;
}

RecordCache::RecordCache(int fd, std::string directory, const CacheLayout& layout)
    : fFd(fd),
      fDirectory(std::move(directory)),
      fLayout(layout),
      fCodes(layout.NumColumns()),
      fLevels(layout.NumColumns(), 0) {
  for (std::size_t c = 0; c < layout.NumColumns(); ++c) {
    (layout.IsFactor(c) ? fFactors : fNumbers).emplace_back(layout.Offset(c), c);
  }
}

RecordCache::~RecordCache() {
  if (fFd >= 0) ::close(fFd);
}

std::shared_ptr<RecordCache> RecordCache::Create(const std::string& directory, const CacheLayout& layout,
                                                 std::string& error) {
  const std::string where = TemporaryDirectory(directory);
  int errorCode = 0;
  const int fd = OpenNamelessFile(where, errorCode);
  if (fd < 0) {
    error = "cannot create a temporary file in '" + where + "': " + SystemError(errorCode);
    return nullptr;
  }
  return std::shared_ptr<RecordCache>(new RecordCache(fd, where, layout));
}

bool RecordCache::Append(const void* data, std::size_t bytes, std::string& error) {
  const char* p = static_cast<const char*>(data);
  std::size_t left = bytes;
  while (left > 0) {
    const ssize_t written = ::write(fFd, p, left);
    if (written < 0) {
      if (errno == EINTR) continue;
      error = "cannot write the record cache in '" + fDirectory + "' (" + SystemError(errno) +
              "); set TMPDIR to a directory with more room";
      return false;
    }
    p += written;
    left -= static_cast<std::size_t>(written);
  }
  fRecords += bytes / fLayout.RecordBytes();
  return true;
}

bool RecordCache::ReadRecords(std::uint64_t first, std::size_t count, void* out) const {
  const std::size_t recordBytes = fLayout.RecordBytes();
  char* p = static_cast<char*>(out);
  std::size_t left = count * recordBytes;
  off_t at = static_cast<off_t>(first * recordBytes);
  while (left > 0) {
    const ssize_t got = ::pread(fFd, p, left, at);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      if (got == 0) errno = EIO;  // the file is shorter than its records
      return false;
    }
    p += got;
    at += got;
    left -= static_cast<std::size_t>(got);
  }
  return true;
}

void RecordCache::SetCategoryCodes(std::size_t column, std::vector<std::uint32_t> codes, std::size_t levels) {
  fCodes[column] = std::move(codes);
  fLevels[column] = levels;
}

void RecordCache::Decode(const unsigned char* stored, double* row) const noexcept {
  for (const auto& [offset, column] : fNumbers) std::memcpy(row + column, stored + offset, sizeof(double));
  for (const auto& [offset, column] : fFactors) {
    std::uint32_t code = 0;
    std::memcpy(&code, stored + offset, sizeof code);
    row[column] = code == CacheLayout::kMissingCode ? TQMV::Missing : static_cast<double>(fCodes[column][code]);
  }
}

std::uint64_t RecordCache::FileOffset(const unsigned char* stored) noexcept {
  std::uint64_t offset = 0;
  std::memcpy(&offset, stored, sizeof offset);
  return offset;
}

bool RecordCache::SortedBy(const std::shared_ptr<const RecordCache>& records, const std::vector<int>& keyColumns,
                           std::shared_ptr<const RecordCache>& sorted, std::string& error, std::size_t runBytes) {
  // A copy, so that the caller may pass one pointer for both records and sorted.
  const std::shared_ptr<const RecordCache> cache = records;
  sorted.reset();
  SortKey key;
  if (!key.Setup(*cache, keyColumns, error)) return false;

  // Records already grouped in key order are streamed as they stand.
  {
    CacheScanner scanner(*cache);
    bool inOrder = true;
    Key128 previous = 0;
    while (const unsigned char* stored = scanner.Next()) {
      const Key128 k = key.Of(stored);
      if (k < previous) {
        inOrder = false;
        break;
      }
      previous = k;
    }
    if (scanner.failed) {
      error = ReadFailure();
      return false;
    }
    if (inOrder) {
      sorted = cache;
      return true;
    }
  }

  std::shared_ptr<RecordCache> copy;
  if (!WriteSortedCopy(*cache, key, runBytes, copy, error)) return false;
  copy->fCodes = cache->fCodes;
  copy->fLevels = cache->fLevels;
  sorted = std::move(copy);
  return true;
}

CacheRecordSource::CacheRecordSource(const RecordCache& cache, std::size_t bufferBytes)
    : fCache(cache),
      fBufferRecords(BufferRecords(cache, bufferBytes)),
      fBuffer(new unsigned char[fBufferRecords * cache.Layout().RecordBytes()]),
      fRow(cache.Layout().NumColumns(), TQMV::Missing) {}

const Record* CacheRecordSource::NextRecord() {
  if (!HasMoreRecords()) return nullptr;
  if (fNext < fBufferFirst || fNext >= fBufferFirst + fBufferCount) {
    const std::uint64_t left = fCache.NumRecords() - fNext;
    fBufferFirst = fNext;
    fBufferCount = static_cast<std::size_t>(std::min<std::uint64_t>(left, fBufferRecords));
    if (!fCache.ReadRecords(fBufferFirst, fBufferCount, fBuffer.get())) {
      fBufferCount = 0;
      fbFailed = true;
      return nullptr;
    }
  }
  const unsigned char* stored =
      fBuffer.get() + static_cast<std::size_t>(fNext - fBufferFirst) * fCache.Layout().RecordBytes();
  ++fNext;
  fCurrentOffset = RecordCache::FileOffset(stored);
  fCache.Decode(stored, fRow.data());
  fRecord.Reset(fRow.data(), fRow.size());
  return &fRecord;
}

int CacheRecordSource::Rewind() {
  if (fbFailed) return 1;
  fNext = 0;
  return 0;
}
