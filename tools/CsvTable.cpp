#include "tools/CsvTable.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

#include "support/TQMV.h"
#include "tools/CsvTokenizer.h"

namespace {

// Buffers that grow without zeroing what is about to be overwritten.
template <typename T>
struct UninitializedAllocator : std::allocator<T> {
  template <typename U>
  struct rebind {
    using other = UninitializedAllocator<U>;
  };
  UninitializedAllocator() noexcept = default;
  template <typename U>
  UninitializedAllocator(const UninitializedAllocator<U>&) noexcept {}
  template <typename U>
  void construct(U* p) noexcept {
    ::new (static_cast<void*>(p)) U;
  }
  template <typename U, typename... Args>
  void construct(U* p, Args&&... args) {
    ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
  }
};
using Bytes = std::vector<char, UninitializedAllocator<char>>;

// ---------------------------------------------------------------------------------------------
// Input: the bytes of the file or stream, read in order.

class ByteInput {
 public:
  virtual ~ByteInput() = default;
  // Up to size bytes; 0 at the end of the data, -1 on a read error.
  virtual long long Read(char* buffer, std::size_t size) = 0;
  // The number of bytes to come in all, 0 when not known.
  virtual std::uint64_t Size() const { return 0; }
};

class FileInput final : public ByteInput {
 public:
  explicit FileInput(int fd) : fFd(fd) {
    struct stat info {};
    if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) fSize = static_cast<std::uint64_t>(info.st_size);
#ifdef POSIX_FADV_SEQUENTIAL
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
#endif
  }
  ~FileInput() override { ::close(fFd); }
  long long Read(char* buffer, std::size_t size) override {
    for (;;) {
      const ssize_t got = ::read(fFd, buffer, size);
      if (got >= 0 || errno != EINTR) return got;
    }
  }
  std::uint64_t Size() const override { return fSize; }

 private:
  int fFd;
  std::uint64_t fSize = 0;
};

class StreamInput final : public ByteInput {
 public:
  explicit StreamInput(std::istream& in) : fIn(in) {}
  long long Read(char* buffer, std::size_t size) override {
    if (!fIn.good()) return fIn.bad() ? -1 : 0;
    fIn.read(buffer, static_cast<std::streamsize>(size));
    if (fIn.bad()) return -1;
    return fIn.gcount();
  }

 private:
  std::istream& fIn;
};

// Cuts the input into chunks that end right after a line break (LF, or a CR whose next byte is
// not LF), the last one at the end of the data; a chunk grows past the block size only when a
// line is longer than that. The text after the last line break waits for the next chunk.
class ChunkReader {
 public:
  ChunkReader(ByteInput& in, std::size_t blockBytes) : fIn(in), fBlockBytes(std::max<std::size_t>(blockBytes, 1)) {}

  // False on a read error. final is set on the chunk that reaches the end of the data (it may
  // be empty).
  bool Next(Bytes& text, std::uint64_t& offset, bool& final) {
    text.swap(fCarry);
    fCarry.clear();
    offset = fCarryOffset;
    final = false;
    std::size_t cut = 0;
    for (;;) {
      if (fEnd) break;
      const std::size_t before = text.size();
      text.resize(before + fBlockBytes);
      const long long got = fIn.Read(text.data() + before, fBlockBytes);
      if (got < 0) return false;
      text.resize(before + static_cast<std::size_t>(got));
      fBytesRead += static_cast<std::uint64_t>(got);
      if (got == 0) fEnd = true;
      if (!fBomChecked && (text.size() >= 3 || fEnd)) {
        fBomChecked = true;
        if (text.size() >= 3 && std::memcmp(text.data(), "\xEF\xBB\xBF", 3) == 0) {  // UTF-8 byte order mark
          text.erase(text.begin(), text.begin() + 3);
          offset += 3;
        }
      }
      if (!fEnd && fBomChecked && text.size() >= fBlockBytes && (cut = LastCut(text)) > 0) break;
    }
    if (fEnd) {
      final = true;
      return true;
    }
    fCarry.assign(text.begin() + static_cast<std::ptrdiff_t>(cut), text.end());
    fCarryOffset = offset + cut;
    text.resize(cut);
    return true;
  }

  std::uint64_t BytesRead() const noexcept { return fBytesRead; }

