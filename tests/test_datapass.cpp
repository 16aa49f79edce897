// The dictionary pass of the GZLM driver: parameter lists of the reference models, statuses,
// record progress, cancellation, multinomial response categories.
#include <gtest/gtest.h>

#include <cfloat>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "GZLConst_940.h"
#include "GZLFactory.h"
#include "GZLMemorySource.h"
#include "data/GZLAlgorithm.h"
#include "datapass_helpers.h"

using namespace datapass_test;
namespace S = GZLStatusCode;

namespace {

std::vector<std::string> ReferenceFiles() {
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(RefDir() + "/expected"))
    if (entry.path().extension() == ".json") files.push_back(entry.path().filename().string());
  std::sort(files.begin(), files.end());
  return files;
}

// A normal model on field 0 with one factor (field 1, `size` categories) as its only effect and
// one covariate (field 2) as a second effect.
struct SmallModel {
  std::vector<int> vars{1, 2};
  GZLSettings s;
  explicit SmallModel(int size = 3, bool covariate = true) {
    s.SetDependent(0);
    s.SetInterceptUse(true);
    s.AddFactor(1, size);
    if (covariate) s.AddCovariate(2);
    GZLModelEffect a(1, covariate ? 1 : 0, &vars);
    a.AddNewFactor(1, false);
    s.AddModelEffect(a);
    if (covariate) {
      GZLModelEffect x(1, 1, &vars);
      x.AddCovariate(2);
      s.AddModelEffect(x);
    }
  }
};

}  // namespace

// Every reference model: the parameter list of the dictionary pass matches the reference
// design columns in order, effect and factor categories; the complete-case weight total
// matches the reference number of records (frequency weights counted).
TEST(DataPass, ReferenceParameterLists) {
  const std::vector<std::string> files = ReferenceFiles();
  ASSERT_GE(files.size(), 21u);
  for (const std::string& file : files) {
    SCOPED_TRACE(file);
    ReferenceModel model(file);
    ASSERT_TRUE(model.ok);
    ASSERT_TRUE(model.settings.IsValid());
    std::unique_ptr<IGZLAlgorithm> algorithm(GZLFactory::CreateAlgorithm(model.settings, false));
    ASSERT_NE(algorithm, nullptr);
    GZLMemorySource source = model.Source();
    const TQStatus status = algorithm->InitializeModel(source);
    ASSERT_TRUE(status.IsOK()) << status.GetErrorCode();
    ASSERT_TRUE(algorithm->IsModelInitialized());

    const auto& expected = model.spec["expected"]["parameters"];
    const std::vector<TQRegrParameter>& params = algorithm->GetRegrParameters();
    ASSERT_EQ(params.size(), expected.size());
    const auto& effects = model.spec["model"]["effects"];
    for (std::size_t i = 0; i < params.size(); ++i) {
      SCOPED_TRACE(expected[i]["term"].get<std::string>());
      const TQRegrParameter& p = params[i];
      const int effect = expected[i]["effect"].get<int>();
      EXPECT_EQ(p.GetTargetCategory(), -1);
      if (effect < 0) {
        EXPECT_TRUE(p.IsIntercept());
        continue;
      }
      EXPECT_EQ(p.GetEffectIndex(), effect);
      // Reference categories are listed in the effect's written factor order; the parameter
      // orders its factors by nesting level: compare factor by factor.
      const auto names = effects[static_cast<std::size_t>(effect)]["factors"].get<std::vector<std::string>>();
      const auto cats = expected[i]["categories"].get<std::vector<int>>();
      ASSERT_EQ(names.size(), cats.size());
      ASSERT_EQ(static_cast<std::size_t>(p.GetNFactors()), names.size());
      for (std::size_t f = 0; f < names.size(); ++f)
        EXPECT_EQ(p.ContainsFactor(model.table.Column(names[f])), cats[f]) << names[f];
      std::map<int, int> covs;
      for (const auto& c : effects[static_cast<std::size_t>(effect)]["covariates"].get<std::vector<std::string>>())
        ++covs[model.table.Column(c)];
      EXPECT_EQ(static_cast<std::size_t>(p.GetNCovariates()), covs.size());
      for (const auto& [var, mult] : covs) EXPECT_EQ(p.GetCovariateMult(var), mult);
    }

    // Effect information agrees with the parameters.
    const auto* design = static_cast<GZLAlgorithm*>(algorithm.get())->GetDesignMatrix();
    ASSERT_NE(design, nullptr);
    EXPECT_EQ(design->GetNumOfParams(), static_cast<int>(params.size()));
    int column = model.settings.GetInterceptUse() ? 1 : 0;
    for (const GZLEffectInfo& info : algorithm->GetEffectInfo()) {
      EXPECT_EQ(info.fStart, column);
      column += info.fNValues;
    }
    EXPECT_EQ(column, static_cast<int>(params.size()));
    EXPECT_DOUBLE_EQ(design->GetSumFreqWeights(), model.spec["expected"]["n_records"].get<double>());
    EXPECT_TRUE(algorithm->GetDependCategories().empty());
  }
}

