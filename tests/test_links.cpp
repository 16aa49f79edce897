#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "support/ITQLinkFunc.h"
#include "support/LinkFunctions.h"
#include "support/TQMV.h"

namespace {

using TQConst::LinkType;
using LinkPtr = std::unique_ptr<ITQLinkFunc>;

constexpr double kPi = 3.14159265358979323846;
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

LinkPtr Make(LinkType t, double param = 0.0) { return LinkPtr(CreateLinkFunction(t, param)); }

std::vector<double> Grid(double lo, double hi, int n) {
  std::vector<double> v;
  for (int i = 0; i < n; ++i) v.push_back(lo + (hi - lo) * i / (n - 1));
  return v;
}

struct LinkCase {
  std::string name;
  LinkType type;
  double param;
  std::vector<double> etas;  // inside the range where the inverse is usable and not clamped
  std::vector<double> mus;   // inside the link's domain
};

std::vector<LinkCase> Cases() {
  const std::vector<double> probs = {0.001, 0.01, 0.1, 0.3, 0.5, 0.7, 0.9, 0.99, 0.999};
  return {
      {"cloglog", TQConst::LinkCLogLog, 0.0, Grid(-20.0, 2.5, 31), probs},
      {"identity", TQConst::LinkIdentity, 0.0, Grid(-1e3, 1e3, 21), {-5.0, 0.0, 0.3, 7.0}},
      {"log", TQConst::LinkLog, 0.0, Grid(-30.0, 30.0, 31), {1e-3, 0.5, 2.0, 100.0}},
      {"logc", TQConst::LinkLogC, 0.0, Grid(-12.0, 2.0, 29), {-5.0, -0.5, 0.1, 0.5, 0.9, 0.99}},
      {"logit", TQConst::LinkLogit, 0.0, Grid(-30.0, 13.0, 44), probs},
      {"negbin k=0.5", TQConst::LinkNegBinomial, 0.5, Grid(-12.0, -0.01, 25), {0.01, 1.0, 10.0, 100.0}},
      {"negbin k=3", TQConst::LinkNegBinomial, 3.0, Grid(-12.0, -0.01, 25), {0.01, 1.0, 10.0}},
      {"nloglog", TQConst::LinkNLogLog, 0.0, Grid(-2.5, 13.0, 32), probs},
      {"oddspower a=0.5", TQConst::LinkOddsPower, 0.5, Grid(-1.9, 30.0, 30), probs},
      {"oddspower a=-0.5", TQConst::LinkOddsPower, -0.5, Grid(-30.0, 1.9, 30), probs},
      {"oddspower a=0", TQConst::LinkOddsPower, 0.0, Grid(-30.0, 13.0, 44), probs},
      {"oddspower a=1e-9", TQConst::LinkOddsPower, 1e-9, Grid(-30.0, 13.0, 44), probs},
      {"power a=2", TQConst::LinkPower, 2.0, Grid(0.01, 100.0, 21), {0.1, 1.0, 50.0}},
      {"power a=0.5", TQConst::LinkPower, 0.5, Grid(0.01, 100.0, 21), {0.1, 1.0, 50.0}},
      {"power a=-1", TQConst::LinkPower, -1.0, {-5.0, -0.1, 0.1, 1.0, 10.0}, {-2.0, 0.2, 3.0}},
      {"power a=-2", TQConst::LinkPower, -2.0, Grid(0.01, 50.0, 11), {0.2, 3.0}},
      {"power a=1", TQConst::LinkPower, 1.0, Grid(-50.0, 50.0, 11), {-2.0, 0.2, 3.0}},
      {"power a=0", TQConst::LinkPower, 0.0, Grid(-30.0, 30.0, 31), {1e-3, 0.5, 2.0, 100.0}},
      {"probit", TQConst::LinkProbit, 0.0, Grid(-8.0, 5.0, 27), probs},
      {"cumcauchit", TQConst::LinkCumCauchit, 0.0, Grid(-1e4, 1e4, 41), probs},
      {"cumcloglog", TQConst::LinkCumCLogLog, 0.0, Grid(-20.0, 2.5, 31), probs},
      {"cumlogit", TQConst::LinkCumLogit, 0.0, Grid(-30.0, 13.0, 44), probs},
      {"cumnloglog", TQConst::LinkCumNLogLog, 0.0, Grid(-2.5, 13.0, 32), probs},
      {"cumprobit", TQConst::LinkCumProbit, 0.0, Grid(-8.0, 5.0, 27), probs},
  };
}

// Distance from mu to the nearest edge of the usual domains, bounded by 1: the scale of the
// finite-difference step.
double EdgeDistance(double mu) {
  return std::max(1e-3, std::min({std::fabs(mu), std::fabs(1.0 - mu), 1.0}));
}

// Richardson-extrapolated central differences of GetEta.
void NumericDerivs(const ITQLinkFunc& link, double mu, double& d1, double& d2) {
  const double h = 1e-3 * EdgeDistance(mu);
  auto g = [&](double m) { return link.GetEta(m); };
  const double g0 = g(mu);
  auto first = [&](double s) { return (g(mu + s) - g(mu - s)) / (2.0 * s); };
  auto second = [&](double s) { return (g(mu + s) - 2.0 * g0 + g(mu - s)) / (s * s); };
  d1 = (4.0 * first(h / 2) - first(h)) / 3.0;
  d2 = (4.0 * second(h / 2) - second(h)) / 3.0;
}

// The contract: a result is a finite number or the missing value, never NaN or an infinity.
bool Usable(double x) { return std::isfinite(x); }  // the missing value is a finite double

}  // namespace

