#pragma once
// A data record and the host's record source that the engine pulls records from.
#include <cstddef>

// One data record: a view of the field values as doubles, addressed by 0-based field index.
// A missing value is TQMV::Missing; a NaN counts as missing as well. The view does not own the
// values: the source keeps them alive until its next NextRecord, Rewind or destruction.
// It is a plain view, not an interface, so that reading a field costs no virtual call.
class Record {
 public:
  Record() noexcept = default;
  Record(const double* values, std::size_t size) noexcept : fpValues(values), fSize(size) {}
  void Reset(const double* values, std::size_t size) noexcept { fpValues = values; fSize = size; }

  std::size_t Size() const noexcept { return fSize; }
  double operator[](std::size_t index) const noexcept { return fpValues[index]; }
  const double* Data() const noexcept { return fpValues; }

 private:
  const double* fpValues = nullptr;
  std::size_t fSize = 0;
};

// Implemented by the host. A data pass calls Rewind, then NextRecord while HasMoreRecords is
// true; NextRecord returns null at the end. The returned record stays valid until the next call.
class IGZLRecordSource {
 public:
  virtual ~IGZLRecordSource() = default;
  virtual bool HasMoreRecords() = 0;
  virtual const Record* NextRecord() = 0;
  // The number of records when the source knows it, else -1. The engine never relies on it.
  virtual long RecordCount() { return -1; }
  // 0 when positioned back on the first record; anything else means the source cannot rewind.
  virtual int Rewind() = 0;
};
