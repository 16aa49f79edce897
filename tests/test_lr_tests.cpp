// Inference that refits: likelihood-ratio tests of effects (type I and III), profile likelihood
// intervals and Lagrange multiplier tests against the reference figures; the constrained
// estimation on its own; statuses of perfect fits and of profiles that cannot close;
// cancellation and progress of the refit loops.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "GZLConst_940.h"
#include "GZLOutputStats.h"
#include "GZLReporter.h"
#include "GZLSettings.h"
#include "data/GZLAlgorithm.h"
#include "data/GZLDesignRow.h"
#include "estimation/GZLLLGradHessian.h"
#include "estimation/GZLLagrangeMultiplierTest.h"
#include "estimation/GZLOptimizer.h"
#include "estimation/GZLSeqQuad.h"
#include "inference/GZLLRStats.h"
#include "output_reference_models.h"

using output_test::LoadCase;
using output_test::ReferenceCase;
using output_test::TableSource;

namespace {

// Relative 1e-6, absolute 1e-9 near zero: the tolerance of the reference figures.
void ExpectClose(const nlohmann::json& expected, double actual, const std::string& what) {
  if (expected.is_null()) {
    EXPECT_TRUE(TQMV::IsMissing(actual)) << what << ": engine " << actual << ", reference null";
    return;
  }
  const double e = expected.get<double>();
  ASSERT_FALSE(TQMV::IsMissing(actual)) << what;
  EXPECT_LE(std::fabs(actual - e), std::max(1e-9, 1e-6 * std::fabs(e))) << what << ": engine " << actual
                                                                          << ", reference " << e;
}

// The refit and profile tolerances tightened so that the figures can be compared.
void AskForRefits(GZLSettings& s) {
  s.SetEffectAnalysisType(TQConst::EffectTypeIAndIII);
  s.SetEffectAnalysisStat(GZLConst_940::EffectStatLR);
  s.SetCIType(GZLConst_940::Profile);
  s.SetTolLogLikeTypeIandIII(1e-11);
  s.SetLConvergeTypeTypeIandIII(TQConst::ConvRelative);
  s.SetMaxIterationsPLCI(100);
  s.SetToleranceLogLikePLCI(1e-9);
  s.SetToleranceHessianPLCI(1e-9);
  s.SetMaxStepHalvingValue(20);
}

struct Fit {
  std::unique_ptr<ReferenceCase> c;
  std::unique_ptr<GZLAlgorithm> algorithm;
  const GZLOutputStats* stats = nullptr;
  TQStatus status;
};

std::unique_ptr<Fit> FitCase(std::unique_ptr<ReferenceCase> c) {
  auto f = std::make_unique<Fit>();
  f->c = std::move(c);
  f->algorithm = std::make_unique<GZLAlgorithm>(f->c->settings);
  f->status = f->algorithm->BuildModel(*f->c->source);
  if (!f->status.IsError()) f->algorithm->GetOutputStats(f->stats);
  return f;
}

void ExpectLRTests(const nlohmann::json& expected, const std::vector<std::vector<double>>& got,
                   const std::vector<TQStatus>& statuses, const std::string& what) {
  ASSERT_EQ(got.size(), expected.size()) << what;
  ASSERT_EQ(statuses.size(), expected.size()) << what;
  for (std::size_t i = 0; i < got.size(); ++i) {
    const auto& e = expected[i];
    const std::vector<double>& v = got[i];
    SCOPED_TRACE(what + " " + e["term"].get<std::string>());
    ASSERT_EQ(v.size(), 7u);
    if (e["chisq"].is_null()) {
      // No hypothesis: its own error status and no statistic at all.
      EXPECT_EQ(statuses[i].GetErrorCode(), GZLStatusCode::LMatrixNotExist);
      for (double x : v) EXPECT_TRUE(TQMV::IsMissing(x));
      continue;
    }
    EXPECT_FALSE(statuses[i].IsError()) << statuses[i].GetErrorCode();
    ExpectClose(e["chisq"], v[0], "chi-square");
    EXPECT_EQ(v[1], e["df"].get<double>());
    ExpectClose(e["sig"], v[2], "significance");
    ExpectClose(e["f"], v[3], "F");
    ExpectClose(e["df2"], v[4], "df2");
    ExpectClose(e["f_sig"], v[5], "F significance");
    ExpectClose(e["deviance"], v[6], "deviance");
  }
}

}  // namespace