 private:
  static std::size_t LastCut(const Bytes& text) {
    for (std::size_t i = text.size(); i-- > 0;) {
      const char c = text[i];
      if (c == '\n' || (c == '\r' && i + 1 < text.size() && text[i + 1] != '\n')) return i + 1;
    }
    return 0;
  }

  ByteInput& fIn;
  std::size_t fBlockBytes;
  Bytes fCarry;
  std::uint64_t fCarryOffset = 0;
  std::uint64_t fBytesRead = 0;
  bool fEnd = false;
  bool fBomChecked = false;
};

// ---------------------------------------------------------------------------------------------
// Category dictionaries.

// The distinct texts of a factor column with codes in order of first appearance: an open
// addressing table over texts kept end to end in one string.
class FactorDictionary {
 public:
  std::uint32_t Code(std::string_view text) {
    if (2 * (Size() + 1) > fSlots.size()) Grow();
    const std::size_t mask = fSlots.size() - 1;
    for (std::size_t i = std::hash<std::string_view>{}(text) & mask;; i = (i + 1) & mask) {
      const std::uint32_t slot = fSlots[i];
      if (slot == kEmpty) {
        const auto code = static_cast<std::uint32_t>(Size());
        fChars.append(text);
        fStarts.push_back(fChars.size());
        fSlots[i] = code;
        return code;
      }
      if (Text(slot) == text) return slot;
    }
  }

  std::size_t Size() const noexcept { return fStarts.size() - 1; }
  std::string_view Text(std::size_t code) const noexcept {
    return std::string_view(fChars).substr(fStarts[code], fStarts[code + 1] - fStarts[code]);
  }
  void Clear() {
    fChars.clear();
    fStarts.assign(1, 0);
    std::fill(fSlots.begin(), fSlots.end(), kEmpty);
  }

 private:
  static constexpr std::uint32_t kEmpty = 0xFFFFFFFFu;

  void Grow() {
    fSlots.assign(std::max<std::size_t>(16, 2 * fSlots.size()), kEmpty);
    const std::size_t mask = fSlots.size() - 1;
    for (std::size_t code = 0; code < Size(); ++code) {
      std::size_t i = std::hash<std::string_view>{}(Text(code)) & mask;
      while (fSlots[i] != kEmpty) i = (i + 1) & mask;
      fSlots[i] = static_cast<std::uint32_t>(code);
    }
  }

  std::string fChars;
  std::vector<std::size_t> fStarts{0};
  std::vector<std::uint32_t> fSlots;
};

// Orders the categories of a factor column and returns the final code of each code of the
// dictionary (Texts that denote the same number are one category, labelled by the first
// spelling seen.)
std::vector<std::uint32_t> FinalFactorCodes(const FactorDictionary& dictionary, CsvColumn& column) {
  const std::size_t n = dictionary.Size();
  std::vector<double> numbers(n, 0.0);
  bool allNumeric = true;
  for (std::size_t i = 0; i < n && allNumeric; ++i) allNumeric = ParseCsvNumber(dictionary.Text(i), numbers[i]);

  std::vector<std::uint32_t> order(n);
  for (std::size_t i = 0; i < n; ++i) order[i] = static_cast<std::uint32_t>(i);
  // Stable, so among texts of equal value ("1" and "1.0") the first seen comes first.
  if (allNumeric) {
    std::stable_sort(order.begin(), order.end(), [&](auto a, auto b) { return numbers[a] < numbers[b]; });
  } else {
    std::sort(order.begin(), order.end(), [&](auto a, auto b) { return dictionary.Text(a) < dictionary.Text(b); });
  }

  std::vector<std::uint32_t> finalCode(n, 0);
  column.labels.clear();
  column.numericLabels = allNumeric;
  for (std::size_t k = 0; k < n; ++k) {
    const std::uint32_t id = order[k];
    const bool sameAsPrevious = allNumeric && k > 0 && numbers[order[k - 1]] == numbers[id];
    if (!sameAsPrevious) column.labels.emplace_back(dictionary.Text(id));
    finalCode[id] = static_cast<std::uint32_t>(column.labels.size()) - 1;
  }
  return finalCode;
}

// ---------------------------------------------------------------------------------------------
// Blocks: tokenized and converted to stored records, each on its own, then committed in order.

