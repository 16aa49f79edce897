// The estimation passes allocate nothing per record: a pass over many records makes exactly as
// many allocations as a pass over a few (the accumulators and scratch rows are sized once).
// Neither does scoring a record. The subject passes of a GEE model make as many allocations over
// many subjects as over a few.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <vector>

#include "GZLFactory.h"
#include "GZLMemorySource.h"
#include "GZLModelEffect.h"
#include "GZLScoreStats.h"
#include "GZLSettings.h"
#include "data/GZLDesignMatrix.h"
#include "estimation/GZLDesignRowSource.h"
#include "estimation/GZLOptimizer.h"
#include "estimation/GZLStatFactory.h"
#include "gee/GEEDesignMatrix.h"
#include "gee/GEESubjectPass.h"
#include "gee/GEEWorkCorrelation.h"

#include "alloc_counter.h"

namespace {

// Allocations of one full pass (log-likelihood, gradient, information) over n records.
long PassAllocations(TQConst::DistType dist, TQConst::LinkType link, GZLConst_940::ScaleMethod scale, int n,
                     bool generic) {
  GZLSettings s;
  s.SetDistType(dist);
  s.SetLinkType(link);
  s.SetScaleType(scale);
  s.SetDependent(0);
  s.SetInterceptUse(true);
  s.AddFactor(2, 3);
  s.AddCovariate(1);
  static std::vector<int> vars{2, 1};
  GZLModelEffect cov(1, 1, &vars);
  cov.AddCovariate(1);
  s.AddModelEffect(cov);
  GZLModelEffect fac(1, 1, &vars);
  fac.AddNewFactor(2, false);
  s.AddModelEffect(fac);
  std::vector<std::vector<double>> rows;
  for (int i = 0; i < n; ++i) rows.push_back({1.0 + (i % 7), 0.1 * (i % 5), static_cast<double>(i % 3)});
  GZLMemorySource src(std::move(rows));
  GZLDesignMatrix design(s);
  TQStatus st;
  design.RunDictionaryPass(st, src);
  design.SetRecordSource(&src);
  GZLDesignRowSource source(design);
  GZLStatFactory f(source, s);
  f.SetUseGenericStep(generic);
  const std::vector<double> beta(static_cast<std::size_t>(f.GetNumParams()), 0.05);
  f.ComputeLLGradHessian(st, beta, 1.5, true, false, false);  // first pass sizes the outputs
  EXPECT_TRUE(st.IsOK());
  const long before = gAllocations;
  f.ComputeLLGradHessian(st, beta, 1.5, false, false, false);
  EXPECT_TRUE(st.IsOK());
  return gAllocations - before;
}

}  // namespace

TEST(EstimationAllocations, NoAllocationPerRecord) {
  struct Case {
    TQConst::DistType dist;
    TQConst::LinkType link;
    GZLConst_940::ScaleMethod scale;
  };
  for (const Case& c : {Case{TQConst::DistPoisson, TQConst::LinkLog, GZLConst_940::ScaleFixed},
                        Case{TQConst::DistGamma, TQConst::LinkLog, GZLConst_940::ScaleMLE},
                        Case{TQConst::DistGamma, TQConst::LinkIdentity, GZLConst_940::ScaleMLE},
                        Case{TQConst::DistNormal, TQConst::LinkIdentity, GZLConst_940::ScaleMLE}}) {
    for (bool generic : {false, true}) {
      SCOPED_TRACE(static_cast<int>(c.dist) * 100 + static_cast<int>(c.link) * 10 + (generic ? 1 : 0));
      EXPECT_EQ(PassAllocations(c.dist, c.link, c.scale, 20, generic),
                PassAllocations(c.dist, c.link, c.scale, 2000, generic));
    }
  }
}