TEST(Links, RoundTripAndDerivatives) {
  for (const LinkCase& c : Cases()) {
    SCOPED_TRACE(c.name);
    LinkPtr link = Make(c.type, c.param);
    ASSERT_NE(link, nullptr);
    EXPECT_EQ(link->GetType(), c.type);

    for (double eta : c.etas) {
      int st = -1;
      const double mu = link->GetMu(eta, &st);
      ASSERT_EQ(st, kLinkOK) << "eta " << eta;
      ASSERT_FALSE(TQMV::IsMissing(mu)) << "eta " << eta;
      EXPECT_EQ(link->GetMu(eta, nullptr), mu);
      const double back = link->GetEta(mu);
      // What representing mu in a double costs on the eta scale, plus a relative margin.
      const double cond = std::fabs(link->GetFirstDeriv(mu, nullptr) * mu) * 4.0 * DBL_EPSILON;
      EXPECT_NEAR(back, eta, 1e-10 * std::max(1.0, std::fabs(eta)) + cond) << "eta " << eta;
    }

    for (double mu : c.mus) {
      double n1 = 0.0, n2 = 0.0;
      NumericDerivs(*link, mu, n1, n2);
      int st1 = -1, st2 = -1;
      const double d1 = link->GetFirstDeriv(mu, &st1);
      const double d2 = link->GetSecondDeriv(mu, &st2);
      ASSERT_EQ(st1, kLinkOK) << "mu " << mu;
      ASSERT_EQ(st2, kLinkOK) << "mu " << mu;
      EXPECT_NEAR(d1, n1, 1e-6 * std::fabs(d1)) << "mu " << mu;
      const double scale2 = std::max(std::fabs(d2), std::fabs(d1) / EdgeDistance(mu));
      EXPECT_NEAR(d2, n2, 1e-6 * scale2) << "mu " << mu;
    }
  }
}