// What every block's conversion needs, fixed once the header is read.
struct ParseSetup {
  char separator = ',';
  std::size_t headerFields = 0;
  std::vector<std::size_t> source;  // header position of each kept column
  std::vector<const std::string*> names;
  CacheLayout layout;
  std::vector<int> factorIndex;  // kept column -> its place among the factor columns, -1 for numbers
  std::size_t numFactors = 0;
};

struct Block {
  enum class End { Done, Incomplete, Error, OutOfMemory };

  // Input.
  Bytes text;
  std::uint64_t fileOffset = 0;
  bool final = false;

  // Output: stored records with block-local category codes, and what they hold.
  std::vector<unsigned char, UninitializedAllocator<unsigned char>> rows;
  std::size_t rowBytes = 0;
  std::uint64_t records = 0;
  std::size_t lines = 0;  // line breaks up to the end (Done) or the incomplete record (Incomplete)
  std::vector<FactorDictionary> dictionaries;
  std::vector<std::uint64_t> missing;
  End end = End::Done;
  std::size_t incompleteStart = 0;
  std::size_t errorLine = 0;
  std::string errorText;  // follows "line N"

  std::vector<CsvField> fields;  // scratch
  bool parsed = false;           // guarded by the pool's mutex while in flight
};

bool IsMissingCell(std::string_view cell) { return cell.empty() || cell == "NA"; }

void ParseBlock(const ParseSetup& setup, Block& b) {
  b.rowBytes = 0;
  b.records = 0;
  b.lines = 0;
  b.end = Block::End::Done;
  b.dictionaries.resize(setup.numFactors);
  for (auto& d : b.dictionaries) d.Clear();
  b.missing.assign(setup.source.size(), 0);
  const std::size_t recordBytes = setup.layout.RecordBytes();
  const std::size_t nKept = setup.source.size();

  CsvTokenizer tokenizer(b.text.data(), b.text.size(), setup.separator, b.final);
  for (;;) {
    const CsvTokenizer::Step step = tokenizer.Next(b.fields);
    if (step == CsvTokenizer::Step::End) {
      b.lines = tokenizer.Line();
      return;
    }
    if (step == CsvTokenizer::Step::Incomplete) {
      b.end = Block::End::Incomplete;
      b.incompleteStart = tokenizer.RecordStart();
      b.lines = tokenizer.RecordLine();
      return;
    }
    if (step == CsvTokenizer::Step::Error) {
      b.end = Block::End::Error;
      b.errorLine = tokenizer.ErrorLine();
      b.errorText = tokenizer.ErrorText();
      return;
    }
    if (b.fields.size() != setup.headerFields) {
      b.end = Block::End::Error;
      b.errorLine = tokenizer.RecordLine();
      b.errorText = " has " + std::to_string(b.fields.size()) + " fields, the header has " +
                    std::to_string(setup.headerFields);
      return;
    }
    if (b.rowBytes + recordBytes > b.rows.size()) b.rows.resize(std::max(2 * b.rows.size(), std::size_t{64} * recordBytes));
    unsigned char* record = b.rows.data() + b.rowBytes;
    std::memset(record, 0, recordBytes);
    const std::uint64_t offset = b.fileOffset + tokenizer.RecordStart();
    std::memcpy(record, &offset, sizeof offset);
    for (std::size_t c = 0; c < nKept; ++c) {
      const std::string_view cell = tokenizer.Text(b.fields[setup.source[c]]);
      const bool missing = IsMissingCell(cell);
      b.missing[c] += missing ? 1 : 0;
      unsigned char* at = record + setup.layout.Offset(c);
      const int factor = setup.factorIndex[c];
      if (factor >= 0) {
        const std::uint32_t code =
            missing ? CacheLayout::kMissingCode : b.dictionaries[static_cast<std::size_t>(factor)].Code(cell);
        std::memcpy(at, &code, sizeof code);
        continue;
      }
      double value = TQMV::Missing;
      if (!missing && !ParseCsvNumber(cell, value)) {
        b.end = Block::End::Error;
        b.errorLine = tokenizer.RecordLine();
        b.errorText = ", column '" + *setup.names[c] + "': '" + std::string(cell) + "' is not a number";
        return;
      }
      std::memcpy(at, &value, sizeof value);
    }
    b.rowBytes += recordBytes;
    ++b.records;
  }
}