// The nested effect tension(wool): wool is the outer factor, so the columns run over tension
// within wool, and the effect information carries the combinations in the parameter's factor
// order (wool first).
TEST(DataPass, NestedEffectInformation) {
  ReferenceModel model("warpbreaks_poisson_nested.json");
  GZLAlgorithm algorithm(model.settings);
  GZLMemorySource source = model.Source();
  ASSERT_TRUE(algorithm.InitializeModel(source).IsOK());
  const std::vector<GZLEffectInfo>& info = algorithm.GetEffectInfo();
  ASSERT_EQ(info.size(), 2u);
  EXPECT_EQ(info[1].fIndex, 1);
  EXPECT_EQ(info[1].fStart, 3);
  EXPECT_EQ(info[1].fNValues, 6);
  const std::vector<std::vector<int>> expected{{0, 0}, {0, 1}, {0, 2}, {1, 0}, {1, 1}, {1, 2}};
  EXPECT_EQ(info[1].fCombinations, expected);
  const int wool = model.table.Column("wool");
  EXPECT_EQ(algorithm.GetRegrParameters()[3].GetFactors().front(), wool);
}

TEST(DataPass, Statuses) {
  // Empty source: NoValidRecords from both operations.
  {
    SmallModel m;
    GZLAlgorithm a(m.s);
    GZLMemorySource empty;
    EXPECT_EQ(a.InitializeModel(empty).GetErrorCode(), S::NoValidRecords);
    EXPECT_EQ(a.BuildModel(empty).GetErrorCode(), S::NoValidRecords);
    EXPECT_FALSE(a.IsModelInitialized());
  }
  // First record with no more fields than the largest index used (2): NoValidRecords.
  {
    SmallModel m;
    GZLAlgorithm a(m.s);
    GZLMemorySource src({{1.0, 0.0}, {1.0, 0.0, 3.0}});
    EXPECT_EQ(a.InitializeModel(src).GetErrorCode(), S::NoValidRecords);
    EXPECT_FALSE(a.IsModelInitialized());
  }
  // All records invalid: NoValidRecords; an invalid record in the middle does not show.
  {
    SmallModel m;
    GZLAlgorithm a(m.s);
    GZLMemorySource bad({{1.0, 5.0, 1.0}, {1.0, 7.0, 1.0}});
    EXPECT_EQ(a.InitializeModel(bad).GetErrorCode(), S::NoValidRecords);
    GZLMemorySource middle({{1.0, 0.0, 1.0}, {1.0, 9.0, 1.0}, {2.0, 1.0, 2.0}});
    const TQStatus st = a.InitializeModel(middle);
    EXPECT_TRUE(st.IsOK());
    EXPECT_TRUE(a.IsModelInitialized());
    EXPECT_EQ(a.GetDesignMatrix()->GetNumRecords(), 3);
    EXPECT_EQ(a.GetDesignMatrix()->GetNumCompleteRecords(), 2);
  }
  // A last invalid record: the warning InvalidRecords, and the model is initialised.
  {
    SmallModel m;
    GZLAlgorithm a(m.s);
    GZLMemorySource src({{1.0, 0.0, 1.0}, {2.0, 1.0, 2.0}, {3.0, 1.0, TQMV::Missing}});
    const TQStatus st = a.InitializeModel(src);
    EXPECT_TRUE(st.IsWarning());
    EXPECT_EQ(st.GetErrorCode(), S::InvalidRecords);
    EXPECT_TRUE(a.IsModelInitialized());
    EXPECT_EQ(a.GetStatus(), st);
    EXPECT_EQ(a.GetRegrParameters().size(), 4u);  // intercept, 2 observed categories, covariate
  }
  // Covariate values whose squared deviations overflow: InvalidRecordsOverflow.
  {
    SmallModel m;
    GZLAlgorithm a(m.s);
    GZLMemorySource src({{1.0, 0.0, 1e300}, {2.0, 1.0, -1e300}, {2.0, 1.0, 1e300}});
    const TQStatus st = a.InitializeModel(src);
    EXPECT_TRUE(st.IsError());
    EXPECT_EQ(st.GetErrorCode(), S::InvalidRecordsOverflow);
    EXPECT_FALSE(a.IsModelInitialized());
  }
  // A source that cannot rewind: the dictionary pass succeeds, the first later pass ends with
  // NewPass.
  {
    SmallModel m;
    GZLAlgorithm a(m.s);
    GZLMemorySource src({{1.0, 0.0, 1.0}, {2.0, 1.0, 2.0}}, false);
    EXPECT_TRUE(a.InitializeModel(src).IsOK());
    EXPECT_EQ(a.GetDesignMatrix()->BeginPass().GetErrorCode(), S::NewPass);
    EXPECT_EQ(a.GetDesignMatrix()->GetNextRow(), nullptr);
    src.SetCanRewind(true);
    EXPECT_TRUE(a.GetDesignMatrix()->BeginPass().IsOK());
    EXPECT_NE(a.GetDesignMatrix()->GetNextRow(), nullptr);
  }
  // Cancellation on the first question: status 1, not initialised, no record read.
  {
    SmallModel m;
    CountingCancel cancel(1);
    m.s.SetCancelPointer(&cancel);
    GZLAlgorithm a(m.s);
    GZLMemorySource src({{1.0, 0.0, 1.0}, {2.0, 1.0, 2.0}});
    const TQStatus st = a.InitializeModel(src);
    EXPECT_EQ(st.GetErrorCode(), S::Cancelled);
    EXPECT_TRUE(st.IsError());
    EXPECT_FALSE(a.IsModelInitialized());
    EXPECT_EQ(a.GetDesignMatrix()->GetNumRecords(), 0);
  }
  // Cancellation after the second record: the pass stops there.
  {
    SmallModel m;
    CountingCancel cancel(3);
    m.s.SetCancelPointer(&cancel);
    GZLAlgorithm a(m.s);
    GZLMemorySource src({{1.0, 0.0, 1.0}, {2.0, 1.0, 2.0}, {3.0, 1.0, 2.0}, {4.0, 1.0, 2.0}});
    EXPECT_EQ(a.InitializeModel(src).GetErrorCode(), S::Cancelled);
    EXPECT_EQ(a.GetDesignMatrix()->GetNumRecords(), 2);
    EXPECT_FALSE(a.IsModelInitialized());
  }
  // Results before a fit: ModelNotBuilt, pointer untouched, stored status changed.
  {
    SmallModel m;
    GZLAlgorithm a(m.s);
    GZLMemorySource src({{1.0, 0.0, 1.0}, {2.0, 1.0, 2.0}});
    ASSERT_TRUE(a.InitializeModel(src).IsOK());
    const GZLOutputStats* out = reinterpret_cast<const GZLOutputStats*>(&a);
    EXPECT_EQ(a.GetOutputStats(out).GetErrorCode(), S::ModelNotBuilt);
    EXPECT_EQ(out, reinterpret_cast<const GZLOutputStats*>(&a));
    EXPECT_EQ(a.GetStatus().GetErrorCode(), S::ModelNotBuilt);
    EXPECT_FALSE(a.IsModelBuilt());
  }
}

