#pragma once
// A record source over rows of doubles held in memory: for hosts whose data already sit in
// memory, and for tests. Rows may have different lengths. A source built with rewinding
// disabled serves one pass and then answers every Rewind with 1, like a host stream that
// cannot be read twice.
#include <cstddef>
#include <utility>
#include <vector>

#include "GZLRecord.h"

class GZLMemorySource : public IGZLRecordSource {
 public:
  explicit GZLMemorySource(std::vector<std::vector<double>> rows = {}, bool canRewind = true)
      : fRows(std::move(rows)), fbCanRewind(canRewind) {}

  void AddRow(std::vector<double> row) { fRows.push_back(std::move(row)); }
  void SetCanRewind(bool canRewind) noexcept { fbCanRewind = canRewind; }
  std::size_t GetNumRows() const noexcept { return fRows.size(); }
  const std::vector<std::vector<double>>& GetRows() const noexcept { return fRows; }
  // How many times Rewind was asked (refused calls included).
  int GetRewindCount() const noexcept { return fRewindCount; }

  bool HasMoreRecords() override { return fNext < fRows.size(); }
  const Record* NextRecord() override {
    if (fNext >= fRows.size()) return nullptr;
    const std::vector<double>& row = fRows[fNext++];
    fRecord.Reset(row.data(), row.size());
    return &fRecord;
  }
  long RecordCount() override { return static_cast<long>(fRows.size()); }
  int Rewind() override {
    ++fRewindCount;
    if (!fbCanRewind) return 1;
    fNext = 0;
    return 0;
  }

 private:
  std::vector<std::vector<double>> fRows;
  std::size_t fNext = 0;
  Record fRecord;
  bool fbCanRewind;
  int fRewindCount = 0;
};