// Threads that tokenize blocks handed to them; results are picked up in the order given.
class ParsePool {
 public:
  ParsePool(const ParseSetup& setup, unsigned threads) : fSetup(setup) {
    try {
      for (unsigned i = 0; i < threads; ++i) fThreads.emplace_back([this] { Work(); });
    } catch (...) {
      Stop();
      throw;
    }
  }
  ~ParsePool() { Stop(); }

  void Submit(Block* block) {
    {
      std::lock_guard<std::mutex> lock(fMutex);
      block->parsed = false;
      fQueue.push_back(block);
    }
    fWork.notify_one();
  }

  void Wait(Block* block) {
    std::unique_lock<std::mutex> lock(fMutex);
    fDone.wait(lock, [block] { return block->parsed; });
  }

 private:
  void Work() {
    std::unique_lock<std::mutex> lock(fMutex);
    for (;;) {
      fWork.wait(lock, [this] { return fStop || !fQueue.empty(); });
      if (fStop) return;
      Block* block = fQueue.front();
      fQueue.pop_front();
      lock.unlock();
      try {
        ParseBlock(fSetup, *block);
      } catch (...) {  // only allocations can fail here
        block->end = Block::End::OutOfMemory;
      }
      lock.lock();
      block->parsed = true;
      fDone.notify_all();
    }
  }

  // Blocks still queued are left alone; a block being tokenized is finished first.
  void Stop() {
    {
      std::lock_guard<std::mutex> lock(fMutex);
      fStop = true;
    }
    fWork.notify_all();
    for (auto& t : fThreads) t.join();
  }

  const ParseSetup& fSetup;
  std::mutex fMutex;
  std::condition_variable fWork;
  std::condition_variable fDone;
  std::deque<Block*> fQueue;
  bool fStop = false;
  std::vector<std::thread> fThreads;
};

std::string JoinNames(const std::vector<std::string>& names) {
  std::string out;
  for (const auto& name : names) {
    if (!out.empty()) out += ", ";
    out += name;
  }
  return out;
}

std::string LineMessage(std::size_t line, const std::string& text) { return "line " + std::to_string(line) + text; }

}  // namespace

// ---------------------------------------------------------------------------------------------

// One read of the input into a table: the header, then blocks tokenized on the pool's threads
// and committed in file order (category codes made global, records appended to the cache,
// counts summed). A block that began inside a quoted field (its predecessor ended Incomplete)
// is tokenized again, joined to the predecessor's unfinished record.
class CsvTableBuilder {
 public:
  CsvTableBuilder(ByteInput& in, const std::vector<CsvColumnRequest>& columns, const CsvReadOptions& options)
      : fIn(in), fRequests(columns), fOptions(options), fReader(in, options.blockBytes) {}

  bool Build(CsvTable& table, std::string& error) {
    fStart = std::chrono::steady_clock::now();
    Block first;
    if (!ReadHeader(first, error) || !ResolveColumns(error)) return false;
    fCache = RecordCache::Create(fOptions.temporaryDirectory, fSetup.layout, error);
    if (!fCache) return false;
    fGlobal.resize(fSetup.numFactors);
    fCodeMaps.resize(fSetup.numFactors);
    fMissing.assign(fSetup.source.size(), 0);
    if (!ReadRecords(std::move(first), error)) return false;
    Report(true);

    for (std::size_t c = 0; c < fTable.fColumns.size(); ++c) {
      CsvColumn& column = fTable.fColumns[c];
      column.missing = fMissing[c];
      const int factor = fSetup.factorIndex[c];
      if (factor < 0) continue;
      std::vector<std::uint32_t> codes = FinalFactorCodes(fGlobal[static_cast<std::size_t>(factor)], column);
      fCache->SetCategoryCodes(c, std::move(codes), column.labels.size());
    }
    fTable.fNumRows = static_cast<std::size_t>(fCache->NumRecords());
    fTable.fRecords = std::move(fCache);
    table = std::move(fTable);
    return true;
  }

 private:
  bool ReadChunk(Block& b, std::string& error) {
    if (fReader.Next(b.text, b.fileOffset, b.final)) return true;
    error = "read error";
    return false;
  }