TEST(DataPass, FactoryAndSettingsChecks) {
  GZLSettings invalid;  // no dependent
  EXPECT_EQ(GZLFactory::CreateAlgorithm(invalid, false), nullptr);
  GZLAlgorithm direct(invalid);
  EXPECT_EQ(direct.GetStatus().GetErrorCode(), S::InvalidSettings);

  SmallModel m;
  std::unique_ptr<IGZLAlgorithm> a(GZLFactory::CreateAlgorithm(m.s, true));
  ASSERT_NE(a, nullptr);
  EXPECT_TRUE(a->GetStatus().IsOK());
  EXPECT_EQ(a->GetSettings(), &m.s);
  EXPECT_EQ(a->GetWSCombinations(), nullptr);
  EXPECT_FALSE(a->GetComponentInfo().empty());

  // The inner GZLM of a GEE model.
  GZLSettings gee;
  gee.SetMaxIterations(0);
  EXPECT_FALSE(GZLFactory::NeedsInnerGZLM(gee, false));
  EXPECT_FALSE(GZLFactory::NeedsInnerGZLM(gee, true));  // no likelihood-ratio tests
  gee.SetEffectAnalysisStat(GZLConst_940::EffectStatLR);
  gee.SetEffectAnalysisType(TQConst::EffectTypeIII);
  EXPECT_TRUE(GZLFactory::NeedsInnerGZLM(gee, true));
  EXPECT_FALSE(GZLFactory::NeedsInnerGZLM(gee, false));
  gee.SetInitParams({0.0});
  EXPECT_TRUE(GZLFactory::NeedsInnerGZLM(gee, false));
  gee.SetEffectAnalysisType(TQConst::EffectNone);
  EXPECT_FALSE(GZLFactory::NeedsInnerGZLM(gee, true));
  gee.SetMaxIterations(5);
  EXPECT_TRUE(GZLFactory::NeedsInnerGZLM(gee, false));
}