TEST(LRTests, ReferenceFigures) {
  std::vector<std::string> files;
  for (const auto& e : std::filesystem::directory_iterator(output_test::RefDir() + "/effects"))
    files.push_back(e.path().string());
  std::sort(files.begin(), files.end());
  int checked = 0;
  for (const std::string& file : files) {
    auto c = LoadCase(file);
    AskForRefits(c->settings);
    auto f = FitCase(std::move(c));
    SCOPED_TRACE(f->c->name);
    ASSERT_TRUE(f->c->ok) << f->c->problem;
    ASSERT_NE(f->stats, nullptr) << f->status.GetErrorCode();
    const GZLOutputStats& st = *f->stats;
    const auto& e = f->c->expected;
    ExpectLRTests(e["lr_type1"], st.GetTypeILRStats(), st.GetTypeILRStatusEff(), "type I");
    ExpectLRTests(e["lr_type3"], st.GetTypeIIILRStats(), st.GetTypeIIILRStatusEff(), "type III");
    EXPECT_TRUE(st.GetTypeIIILRStatus().IsOK());

    // Profile intervals in place of the Wald limits.
    EXPECT_TRUE(st.GetPLCIStatus().IsOK()) << st.GetPLCIStatus().GetErrorCode();
    const auto& rows = st.GetParamStats();
    const auto& ci = e["profile_ci"];
    ASSERT_GE(rows.size(), ci.size());
    for (std::size_t j = 0; j < ci.size(); ++j) {
      SCOPED_TRACE("profile " + ci[j]["term"].get<std::string>());
      EXPECT_EQ(rows[j].IsRedundant(), ci[j]["redundant"].get<bool>());
      ExpectClose(ci[j]["lower"], rows[j].GetLowerBound(), "lower");
      ExpectClose(ci[j]["upper"], rows[j].GetUpperBound(), "upper");
    }
    const std::size_t p = ci.size();
    if (!e["profile_ci_scale"].is_null()) {
      ExpectClose(e["profile_ci_scale"]["lower"], rows[p].GetLowerBound(), "scale lower");
      ExpectClose(e["profile_ci_scale"]["upper"], rows[p].GetUpperBound(), "scale upper");
    }
    if (!e["profile_ci_k"].is_null()) {
      ExpectClose(e["profile_ci_k"]["lower"], rows[p + 1].GetLowerBound(), "k lower");
      ExpectClose(e["profile_ci_k"]["upper"], rows[p + 1].GetUpperBound(), "k upper");
    }

    // Lagrange multiplier tests.
    const auto& lm = e["lm_tests"];
    if (lm.is_array() && lm.empty()) {
      EXPECT_TRUE(TQMV::IsMissing(st.GetLagrangeMultDist()));
      EXPECT_TRUE(TQMV::IsMissing(st.GetLagrangeMultDF()));
    } else if (lm.is_array()) {
      ExpectClose(lm[0]["statistic"], st.GetLagrangeMultDist(), "LM statistic");
      ExpectClose(lm[0]["sig"], st.GetLagrangeMultSig(), "LM significance");
      EXPECT_EQ(st.GetLagrangeMultDF(), 1.0);
      ExpectClose(lm[0]["sig_greater"], st.GetLagrangeSigGreaterZero(), "LM greater");
      ExpectClose(lm[0]["sig_less"], st.GetLagrangeSigLessZero(), "LM less");
      ExpectClose(lm[0]["sig_nondirectional"], st.GetLagrangeSigNonDir(), "LM non-directional");
    }
    ++checked;
  }
  EXPECT_EQ(checked, 10);
}
