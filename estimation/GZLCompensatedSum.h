#pragma once
#include <cmath>

// A running sum with Neumaier's compensation: its error stays near one rounding of the total
// however many terms it takes.
struct GZLCompensatedSum {
  double sum = 0.0;
  double compensation = 0.0;
  void Clear() noexcept { sum = compensation = 0.0; }
  void Add(double x) noexcept {
    const double t = sum + x;
    compensation += std::fabs(sum) >= std::fabs(x) ? (sum - t) + x : (x - t) + sum;
    sum = t;
  }
  double Get() const noexcept { return sum + compensation; }
  // Another sum's terms, as if they had been added here (up to one rounding).
  void Merge(const GZLCompensatedSum& other) noexcept {
    Add(other.sum);
    compensation += other.compensation;
  }
};
