#include "families/GZLPearsonFunc.h"

#include <string>

#include "support/TQDisplay_940.h"
#include "families/GZLFamilyUtil.h"
#include "support/TQMV.h"

using TQMV::IsMissing;

namespace {

void DisplayFrame(const char* className, bool start) {
  TQDisplay_940::DisplayText(1, std::string(className) + (start ? " display start" : " display end"));
}

// The multinomial Pearson statistic, shared by the ordinal and nominal classes:
// sum_j (o_j - pi_j n)^2 / (pi_j n) over the categories with a positive expected count.
double MultinomialPearson(const std::vector<double>& o, const std::vector<double>& pi, double n, double& sum) {
  if (o.size() != pi.size() || IsMissing(n)) return TQMV::Missing;
  double total = 0.0;
  for (std::size_t j = 0; j < o.size(); ++j) {
    if (IsMissing(o[j]) || IsMissing(pi[j])) return TQMV::Missing;
    if (n > 0.0 && pi[j] > 0.0) {
      const double e = pi[j] * n;
      const double r = o[j] - e;
      total += r * r / e;
    }
  }
  return GZLFamilyUtil::AddTerm(sum, total);
}

}  // namespace

double IGZLPearsonFunc::AddPearsonOrdinal(const std::vector<double>&, const std::vector<double>&, double) {
  return TQMV::Missing;
}
double IGZLPearsonFunc::AddPearsonNominal(const std::vector<double>&, const std::vector<double>&, double) {
  return TQMV::Missing;
}

double IGZLPearsonFunc::Add(double term) {
  return GZLFamilyUtil::AddTerm(fPearson, term);
}

void IGZLPearsonFunc::DisplayBase() const { TQDisplay_940::DisplayDF("Pearson value is:", fPearson); }

double GZLPearson::AddPearson(double y, double mu, double V, double f, double omega, double) {
  if (IsMissing(y) || IsMissing(mu) || IsMissing(V) || IsMissing(f) || IsMissing(omega)) return TQMV::Missing;
  if (!(V > 0.0)) return TQMV::Missing;
  const double r = y - mu;
  return Add(r * r * f * omega / V);
}

// A binomial record at mu = 0 or 1 (V = 0) adds nothing and is not reported: a perfectly fitted
// binary record is no failure.
double GZLPearsonBinomial::AddPearson(double y, double mu, double V, double f, double omega, double m) {
  if (IsMissing(y) || IsMissing(mu) || IsMissing(V) || IsMissing(f) || IsMissing(omega) || IsMissing(m))
    return TQMV::Missing;
  if (!(V > 0.0)) return fPearson;
  const double r = y - mu;
  return Add(r * r * m * f * omega / V);
}

double GZLPearsonOrdinal::AddPearson(double, double, double, double, double, double) { return TQMV::Missing; }
double GZLPearsonOrdinal::AddPearsonOrdinal(const std::vector<double>& o, const std::vector<double>& pi, double n) {
  return MultinomialPearson(o, pi, n, fPearson);
}

double GZLPearsonNominal::AddPearson(double, double, double, double, double, double) { return TQMV::Missing; }
double GZLPearsonNominal::AddPearsonNominal(const std::vector<double>& o, const std::vector<double>& pi, double n) {
  return MultinomialPearson(o, pi, n, fPearson);
}

void GZLPearson::Display() const {
  DisplayFrame("GZLPearson", true);
  DisplayBase();
  DisplayFrame("GZLPearson", false);
}
void GZLPearsonBinomial::Display() const {
  DisplayFrame("GZLPearsonBinomial", true);
  DisplayBase();
  DisplayFrame("GZLPearsonBinomial", false);
}
void GZLPearsonOrdinal::Display() const {
  DisplayFrame("GZLPearsonOrdinal", true);
  DisplayBase();
  DisplayFrame("GZLPearsonOrdinal", false);
}
void GZLPearsonNominal::Display() const {
  DisplayFrame("GZLPearsonNominal", true);
  DisplayBase();
  DisplayFrame("GZLPearsonNominal", false);
}

IGZLPearsonFunc* CreatePearsonFunction(TQConst::DistType dist) {
  switch (dist) {
    case TQConst::DistBinomial: return new GZLPearsonBinomial();
    case TQConst::DistOrdinalMultinomial: return new GZLPearsonOrdinal();
    case TQConst::DistNominalMultinomial: return new GZLPearsonNominal();
    default: return new GZLPearson();
  }
}