  // The header line, and in first the rest of the chunk that held it.
  bool ReadHeader(Block& first, std::string& error) {
    Bytes head;
    std::uint64_t headOffset = 0;
    Block chunk;
    std::vector<CsvField> fields;
    for (;;) {
      if (!ReadChunk(chunk, error)) return false;
      if (head.empty()) headOffset = chunk.fileOffset;
      head.insert(head.end(), chunk.text.begin(), chunk.text.end());
      CsvTokenizer tokenizer(head.data(), head.size(), fOptions.separator, chunk.final);
      switch (tokenizer.Next(fields)) {
        case CsvTokenizer::Step::End:
          if (chunk.final) {
            error = "the file is empty (no header line)";
            return false;
          }
          fLine += tokenizer.Line();
          head.clear();
          continue;
        case CsvTokenizer::Step::Incomplete:
          continue;
        case CsvTokenizer::Step::Error:
          error = LineMessage(fLine + tokenizer.ErrorLine(), tokenizer.ErrorText());
          return false;
        case CsvTokenizer::Step::Record:
          break;
      }
      for (CsvField& field : fields) fTable.fHeader.emplace_back(tokenizer.Text(field));
      fLine += tokenizer.Line();
      first.text.assign(head.begin() + static_cast<std::ptrdiff_t>(tokenizer.Position()), head.end());
      first.fileOffset = headOffset + tokenizer.Position();
      first.final = chunk.final;
      return true;
    }
  }

  bool ResolveColumns(std::string& error) {
    const std::vector<std::string>& header = fTable.fHeader;
    std::vector<bool> factorColumns;
    for (const auto& request : fRequests) {
      const int kept = fTable.ColumnIndex(request.name);
      if (kept >= 0) {
        if (fTable.fColumns[static_cast<std::size_t>(kept)].isFactor != (request.kind == CsvColumnKind::Factor)) {
          error = "column '" + request.name + "' is used both as a factor and as a number";
          return false;
        }
        continue;
      }
      const std::string& name = request.HeaderName();
      const auto found = std::find(header.begin(), header.end(), name);
      if (found == header.end()) {
        error = "unknown column '" + name + "' (the header has: " + JoinNames(header) + ")";
        return false;
      }
      if (std::find(found + 1, header.end(), name) != header.end()) {
        error = "column name '" + name + "' appears more than once in the header";
        return false;
      }
      const bool isFactor = request.kind == CsvColumnKind::Factor;
      CsvColumn column;
      column.name = request.name;
      column.isFactor = isFactor;
      fTable.fColumns.push_back(std::move(column));
      fSetup.source.push_back(static_cast<std::size_t>(found - header.begin()));
      fSetup.factorIndex.push_back(isFactor ? static_cast<int>(fSetup.numFactors++) : -1);
      factorColumns.push_back(isFactor);
    }
    for (const auto& column : fTable.fColumns) fSetup.names.push_back(&column.name);
    fSetup.separator = fOptions.separator;
    fSetup.headerFields = header.size();
    fSetup.layout = CacheLayout(factorColumns);
    return true;
  }

  bool ReadRecords(Block first, std::string& error) {
    std::deque<std::unique_ptr<Block>> inFlight;
    std::vector<std::unique_ptr<Block>> spare;
    bool readAll = first.final;
    inFlight.push_back(std::make_unique<Block>(std::move(first)));
    // A file that fits in one chunk is converted here; larger ones on a thread per core.
    std::unique_ptr<ParsePool> pool;
    if (readAll) {
      ParseBlock(fSetup, *inFlight.front());
      inFlight.front()->parsed = true;
    } else {
      unsigned threads = fOptions.threads != 0 ? fOptions.threads : std::thread::hardware_concurrency();
      threads = std::clamp(threads, 1u, 8u);
      pool = std::make_unique<ParsePool>(fSetup, threads);
      pool->Submit(inFlight.front().get());
      fMaxInFlight = 2 * threads + 2;
    }

    while (!inFlight.empty()) {
      while (!readAll && inFlight.size() < fMaxInFlight) {
        std::unique_ptr<Block> b;
        if (spare.empty()) {
          b = std::make_unique<Block>();
        } else {
          b = std::move(spare.back());
          spare.pop_back();
        }
        if (!ReadChunk(*b, error)) return false;
        readAll = b->final;
        pool->Submit(b.get());
        inFlight.push_back(std::move(b));
      }
      std::unique_ptr<Block> b = std::move(inFlight.front());
      inFlight.pop_front();
      if (pool) pool->Wait(b.get());
      if (!Commit(*b, error)) return false;
      spare.push_back(std::move(b));
      if (fOptions.cancel != nullptr && fOptions.cancel->IsCancelled()) {
        error = kCsvReadCancelled;
        return false;
      }
      Report(false);
    }
    if (fPending) {
      // Only possible when the last chunk ended inside quotes, which the last chunk reports as
      // an error; kept as a guard.
      error = LineMessage(fLine, ": quoted field is not closed");
      return false;
    }
    return true;
  }