TEST(Links, IndependentValues) {
  EXPECT_NEAR(Make(TQConst::LinkLogit)->GetEta(0.25), std::log(1.0 / 3.0), 1e-15);
  EXPECT_NEAR(Make(TQConst::LinkProbit)->GetEta(0.975), 1.959963984540054, 1e-13);
  EXPECT_NEAR(Make(TQConst::LinkProbit)->GetMu(-1.96, nullptr), 1.0 - 0.9750021048517795, 1e-15);
  EXPECT_NEAR(Make(TQConst::LinkCLogLog)->GetEta(0.5), std::log(std::log(2.0)), 1e-15);
  EXPECT_NEAR(Make(TQConst::LinkNLogLog)->GetEta(0.5), -std::log(std::log(2.0)), 1e-15);
  EXPECT_NEAR(Make(TQConst::LinkLogC)->GetEta(0.75), std::log(0.25), 1e-15);
  EXPECT_NEAR(Make(TQConst::LinkNegBinomial, 2.0)->GetEta(1.0), std::log(2.0 / 3.0), 1e-15);
  EXPECT_NEAR(Make(TQConst::LinkOddsPower, 0.5)->GetEta(0.8), 2.0, 1e-14);  // (sqrt(4) - 1)/0.5
  EXPECT_NEAR(Make(TQConst::LinkPower, 2.0)->GetEta(3.0), 9.0, 1e-14);
  EXPECT_NEAR(Make(TQConst::LinkPower, -1.0)->GetMu(-4.0, nullptr), -0.25, 1e-15);
  // Cumulative links: GetMu is the distribution function at the argument.
  EXPECT_NEAR(Make(TQConst::LinkCumCauchit)->GetMu(1.0, nullptr), 0.75, 1e-15);
  EXPECT_NEAR(Make(TQConst::LinkCumCauchit)->GetMu(-1e6, nullptr),
              (1.0 - 1e-12 / 3.0) / (kPi * 1e6), 1e-22);  // atan(1/1e6)/pi by its series
  EXPECT_NEAR(Make(TQConst::LinkCumCLogLog)->GetMu(0.0, nullptr), 1.0 - std::exp(-1.0), 1e-15);
  EXPECT_NEAR(Make(TQConst::LinkCumNLogLog)->GetMu(0.0, nullptr), std::exp(-1.0), 1e-15);
  EXPECT_NEAR(Make(TQConst::LinkCumLogit)->GetMu(std::log(3.0), nullptr), 0.75, 1e-15);
  EXPECT_NEAR(Make(TQConst::LinkCumProbit)->GetMu(1.96, nullptr), 0.9750021048517795, 1e-15);

  // The limits at a = 0: odds power is the logit, power is the log, and the links next to 0
  // approach them.
  LinkPtr logit = Make(TQConst::LinkLogit), op0 = Make(TQConst::LinkOddsPower, 0.0),
          opSmall = Make(TQConst::LinkOddsPower, 1e-8);
  LinkPtr log = Make(TQConst::LinkLog), pw0 = Make(TQConst::LinkPower, 0.0);
  for (double mu : {0.05, 0.4, 0.93}) {
    EXPECT_DOUBLE_EQ(op0->GetEta(mu), logit->GetEta(mu));
    EXPECT_DOUBLE_EQ(op0->GetSecondDeriv(mu, nullptr), logit->GetSecondDeriv(mu, nullptr));
    EXPECT_NEAR(opSmall->GetEta(mu), logit->GetEta(mu), 1e-7);
    EXPECT_DOUBLE_EQ(pw0->GetEta(mu), log->GetEta(mu));
    EXPECT_DOUBLE_EQ(pw0->GetFirstDeriv(mu, nullptr), log->GetFirstDeriv(mu, nullptr));
  }
}

TEST(Links, FactoryAndParameters) {
  for (int t = 0; t <= 14; ++t) {
    LinkPtr link = Make(static_cast<LinkType>(t), 1.5);
    ASSERT_NE(link, nullptr) << t;
    EXPECT_EQ(link->GetType(), t);
  }
  EXPECT_EQ(Make(TQConst::LinkCumDefault), nullptr);
  EXPECT_EQ(Make(static_cast<LinkType>(-1)), nullptr);
  EXPECT_EQ(Make(static_cast<LinkType>(99)), nullptr);

  LinkPtr nb = Make(TQConst::LinkNegBinomial, 0.5);
  EXPECT_EQ(nb->GetParam(), 0.5);
  nb->SetParam(2.0);
  EXPECT_EQ(nb->GetParam(), 2.0);
  EXPECT_NEAR(nb->GetEta(1.0), std::log(2.0 / 3.0), 1e-15);
  EXPECT_NEAR(nb->GetMu(std::log(2.0 / 3.0), nullptr), 1.0, 1e-14);

  // Only the negative binomial link changes its parameter after creation.
  LinkPtr pw = Make(TQConst::LinkPower, 2.0);
  pw->SetParam(3.0);
  EXPECT_EQ(pw->GetParam(), 2.0);
  EXPECT_NEAR(pw->GetEta(3.0), 9.0, 1e-14);
  EXPECT_EQ(Make(TQConst::LinkOddsPower, -0.5)->GetParam(), -0.5);
}