TEST(DataPass, WarningListRule) {
  std::vector<TQStatus> list;
  GZLAlgorithm::AddWarning(list, TQStatus::Warning(S::InvalidRecords));
  GZLAlgorithm::AddWarning(list, TQStatus::Warning(S::InvalidRecords));
  GZLAlgorithm::AddWarning(list, TQStatus::Error(S::CantBuildModel));
  GZLAlgorithm::AddWarning(list, TQStatus());
  GZLAlgorithm::AddWarning(list, TQStatus::Warning(S::InvalidRecordsForLinkFunction));
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0].GetErrorCode(), S::InvalidRecords);
  EXPECT_EQ(list[1].GetErrorCode(), S::InvalidRecordsForLinkFunction);
}

// 10 complete records, a report every 3: after records 3, 6 and 9, with the complete-record
// count. Invalid records count down too but do not raise the reported count.
TEST(DataPass, RecordProgress) {
  {
    SmallModel m;
    RecordingListener listener;
    m.s.SetRecProgressListener(&listener);
    ASSERT_TRUE(m.s.SetNSkippedReports(3));
    GZLAlgorithm a(m.s);
    GZLMemorySource src;
    for (int i = 0; i < 10; ++i) src.AddRow({double(i), double(i % 3), double(i)});
    ASSERT_TRUE(a.InitializeModel(src).IsOK());
    EXPECT_EQ(listener.records, (std::vector<int>{3, 6, 9}));
  }
  {
    SmallModel m;
    RecordingListener listener;
    m.s.SetRecProgressListener(&listener);
    ASSERT_TRUE(m.s.SetNSkippedReports(0));
    GZLAlgorithm a(m.s);
    GZLMemorySource src({{1.0, 0.0, 1.0}, {1.0, 8.0, 1.0}, {2.0, 1.0, 2.0}});
    ASSERT_TRUE(a.InitializeModel(src).IsOK());
    EXPECT_EQ(listener.records, (std::vector<int>{1, 1, 2}));
  }
}