TEST(ScoringAllocations, NoAllocationPerRecord) {
  // A count model with every output, then the per-category lists of an ordinal and a nominal
  // model into a score object the host reuses.
  for (const TQConst::DistType dist :
       {TQConst::DistPoisson, TQConst::DistOrdinalMultinomial, TQConst::DistNominalMultinomial}) {
    SCOPED_TRACE(static_cast<int>(dist));
    const bool multinomial = dist != TQConst::DistPoisson;
    GZLSettings s;
    s.SetDistType(dist);
    s.SetLinkType(dist == TQConst::DistPoisson ? TQConst::LinkLog
                  : dist == TQConst::DistOrdinalMultinomial ? TQConst::LinkCumLogit
                                                                           : TQConst::LinkLogit);
    s.SetScaleType(GZLConst_940::ScaleFixed);
    s.SetDependent(0);
    if (multinomial) s.SetDependentSize(3);
    s.SetInterceptUse(true);
    s.AddFactor(2, 3);
    s.AddCovariate(1);
    static std::vector<int> vars{2, 1};
    GZLModelEffect cov(1, 1, &vars), fac(1, 1, &vars);
    cov.AddCovariate(1);
    fac.AddNewFactor(2, false);
    s.AddModelEffect(cov);
    s.AddModelEffect(fac);
    std::vector<std::vector<double>> rows;
    for (int i = 0; i < 50; ++i)
      rows.push_back({multinomial ? (i % 7) % 3 : 1.0 + (i % 7), 0.1 * (i % 5), static_cast<double>(i % 3)});
    GZLMemorySource src(rows);
    std::unique_ptr<IGZLAlgorithm> a(GZLFactory::CreateAlgorithm(s, false));
    ASSERT_TRUE(a);
    ASSERT_FALSE(a->BuildModel(src).IsError());
    GZLScoreStats scores;
    const int mask = multinomial ? 0x1 | 0x2 | 0x4 | 0x8 | 0x1000 | 0x2000 | 0x4000 : 0xFFFF;
    Record first(rows[0].data(), rows[0].size());
    ASSERT_TRUE(a->Score(first, scores, &mask).IsOK());  // creates and primes the engine
    EXPECT_EQ(scores.GetMEANPREDNOMINAL().size(), multinomial ? 3u : 0u);
    const long before = gAllocations;
    for (const auto& r : rows) {
      const Record record(r.data(), r.size());
      EXPECT_TRUE(a->Score(record, scores, &mask).IsOK());
    }
    EXPECT_EQ(gAllocations - before, 0);
  }
}

namespace {

// Allocations of a second GEE subject pass (estimating equations, or the robust pass) and of a
// second working-correlation pass over `subjects` subjects of 4 records.
long GEEPassAllocations(int subjects, bool robust) {
  GZLSettings s;
  s.SetGZLModelType(GZLConst_940::GEE);
  s.SetDistType(TQConst::DistPoisson);
  s.SetLinkType(TQConst::LinkLog);
  s.SetScaleType(GZLConst_940::ScaleFixed);
  s.SetDependent(0);
  s.SetInterceptUse(true);
  s.AddCovariate(1);
  static std::vector<int> vars{1};
  GZLModelEffect cov(0, 1, &vars);
  cov.AddCovariate(1);
  s.AddModelEffect(cov);
  s.AddGEESubjectVar(2, subjects);
  s.AddGEEWSVar(3, 4);
  s.SetGEECorrType(GZLConst_940::Unstructured);
  std::vector<std::vector<double>> rows;
  for (int i = 0; i < subjects; ++i)
    for (int t = 0; t < 4; ++t) rows.push_back({1.0 + ((i + t) % 5), 0.1 * ((i * t) % 7), double(i), double(t)});
  GZLMemorySource src(std::move(rows));
  GEEDesignMatrix design(s);
  TQStatus st;
  design.RunDictionaryPass(st, src);
  design.NumberWSCombinations();
  design.SetRecordSource(&src);
  GEESubjectPass pass(s);
  pass.SetActive(TQBitSet(design.GetNumOfParams(), true));
  GEEWorkCorrelation correlation(design, s);
  const std::vector<double> beta(static_cast<std::size_t>(design.GetNumOfParams()), 0.05);
  TQSymMatrix R;
  correlation.Update(st, beta, 2, R);
  bool transformed = false;
  EXPECT_TRUE(pass.Run(design, beta, R, 1.0, robust, transformed).IsOK());
  const long before = gAllocations;
  correlation.Update(st, beta, 2, R);
  EXPECT_TRUE(st.IsOK());
  EXPECT_TRUE(pass.Run(design, beta, R, 1.0, robust, transformed).IsOK());
  return gAllocations - before;
}

}  // namespace

TEST(EstimationAllocations, NoAllocationPerSubject) {
  for (bool robust : {false, true}) EXPECT_EQ(GEEPassAllocations(10, robust), GEEPassAllocations(1000, robust));
}