  bool Commit(Block& b, std::string& error) {
    if (fPending) {
      // The block was tokenized from a wrong start: join it to the unfinished record.
      fPendingText.insert(fPendingText.end(), b.text.begin(), b.text.end());
      b.text.swap(fPendingText);
      b.fileOffset = fPendingOffset;
      fPending = false;
      ParseBlock(fSetup, b);
    }
    if (b.end == Block::End::OutOfMemory) throw std::bad_alloc();
    if (b.end == Block::End::Error) {
      error = LineMessage(fLine + b.errorLine, b.errorText);
      return false;
    }
    // Block codes to codes of the whole file, in order of first appearance in the file.
    for (std::size_t f = 0; f < fSetup.numFactors; ++f) {
      std::vector<std::uint32_t>& map = fCodeMaps[f];
      map.resize(b.dictionaries[f].Size());
      for (std::size_t k = 0; k < map.size(); ++k) map[k] = fGlobal[f].Code(b.dictionaries[f].Text(k));
    }
    if (fSetup.numFactors > 0) RemapCodes(b);
    if (b.rowBytes > 0 && !fCache->Append(b.rows.data(), b.rowBytes, error)) return false;
    for (std::size_t c = 0; c < fMissing.size(); ++c) fMissing[c] += b.missing[c];
    fRecords += b.records;
    fLine += b.lines;
    if (b.end == Block::End::Incomplete) {
      fPending = true;
      fPendingText.assign(b.text.begin() + static_cast<std::ptrdiff_t>(b.incompleteStart), b.text.end());
      fPendingOffset = b.fileOffset + b.incompleteStart;
    }
    return true;
  }

  void RemapCodes(Block& b) {
    const std::size_t recordBytes = fSetup.layout.RecordBytes();
    for (std::size_t at = 0; at < b.rowBytes; at += recordBytes) {
      for (std::size_t c = 0; c < fSetup.factorIndex.size(); ++c) {
        const int f = fSetup.factorIndex[c];
        if (f < 0) continue;
        unsigned char* cell = b.rows.data() + at + fSetup.layout.Offset(c);
        std::uint32_t code = 0;
        std::memcpy(&code, cell, sizeof code);
        if (code == CacheLayout::kMissingCode) continue;
        code = fCodeMaps[static_cast<std::size_t>(f)][code];
        std::memcpy(cell, &code, sizeof code);
      }
    }
  }

  void Report(bool finished) {
    if (!fOptions.progress) return;
    const std::uint64_t total = fIn.Size();
    if (std::max(total, fReader.BytesRead()) < fOptions.progressMinBytes) return;
    const auto now = std::chrono::steady_clock::now();
    if (!finished && now - fLastReport < std::chrono::milliseconds(250)) return;
    fLastReport = now;
    CsvReadProgress progress;
    progress.bytesRead = fReader.BytesRead();
    progress.totalBytes = total;
    progress.records = fRecords;
    progress.seconds = std::chrono::duration<double>(now - fStart).count();
    progress.finished = finished;
    fOptions.progress(progress);
  }

  ByteInput& fIn;
  const std::vector<CsvColumnRequest>& fRequests;
  const CsvReadOptions& fOptions;
  ChunkReader fReader;
  CsvTable fTable;
  ParseSetup fSetup;
  std::shared_ptr<RecordCache> fCache;
  std::vector<FactorDictionary> fGlobal;
  std::vector<std::vector<std::uint32_t>> fCodeMaps;
  std::vector<std::uint64_t> fMissing;
  std::uint64_t fRecords = 0;
  std::size_t fLine = 1;  // line of the next block's first byte (the header is line 1)
  std::size_t fMaxInFlight = 1;
  bool fPending = false;
  Bytes fPendingText;
  std::uint64_t fPendingOffset = 0;
  std::chrono::steady_clock::time_point fStart;
  std::chrono::steady_clock::time_point fLastReport;
};

