#pragma once
// A status value: a numeric code, a warning flag and a few integers of context
// ("discrete data", for example the field index that a PMML variable lacked).
#include <array>

class TQStatus {
 public:
  static constexpr int kNumDiscrete = 4;

  TQStatus() noexcept = default;
  explicit TQStatus(int code, bool warning = false) noexcept : fCode(code), fbWarning(warning && code != 0) {}

  static TQStatus Error(int code) noexcept { return TQStatus(code, false); }
  static TQStatus Warning(int code) noexcept { return TQStatus(code, true); }

  bool IsOK() const noexcept { return fCode == 0; }
  bool IsError() const noexcept { return fCode != 0 && !fbWarning; }
  bool IsWarning() const noexcept { return fCode != 0 && fbWarning; }
  int GetErrorCode() const noexcept { return fCode; }

  void SetError(int code) noexcept { fCode = code; fbWarning = false; }
  void SetWarning(int code) noexcept { fCode = code; fbWarning = code != 0; }
  void Clear() noexcept { *this = TQStatus(); }

  // Context integers; indices outside 0..kNumDiscrete-1 are ignored on set and read as 0.
  void SetDiscreteData(int index, int value) noexcept {
    if (index >= 0 && index < kNumDiscrete) fDiscrete[index] = value;
  }
  int GetDiscreteData(int index) const noexcept {
    return (index >= 0 && index < kNumDiscrete) ? fDiscrete[index] : 0;
  }

  // Same code and same severity: what the warning lists compare.
  bool operator==(const TQStatus& o) const noexcept { return fCode == o.fCode && fbWarning == o.fbWarning; }

 private:
  int fCode = 0;
  bool fbWarning = false;
  std::array<int, kNumDiscrete> fDiscrete{};
};
