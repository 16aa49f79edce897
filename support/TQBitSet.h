#pragma once
// A resizable set of bits, indexed 0..Size()-1.
//
// The engine uses it above all as a redundancy set: one bit per regression parameter, a set bit
// meaning the parameter is in the model (not aliased). Matrix operations that detect
// redundancy (TQSymMatrix::LTChol, CholInverse, Sweep) clear or set bits with that meaning.
//
// Indices outside 0..Size()-1 are tolerated everywhere: reads give false, writes are ignored.
// Nothing here throws except allocation failure in Resize.
#include <cstdint>
#include <string>
#include <vector>

class TQBitSet {
 public:
  TQBitSet() = default;
  // n bits, all equal to value. A negative n gives an empty set.
  explicit TQBitSet(int n, bool value = false);

  int Size() const noexcept { return fSize; }
  bool IsEmpty() const noexcept { return fSize == 0; }

  // Changes the number of bits; existing bits below min(old, n) keep their values, new bits get
  // value. A negative n gives an empty set.
  void Resize(int n, bool value = false);

  void Set(int i) noexcept;
  void Set(int i, bool value) noexcept;
  void Clear(int i) noexcept;
  bool Test(int i) const noexcept;
  // Same as Test: "is parameter i in the model".
  bool InSet(int i) const noexcept { return Test(i); }
  bool operator[](int i) const noexcept { return Test(i); }

  void SetAll() noexcept;    // every bit set
  void ClearAll() noexcept;  // every bit cleared

  // Number of set bits, over the whole set or over [first, first + count).
  int Count() const noexcept;
  int Count(int first, int count) const noexcept;

  // True when some bit i < n is set in oldSet but clear in *this: a parameter that was in the
  // model before (oldSet) has become redundant in this newer set. Called on the new set with
  // the old one as argument: newSet.IsNewFalse(oldSet, P). Bits beyond either size count as
  // clear.
  bool IsNewFalse(const TQBitSet& oldSet, int n) const noexcept;

  // Element-wise union / intersection with other; the size stays this set's size.
  void Union(const TQBitSet& other) noexcept;
  void Intersect(const TQBitSet& other) noexcept;

  // Indices of the set bits in increasing order (out is overwritten).
  void GetSetIndices(std::vector<int>& out) const;

  // Same size and same bits.
  bool operator==(const TQBitSet& other) const noexcept;
  bool operator!=(const TQBitSet& other) const noexcept { return !(*this == other); }

  // "TQBitSet display start", the size, the bits as a 0/1 string, "TQBitSet display end".
  void Display() const;
  std::string ToString() const;  // the bits as '0'/'1' characters, bit 0 first

 private:
  void ClearTail() noexcept;  // keeps the unused bits of the last word at 0

  std::vector<std::uint64_t> fWords;
  int fSize = 0;
};