namespace {

bool ReadInput(ByteInput& in, const std::vector<CsvColumnRequest>& columns, const CsvReadOptions& options,
               CsvTable& table, std::string& error) {
  // Built aside so that a failure leaves an empty table (and closes the cache, which takes its
  // nameless file with it).
  error.clear();
  table = CsvTable();
  if (options.separator == '"' || options.separator == '\n' || options.separator == '\r') {
    error = "the separator cannot be a quote or a line break";
    return false;
  }
  try {
    CsvTableBuilder builder(in, columns, options);
    return builder.Build(table, error);
  } catch (const std::bad_alloc&) {
    error = "out of memory while reading the data";
  } catch (const std::exception& e) {
    error = std::string("error while reading the data: ") + e.what();
  }
  return false;
}

// Plain decimals ([-]digits[.digits], at most 19 digits, a value below 2^53 once the point is
// dropped and at most 22 decimals), the usual cells of a data file, converted without the
// general parser: the digits and the power of ten are exact doubles, so one division gives the
// correctly rounded value, the one the general parser gives. False for anything else.
bool ParsePlainDecimal(std::string_view text, double& value) {
  static constexpr double kPowersOfTen[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                            1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
  const char* p = text.data();
  const char* const end = p + text.size();
  const bool negative = p < end && *p == '-';
  if (negative) ++p;
  std::uint64_t digits = 0;
  int count = 0;
  int decimals = 0;
  for (; p < end && *p >= '0' && *p <= '9'; ++p, ++count) digits = digits * 10 + static_cast<unsigned>(*p - '0');
  if (p < end && *p == '.') {
    for (++p; p < end && *p >= '0' && *p <= '9'; ++p, ++count, ++decimals) {
      digits = digits * 10 + static_cast<unsigned>(*p - '0');
    }
  }
  if (p != end || count == 0 || count > 19 || decimals > 22 || digits > (std::uint64_t{1} << 53)) return false;
  const double magnitude = static_cast<double>(digits) / kPowersOfTen[decimals];
  value = negative ? -magnitude : magnitude;
  return true;
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
  if (ParsePlainDecimal(text, value)) return true;
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

bool CsvTable::Read(std::istream& in, const std::vector<CsvColumnRequest>& columns, const CsvReadOptions& options,
                    CsvTable& table, std::string& error) {
  StreamInput input(in);
  return ReadInput(input, columns, options, table, error);
}

bool CsvTable::ReadFile(const std::string& path, const std::vector<CsvColumnRequest>& columns,
                        const CsvReadOptions& options, CsvTable& table, std::string& error) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    table = CsvTable();
    error = "cannot open '" + path + "'";
    return false;
  }
  FileInput input(fd);
  return ReadInput(input, columns, options, table, error);
}

bool ReadCsvRecordAt(const std::string& path, std::uint64_t offset, char separator, std::vector<std::string>& fields,
                     std::string& error) {
  fields.clear();
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    error = "cannot open '" + path + "'";
    return false;
  }
  std::vector<char> text;
  std::vector<CsvField> spans;
  bool ok = false;
  for (std::size_t want = 4096;; want *= 2) {
    text.resize(want);
    std::size_t got = 0;
    while (got < want) {
      const ssize_t n = ::pread(fd, text.data() + got, want - got, static_cast<off_t>(offset + got));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      got += static_cast<std::size_t>(n);
    }
    const bool final = got < want;
    CsvTokenizer tokenizer(text.data(), got, separator, final);
    const CsvTokenizer::Step step = tokenizer.Next(spans);
    if (step == CsvTokenizer::Step::Incomplete && !final) continue;
    if (step == CsvTokenizer::Step::Record) {
      for (CsvField& span : spans) fields.emplace_back(tokenizer.Text(span));
      ok = true;
    } else {
      error = "no record at byte " + std::to_string(offset) + " of '" + path + "'";
    }
    break;
  }
  ::close(fd);
  return ok;
}
