// GEE models: the reference fits (estimates, robust and model-based standard errors, working
// correlation, scale, quasi-likelihood, QIC, QICu, subject counts), the subject-counting rules,
// the statuses of the setup pass, the initial values and the working correlation, and
// cancellation.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "GZLFactory.h"
#include "GZLMemorySource.h"
#include "GZLOutputStats.h"
#include "GZLProgress.h"
#include "GZLSettings.h"
#include "gee/GEEAlgorithm.h"
#include "gee/GEEOptimizer.h"
#include "gee/GEEQuasiLikelihood.h"
#include "gee/GEEWorkCorrelation.h"
#include "inference/GZLInference.h"
#include "output_reference_models.h"

using output_test::LoadCase;
using output_test::ReferenceCase;

namespace {

std::string GeeDir() { return output_test::RefDir() + "/gee"; }

// The GEE part of a reference model on top of the generalized linear model's settings.
void ApplyGeeKeys(ReferenceCase& c) {
  const nlohmann::json& m = c.model;
  GZLSettings& s = c.settings;
  auto& src = *c.source;
  s.SetGZLModelType(GZLConst_940::GEE);
  s.SetModelFittingTest(false);
  for (const auto& v : m["subjects"]) ASSERT_TRUE(s.AddGEESubjectVar(src.Column(v), src.Levels(src.Column(v))));
  for (const auto& v : m.value("within", nlohmann::json::array()))
    ASSERT_TRUE(s.AddGEEWSVar(src.Column(v), src.Levels(src.Column(v))));
  static const std::map<std::string, GZLConst_940::CorrType> corr{
      {"independent", GZLConst_940::Independent}, {"exchangeable", GZLConst_940::Exchangeable},
      {"ar1", GZLConst_940::AR1},                 {"mdep", GZLConst_940::MDependent},
      {"unstructured", GZLConst_940::Unstructured}, {"fixed", GZLConst_940::FixedCorr}};
  s.SetGEECorrType(corr.at(m["corr_type"]));
  if (m.contains("corr_m")) s.SetGEEMDependentPar(m["corr_m"].get<double>());
  if (m.contains("corr_matrix")) s.SetWorkCorrMatrix(m["corr_matrix"].get<std::vector<double>>());
  const auto covb = m.value("covb", std::string("robust")) == "robust" ? TQConst::CovbRobust : TQConst::CovbModelBased;
  s.SetCovbType(covb);
  s.SetGEECovbType(covb);
  s.SetAdjustCorr(m.value("adjust_corr", true));
  ASSERT_TRUE(s.SetUpdateCorr(m.value("update_corr", 1)));
  ASSERT_TRUE(s.SetGEEMaxIterations(m.value("gee_max_iter", 100)));
  ASSERT_TRUE(s.SetGEEPConverge(m.value("gee_pconverge", 1e-10)));
  s.SetGEEPConvergeType(TQConst::ConvAbsolute);
  ASSERT_TRUE(s.IsValid());
}

void ExpectRel(double expected, double actual, const std::string& what) {
  ASSERT_FALSE(TQMV::IsMissing(actual)) << what;
  const double tol = std::fabs(expected) < 1e-3 ? 1e-8 : 1e-6 * std::fabs(expected);
  EXPECT_LE(std::fabs(actual - expected), tol) << what << ": engine " << actual << ", reference " << expected;
}

struct Fit {
  std::unique_ptr<IGZLAlgorithm> algorithm;
  TQStatus status;
  const GZLOutputStats* stats = nullptr;
};

Fit RunFit(const GZLSettings& settings, IGZLRecordSource& source) {
  Fit f;
  f.algorithm.reset(GZLFactory::CreateAlgorithm(settings, false));
  if (!f.algorithm) return f;
  f.status = f.algorithm->BuildModel(source);
  if (f.algorithm->IsModelBuilt()) f.algorithm->GetOutputStats(f.stats);
  return f;
}

// Settings of a small normal model: response 0, subject 1, within-subject 2, covariate 3.
GZLSettings SmallModel(GZLConst_940::CorrType corr, bool sorted = false, bool within = true) {
  GZLSettings s;
  s.SetGZLModelType(GZLConst_940::GEE);
  s.SetDistType(TQConst::DistNormal);
  s.SetLinkType(TQConst::LinkIdentity);
  s.SetScaleType(GZLConst_940::ScaleMLE);
  s.SetDependent(0);
  s.AddCovariate(3);
  GZLModelEffect effect(0, 1, &s.GetCovariates());
  effect.AddCovariate(3);
  s.AddModelEffect(effect);
  s.AddGEESubjectVar(1, 50);
  if (within) s.AddGEEWSVar(2, 10);
  s.SetGEECorrType(corr);
  s.SetGEESortBySubjectWS(sorted);
  return s;
}

// Records y, subject, time, x for `subjects` subjects of `times` occasions.
std::vector<std::vector<double>> SmallData(int subjects, int times) {
  std::vector<std::vector<double>> rows;
  for (int i = 0; i < subjects; ++i)
    for (int t = 0; t < times; ++t) {
      const double x = std::sin(1.7 * i + 0.9 * t);
      const double b = std::cos(2.3 * i);  // subject effect: correlated residuals
      rows.push_back({1.0 + 0.5 * x + b + 0.3 * std::sin(5.1 * i * t + t), double(i), double(t), x});
    }
  return rows;
}

class CancelAfter : public TQQueryCancel {
 public:
  explicit CancelAfter(int n) : fLeft(n) {}
  bool IsCancelled() override { return --fLeft < 0; }

