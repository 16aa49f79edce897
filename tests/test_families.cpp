// Distribution families: variance functions, log-likelihoods (kernel and non-kernel parts, and
// their derivatives in log(phi) or log(k)), deviance and Pearson terms.
#include <gtest/gtest.h>

#include <boost/math/distributions/binomial.hpp>
#include <boost/math/distributions/gamma.hpp>
#include <boost/math/distributions/inverse_gaussian.hpp>
#include <boost/math/distributions/negative_binomial.hpp>
#include <boost/math/distributions/normal.hpp>
#include <boost/math/distributions/poisson.hpp>
#include <cmath>
#include <fstream>
#include <functional>
#include <iomanip>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "GZLConst_940.h"
#include "GZLVarianceFunc.h"
#include "families/GZLDevianceFunc.h"
#include "families/GZLLogLikeFunc.h"
#include "families/GZLPearsonFunc.h"
#include "families/GZLVarianceFunctions.h"
#include "support/ITQLinkFunc.h"
#include "support/TQDisplay_940.h"
#include "support/TQMV.h"

namespace {

using TQConst::DistType;
using TQConst::LinkType;
using TQMV::IsMissing;
using VarPtr = std::unique_ptr<IGZLVarianceFunc>;
using LLPtr = std::unique_ptr<IGZLLogLikeFunc>;
using DevPtr = std::unique_ptr<IGZLDevianceFunc>;
using PearPtr = std::unique_ptr<IGZLPearsonFunc>;

::testing::AssertionResult RelNear(double actual, double expected, double tol) {
  if (IsMissing(actual)) return ::testing::AssertionFailure() << "missing, expected " << expected;
  const double err = std::fabs(actual - expected);
  if (err <= tol * std::fabs(expected)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << std::setprecision(17) << actual << " vs " << expected
                                       << " (relative error " << err / std::fabs(expected) << ")";
}

LLPtr MakeLL(DistType d, double param = 0.0, LinkType link = TQConst::LinkLog, double nCases = 0.0) {
  return LLPtr(CreateLogLikeFunction(d, nCases, param, link));
}

// Full log-likelihood (kernel plus non-kernel) of one record on a fresh pass.
double FullLL(IGZLLogLikeFunc& ll, double phi, double y, double mu, double f, double omega,
              double trials = 1.0, double events = 0.0) {
  ll.Reset(phi);
  if (IsMissing(ll.AddKernel(y, mu, f, omega))) return TQMV::Missing;
  if (IsMissing(ll.AddConstant(y, f, omega, trials, events))) return TQMV::Missing;
  return ll.GetFull();
}

// ---------------------------------------------------------------------------------------------
// Variance functions

TEST(VarianceFunctions, ValuesDerivativesAndEdges) {
  const VarPtr normal(CreateVarianceFunction(TQConst::DistNormal, 0.0));
  const VarPtr binom(CreateVarianceFunction(TQConst::DistBinomial, 0.0));
  const VarPtr gamma(CreateVarianceFunction(TQConst::DistGamma, 0.0));
  const VarPtr ig(CreateVarianceFunction(TQConst::DistInvGaussian, 0.0));
  const VarPtr nb(CreateVarianceFunction(TQConst::DistNegBinomial, 0.5));
  const VarPtr pois(CreateVarianceFunction(TQConst::DistPoisson, 0.0));
  const VarPtr tw(CreateVarianceFunction(TQConst::DistTweedie, 1.5));
  ASSERT_TRUE(normal && binom && gamma && ig && nb && pois && tw);
  EXPECT_EQ(CreateVarianceFunction(TQConst::DistOrdinalMultinomial, 0.0), nullptr);
  EXPECT_EQ(CreateVarianceFunction(TQConst::DistNominalMultinomial, 0.0), nullptr);
  EXPECT_EQ(CreateVarianceFunction(static_cast<DistType>(9), 0.0), nullptr);
  EXPECT_EQ(CreateVarianceFunction(static_cast<DistType>(-1), 0.0), nullptr);

  EXPECT_EQ(normal->GetVariance(-3.0), 1.0);
  EXPECT_EQ(normal->GetVarianceDeriv(5.0), 0.0);
  EXPECT_DOUBLE_EQ(binom->GetVariance(0.3), 0.21);
  EXPECT_DOUBLE_EQ(binom->GetVarianceDeriv(0.3), 0.4);
  EXPECT_TRUE(IsMissing(binom->GetVariance(0.0)));  // missing, not 0
  EXPECT_TRUE(IsMissing(binom->GetVariance(1.0)));
  EXPECT_TRUE(IsMissing(binom->GetVariance(1.2)));
  EXPECT_EQ(pois->GetVariance(2.5), 2.5);
  EXPECT_TRUE(IsMissing(pois->GetVariance(0.0)));
  EXPECT_TRUE(IsMissing(pois->GetVariance(-1.0)));
  EXPECT_EQ(pois->GetVarianceDeriv(-7.0), 1.0);
  EXPECT_EQ(pois->GetVarianceDeriv(0.0), 1.0);
  EXPECT_DOUBLE_EQ(gamma->GetVariance(-3.0), 9.0);
  EXPECT_TRUE(IsMissing(gamma->GetVariance(0.0)));
  EXPECT_TRUE(IsMissing(gamma->GetVariance(1e200)));  // the square overflows
  EXPECT_DOUBLE_EQ(gamma->GetVarianceDeriv(1.5), 3.0);
  EXPECT_DOUBLE_EQ(ig->GetVariance(2.0), 8.0);
  EXPECT_TRUE(IsMissing(ig->GetVariance(-2.0)));
  EXPECT_DOUBLE_EQ(ig->GetVarianceDeriv(2.0), 12.0);
  EXPECT_DOUBLE_EQ(nb->GetVariance(2.0), 4.0);  // 2 + 0.5*4
  EXPECT_DOUBLE_EQ(nb->GetVarianceDeriv(2.0), 3.0);
  EXPECT_TRUE(IsMissing(nb->GetVariance(0.0)));
  EXPECT_TRUE(IsMissing(nb->GetVariance(-1.0)));
  nb->SetParam(0.0);  // k = 0 is the Poisson variance, and takes effect at once
  EXPECT_DOUBLE_EQ(nb->GetVariance(2.0), 2.0);
  EXPECT_DOUBLE_EQ(nb->GetVarianceDeriv(2.0), 1.0);
  nb->SetParam(2.0);
  EXPECT_DOUBLE_EQ(nb->GetVariance(2.0), 10.0);

  EXPECT_DOUBLE_EQ(tw->GetVariance(4.0), 8.0);
  EXPECT_DOUBLE_EQ(tw->GetVarianceDeriv(4.0), 1.5 * 2.0);
  EXPECT_EQ(tw->GetVariance(0.0), 0.0);  // no positivity check: 0^p as the power gives it
  EXPECT_EQ(tw->GetVarianceDeriv(0.0), 0.0);
  EXPECT_TRUE(IsMissing(tw->GetVariance(-4.0)));  // no real power
  tw->SetParam(2.0);                              // p is fixed at creation
  EXPECT_DOUBLE_EQ(tw->GetVariance(4.0), 8.0);
  EXPECT_EQ(dynamic_cast<GZLVarianceTweedie&>(*tw).GetParam(), 1.5);

  for (const IGZLVarianceFunc* v : {binom.get(), gamma.get(), ig.get(), nb.get(), pois.get(), tw.get()}) {
    EXPECT_TRUE(IsMissing(v->GetVariance(TQMV::Missing)));
    EXPECT_TRUE(IsMissing(v->GetVariance(std::nan(""))));
  }

  // Derivatives against central differences.
  for (const IGZLVarianceFunc* v : {binom.get(), gamma.get(), ig.get(), nb.get(), tw.get()}) {
    for (double mu : {0.2, 0.45, 0.8}) {
      const double h = 1e-6;
      const double fd = (v->GetVariance(mu + h) - v->GetVariance(mu - h)) / (2 * h);
      EXPECT_NEAR(v->GetVarianceDeriv(mu), fd, 1e-7 * (1.0 + std::fabs(fd))) << mu;
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Log-likelihood against independent densities

TEST(LogLikelihood, KernelPlusConstantMatchesIndependentDensities) {
  namespace bm = boost::math;
  const double tol = 1e-12;
  int checked = 0;
  const std::vector<double> weights = {0.4, 1.0, 3.0};
  const std::vector<double> freqs = {1.0, 2.5};

  // Normal: phi is the variance of a unit-weight record; a scale weight omega divides it.
  {
    LLPtr ll = MakeLL(TQConst::DistNormal, 0.0, TQConst::LinkIdentity, 10.0);
    for (double y : {-2.5, 0.0, 1.3, 7.0})
      for (double mu : {-1.0, 0.5, 4.0})
        for (double phi : {0.3, 1.0, 4.5})
          for (double f : freqs)
            for (double w : weights) {
              const double ref = f * std::log(bm::pdf(bm::normal(mu, std::sqrt(phi / w)), y));
              EXPECT_TRUE(RelNear(FullLL(*ll, phi, y, mu, f, w), ref, tol)) << y << " " << mu << " " << phi;
              ++checked;
            }
  }
  // Gamma: shape omega/phi, mean mu.
  {
    LLPtr ll = MakeLL(TQConst::DistGamma);
    for (double y : {0.05, 1.0, 3.7, 12.0})
      for (double mu : {0.2, 2.0, 9.0})
        for (double phi : {0.1, 1.0, 3.0})
          for (double f : freqs)
            for (double w : weights) {
              const double nu = w / phi;
              const double pdf = bm::pdf(bm::gamma_distribution<double>(nu, mu / nu), y);
              if (pdf < 1e-280) continue;  // beyond what the independent density can represent
              EXPECT_TRUE(RelNear(FullLL(*ll, phi, y, mu, f, w), f * std::log(pdf), tol)) << y << " " << mu;
              ++checked;
            }
  }
  // Inverse Gaussian: shape (lambda) omega/phi.
  {
    LLPtr ll = MakeLL(TQConst::DistInvGaussian, 0.0, TQConst::LinkLog, 5.0);
    for (double y : {0.1, 1.0, 2.5, 8.0})
      for (double mu : {0.5, 1.5, 5.0})
        for (double phi : {0.05, 1.0, 3.0})
          for (double f : freqs)
            for (double w : weights) {
              const double pdf = bm::pdf(bm::inverse_gaussian(mu, w / phi), y);
              if (pdf < 1e-280) continue;
              EXPECT_TRUE(RelNear(FullLL(*ll, phi, y, mu, f, w), f * std::log(pdf), tol)) << y << " " << mu;
              ++checked;
            }
  }
  // Poisson: the whole log-probability is weighted by f * omega / phi.
  {
    LLPtr ll = MakeLL(TQConst::DistPoisson);
    for (double y : {0.0, 1.0, 3.0, 12.0})
      for (double mu : {0.2, 2.5, 10.0})
        for (double phi : {0.5, 1.0, 2.0})
          for (double f : freqs)
            for (double w : weights) {
              const double ref = f * (w / phi) * std::log(bm::pdf(bm::poisson(mu), y));
              EXPECT_TRUE(RelNear(FullLL(*ll, phi, y, mu, f, w), ref, tol)) << y << " " << mu;
              ++checked;
            }
  }
  // Binomial, events r of n trials: y = r/n, the kernel's omega is the scale weight times n.
  {
    LLPtr ll = MakeLL(TQConst::DistBinomial, 0.0, TQConst::LinkLogit);
    for (double n : {1.0, 5.0, 20.0})
      for (double r : {0.0, 1.0, 3.0, 5.0, 17.0, 20.0}) {
        if (r > n) continue;
        for (double mu : {0.1, 0.45, 0.9})
          for (double phi : {0.5, 1.0, 2.0})
            for (double f : freqs)
              for (double w : weights) {
                const double ref = f * (w / phi) * std::log(bm::pdf(bm::binomial(n, mu), r));
                EXPECT_TRUE(RelNear(FullLL(*ll, phi, r / n, mu, f, w * n, n, r), ref, tol))
                    << r << "/" << n << " " << mu;
                ++checked;
              }
      }
  }
  // Negative binomial with variance mu + k mu^2: size 1/k, success probability 1/(1 + k mu).
  {
    for (double k : {0.2, 1.0, 3.5}) {
      LLPtr ll = MakeLL(TQConst::DistNegBinomial, k);
      for (double y : {0.0, 1.0, 4.0, 17.0})
        for (double mu : {0.3, 2.0, 12.0})
          for (double phi : {0.5, 1.0, 2.0})
            for (double f : freqs)
              for (double w : weights) {
                const double pmf = bm::pdf(bm::negative_binomial(1.0 / k, 1.0 / (1.0 + k * mu)), y);
                const double ref = f * (w / phi) * std::log(pmf);
                EXPECT_TRUE(RelNear(FullLL(*ll, phi, y, mu, f, w), ref, tol)) << k << " " << y << " " << mu;
                ++checked;
              }
    }
  }
  EXPECT_GT(checked, 1500);
}

TEST(LogLikelihood, DomainEdgesAndStickyMissingSums) {
  LLPtr binom = MakeLL(TQConst::DistBinomial);
  binom->Reset(1.0);
  EXPECT_TRUE(IsMissing(binom->AddKernel(0.0, 1.0, 1.0, 1.0)));
  EXPECT_EQ(binom->AddKernel(1.0, 1.0, 1.0, 1.0), 0.0);  // log 1
  EXPECT_TRUE(IsMissing(binom->AddKernel(0.3, 0.0, 1.0, 1.0)));
  EXPECT_TRUE(IsMissing(binom->AddKernel(0.3, 1.0, 1.0, 1.0)));
  EXPECT_TRUE(IsMissing(binom->AddConstant(0.5, 1.0, 4.0, 4.0, 5.0)));   // events above trials
  EXPECT_TRUE(IsMissing(binom->AddConstant(0.5, 1.0, 4.0, 4.0, -1.0)));  // negative events
  EXPECT_EQ(binom->AddConstant(0.0, 1.0, 4.0, 4.0, 0.0), 0.0);           // r = 0 adds nothing
  EXPECT_EQ(binom->AddConstant(1.0, 1.0, 4.0, 4.0, 4.0), 0.0);           // r = n adds nothing
  EXPECT_EQ(binom->GetKernel(), 0.0);
  EXPECT_TRUE(IsMissing(binom->GetParamDeriv(0.5, 1.0, 1.0, 1.0)));
  EXPECT_TRUE(IsMissing(binom->GetParamDeriv2(0.5, 1.0, 1.0, 1.0)));

  LLPtr pois = MakeLL(TQConst::DistPoisson);
  pois->Reset(1.0);
  EXPECT_EQ(pois->AddKernel(0.0, 0.0, 1.0, 1.0), 0.0);  // y = 0, mu = 0: subtracts 0, valid
  EXPECT_TRUE(IsMissing(pois->AddKernel(2.0, 0.0, 1.0, 1.0)));
  EXPECT_EQ(pois->AddKernel(2.0, -1.0, 0.0, 1.0), 0.0);  // a zero weight leaves the sum alone
  EXPECT_TRUE(IsMissing(pois->AddConstant(-1.0, 1.0, 1.0, 1.0, 0.0)));
  EXPECT_TRUE(IsMissing(pois->GetParamDeriv(1.0, 1.0, 1.0, 1.0)));
  EXPECT_TRUE(IsMissing(pois->GetParamDeriv2(1.0, 1.0, 1.0, 1.0)));
  // A log-gamma that overflows turns the non-kernel sum missing for the rest of the pass.
  EXPECT_TRUE(IsMissing(pois->AddConstant(1e306, 1.0, 1.0, 1.0, 0.0)));
  EXPECT_TRUE(IsMissing(pois->GetNonKernel()));
  EXPECT_TRUE(IsMissing(pois->AddConstant(1.0, 1.0, 1.0, 1.0, 0.0)));
  EXPECT_TRUE(IsMissing(pois->GetFull()));
  pois->ClearSums();
  EXPECT_NEAR(pois->AddConstant(3.0, 1.0, 1.0, 1.0, 0.0), -std::log(6.0), 1e-15);

  LLPtr gamma = MakeLL(TQConst::DistGamma);
  LLPtr ig = MakeLL(TQConst::DistInvGaussian);
  LLPtr nb = MakeLL(TQConst::DistNegBinomial, 0.5);
  for (IGZLLogLikeFunc* ll : {gamma.get(), ig.get(), nb.get()}) {
    ll->Reset(1.0);
    EXPECT_TRUE(IsMissing(ll->AddKernel(2.0, 0.0, 1.0, 1.0)));  // mu = 0
    EXPECT_EQ(ll->GetKernel(), 0.0);
  }
  EXPECT_TRUE(IsMissing(gamma->AddKernel(0.0, 1.0, 1.0, 1.0)));  // y = 0
  EXPECT_TRUE(IsMissing(ig->AddKernel(0.0, 1.0, 1.0, 1.0)));
  EXPECT_TRUE(IsMissing(gamma->AddKernel(1.0, 1.0, 1.0, 0.0)));  // omega = 0
  EXPECT_EQ(gamma->AddConstant(0.0, 1.0, 1.0, 1.0, 0.0), 0.0);   // y <= 0 leaves the sum alone
  nb->SetParam(0.0);
  EXPECT_TRUE(IsMissing(nb->AddKernel(2.0, 1.0, 1.0, 1.0)));  // k must be positive

  // Normal: outside omega > 0 and phi > 0 the kernel sum is returned unchanged.
  LLPtr normal = MakeLL(TQConst::DistNormal, 0.0, TQConst::LinkIdentity, 12.0);
  normal->Reset(1.0);
  EXPECT_EQ(normal->AddKernel(1.0, 2.0, 1.0, 0.0), 0.0);
  EXPECT_DOUBLE_EQ(normal->AddConstant(1.0, 2.0, 0.0, 1.0, 0.0), -2.0 * 0.9189385332046728);
  EXPECT_DOUBLE_EQ(normal->GetParamDeriv(1.7, 1.7, 3.0, 2.0), -1.5);  // -f/2 at y = mu
  EXPECT_EQ(normal->GetParamDeriv2(1.7, 1.7, 3.0, 2.0), 0.0);
  EXPECT_EQ(normal->GetNumCases(), 12.0);
  EXPECT_TRUE(IsMissing(normal->AddKernel(TQMV::Missing, 2.0, 1.0, 1.0)));

  // Multinomial: the kernel takes the fitted probability of the observed category.
  for (DistType d : {TQConst::DistOrdinalMultinomial, TQConst::DistNominalMultinomial}) {
    LLPtr m = MakeLL(d, 0.0, TQConst::LinkCumLogit);
    m->Reset(2.0);
    EXPECT_DOUBLE_EQ(m->AddKernel(2.0, 0.25, 3.0, 1.5), std::log(0.25) * 3.0 * 1.5 / 2.0);
    const double before = m->GetKernel();
    EXPECT_EQ(m->AddKernel(2.0, 0.0, 1.0, 1.0), before);  // outside (0, 1]: nothing added
    EXPECT_EQ(m->AddKernel(2.0, 1.5, 1.0, 1.0), before);
    EXPECT_EQ(m->AddKernel(2.0, 1.0, 1.0, 1.0), before);  // log 1
    EXPECT_EQ(m->AddConstant(2.0, 1.0, 1.0, 1.0, 0.0), 0.0);
    EXPECT_TRUE(IsMissing(m->GetParamDeriv(0.3, 1.0, 1.0, 1.0)));
    EXPECT_TRUE(IsMissing(m->GetParamDeriv2(0.3, 1.0, 1.0, 1.0)));
  }
}

TEST(LogLikelihood, FactoryChoosesFamilyAndKeepsItsFields) {
  EXPECT_NE(dynamic_cast<GZLLogLikeNormal*>(MakeLL(TQConst::DistNormal).get()), nullptr);
  EXPECT_NE(dynamic_cast<GZLLogLikeBinomial*>(MakeLL(TQConst::DistBinomial).get()), nullptr);
  EXPECT_NE(dynamic_cast<GZLLogLikeGamma*>(MakeLL(TQConst::DistGamma).get()), nullptr);
  EXPECT_NE(dynamic_cast<GZLLogLikeInvGaussian*>(MakeLL(TQConst::DistInvGaussian).get()), nullptr);
  EXPECT_NE(dynamic_cast<GZLLogLikePoisson*>(MakeLL(TQConst::DistPoisson).get()), nullptr);
  EXPECT_NE(dynamic_cast<GZLLogLikeOrdinal*>(MakeLL(TQConst::DistOrdinalMultinomial).get()), nullptr);
  EXPECT_NE(dynamic_cast<GZLLogLikeNominal*>(MakeLL(TQConst::DistNominalMultinomial).get()), nullptr);
  EXPECT_EQ(MakeLL(static_cast<DistType>(9)), nullptr);

  // The number of cases is kept by the normal and inverse Gaussian families only.
  EXPECT_EQ(MakeLL(TQConst::DistNormal, 0.0, TQConst::LinkLog, 42.0)->GetNumCases(), 42.0);
  EXPECT_EQ(MakeLL(TQConst::DistInvGaussian, 0.0, TQConst::LinkLog, 42.0)->GetNumCases(), 42.0);
  EXPECT_EQ(MakeLL(TQConst::DistGamma, 0.0, TQConst::LinkLog, 42.0)->GetNumCases(), 0.0);
  EXPECT_EQ(MakeLL(TQConst::DistPoisson, 0.0, TQConst::LinkLog, 42.0)->GetNumCases(), 0.0);
  EXPECT_EQ(MakeLL(TQConst::DistGamma)->GetPhi(), 1.0);

  LLPtr nbLog = MakeLL(TQConst::DistNegBinomial, 0.7, TQConst::LinkLog);
  LLPtr nbNb = MakeLL(TQConst::DistNegBinomial, 0.7, TQConst::LinkNegBinomial);
  EXPECT_FALSE(dynamic_cast<GZLLogLikeNegBinomial&>(*nbLog).IsNegBinLink());
  EXPECT_TRUE(dynamic_cast<GZLLogLikeNegBinomial&>(*nbNb).IsNegBinLink());
  EXPECT_EQ(dynamic_cast<GZLLogLikeNegBinomial&>(*nbNb).GetParam(), 0.7);
  nbNb->SetParam(1.3);
  EXPECT_EQ(dynamic_cast<GZLLogLikeNegBinomial&>(*nbNb).GetParam(), 1.3);

  LLPtr tw = MakeLL(TQConst::DistTweedie, 1.4);
  auto& t = dynamic_cast<GZLLogLikeTweedie&>(*tw);
  EXPECT_DOUBLE_EQ(t.GetAlpha(), 0.6 / -0.4);
  EXPECT_EQ(t.GetLowerIndexBoundary(), -1);
  EXPECT_EQ(t.GetUpperIndexBoundary(), -1);
  tw->SetParam(1.8);  // the power stays
  EXPECT_EQ(t.GetPower(), 1.4);
  EXPECT_TRUE(IsMissing(dynamic_cast<GZLLogLikeTweedie&>(*MakeLL(TQConst::DistTweedie, 2.0)).GetAlpha()));
  EXPECT_TRUE(IsMissing(dynamic_cast<GZLLogLikeTweedie&>(*MakeLL(TQConst::DistTweedie, 1.0)).GetAlpha()));

  // Display: the family's frame around the common fields, then its own.
  std::ostringstream out;
  {
    TQDisplay_940::ScopedStream redirect(out);
    nbNb->Reset(2.0);
    nbNb->AddKernel(3.0, 1.5, 1.0, 1.0);
    nbNb->Display();
  }
  const std::string s = out.str();
  const auto at = [&](const char* text) { return s.find(text); };
  ASSERT_NE(at("GZLLogLikeNegBinomial display start"), std::string::npos);
  EXPECT_LT(at("GZLLogLikeNegBinomial display start"), at("The number of cases"));
  EXPECT_LT(at("The number of cases"), at("Parameter phi"));
  EXPECT_LT(at("Parameter phi"), at("Kernel loglikelihood"));
  EXPECT_LT(at("Kernel loglikelihood"), at("Non-kernel part of the full loglikelihood"));
  EXPECT_LT(at("Non-kernel part of the full loglikelihood"), at("Parameter k of the negative binomial distribution"));
  EXPECT_LT(at("Parameter k of the negative binomial distribution"), at("Negative binomial link indicator"));
  EXPECT_LT(at("Negative binomial link indicator"), at("GZLLogLikeNegBinomial display end"));
}

// ---------------------------------------------------------------------------------------------
// Derivatives in log(phi) and log(k) against finite differences

// First and second derivatives of g at t by central differences with one Richardson step.
void FiniteDiffs(const std::function<double(double)>& g, double t, double& d1, double& d2) {
  auto first = [&](double h) { return (g(t + h) - g(t - h)) / (2 * h); };
  auto second = [&](double h) { return (g(t + h) - 2 * g(t) + g(t - h)) / (h * h); };
  const double h = 1e-2;
  d1 = (4 * first(h / 2) - first(h)) / 3;
  d2 = (4 * second(h / 2) - second(h)) / 3;
}

TEST(LogLikelihood, ParamDerivativesMatchFiniteDifferences) {
  const double tol = 1e-6;
  int checked = 0;
  struct Rec { double y, mu, f, w; };
  auto checkScale = [&](DistType d, const std::vector<Rec>& recs) {
    LLPtr ll = MakeLL(d, 0.0, TQConst::LinkLog, 3.0);
    for (double phi : {0.2, 1.0, 3.5})
      for (const Rec& r : recs) {
        auto kernel = [&](double theta) {
          ll->Reset(std::exp(theta));
          return ll->AddKernel(r.y, r.mu, r.f, r.w);
        };
        double d1, d2;
        FiniteDiffs(kernel, std::log(phi), d1, d2);
        ll->Reset(phi);
        ll->AddKernel(r.y, r.mu, r.f, r.w);
        EXPECT_TRUE(RelNear(ll->GetParamDeriv(r.mu, r.y, r.f, r.w), d1, tol)) << d << " " << r.y << " " << phi;
        EXPECT_TRUE(RelNear(ll->GetParamDeriv2(r.mu, r.y, r.f, r.w), d2, tol)) << d << " " << r.y << " " << phi;
        ++checked;
      }
  };
  checkScale(TQConst::DistNormal, {{1.0, 2.5, 1.0, 1.0}, {-3.0, 0.2, 2.0, 0.5}, {7.0, 6.1, 1.5, 3.0}});
  checkScale(TQConst::DistInvGaussian, {{1.0, 2.5, 1.0, 1.0}, {0.3, 0.9, 2.0, 0.5}, {7.0, 3.1, 1.5, 3.0}});
  checkScale(TQConst::DistGamma, {{1.0, 2.5, 1.0, 1.0}, {0.3, 0.9, 2.0, 0.5}, {7.0, 3.1, 1.5, 3.0}});

  // Negative binomial, in log(k). With a link other than the negative binomial one mu stays put
  // while k moves; with the negative binomial link eta = log(k mu / (1 + k mu)) does, so k mu is
  // held fixed.
  for (bool nbLink : {false, true}) {
    LLPtr ll = MakeLL(TQConst::DistNegBinomial, 1.0, nbLink ? TQConst::LinkNegBinomial : TQConst::LinkLog);
    for (double k : {0.3, 1.0, 4.0})
      for (const Rec& r : std::vector<Rec>{{0.0, 1.5, 1.0, 1.0}, {3.0, 1.2, 2.0, 0.5}, {11.0, 4.0, 1.0, 2.0}})
        for (double phi : {1.0, 2.0}) {
          const double km = k * r.mu;
          auto kernel = [&](double theta) {
            const double kk = std::exp(theta);
            ll->SetParam(kk);
            ll->Reset(phi);
            return ll->AddKernel(r.y, nbLink ? km / kk : r.mu, r.f, r.w);
          };
          double d1, d2;
          FiniteDiffs(kernel, std::log(k), d1, d2);
          ll->SetParam(k);
          ll->Reset(phi);
          EXPECT_TRUE(RelNear(ll->GetParamDeriv(r.mu, r.y, r.f, r.w), d1, tol)) << nbLink << " " << k << " " << r.y;
          EXPECT_TRUE(RelNear(ll->GetParamDeriv2(r.mu, r.y, r.f, r.w), d2, tol)) << nbLink << " " << k << " " << r.y;
          ++checked;
        }
  }
  // Negative binomial derivatives need phi > 0 and k > 0.
  LLPtr nb = MakeLL(TQConst::DistNegBinomial, 0.0);
  EXPECT_TRUE(IsMissing(nb->GetParamDeriv(1.0, 1.0, 1.0, 1.0)));
  nb->SetParam(1.0);
  nb->Reset(0.0);
  EXPECT_TRUE(IsMissing(nb->GetParamDeriv(1.0, 1.0, 1.0, 1.0)));
  EXPECT_EQ(checked, 3 * 3 * 3 + 2 * 3 * 3 * 2);
}

// ---------------------------------------------------------------------------------------------
// Deviance

// Twice the log-likelihood ratio of the saturated model, in units of the dispersion: the unit
// deviance, from independent log densities.
double UnitDeviance(double llSaturated, double ll, double phi) { return 2.0 * phi * (llSaturated - ll); }

TEST(Deviance, MatchesSaturatedLikelihoodRatio) {
  namespace bm = boost::math;
  const double tol = 1e-10;
  const double f = 1.5, w = 2.0;
  auto dev = [&](DistType d, double param, double mu, double y, double m = 1.0) {
    DevPtr dv(CreateDevianceFunction(d, param));
    return dv->AddDeviance(mu, y, f, w, m);
  };
  for (double y : {0.4, 1.0, 3.0, 8.0})
    for (double mu : {0.3, 1.7, 6.0}) {
      if (y == mu) continue;
      const double phi = 0.7;
      const auto lnN = [&](double m) { return std::log(bm::pdf(bm::normal(m, std::sqrt(phi)), y)); };
      EXPECT_TRUE(RelNear(dev(TQConst::DistNormal, 0, mu, y), f * w * UnitDeviance(lnN(y), lnN(mu), phi), tol));
      const auto lnG = [&](double m) {
        return std::log(bm::pdf(bm::gamma_distribution<double>(1 / phi, m * phi), y));
      };
      EXPECT_TRUE(RelNear(dev(TQConst::DistGamma, 0, mu, y), f * w * UnitDeviance(lnG(y), lnG(mu), phi), tol));
      const auto lnIG = [&](double m) { return std::log(bm::pdf(bm::inverse_gaussian(m, 1 / phi), y)); };
      EXPECT_TRUE(RelNear(dev(TQConst::DistInvGaussian, 0, mu, y), f * w * UnitDeviance(lnIG(y), lnIG(mu), phi), tol));
      const double yi = std::round(y);
      // The saturated Poisson model of a zero count has probability 1.
      const auto lnP = [&](double m) { return m == 0.0 ? 0.0 : std::log(bm::pdf(bm::poisson(m), yi)); };
      if (yi != mu) {
        EXPECT_TRUE(RelNear(dev(TQConst::DistPoisson, 0, mu, yi), f * w * UnitDeviance(lnP(yi), lnP(mu), 1.0), tol));
      }
      for (double k : {0.4, 2.0}) {
        const auto lnNB = [&](double m) {
          return std::log(bm::pdf(bm::negative_binomial(1 / k, 1 / (1 + k * m)), yi));
        };
        if (yi != mu) {
          EXPECT_TRUE(RelNear(dev(TQConst::DistNegBinomial, k, mu, yi), f * w * UnitDeviance(lnNB(yi), lnNB(mu), 1.0), tol));
        }
      }
      // Tweedie: the series factor is common to both models, so the ratio has a closed form.
      for (double p : {1.2, 1.7}) {
        const auto lnT = [&](double m) {
          return y * std::pow(m, 1 - p) / (1 - p) - std::pow(m, 2 - p) / (2 - p);
        };
        EXPECT_TRUE(RelNear(dev(TQConst::DistTweedie, p, mu, y), f * w * UnitDeviance(lnT(y), lnT(mu), 1.0), tol));
      }
    }
  // Binomial, r events out of n, mu the probability.
  for (double n : {1.0, 6.0})
    for (double r = 0; r <= n; ++r)
      for (double mu : {0.15, 0.5, 0.8}) {
        const auto lnB = [&](double m) { return std::log(bm::pdf(bm::binomial(n, m), r)); };
        const double ref = f * w * UnitDeviance(r == 0 || r == n ? 0.0 : lnB(r / n), lnB(mu), 1.0);
        EXPECT_TRUE(RelNear(dev(TQConst::DistBinomial, 0, mu, r / n, n), ref, tol)) << r << "/" << n << " " << mu;
      }
}

TEST(Deviance, DeliberateEdgesAndMultinomial) {
  DevPtr nb(CreateDevianceFunction(TQConst::DistNegBinomial, 0.5));
  EXPECT_GT(nb->AddDeviance(2.0, 3.0, 1.0, 1.0, 1.0), 0.0);
  const double before = nb->GetDeviance();
  EXPECT_TRUE(IsMissing(nb->AddDeviance(2.5, 2.5, 1.0, 1.0, 1.0)));  // y = mu: reported missing
  EXPECT_EQ(nb->GetDeviance(), before);                              // and the sum is untouched
  EXPECT_DOUBLE_EQ(nb->AddDeviance(2.0, 0.0, 1.0, 1.0, 1.0) - before, 2.0 * std::log(2.0) / 0.5);
  EXPECT_TRUE(IsMissing(nb->AddDeviance(2.0, -1.0, 1.0, 1.0, 1.0)));
  nb->SetParam(2.0);  // k changes the y = 0 term at once
  nb->Clear();
  EXPECT_DOUBLE_EQ(nb->AddDeviance(2.0, 0.0, 1.0, 1.0, 1.0), 2.0 * std::log(5.0) / 2.0);
  nb->SetParam(0.0);
  EXPECT_TRUE(IsMissing(nb->AddDeviance(2.0, 0.0, 1.0, 1.0, 1.0)));

  DevPtr bin(CreateDevianceFunction(TQConst::DistBinomial, 0.0));
  EXPECT_TRUE(IsMissing(bin->AddDeviance(0.0, 0.0, 1.0, 1.0, 1.0)));
  EXPECT_TRUE(IsMissing(bin->AddDeviance(1.0, 1.0, 1.0, 1.0, 1.0)));
  EXPECT_TRUE(IsMissing(bin->AddDeviance(0.5, 0.5, 1.0, 1.0, TQMV::Missing)));
  EXPECT_EQ(bin->AddDeviance(0.5, 0.5, 1.0, 1.0, 1.0), 0.0);
  EXPECT_EQ(bin->AddDeviance(0.5, 1.5, 1.0, 1.0, 1.0), 0.0);  // y outside [0, 1]: nothing, not missing

  DevPtr pois(CreateDevianceFunction(TQConst::DistPoisson, 0.0));
  EXPECT_DOUBLE_EQ(pois->AddDeviance(1.25, 0.0, 2.0, 3.0, 1.0), 2.0 * 2.0 * 3.0 * 1.25);
  EXPECT_TRUE(IsMissing(pois->AddDeviance(0.0, 2.0, 1.0, 1.0, 1.0)));
  EXPECT_TRUE(IsMissing(pois->AddDeviance(1.0, 2.0, 0.0, 1.0, 1.0)));  // zero weight: missing
  EXPECT_TRUE(IsMissing(pois->AddDeviance(1.0, -2.0, 1.0, 1.0, 1.0)));

  // The normal and inverse Gaussian deviances carry no factor 2.
  DevPtr ig(CreateDevianceFunction(TQConst::DistInvGaussian, 0.0));
  EXPECT_DOUBLE_EQ(ig->AddDeviance(1.0, 2.0, 1.0, 1.0, 1.0), 0.5);
  EXPECT_TRUE(IsMissing(ig->AddDeviance(0.0, 2.0, 1.0, 1.0, 1.0)));
  DevPtr normal(CreateDevianceFunction(TQConst::DistNormal, 0.0));
  EXPECT_DOUBLE_EQ(normal->AddDeviance(1.0, 3.0, 1.0, 1.0, 1.0), 4.0);
  DevPtr gamma(CreateDevianceFunction(TQConst::DistGamma, 0.0));
  EXPECT_TRUE(IsMissing(gamma->AddDeviance(1.0, 0.0, 1.0, 1.0, 1.0)));
  DevPtr tw(CreateDevianceFunction(TQConst::DistTweedie, 1.5));
  EXPECT_TRUE(IsMissing(tw->AddDeviance(0.0, 1.0, 1.0, 1.0, 1.0)));
  EXPECT_TRUE(IsMissing(tw->AddDeviance(-1.0, 1.0, 1.0, 1.0, 1.0)));
  EXPECT_DOUBLE_EQ(tw->AddDeviance(4.0, 0.0, 1.0, 1.0, 1.0), 2.0 * (-0.5 * 2.0) / (-0.5 * 0.5));
  EXPECT_TRUE(IsMissing(DevPtr(CreateDevianceFunction(TQConst::DistTweedie, 2.0))->AddDeviance(1.0, 2.0, 1.0, 1.0, 1.0)));

  // Single-response classes refuse multinomial records and the reverse.
  const std::vector<double> o = {3.0, 0.0, 5.0}, pi = {0.3, 0.2, 0.5};
  EXPECT_TRUE(IsMissing(normal->AddDevianceOrdinal(o, pi, 8.0)));
  EXPECT_TRUE(IsMissing(normal->AddDevianceNominal(o, pi, 8.0)));
  DevPtr ord(CreateDevianceFunction(TQConst::DistOrdinalMultinomial, 0.0));
  DevPtr nom(CreateDevianceFunction(TQConst::DistNominalMultinomial, 0.0));
  EXPECT_TRUE(IsMissing(ord->AddDeviance(1.0, 1.0, 1.0, 1.0, 1.0)));
  EXPECT_TRUE(IsMissing(ord->AddDevianceNominal(o, pi, 8.0)));
  EXPECT_TRUE(IsMissing(nom->AddDevianceOrdinal(o, pi, 8.0)));
  const double ref = 2 * 3.0 * std::log(3.0 / 2.4) + 2 * 5.0 * std::log(5.0 / 4.0);
  EXPECT_DOUBLE_EQ(ord->AddDevianceOrdinal(o, pi, 8.0), ref);
  EXPECT_DOUBLE_EQ(nom->AddDevianceNominal(o, pi, 8.0), ref);
  EXPECT_TRUE(IsMissing(ord->AddDevianceOrdinal(o, {0.5, 0.5}, 8.0)));  // lengths differ
  EXPECT_DOUBLE_EQ(ord->GetDeviance(), ref);
  EXPECT_DOUBLE_EQ(ord->AddDevianceOrdinal({}, {}, 8.0), ref);  // empty record: unchanged
  EXPECT_EQ(CreateDevianceFunction(static_cast<DistType>(9), 0.0), nullptr);
}

// ---------------------------------------------------------------------------------------------
// Pearson

TEST(Pearson, TermsAndTheBinomialZeroVariance) {
  PearPtr pe(CreatePearsonFunction(TQConst::DistPoisson));
  PearPtr pb(CreatePearsonFunction(TQConst::DistBinomial));
  ASSERT_NE(dynamic_cast<GZLPearson*>(pe.get()), nullptr);
  ASSERT_NE(dynamic_cast<GZLPearsonBinomial*>(pb.get()), nullptr);
  EXPECT_NE(dynamic_cast<GZLPearson*>(PearPtr(CreatePearsonFunction(TQConst::DistTweedie)).get()), nullptr);

  EXPECT_DOUBLE_EQ(pe->AddPearson(5.0, 3.0, 3.0, 2.0, 1.5), 4.0 * 2.0 * 1.5 / 3.0);
  EXPECT_TRUE(IsMissing(pe->AddPearson(5.0, 0.0, 0.0, 1.0, 1.0)));  // V = 0: missing
  EXPECT_DOUBLE_EQ(pe->GetPearson(), 4.0);

  // Binomial: m multiplies; V = 0 adds nothing and is not missing.
  const double first = 0.0625 * 4.0 * 2.0 / 0.25;
  EXPECT_DOUBLE_EQ(pb->AddPearson(0.25, 0.5, 0.25, 2.0, 1.0, 4.0), first);
  EXPECT_DOUBLE_EQ(pb->AddPearson(1.0, 1.0, 0.0, 1.0, 1.0, 1.0), first);
  EXPECT_DOUBLE_EQ(pb->AddPearson(0.0, 1.0, 0.0, 1.0, 1.0), first);
  pb->Clear();
  EXPECT_EQ(pb->GetPearson(), 0.0);

  const std::vector<double> o = {3.0, 0.0, 5.0}, pi = {0.3, 0.2, 0.5};
  const double ref = (3 - 2.4) * (3 - 2.4) / 2.4 + 1.6 * 1.6 / 1.6 + 1.0 / 4.0;
  for (DistType d : {TQConst::DistOrdinalMultinomial, TQConst::DistNominalMultinomial}) {
    PearPtr pm(CreatePearsonFunction(d));
    const bool ordinal = d == TQConst::DistOrdinalMultinomial;
    EXPECT_TRUE(IsMissing(pm->AddPearson(1.0, 1.0, 1.0, 1.0, 1.0)));
    EXPECT_TRUE(IsMissing(ordinal ? pm->AddPearsonNominal(o, pi, 8.0) : pm->AddPearsonOrdinal(o, pi, 8.0)));
    EXPECT_DOUBLE_EQ(ordinal ? pm->AddPearsonOrdinal(o, pi, 8.0) : pm->AddPearsonNominal(o, pi, 8.0), ref);
    EXPECT_TRUE(IsMissing(ordinal ? pm->AddPearsonOrdinal(o, {1.0}, 8.0) : pm->AddPearsonNominal(o, {1.0}, 8.0)));
    EXPECT_DOUBLE_EQ(pm->GetPearson(), ref);
  }
  EXPECT_TRUE(IsMissing(pe->AddPearsonOrdinal(o, pi, 8.0)));
  EXPECT_TRUE(IsMissing(pe->AddPearsonNominal(o, pi, 8.0)));
}

// ---------------------------------------------------------------------------------------------
// Reference fits: log-likelihood, deviance and Pearson chi-square at published estimates

struct Table {
  std::vector<std::string> names;
  std::vector<std::vector<double>> rows;
  int Col(const std::string& n) const {
    for (std::size_t i = 0; i < names.size(); ++i)
      if (names[i] == n) return static_cast<int>(i);
    return -1;
  }
};

Table ReadCsv(const std::string& file) {
  Table t;
  std::ifstream in(file);
  std::string line, cell;
  std::getline(in, line);
  std::stringstream header(line);
  while (std::getline(header, cell, ',')) t.names.push_back(cell);
  while (std::getline(in, line)) {
    if (line.empty()) continue;
    std::stringstream ss(line);
    std::vector<double> row;
    while (std::getline(ss, cell, ',')) row.push_back(std::stod(cell));
    t.rows.push_back(row);
  }
  return t;
}

TEST(FamilyReference, LogLikelihoodDevianceAndPearsonAtReferenceEstimates) {
  const std::string dir = std::string(GZL_TEST_DATA_DIR) + "/reference";
  const std::map<std::string, DistType> dists = {
      {"normal", TQConst::DistNormal},   {"binomial", TQConst::DistBinomial}, {"gamma", TQConst::DistGamma},
      {"invgauss", TQConst::DistInvGaussian}, {"negbin", TQConst::DistNegBinomial},
      {"poisson", TQConst::DistPoisson}, {"tweedie", TQConst::DistTweedie}};
  const std::map<std::string, LinkType> links = {
      {"cloglog", TQConst::LinkCLogLog}, {"identity", TQConst::LinkIdentity}, {"log", TQConst::LinkLog},
      {"logit", TQConst::LinkLogit}, {"power", TQConst::LinkPower}, {"probit", TQConst::LinkProbit}};
  // Every single-response model of the reference set but the nested one (its column order
  // follows the enclosing factor).
  const char* names[] = {"claims_tweedie_mle", "claims_tweedie_pearson", "esoph_binomial_cloglog",
                         "esoph_binomial_logit", "mtcars_binary_logit", "mtcars_invgauss_log",
                         "mtcars_normal_factor_by_covariate", "mtcars_normal_identity",
                         "mtcars_normal_power_link", "mtcars_normal_scaleweight", "quine_negbin_k_estimated",
                         "quine_negbin_k_fixed", "ships_poisson_offset", "trees_gamma_inverse_pearson",
                         "trees_gamma_log", "trees_normal_quadratic", "warpbreaks_poisson_freqweight",
                         "warpbreaks_poisson_identity", "warpbreaks_poisson_interaction",
                         "warpbreaks_poisson_pearson"};
  for (const char* name : names) {
    SCOPED_TRACE(name);
    std::ifstream jf(dir + "/expected/" + name + ".json");
    ASSERT_TRUE(jf.good());
    const nlohmann::json js = nlohmann::json::parse(jf);
    const auto& m = js["model"];
    const auto& e = js["expected"];
    const Table t = ReadCsv(dir + "/data/" + js["data"].get<std::string>());
    ASSERT_FALSE(t.rows.empty());

    const DistType dist = dists.at(m["dist"].get<std::string>());
    const LinkType linkType = links.at(m["link"].get<std::string>());
    const double linkParam = m.value("link_param", 0.0);
    std::unique_ptr<ITQLinkFunc> link(CreateLinkFunction(linkType, linkParam));
    ASSERT_TRUE(link);
    const double phi = e["scale"].get<double>();
    double distParam = m.value("dist_param", 0.0);
    if (dist == TQConst::DistNegBinomial) distParam = e["k"].get<double>();

    const auto& effects = m["effects"];
    const int colY = m.contains("response") ? t.Col(m["response"]) : t.Col(m["events"]);
    const int colN = m.contains("trials") ? t.Col(m["trials"]) : -1;
    const int colF = m.contains("freq_weight") ? t.Col(m["freq_weight"]) : -1;
    const int colW = m.contains("scale_weight") ? t.Col(m["scale_weight"]) : -1;
    const int colO = m.contains("offset") ? t.Col(m["offset"]) : -1;

    LLPtr ll(CreateLogLikeFunction(dist, 0.0, distParam, linkType));
    DevPtr dev(CreateDevianceFunction(dist, distParam));
    PearPtr pear(CreatePearsonFunction(dist));
    VarPtr var(CreateVarianceFunction(dist, distParam));
    ll->Reset(phi);

    struct Row { double y, mu, f, w, n, r; };
    std::vector<Row> rows;
    for (const auto& rec : t.rows) {
      double eta = colO >= 0 ? rec[colO] : 0.0;
      for (const auto& par : e["parameters"]) {
        const int eff = par["effect"].get<int>();
        double x = 1.0;
        if (eff >= 0) {
          const auto& ef = effects[eff];
          for (const auto& c : ef["covariates"]) x *= rec[t.Col(c.get<std::string>())];
          const auto& cats = par["categories"];
          for (std::size_t i = 0; i < ef["factors"].size(); ++i)
            if (rec[t.Col(ef["factors"][i].get<std::string>())] != cats[i].get<double>()) x = 0.0;
        }
        eta += x * par["estimate"].get<double>();
      }
      int status = 0;
      Row r{};
      r.mu = link->GetMu(eta, &status);
      ASSERT_EQ(status, 0);
      r.f = colF >= 0 ? rec[colF] : 1.0;
      r.w = colW >= 0 ? rec[colW] : 1.0;
      r.n = colN >= 0 ? rec[colN] : 1.0;
      r.r = rec[colY];
      r.y = rec[colY] / r.n;
      rows.push_back(r);
    }
    if (dist == TQConst::DistTweedie) {
      auto& tw = dynamic_cast<GZLLogLikeTweedie&>(*ll);
      tw.StartIndexBoundaryPass();
      for (const Row& r : rows) tw.AddIndexBoundaryRecord(r.y, r.w);
      ASSERT_TRUE(tw.FinishIndexBoundaryPass().IsOK());
    }
    for (const Row& r : rows) {
      // Binomial: the log-likelihood's scale weight includes the trials; deviance and Pearson
      // take the trials as their multiplier.
      const double wLL = dist == TQConst::DistBinomial ? r.w * r.n : r.w;
      ASSERT_FALSE(IsMissing(ll->AddKernel(r.y, r.mu, r.f, wLL)));
      ASSERT_FALSE(IsMissing(ll->AddConstant(r.y, r.f, wLL, r.n, r.r)));
      ASSERT_FALSE(IsMissing(dev->AddDeviance(r.mu, r.y, r.f, r.w, r.n)));
      ASSERT_FALSE(IsMissing(pear->AddPearson(r.y, r.mu, var->GetVariance(r.mu), r.f, r.w, r.n)));
    }
    const double tol = 1e-8;
    EXPECT_TRUE(RelNear(ll->GetFull(), e["loglik"].get<double>(), tol));
    EXPECT_TRUE(RelNear(dev->GetDeviance(), e["deviance"].get<double>(), tol));
    EXPECT_TRUE(RelNear(pear->GetPearson(), e["pearson_chisq"].get<double>(), tol));
  }
}

}  // namespace