TEST(Links, BoundaryInputsNeverGiveInfOrNaN) {
  const std::vector<double> etas = {0.0,   800.0,  -800.0,  1e300,   -1e300, DBL_MAX, -DBL_MAX + 1e292,
                                    -2.0,  2.0,    -1e-300, 1e-300,  kInf,   -kInf,   kNaN,
                                    TQMV::Missing};
  const std::vector<double> mus = {0.0,     1.0,    -1.0,  2.0,   1e-320, 1e-300, 1.0 - 1e-16,
                                   1e300,   -1e300, DBL_MAX, kInf, -kInf,  kNaN,   TQMV::Missing};
  for (const LinkCase& c : Cases()) {
    SCOPED_TRACE(c.name);
    LinkPtr link = Make(c.type, c.param);
    for (double eta : etas) {
      int st = -1;
      const double mu = link->GetMu(eta, &st);
      ASSERT_TRUE(Usable(mu)) << "eta " << eta;
      EXPECT_EQ(TQMV::IsMissing(mu), st != kLinkOK) << "eta " << eta;
      if (TQMV::IsMissing(eta)) {
        EXPECT_EQ(st, kLinkMissingArg);
      }
      if (st != kLinkOK) continue;
      // Whatever GetMu hands out must keep the rest of the record step finite.
      int s1 = -1, s2 = -1;
      const double d1 = link->GetFirstDeriv(mu, &s1);
      const double d2 = link->GetSecondDeriv(mu, &s2);
      EXPECT_TRUE(Usable(d1) && Usable(d2)) << "eta " << eta;
      EXPECT_EQ(TQMV::IsMissing(d1), s1 != kLinkOK) << "eta " << eta;
      EXPECT_EQ(TQMV::IsMissing(d2), s2 != kLinkOK) << "eta " << eta;
      EXPECT_TRUE(Usable(link->GetEta(mu))) << "eta " << eta;
    }
    for (double mu : mus) {
      int s1 = -1, s2 = -1;
      const double d1 = link->GetFirstDeriv(mu, &s1);
      const double d2 = link->GetSecondDeriv(mu, &s2);
      ASSERT_TRUE(Usable(d1) && Usable(d2) && Usable(link->GetEta(mu))) << "mu " << mu;
      EXPECT_EQ(TQMV::IsMissing(d1), s1 != kLinkOK) << "mu " << mu;
      EXPECT_EQ(TQMV::IsMissing(d2), s2 != kLinkOK) << "mu " << mu;
      EXPECT_TRUE(Usable(link->GetFirstDeriv(mu, nullptr))) << "mu " << mu;
      if (TQMV::IsMissing(mu)) {
        EXPECT_EQ(s1, kLinkMissingArg);
        EXPECT_TRUE(TQMV::IsMissing(link->GetEta(mu)));
      }
    }
  }
}

