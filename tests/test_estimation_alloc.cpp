// The estimation passes allocate nothing per record: a pass over many records makes exactly as
// many allocations as a pass over a few (the accumulators and scratch rows are sized once).
// Neither does scoring a record.
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
  GZLSettings s;
  s.SetDistType(TQConst::DistPoisson);
  s.SetLinkType(TQConst::LinkLog);
  s.SetScaleType(GZLConst_940::ScaleFixed);
  s.SetDependent(0);
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
  for (int i = 0; i < 50; ++i) rows.push_back({1.0 + (i % 7), 0.1 * (i % 5), static_cast<double>(i % 3)});
  GZLMemorySource src(rows);
  std::unique_ptr<IGZLAlgorithm> a(GZLFactory::CreateAlgorithm(s, false));
  ASSERT_TRUE(a);
  ASSERT_FALSE(a->BuildModel(src).IsError());
  GZLScoreStats scores;
  const int mask = 0xFFFF;
  Record first(rows[0].data(), rows[0].size());
  ASSERT_TRUE(a->Score(first, scores, &mask).IsOK());  // creates and primes the engine
  const long before = gAllocations;
  for (const auto& r : rows) {
    const Record record(r.data(), r.size());
    EXPECT_TRUE(a->Score(record, scores, &mask).IsOK());
  }
  EXPECT_EQ(gAllocations - before, 0);
}