 private:
  int fLeft;
};

}  // namespace

TEST(GEE, ReferenceFits) {
  std::vector<std::string> files;
  for (const auto& e : std::filesystem::directory_iterator(GeeDir() + "/expected")) files.push_back(e.path().string());
  std::sort(files.begin(), files.end());
  ASSERT_GE(files.size(), 8u);
  for (const std::string& file : files) {
    const bool ships = file.find("ships_gee") != std::string::npos;
    auto c = LoadCase(file, 1e-10, ships ? "" : GeeDir() + "/data");
    SCOPED_TRACE(c->name);
    ASSERT_TRUE(c->ok) << c->problem;
    ApplyGeeKeys(*c);
    Fit f = RunFit(c->settings, *c->source);
    ASSERT_TRUE(f.algorithm);
    ASSERT_FALSE(f.status.IsError()) << f.status.GetErrorCode();
    ASSERT_NE(f.stats, nullptr);
    const auto& e = ships ? c->expected["fit"] : c->expected;
    const auto* gee = dynamic_cast<const GEEAlgorithm*>(f.algorithm.get());
    ASSERT_NE(gee, nullptr);
    const GZLInference& inf = *gee->GetInference();
    const auto& rows = f.stats->GetParamStats();
    const auto& params = e["parameters"];
    ASSERT_GE(rows.size(), params.size());
    for (size_t j = 0; j < params.size(); ++j) {
      const auto& pj = params[j];
      SCOPED_TRACE("parameter " + pj["term"].get<std::string>());
      EXPECT_EQ(rows[j].IsRedundant(), pj["redundant"].get<bool>());
      if (pj["redundant"].get<bool>()) {
        EXPECT_EQ(rows[j].GetEstimate(), 0.0);
        EXPECT_TRUE(TQMV::IsMissing(rows[j].GetStdError()));
        continue;
      }
      ExpectRel(pj["estimate"], rows[j].GetEstimate(), "estimate");
      ExpectRel(pj["se"], rows[j].GetStdError(), "standard error of the chosen covariance");
      if (pj.contains("se_robust")) {
        ExpectRel(pj["se_robust"], std::sqrt((*inf.GetRobustCovarianceMatrix())(int(j), int(j))), "robust SE");
        ExpectRel(pj["se_model"], std::sqrt((*inf.GetModelBasedCovarianceMatrix())(int(j), int(j))), "model SE");
      }
    }
    ExpectRel(e["scale"], f.algorithm->GetOptimizer()->GetPhi(), "scale");
    EXPECT_EQ(f.stats->GetNumOfRecords(), e["n_records"].get<int>());
    EXPECT_EQ(gee->GetGEEOptimizer()->GetFinalRedunInfo().Count(), e["n_nonredundant"].get<int>());
    if (ships) continue;
    const auto& R = e["working_correlation"];
    const TQSymMatrix& r = f.stats->GetWorkCorrelationMatrix();
    ASSERT_EQ(r.GetNumRows(), e["corr_dim"].get<int>());
    EXPECT_EQ(f.stats->GetMaxGroupSize(), e["corr_dim"].get<int>());
    for (int i = 0; i < r.GetNumRows(); ++i)
      for (int k = 0; k < r.GetNumRows(); ++k) ExpectRel(R[i][k], r(i, k), "R");
    ExpectRel(e["quasi_loglik"], f.stats->GetQBetaIValue(), "Q");
    ExpectRel(e["qic_trace"], inf.GetQICTrace(), "QIC trace");
    ExpectRel(e["qic"], f.stats->GetQICValue(), "QIC");
    ExpectRel(e["qicu"], f.stats->GetQICUValue(), "QICu");
    EXPECT_EQ(f.stats->GetNumberOfSubjects(), e["n_subjects"].get<int>());
    EXPECT_EQ(f.stats->GetMinMeasurePerSubject(), e["min_subject_size"].get<int>());
    EXPECT_EQ(f.stats->GetMaxMeasurePerSubject(), e["max_subject_size"].get<int>());
    if (e.contains("iterations")) {
      EXPECT_EQ(f.algorithm->GetOptimizer()->GetIterationNumber(), e["iterations"].get<int>());
      EXPECT_EQ(f.algorithm->GetOptimizer()->IsConverged(), e["converged"].get<bool>());
      const auto& w = f.algorithm->GetBuildModelWarnings();
      EXPECT_NE(std::find(w.begin(), w.end(), TQStatus::Warning(GZLStatusCode::LoopIterLargeMaxIter)), w.end());
    }
  }
}