TEST(Links, DomainEdges) {
  const LinkType probLinks[] = {TQConst::LinkCLogLog,    TQConst::LinkLogit,      TQConst::LinkNLogLog,
                                TQConst::LinkProbit,     TQConst::LinkCumCauchit, TQConst::LinkCumCLogLog,
                                TQConst::LinkCumLogit,   TQConst::LinkCumNLogLog, TQConst::LinkCumProbit};
  for (LinkType t : probLinks) {
    SCOPED_TRACE(static_cast<int>(t));
    LinkPtr link = Make(t);
    for (double mu : {0.0, 1.0, -0.5, 1.5}) {
      int st = kLinkOK;
      EXPECT_TRUE(TQMV::IsMissing(link->GetFirstDeriv(mu, &st)));
      EXPECT_EQ(st, kLinkOutOfDomain);
      EXPECT_TRUE(TQMV::IsMissing(link->GetSecondDeriv(mu, nullptr)));
      EXPECT_TRUE(TQMV::IsMissing(link->GetEta(mu)));
    }
    // Far tails are kept strictly inside (0, 1), where the derivatives exist.
    for (double eta : {800.0, -800.0, 1e300, -1e300}) {
      int st = -1;
      const double mu = link->GetMu(eta, &st);
      EXPECT_EQ(st, kLinkOK);
      EXPECT_GT(mu, 0.0);
      EXPECT_LT(mu, 1.0);
      EXPECT_FALSE(TQMV::IsMissing(link->GetFirstDeriv(mu, nullptr)));
      EXPECT_FALSE(TQMV::IsMissing(link->GetSecondDeriv(mu, nullptr)));
    }
  }
  EXPECT_EQ(Make(TQConst::LinkLogit)->GetMu(800.0, nullptr), 1.0 - kLinkProbEps);
  EXPECT_EQ(Make(TQConst::LinkLogit)->GetMu(-800.0, nullptr), kLinkProbEps);

  int st = kLinkOK;
  LinkPtr log = Make(TQConst::LinkLog);
  EXPECT_TRUE(TQMV::IsMissing(log->GetMu(800.0, &st)));
  EXPECT_EQ(st, kLinkOverflow);
  EXPECT_TRUE(TQMV::IsMissing(log->GetMu(-800.0, &st)));
  EXPECT_NE(st, kLinkOK);
  EXPECT_TRUE(TQMV::IsMissing(log->GetFirstDeriv(0.0, &st)));
  EXPECT_EQ(st, kLinkOutOfDomain);
  EXPECT_TRUE(TQMV::IsMissing(log->GetSecondDeriv(-1.0, nullptr)));
  EXPECT_TRUE(TQMV::IsMissing(log->GetSecondDeriv(1e-300, &st)));  // 1/mu^2 overflows
  EXPECT_EQ(st, kLinkOverflow);
  EXPECT_TRUE(TQMV::IsMissing(log->GetEta(0.0)));

  LinkPtr logc = Make(TQConst::LinkLogC);
  EXPECT_TRUE(TQMV::IsMissing(logc->GetFirstDeriv(1.0, &st)));
  EXPECT_EQ(st, kLinkOutOfDomain);
  EXPECT_TRUE(TQMV::IsMissing(logc->GetMu(800.0, &st)));
  EXPECT_LT(logc->GetMu(-800.0, nullptr), 1.0);

  LinkPtr nb = Make(TQConst::LinkNegBinomial, 1.0);
  EXPECT_TRUE(TQMV::IsMissing(nb->GetMu(0.0, &st)));  // k mu / (1 + k mu) < 1 needs eta < 0
  EXPECT_EQ(st, kLinkOutOfDomain);
  EXPECT_TRUE(TQMV::IsMissing(nb->GetFirstDeriv(0.0, nullptr)));
  nb->SetParam(0.0);
  EXPECT_TRUE(TQMV::IsMissing(nb->GetMu(-1.0, &st)));
  EXPECT_EQ(st, kLinkOutOfDomain);
  EXPECT_TRUE(TQMV::IsMissing(nb->GetEta(1.0)));

  LinkPtr op = Make(TQConst::LinkOddsPower, 0.5);
  EXPECT_TRUE(TQMV::IsMissing(op->GetMu(-2.0, &st)));  // 1 + a eta = 0: odds 0
  EXPECT_EQ(st, kLinkOutOfDomain);
  EXPECT_FALSE(TQMV::IsMissing(op->GetMu(-1.999, &st)));

  LinkPtr sq = Make(TQConst::LinkPower, 2.0);
  EXPECT_TRUE(TQMV::IsMissing(sq->GetMu(-1.0, &st)));  // no real square root
  EXPECT_EQ(st, kLinkOutOfDomain);
  EXPECT_TRUE(TQMV::IsMissing(Make(TQConst::LinkPower, -1.0)->GetMu(0.0, &st)));
  EXPECT_EQ(st, kLinkOutOfDomain);
  EXPECT_TRUE(TQMV::IsMissing(Make(TQConst::LinkPower, 0.5)->GetMu(1e300, &st)));
  EXPECT_EQ(st, kLinkOverflow);
  EXPECT_TRUE(TQMV::IsMissing(Make(TQConst::LinkPower, 0.5)->GetFirstDeriv(0.0, nullptr)));
  EXPECT_EQ(Make(TQConst::LinkPower, 1.0)->GetSecondDeriv(0.0, nullptr), 0.0);
  EXPECT_TRUE(TQMV::IsMissing(Make(TQConst::LinkPower, TQMV::Missing)->GetMu(1.0, &st)));
}