TEST(DataPass, ReporterMeasures) {
  GZLReporter r;
  EXPECT_EQ(r.DiscreteMeasure("goodCase"), 1);
  EXPECT_EQ(r.DiscreteMeasure("iterNum"), -1);
  EXPECT_EQ(r.DiscreteMeasure("stepHalving"), -1);
  EXPECT_EQ(r.DiscreteMeasure("upperBoundary"), 1);
  EXPECT_EQ(r.DiscreteMeasure("paramIndex"), -1);
  EXPECT_EQ(r.DiscreteMeasure("Records"), -1);
  EXPECT_TRUE(TQMV::IsMissing(r.ScaleMeasure("loglike")));
  EXPECT_TRUE(TQMV::IsMissing(r.ScaleMeasure("Scale")));
  EXPECT_EQ(r.ScaleMeasure("elapsedTime"), 0.0);
  EXPECT_EQ(r.VectorMeasure("paramEstim"), nullptr);

  r.SetStartTime(1000.0);
  r.SetValues("iterNum", 5, 3500.0);
  EXPECT_EQ(r.DiscreteMeasure("iterNum"), -1);
  EXPECT_EQ(r.DiscreteMeasure("records"), 0);
  EXPECT_DOUBLE_EQ(r.ScaleMeasure("elapsedTime"), 2.5);
  r.SetValues("records", 42, 4000.0);
  EXPECT_EQ(r.DiscreteMeasure("records"), 42);

  const std::vector<double> beta{1.0, 2.0};
  r.SetInfo(&beta, 1.5, 0.5, 7, 2, -12.5, 5000.0, 3, 1);
  EXPECT_EQ(r.VectorMeasure("paramEstim"), &beta);
  EXPECT_EQ(r.VectorMeasure("paramestim"), nullptr);
  EXPECT_EQ(r.DiscreteMeasure("iterNum"), 7);
  EXPECT_EQ(r.DiscreteMeasure("stepHalving"), 2);
  EXPECT_EQ(r.DiscreteMeasure("badCases"), 3);
  EXPECT_DOUBLE_EQ(r.ScaleMeasure("loglike"), -12.5);
  EXPECT_DOUBLE_EQ(r.ScaleMeasure("scale"), 1.5);
  EXPECT_DOUBLE_EQ(r.ScaleMeasure("distParameter"), 0.5);
  r.SetInfo(&beta, 1.0, 0.0, 8, 6000.0, 0, 0);
  EXPECT_EQ(r.DiscreteMeasure("stepHalving"), 0);
  EXPECT_TRUE(TQMV::IsMissing(r.ScaleMeasure("loglike")));
  EXPECT_EQ(r.DiscreteMeasure("goodCase"), 0);
  r.SetInfo(&beta, 1.0, 0.0, 9, 4, -3.0, 7000.0, 0, 1, 0);
  EXPECT_EQ(r.DiscreteMeasure("paramIndex"), 4);
  EXPECT_EQ(r.DiscreteMeasure("upperBoundary"), 0);
  EXPECT_EQ(r.DiscreteMeasure("stepHalving"), 0);
  r.Reset();
  EXPECT_EQ(r.DiscreteMeasure("paramIndex"), -1);
  EXPECT_EQ(r.VectorMeasure("paramEstim"), nullptr);
}

namespace {

// A multinomial model: response field 0 with k categories, one covariate field 1.
struct MultinomialModel {
  std::vector<int> vars{1};
  GZLSettings s;
  MultinomialModel(TQConst::DistType dist, int k, int ref) {
    s.SetDistType(dist);
    if (dist == TQConst::DistOrdinalMultinomial) s.SetLinkType(TQConst::LinkCumLogit);
    s.SetScaleType(GZLConst_940::ScaleFixed);
    s.SetDependent(0);
    s.SetDependentSize(k);
    s.SetDependentRefCateg(ref);
    s.SetInterceptUse(true);
    s.AddCovariate(1);
    GZLModelEffect x(0, 1, &vars);
    x.AddCovariate(1);
    s.AddModelEffect(x);
  }
};

GZLMemorySource Responses(const std::vector<double>& ys) {
  GZLMemorySource src;
  for (std::size_t i = 0; i < ys.size(); ++i) src.AddRow({ys[i], double(i)});
  return src;
}

}  // namespace

