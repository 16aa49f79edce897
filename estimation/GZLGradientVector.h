#pragma once
// The gradient of the log-likelihood accumulated over one data pass: P entries for the
// regression parameters and, when the scale or the negative binomial k is estimated by maximum
// likelihood (a log-likelihood function is attached for it), the derivative in theta = log(phi)
// or log(k).
#include <algorithm>
#include <vector>

class GZLSettings;
class IGZLLogLikeFunc;

class GZLGradientVector {
 public:
  // llForExtra: the log-likelihood function that gives the derivative in theta; null switches
  // the extra entry off.
  GZLGradientVector(int nParams, IGZLLogLikeFunc* llForExtra, const GZLSettings* settings);

  // Stores phi and zeroes every entry.
  void Reset(double phi);

  // One record: adds r x_j for the listed entries (indices of the non-zero design values of
  // parameters in the model, `values` their design values) and, with the extra entry, the
  // record's derivative in theta.
  void UpdateForRow(const int* indices, const double* values, int count, double r, double paramDeriv) noexcept {
    double* g = fGradient.data();
    for (int a = 0; a < count; ++a) g[indices[a]] += r * values[a];
    fScaleDeriv += paramDeriv;
  }

  // The same for a record split into its dense leading block lead[0 .. nLead-1] and further
  // entries in sparse form (indices at least nLead).
  void UpdateForRow(const double* __restrict lead, int nLead, const int* __restrict indices,
                    const double* __restrict values, int count, double r, double paramDeriv) noexcept {
    double* __restrict g = fGradient.data();
    for (int b = 0; b < nLead; ++b) g[b] += r * lead[b];
    for (int a = 0; a < count; ++a) g[indices[a]] += r * values[a];
    fScaleDeriv += paramDeriv;
  }

  // Adds the entries another accumulator of the same model gathered over other records.
  void Merge(const GZLGradientVector& other) noexcept {
    const std::size_t n = std::min(fGradient.size(), other.fGradient.size());
    for (std::size_t j = 0; j < n; ++j) fGradient[j] += other.fGradient[j];
    fScaleDeriv += other.fScaleDeriv;
  }

  // The P entries followed, when the extra entry is on, by the derivative in theta.
  void GetGradient(std::vector<double>& out) const;
  std::vector<double> GetGradient() const;
  const std::vector<double>& GetBetaGradient() const noexcept { return fGradient; }
  double GetScaleDeriv() const noexcept { return fScaleDeriv; }
  bool HasExtraParam() const noexcept { return fpLogLikeFunc != nullptr; }
  double GetPhi() const noexcept { return fPhi; }
  int GetNumParams() const noexcept { return static_cast<int>(fGradient.size()); }
  void Display() const;

 private:
  double fPhi = 1.0;
  IGZLLogLikeFunc* fpLogLikeFunc;
  std::vector<double> fGradient;
  double fScaleDeriv = 0.0;
  const GZLSettings* fpSettings;
};