TEST(Links, CumulativeDensities) {
  const LinkType cum[] = {TQConst::LinkCumCauchit, TQConst::LinkCumCLogLog, TQConst::LinkCumLogit,
                          TQConst::LinkCumNLogLog, TQConst::LinkCumProbit};
  for (LinkType t : cum) {
    SCOPED_TRACE(static_cast<int>(t));
    LinkPtr link = Make(t);
    const auto* c = dynamic_cast<const TQCumulativeLinkFunc*>(link.get());
    ASSERT_NE(c, nullptr);
    for (double x : {-2.0, -0.7, 0.0, 0.4, 1.8}) {
      const double h = 1e-4;
      auto F = [&](double v) { return link->GetMu(v, nullptr); };
      const double nf = (F(x + h) - F(x - h)) / (2.0 * h);
      const double ndf = (c->GetDensity(x + h) - c->GetDensity(x - h)) / (2.0 * h);
      EXPECT_NEAR(c->GetDensity(x), nf, 1e-7 * std::fabs(nf)) << x;
      EXPECT_NEAR(c->GetDensityDeriv(x), ndf, 1e-6 * std::max(std::fabs(ndf), 1e-3)) << x;
      // The density is the reciprocal of d eta / d mu at mu = F(x).
      EXPECT_NEAR(c->GetDensity(x), 1.0 / link->GetFirstDeriv(F(x), nullptr), 1e-12) << x;
    }
    for (double x : {800.0, -800.0, 1e300, -1e300, DBL_MAX, -DBL_MAX + 1e292}) {
      EXPECT_TRUE(std::isfinite(c->GetDensity(x))) << x;
      EXPECT_TRUE(std::isfinite(c->GetDensityDeriv(x))) << x;
      EXPECT_GE(c->GetDensity(x), 0.0) << x;
    }
    EXPECT_TRUE(TQMV::IsMissing(c->GetDensity(kNaN)));
    EXPECT_TRUE(TQMV::IsMissing(c->GetDensityDeriv(TQMV::Missing)));
    // Both tails add up to 1, the density is the derivative of each tail, and the ends of the
    // scale have no density.
    TQCumulativePoint p, q;
    for (double x : {-3.0, -0.3, 0.0, 0.5, 2.5}) {
      ASSERT_TRUE(c->Evaluate(x, p));
      EXPECT_NEAR(p.lower + p.upper, 1.0, 4.5e-16) << x;
      EXPECT_NEAR(p.lower, link->GetMu(x, nullptr), 1e-15) << x;
      EXPECT_DOUBLE_EQ(p.density, c->GetDensity(x)) << x;
    }
    ASSERT_TRUE(c->Evaluate(-kInf, p));
    EXPECT_EQ(p.lower, 0.0);
    EXPECT_EQ(p.upper, 1.0);
    EXPECT_EQ(p.density, 0.0);
    ASSERT_TRUE(c->Evaluate(kInf, q));
    EXPECT_EQ(q.lower, 1.0);
    EXPECT_EQ(q.density, 0.0);
    EXPECT_EQ(TQCumulativeLinkFunc::IntervalProb(p, q), 1.0);
    EXPECT_FALSE(c->Evaluate(kNaN, p));
  }
  EXPECT_EQ(dynamic_cast<const TQCumulativeLinkFunc*>(Make(TQConst::LinkLogit).get()), nullptr);
}