TEST(DataPass, OrdinalThresholds) {
  {
    MultinomialModel m(TQConst::DistOrdinalMultinomial, 4, 0);
    ASSERT_TRUE(m.s.IsValid());
    GZLAlgorithm a(m.s);
    GZLMemorySource src = Responses({0, 1, 2, 3, 3, 1});
    ASSERT_TRUE(a.InitializeModel(src).IsOK());
    const auto& p = a.GetRegrParameters();
    ASSERT_EQ(p.size(), 4u);  // three thresholds and the covariate
    for (int t = 0; t < 3; ++t) {
      EXPECT_TRUE(p[static_cast<std::size_t>(t)].IsIntercept());
      EXPECT_EQ(p[static_cast<std::size_t>(t)].GetTargetCategory(), t);
    }
    EXPECT_EQ(p[3].GetTargetCategory(), -1);
    EXPECT_EQ(p[3].GetCovariateMult(1), 1);
    EXPECT_EQ(a.GetDependCategories(), (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(a.GetDesignMatrix()->GetNumOfParams(), 4);
    EXPECT_EQ(a.GetDesignMatrix()->GetRowSize(), 1);
    EXPECT_EQ(a.GetEffectInfo()[0].fStart, 0);
  }
  {
    // Category 1 never occurs: it gets no threshold; 3 observed categories, 2 thresholds.
    MultinomialModel m(TQConst::DistOrdinalMultinomial, 4, 0);
    GZLAlgorithm a(m.s);
    GZLMemorySource src = Responses({0, 2, 3, 3});
    ASSERT_TRUE(a.InitializeModel(src).IsOK());
    const auto& p = a.GetRegrParameters();
    ASSERT_EQ(p.size(), 3u);
    EXPECT_EQ(p[0].GetTargetCategory(), 0);
    EXPECT_EQ(p[1].GetTargetCategory(), 2);
    EXPECT_EQ(a.GetDependCategories(), (std::vector<int>{0, 2, 3}));
  }
}

TEST(DataPass, NominalBlocksAndReference) {
  auto targets = [](const IGZLAlgorithm& a) {
    std::vector<int> t;
    for (const auto& p : a.GetRegrParameters()) t.push_back(p.GetTargetCategory());
    return t;
  };
  {
    // Every category observed, reference 1: list {0, 2, 1}; blocks for 0 and 2.
    MultinomialModel m(TQConst::DistNominalMultinomial, 3, 1);
    GZLAlgorithm a(m.s);
    GZLMemorySource src = Responses({0, 1, 2, 2, 1});
    ASSERT_TRUE(a.InitializeModel(src).IsOK());
    EXPECT_EQ(a.GetDependCategories(), (std::vector<int>{0, 2, 1}));
    EXPECT_EQ(targets(a), (std::vector<int>{0, 0, 2, 2}));
    EXPECT_TRUE(a.GetRegrParameters()[2].IsIntercept());
    EXPECT_EQ(a.GetNominalTemplateSize(), 2);
    EXPECT_EQ(a.GetResponsePositions(), (std::vector<int>{0, 2, 1}));
    EXPECT_EQ(a.GetResponseWeightedCounts(), (std::vector<double>{1.0, 2.0, 2.0}));
    EXPECT_EQ(a.GetDesignMatrix()->GetNumOfParamsNominal(), 4);
  }
  {
    // Reference 3 never observed (positive setting): the last observed category, warning 319.
    MultinomialModel m(TQConst::DistNominalMultinomial, 4, 3);
    GZLAlgorithm a(m.s);
    GZLMemorySource src = Responses({0, 1, 2, 2});
    const TQStatus st = a.InitializeModel(src);
    EXPECT_TRUE(st.IsWarning());
    EXPECT_EQ(st.GetErrorCode(), 319);
    EXPECT_TRUE(a.IsModelInitialized());
    EXPECT_EQ(a.GetDependCategories(), (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(a.GetResponsePositions(), (std::vector<int>{0, 1, 2, -1}));
    // K = 4 declared: blocks for entries 1 and 2 of the list; the last goes to the reference.
    EXPECT_EQ(targets(a), (std::vector<int>{0, 0, 1, 1, 2, 2}));
  }
  {
    // Reference -1 with category 0 unobserved... no: -1 is never observed, the first kept
    // category becomes the reference, without a warning.
    MultinomialModel m(TQConst::DistNominalMultinomial, 3, -1);
    GZLAlgorithm a(m.s);
    GZLMemorySource src = Responses({0, 1, 2});
    EXPECT_TRUE(a.InitializeModel(src).IsOK());
    EXPECT_EQ(a.GetDependCategories(), (std::vector<int>{1, 2, 0}));
  }
  {
    // Reference 0 unobserved: the last kept category, no warning (the setting is not positive).
    MultinomialModel m(TQConst::DistNominalMultinomial, 3, 0);
    GZLAlgorithm a(m.s);
    GZLMemorySource src = Responses({1, 2, 2});
    EXPECT_TRUE(a.InitializeModel(src).IsOK());
    EXPECT_EQ(a.GetDependCategories(), (std::vector<int>{1, 2}));
  }
  {
    // Two unobserved categories of five: the block loop stops at the end of the list.
    MultinomialModel m(TQConst::DistNominalMultinomial, 5, 0);
    GZLAlgorithm a(m.s);
    GZLMemorySource src = Responses({0, 2, 4});
    EXPECT_TRUE(a.InitializeModel(src).IsOK());
    EXPECT_EQ(a.GetDependCategories(), (std::vector<int>{2, 4, 0}));
    EXPECT_EQ(targets(a), (std::vector<int>{2, 2, 4, 4, 0, 0}));
  }
  {
    // One observed category: error 318.
    MultinomialModel m(TQConst::DistNominalMultinomial, 3, 0);
    GZLAlgorithm a(m.s);
    GZLMemorySource src = Responses({1, 1});
    const TQStatus st = a.InitializeModel(src);
    EXPECT_TRUE(st.IsError());
    EXPECT_EQ(st.GetErrorCode(), 318);
    EXPECT_FALSE(a.IsModelInitialized());
  }
}

// Reinitialising replaces the design matrix and every list; BuildModel initialises by itself.
TEST(DataPass, ReinitialiseAndBuild) {
  SmallModel m;
  GZLAlgorithm a(m.s);
  GZLMemorySource first({{1.0, 0.0, 1.0}, {2.0, 1.0, 2.0}, {2.0, 2.0, 2.0}});
  ASSERT_TRUE(a.InitializeModel(first).IsOK());
  EXPECT_EQ(a.GetRegrParameters().size(), 5u);
  GZLMemorySource second({{1.0, 0.0, 1.0}, {2.0, 2.0, 2.0}});
  ASSERT_TRUE(a.InitializeModel(second).IsOK());
  EXPECT_EQ(a.GetRegrParameters().size(), 4u);
  EXPECT_EQ(a.GetEffectInfo().size(), 2u);
  EXPECT_EQ(a.GetFactorCounts().GetNActiveCategories(0), 2);

  GZLAlgorithm b(m.s);
  GZLMemorySource src({{1.0, 0.0, 1.0}, {2.0, 1.0, 2.0}});
  const TQStatus st = b.BuildModel(src);
  EXPECT_TRUE(b.IsModelInitialized());
  // The fit itself makes further passes over the same source after the dictionary pass.
  EXPECT_FALSE(st.IsError());
  EXPECT_GE(src.GetRewindCount(), 2);
}
