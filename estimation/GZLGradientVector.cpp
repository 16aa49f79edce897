#include "estimation/GZLGradientVector.h"

#include <algorithm>

#include "support/TQDisplay_940.h"

GZLGradientVector::GZLGradientVector(int nParams, IGZLLogLikeFunc* llForExtra, const GZLSettings* settings)
    : fpLogLikeFunc(llForExtra), fGradient(static_cast<std::size_t>(std::max(nParams, 0)), 0.0),
      fpSettings(settings) {}

void GZLGradientVector::Reset(double phi) {
  fPhi = phi;
  std::fill(fGradient.begin(), fGradient.end(), 0.0);
  fScaleDeriv = 0.0;
}

void GZLGradientVector::GetGradient(std::vector<double>& out) const {
  out.assign(fGradient.begin(), fGradient.end());
  if (fpLogLikeFunc != nullptr) out.push_back(fScaleDeriv);
}

std::vector<double> GZLGradientVector::GetGradient() const {
  std::vector<double> out;
  GetGradient(out);
  return out;
}

void GZLGradientVector::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLGradientVector display start");
  DisplayD("Phi (scale) parameter", fPhi);
  DisplayDV("The gradient vector", fGradient, false);
  DisplayD("The derivative of the scale parameter", fScaleDeriv);
  DisplayText(1, "GZLGradientVector display end");
}
