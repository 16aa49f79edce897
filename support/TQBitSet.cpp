#include "support/TQBitSet.h"

#include <algorithm>
#include <bit>

#include "support/TQDisplay_940.h"

namespace {
constexpr int kBits = 64;
inline size_t WordCount(int n) { return n > 0 ? static_cast<size_t>((n + kBits - 1) / kBits) : 0; }
inline std::uint64_t Mask(int i) { return std::uint64_t{1} << (i % kBits); }
}  // namespace

TQBitSet::TQBitSet(int n, bool value) { Resize(n, value); }

void TQBitSet::Resize(int n, bool value) {
  if (n < 0) n = 0;
  const int old = fSize;
  fWords.resize(WordCount(n), 0);
  fSize = n;
  // The unused bits of the last word are kept at 0 (ClearTail), so grown bits start clear.
  if (value)
    for (int i = old; i < n; ++i) Set(i);
  ClearTail();
}

void TQBitSet::ClearTail() noexcept {
  if (fSize % kBits != 0 && !fWords.empty()) fWords.back() &= (std::uint64_t{1} << (fSize % kBits)) - 1;
}

void TQBitSet::Set(int i) noexcept {
  if (i >= 0 && i < fSize) fWords[i / kBits] |= Mask(i);
}

void TQBitSet::Set(int i, bool value) noexcept {
  if (value)
    Set(i);
  else
    Clear(i);
}

void TQBitSet::Clear(int i) noexcept {
  if (i >= 0 && i < fSize) fWords[i / kBits] &= ~Mask(i);
}

bool TQBitSet::Test(int i) const noexcept {
  return i >= 0 && i < fSize && (fWords[i / kBits] & Mask(i)) != 0;
}

void TQBitSet::SetAll() noexcept {
  for (auto& w : fWords) w = ~std::uint64_t{0};
  ClearTail();
}

void TQBitSet::ClearAll() noexcept {
  for (auto& w : fWords) w = 0;
}

int TQBitSet::Count() const noexcept {
  int c = 0;
  for (auto w : fWords) c += std::popcount(w);
  return c;
}

int TQBitSet::Count(int first, int count) const noexcept {
  int c = 0;
  for (int i = first; i < first + count; ++i) c += Test(i) ? 1 : 0;
  return c;
}

bool TQBitSet::IsNewFalse(const TQBitSet& oldSet, int n) const noexcept {
  for (int i = 0; i < n && i < oldSet.fSize; ++i)
    if (oldSet.Test(i) && !Test(i)) return true;
  return false;
}

void TQBitSet::Union(const TQBitSet& other) noexcept {
  const size_t m = std::min(fWords.size(), other.fWords.size());
  for (size_t k = 0; k < m; ++k) fWords[k] |= other.fWords[k];
  ClearTail();
}

void TQBitSet::Intersect(const TQBitSet& other) noexcept {
  for (size_t k = 0; k < fWords.size(); ++k) fWords[k] &= k < other.fWords.size() ? other.fWords[k] : 0;
}

void TQBitSet::GetSetIndices(std::vector<int>& out) const {
  out.clear();
  for (int i = 0; i < fSize; ++i)
    if (Test(i)) out.push_back(i);
}

bool TQBitSet::operator==(const TQBitSet& other) const noexcept {
  return fSize == other.fSize && fWords == other.fWords;
}

std::string TQBitSet::ToString() const {
  std::string s(static_cast<size_t>(fSize), '0');
  for (int i = 0; i < fSize; ++i)
    if (Test(i)) s[static_cast<size_t>(i)] = '1';
  return s;
}

void TQBitSet::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "TQBitSet display start");
  DisplayI("Size", fSize);
  DisplayS("Bits", ToString());
  DisplayText(1, "TQBitSet display end");
}