// Far in the tails each small tail keeps its relative precision (none is 1 minus the other),
// and so does the density and its derivative; the probability between two points in the upper
// tail is the difference of the upper tails.
TEST(Links, CumulativeTails) {
  struct Tail {
    LinkType type;
    double x;
    double lower, upper, density, deriv;  // exact values (NaN: not checked)
  };
  const double e3 = std::exp(3.0), e40 = std::exp(-40.0);
  const Tail tails[] = {
      {TQConst::LinkCumLogit, 40.0, kNaN, e40 / (1.0 + e40), e40 / ((1.0 + e40) * (1.0 + e40)), kNaN},
      {TQConst::LinkCumLogit, -700.0, std::exp(-700.0), kNaN, std::exp(-700.0), std::exp(-700.0)},
      {TQConst::LinkCumProbit, 10.0, kNaN, 7.619853024160526e-24, 7.6945986267064193e-23,
       -7.6945986267064193e-22},
      {TQConst::LinkCumProbit, -37.0, 5.725571222524577e-300, kNaN, kNaN, kNaN},
      {TQConst::LinkCumCLogLog, 3.0, kNaN, std::exp(-e3), e3 * std::exp(-e3), e3 * std::exp(-e3) * (1.0 - e3)},
      {TQConst::LinkCumCLogLog, -40.0, -std::expm1(-e40), kNaN, e40 * std::exp(-e40), kNaN},
      {TQConst::LinkCumNLogLog, -3.0, std::exp(-e3), kNaN, e3 * std::exp(-e3), e3 * std::exp(-e3) * (e3 - 1.0)},
      {TQConst::LinkCumNLogLog, 40.0, kNaN, -std::expm1(-e40), e40 * std::exp(-e40), kNaN},
      {TQConst::LinkCumCauchit, 1e10, kNaN, std::atan(1e-10) / kPi, 1.0 / (kPi * (1.0 + 1e20)),
       -2e10 / (kPi * (1.0 + 1e20) * (1.0 + 1e20))},
      {TQConst::LinkCumCauchit, -1e200, 1e-200 / kPi, kNaN, 0.0 /* below the smallest double */, kNaN},
  };
  auto expectRel = [](double exact, double got, const char* what, double x) {
    if (std::isnan(exact)) return;
    EXPECT_NEAR(got, exact, 1e-13 * std::fabs(exact)) << what << " at " << x;
  };
  for (const Tail& t : tails) {
    SCOPED_TRACE(static_cast<int>(t.type));
    LinkPtr link = Make(t.type);
    const auto* c = dynamic_cast<const TQCumulativeLinkFunc*>(link.get());
    TQCumulativePoint p;
    ASSERT_TRUE(c->Evaluate(t.x, p));
    expectRel(t.lower, p.lower, "F", t.x);
    expectRel(t.upper, p.upper, "1 - F", t.x);
    expectRel(t.density, p.density, "F'", t.x);
    expectRel(t.deriv, p.densityDeriv, "F''", t.x);
    // The density against the slope of the small tail, relative to its own size.
    TQCumulativePoint a, b;
    const double h = 1e-5 * std::max(1.0, std::fabs(t.x));
    c->Evaluate(t.x - h, a);
    c->Evaluate(t.x + h, b);
    const double slope = t.x > 0.0 ? (a.upper - b.upper) / (2.0 * h) : (b.lower - a.lower) / (2.0 * h);
    if (p.density > 1e-290) {
      EXPECT_NEAR(slope, p.density, 1e-6 * p.density) << t.x;
    }
    if (t.x > 0.0) {
      EXPECT_EQ(TQCumulativeLinkFunc::IntervalProb(a, b), a.upper - b.upper);
    }
  }
}
