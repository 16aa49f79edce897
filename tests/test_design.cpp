// Design rows, category dictionaries, record strategies, data statistics and counts.
#include <gtest/gtest.h>

#include <atomic>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <new>
#include <sstream>
#include <vector>

#include "GZLConst_940.h"
#include "GZLDataStats.h"
#include "GZLEventsCount.h"
#include "GZLFactorCounts.h"
#include "GZLMemorySource.h"
#include "GZLSettings.h"
#include "data/GZLAlgorithm.h"
#include "data/GZLDesignMatrix.h"
#include "data/GZLRecordStrategies.h"
#include "datapass_helpers.h"
#include "support/TQDisplay_940.h"

#include "alloc_counter.h"

namespace S = GZLStatusCode;

namespace {

Record Rec(const std::vector<double>& v) { return Record(v.data(), v.size()); }

// Runs the dictionary pass over rows; the design matrix keeps a pointer to the source.
struct Design {
  GZLMemorySource source;
  std::unique_ptr<GZLDesignMatrix> design;
  TQStatus status;
  Design(const GZLSettings& s, std::vector<std::vector<double>> rows) : source(std::move(rows)) {
    design = std::make_unique<GZLDesignMatrix>(s);
    design->RunDictionaryPass(status, source);
  }
  // Every row of a later pass (copies of the column values and the invalid flags).
  std::vector<std::vector<double>> Rows(std::vector<bool>* invalid = nullptr) {
    std::vector<std::vector<double>> out;
    if (!design->BeginPass().IsOK()) return out;
    while (GZLDesignRow* row = design->GetNextRow()) {
      out.push_back(row->fValues);
      if (invalid) invalid->push_back(row->fbInvalid);
    }
    return out;
  }
};

// Response field 0, factors and covariates as given, intercept on.
struct Model {
  std::vector<int> vars;
  GZLSettings s;
  int nf;
  int nc;
  Model(const std::vector<std::pair<int, int>>& factors, const std::vector<int>& covariates) {
    s.SetDependent(0);
    s.SetInterceptUse(true);
    for (auto [f, size] : factors) {
      s.AddFactor(f, size);
      vars.push_back(f);
    }
    for (int c : covariates) {
      s.AddCovariate(c);
      vars.push_back(c);
    }
    nf = static_cast<int>(factors.size());
    nc = static_cast<int>(covariates.size());
  }
  // Factors added in order (nested: each later one encloses the earlier ones), then covariates.
  void Effect(const std::vector<int>& factors, const std::vector<int>& covariates = {}, bool nested = false) {
    GZLModelEffect e(nf, nc, &vars);
    for (std::size_t i = 0; i < factors.size(); ++i) e.AddNewFactor(factors[i], nested && i > 0);
    for (int c : covariates) e.AddCovariate(c);
    s.AddModelEffect(e);
  }
};

}  // namespace

TEST(Design, ColumnsFromObservedCombinations) {
  // Main effect of a 3-category factor with only 0 and 2 observed: columns 0 then 2.
  {
    Model m({{1, 3}}, {});
    m.Effect({1});
    Design d(m.s, {{1.0, 2.0}, {2.0, 0.0}, {3.0, 2.0}});
    ASSERT_TRUE(d.status.IsOK());
    EXPECT_EQ(d.design->GetNumOfParams(), 3);
    EXPECT_EQ(d.design->GetEffect(0).GetCombinations(), (std::vector<std::vector<int>>{{0}, {2}}));
    EXPECT_EQ(d.Rows(), (std::vector<std::vector<double>>{{1, 0, 1}, {1, 1, 0}, {1, 0, 1}}));
  }
  // Interaction A*B with pairs (1,0), (0,1), (0,0): columns (0,0), (0,1), (1,0).
  {
    Model m({{1, 2}, {2, 2}}, {});
    m.Effect({1, 2});
    Design d(m.s, {{1.0, 1.0, 0.0}, {1.0, 0.0, 1.0}, {1.0, 0.0, 0.0}});
    EXPECT_EQ(d.design->GetEffect(0).GetCombinations(), (std::vector<std::vector<int>>{{0, 0}, {0, 1}, {1, 0}}));
    EXPECT_EQ(d.Rows(), (std::vector<std::vector<double>>{{1, 0, 0, 1}, {1, 0, 1, 0}, {1, 1, 0, 0}}));
  }
  // Intercept and two main effects of 2 and 3 observed categories: 6 parameters.
  {
    Model m({{1, 2}, {2, 3}}, {});
    m.Effect({1});
    m.Effect({2});
    Design d(m.s, {{1, 0, 0}, {1, 1, 1}, {1, 0, 2}});
    EXPECT_EQ(d.design->GetNumOfParams(), 6);
    EXPECT_EQ(d.design->GetEffect(1).GetStart(), 3);
    EXPECT_EQ(d.Rows().back(), (std::vector<double>{1, 1, 0, 0, 0, 1}));
  }
}

// A(B) with A before B in the model: B is the outer factor, so the key and the column order
// run over B first and A within B, and the parameters list B first.
TEST(Design, NestedEffectOrdersByOuterFactor) {
  Model m({{1, 2}, {2, 2}}, {});
  m.Effect({1, 2}, {}, true);  // A = field 1 nested within B = field 2
  GZLMemorySource src({{1, 0, 1}, {1, 1, 0}, {1, 0, 0}, {1, 1, 1}});
  GZLAlgorithm a(m.s);
  ASSERT_TRUE(a.InitializeModel(src).IsOK());
  const GZLDesignMatrixEffect& e = a.GetDesignMatrix()->GetEffect(0);
  EXPECT_EQ(e.GetDictionary().GetNLevels(), 2);
  EXPECT_EQ(e.GetDictionary().GetSortingOrder(), (std::vector<int>{1, 0}));
  EXPECT_EQ(e.GetDictionary().GetOriginalOrder(), (std::vector<int>{1, 0}));
  // Keys are (B, A).
  EXPECT_EQ(e.GetCombinations(), (std::vector<std::vector<int>>{{0, 0}, {0, 1}, {1, 0}, {1, 1}}));
  const auto& params = a.GetRegrParameters();
  ASSERT_EQ(params.size(), 5u);
  // Column 2 is B = 0, A = 1.
  EXPECT_EQ(params[2].GetFactors(), (std::vector<int>{2, 1}));
  EXPECT_EQ(params[2].ContainsFactor(2), 0);
  EXPECT_EQ(params[2].ContainsFactor(1), 1);
  // The record (A = 0, B = 1) lands in column 1 + 2 = 3.
  auto* design = a.GetDesignMatrix();
  ASSERT_TRUE(design->BeginPass().IsOK());
  GZLDesignRow* row = design->GetNextRow();
  ASSERT_NE(row, nullptr);
  EXPECT_EQ(row->fValues, (std::vector<double>{1, 0, 0, 1, 0}));
}

TEST(Design, CovariateProducts) {
  Model m({}, {1});
  m.Effect({}, {1, 1});  // x*x
  Design d(m.s, {{1.0, 3.0}, {1.0, -2.0}});
  ASSERT_TRUE(d.status.IsOK());
  EXPECT_EQ(d.Rows(), (std::vector<std::vector<double>>{{1, 9}, {1, 4}}));

  // x*x*x of 1e103 overflows (the statistics of x itself stay finite): missing product,
  // flagged row.
  Model cube({}, {1});
  cube.Effect({}, {1, 1, 1});
  Design dc(cube.s, {{1.0, 3.0}, {1.0, 1e103}, {1.0, -2.0}});
  ASSERT_TRUE(dc.status.IsOK());
  std::vector<bool> invalid;
  const auto rows = dc.Rows(&invalid);
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(rows[0], (std::vector<double>{1, 27}));
  EXPECT_EQ(invalid, (std::vector<bool>{false, true, false}));
  EXPECT_EQ(rows[2], (std::vector<double>{1, -8}));

  // A covariate whose squared deviations overflow stops the dictionary pass.
  Design over(m.s, {{1.0, 3.0}, {1.0, 1e200}, {1.0, -2.0}});
  EXPECT_EQ(over.status.GetErrorCode(), S::InvalidRecordsOverflow);

  // A factor-by-covariate effect puts x in the column of the record's category.
  Model fx({{1, 2}}, {2});
  fx.Effect({1}, {2});
  Design d2(fx.s, {{1, 0, 2.5}, {1, 1, -4}});
  EXPECT_EQ(d2.Rows(), (std::vector<std::vector<double>>{{1, 2.5, 0}, {1, 0, -4}}));
}

// The deliberate asymmetries of categorical values: the dictionary truncates, row lookups and
// counts round (+0.5), with negative values looked up as -1.
TEST(Design, RoundingOfCategoricalValues) {
  // 0.7 everywhere: entered as 0, looked up as 1, so every row is flagged.
  {
    Model m({{1, 3}}, {});
    m.Effect({1});
    Design d(m.s, {{1, 0.7}, {2, 0.7}});
    ASSERT_TRUE(d.status.IsOK());
    EXPECT_EQ(d.design->GetEffect(0).GetCombinations(), (std::vector<std::vector<int>>{{0}}));
    std::vector<bool> invalid;
    EXPECT_EQ(d.Rows(&invalid).size(), 2u);
    EXPECT_EQ(invalid, (std::vector<bool>{true, true}));
    // The counts round: category 1.
    EXPECT_EQ((*d.design->GetFactorCounts().GetCountsPtr(0))[1].second, 2.0);
  }
  // -1.2 is valid and counts in category 0; it enters the dictionary as -1 and is looked up
  // as -1 (negative), so its row is complete. -1.6 is invalid.
  {
    Model m({{1, 2}}, {});
    m.Effect({1});
    Design d(m.s, {{1, -1.2}, {1, 0.2}, {1, 1}, {1, -1.6}});
    EXPECT_EQ(d.status.GetErrorCode(), S::InvalidRecords);  // the last record
    EXPECT_EQ(d.design->GetNumCompleteRecords(), 3);
    EXPECT_EQ(d.design->GetEffect(0).GetCombinations(), (std::vector<std::vector<int>>{{-1}, {0}, {1}}));
    const auto* counts = d.design->GetFactorCounts().GetCountsPtr(0);
    EXPECT_EQ((*counts)[0].second, 2.0);
    EXPECT_EQ((*counts)[1].second, 1.0);
    std::vector<bool> invalid;
    const auto rows = d.Rows(&invalid);
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0], (std::vector<double>{1, 1, 0, 0}));
    EXPECT_EQ(rows[1], (std::vector<double>{1, 0, 1, 0}));
    EXPECT_EQ(invalid, (std::vector<bool>{false, false, false}));
  }
  // -0.3 enters the dictionary as 0 but is looked up as -1, which was never entered: flagged.
  {
    Model m({{1, 2}}, {});
    m.Effect({1});
    Design d(m.s, {{1, -0.3}, {1, 1}});
    ASSERT_TRUE(d.status.IsOK());
    EXPECT_EQ(d.design->GetEffect(0).GetCombinations(), (std::vector<std::vector<int>>{{0}, {1}}));
    std::vector<bool> invalid;
    EXPECT_EQ(d.Rows(&invalid).size(), 2u);
    EXPECT_EQ(invalid, (std::vector<bool>{true, false}));
  }
}

TEST(Design, RecordValidity) {
  TQStatus st;
  auto valid = [&st](GZLDesignMatrix& d, const std::vector<double>& v, bool skip = false) {
    return d.ValidateRecord(st, Rec(v), skip).IsOK();
  };
  // Response sign test: every distribution but the normal.
  {
    GZLSettings gamma;
    gamma.SetDistType(TQConst::DistGamma);
    gamma.SetDependent(0);
    GZLDesignMatrix d(gamma);
    EXPECT_TRUE(valid(d, {-0.0}));
    EXPECT_FALSE(valid(d, {-0.001}));
    EXPECT_EQ(st.GetErrorCode(), S::InvalidRecords);
    EXPECT_TRUE(st.IsWarning());
    EXPECT_FALSE(valid(d, {}));  // shorter than the response index
    EXPECT_FALSE(valid(d, {TQMV::Missing}));
    EXPECT_FALSE(valid(d, {std::nan("")}));
    GZLSettings normal;
    normal.SetDependent(0);
    GZLDesignMatrix n(normal);
    EXPECT_TRUE(valid(n, {-5.0}));
  }
  // Binary binomial: 1.4 is category 1, 1.5 invalid, -0.2 invalid (sign test).
  {
    GZLSettings b;
    b.SetDistType(TQConst::DistBinomial);
    b.SetDependent(0);
    GZLDesignMatrix d(b);
    EXPECT_TRUE(valid(d, {1.4}));
    EXPECT_TRUE(valid(d, {0.49}));
    EXPECT_FALSE(valid(d, {1.5}));
    EXPECT_FALSE(valid(d, {-0.2}));
  }
  // Events / trials.
  {
    GZLSettings b;
    b.SetDistType(TQConst::DistBinomial);
    b.SetEventsTrials(0, 1);
    GZLDesignMatrix d(b);
    EXPECT_TRUE(valid(d, {3, 3}));
    EXPECT_FALSE(valid(d, {4, 3}));
    EXPECT_FALSE(valid(d, {0, 0}));
    EXPECT_FALSE(valid(d, {-1, 3}));
    GZLSettings c;
    c.SetDistType(TQConst::DistBinomial);
    c.SetEventsConstTrials(0, 10.0);
    GZLDesignMatrix dc(c);
    EXPECT_TRUE(valid(dc, {10}));
    EXPECT_FALSE(valid(dc, {10.5}));
  }
  // Weights and offset; the weight tests (and the response) are skipped on request.
  {
    GZLSettings s;
    s.SetDependent(0);
    s.SetFrequencyWeightVar(1);
    s.SetRegrWeightVar(2);
    s.SetOffset(3);
    GZLDesignMatrix d(s);
    EXPECT_TRUE(valid(d, {1, 2, 0.5, -1e300}));
    EXPECT_FALSE(valid(d, {1, 0, 0.5, 0}));
    EXPECT_FALSE(valid(d, {1, 2, -1, 0}));
    EXPECT_FALSE(valid(d, {1, 2, 1, TQMV::Missing}));
    EXPECT_TRUE(valid(d, {TQMV::Missing, 0, -1, 0}, true));
    EXPECT_FALSE(valid(d, {1, 2, 1, TQMV::Missing}, true));
  }
  // Model factors and covariates must be readable, factors within their categories.
  {
    Model m({{1, 3}}, {2});
    GZLDesignMatrix d(m.s);
    EXPECT_TRUE(valid(d, {0, 2.4, 7}));
    EXPECT_FALSE(valid(d, {0, 2.5, 7}));
    EXPECT_FALSE(valid(d, {0, 1, TQMV::Missing}));
    EXPECT_FALSE(valid(d, {0, 1}));
  }
}

TEST(Design, RowFieldsAndStrategies) {
  // Events / trials with frequency and scale weights and an offset variable: response is the
  // proportion; the events/trials grouping multiplies the scale weight by the trials.
  GZLSettings s;
  s.SetDistType(TQConst::DistBinomial);
  s.SetLinkType(TQConst::LinkLogit);
  s.SetScaleType(GZLConst_940::ScaleFixed);
  s.SetEventsTrials(0, 1);
  s.SetFrequencyWeightVar(2);
  s.SetRegrWeightVar(3);
  s.SetOffset(4);
  s.SetInterceptUse(true);
  Design d(s, {{3, 10, 2, 0.5, 0.25}, {1, 4, 1, 1, -1}});
  ASSERT_TRUE(d.status.IsOK());
  EXPECT_DOUBLE_EQ(d.design->GetWeightedTrials(), 24.0);
  EXPECT_DOUBLE_EQ(d.design->GetSumFreqWeights(), 3.0);
  const GZLEventsCount& ec = d.design->GetEventsCount();
  EXPECT_EQ(ec.GetEventsCount(), (GZLEventsCount::Count{4.0, 4.0}));  // no weight variable
  ASSERT_TRUE(d.design->BeginPass().IsOK());
  GZLDesignRow* row = d.design->GetNextRow();
  ASSERT_NE(row, nullptr);
  EXPECT_EQ(row->fValues, (std::vector<double>{1.0}));
  EXPECT_DOUBLE_EQ(row->fResponse, 0.3);
  EXPECT_EQ(row->fEvents, 3.0);
  EXPECT_EQ(row->fTrials, 10.0);
  EXPECT_EQ(row->fFreqWeight, 2.0);
  EXPECT_EQ(row->fScaleWeight, 5.0);
  EXPECT_EQ(row->fOffset, 0.25);
  EXPECT_FALSE(row->fbInvalid);
  row = d.design->GetNextRow();
  ASSERT_NE(row, nullptr);
  EXPECT_EQ(row->fScaleWeight, 4.0);
  EXPECT_EQ(d.design->GetNextRow(), nullptr);
  EXPECT_EQ(d.design->GetNPatterns(), 0);

  // A fixed offset value.
  GZLSettings v;
  v.SetDependent(0);
  v.SetOffsetValue(1.5);
  Design dv(v, {{2.0}});
  ASSERT_TRUE(dv.design->BeginPass().IsOK());
  EXPECT_EQ(dv.design->GetNextRow()->fOffset, 1.5);
}

TEST(Design, BinomialPatterns) {
  // Reference category 0: the event is 1.0 exactly. 0.9 is valid but no event.
  Model m({{1, 2}}, {2});
  m.s.SetDistType(TQConst::DistBinomial);
  m.s.SetLinkType(TQConst::LinkLogit);
  m.s.SetScaleType(GZLConst_940::ScaleFixed);
  m.s.SetFrequencyWeightVar(3);
  m.Effect({1});
  Design d(m.s, {{1, 0, 5, 2}, {0.9, 1, 5, 1}, {1, 0, 5, 3}, {0, 1, 6, 1}, {0, 0, 5, 1}});
  ASSERT_TRUE(d.status.IsOK());
  ASSERT_EQ(d.design->GetNPatterns(), 3);
  ASSERT_TRUE(d.design->BeginPass().IsOK());
  // Patterns in order of first appearance: (0,5), (1,5), (1,6).
  GZLDesignRow* r = d.design->NextPatternRow();
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->fEvents, 5.0);
  EXPECT_EQ(r->fTrials, 6.0);
  EXPECT_DOUBLE_EQ(r->fResponse, 5.0 / 6.0);
  EXPECT_EQ(r->fValues, (std::vector<double>{1, 1, 0}));
  r = d.design->NextPatternRow();
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->fEvents, 0.0);
  EXPECT_EQ(r->fTrials, 1.0);
  r = d.design->NextPatternRow();
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->fTrials, 1.0);
  EXPECT_EQ(r->fValues, (std::vector<double>{1, 0, 1}));
  EXPECT_EQ(d.design->NextPatternRow(), nullptr);
  // A restart delivers them again.
  ASSERT_TRUE(d.design->BeginPass().IsOK());
  EXPECT_NE(d.design->NextPatternRow(), nullptr);

  // The null model: one pattern in a row of its own; reference category 1 makes 0.0 the event.
  GZLSettings n;
  n.SetDistType(TQConst::DistBinomial);
  n.SetScaleType(GZLConst_940::ScaleFixed);
  n.SetDependent(0);
  n.SetDependentRefCateg(1);
  n.SetInterceptUse(true);
  Design dn(n, {{0}, {1}, {0}, {0.2}});
  ASSERT_EQ(dn.design->GetNPatterns(), 1);
  ASSERT_TRUE(dn.design->BeginPass().IsOK());
  r = dn.design->NextPatternRow();
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->fEvents, 2.0);
  EXPECT_EQ(r->fTrials, 4.0);
  EXPECT_EQ(r->fResponse, 0.5);
  EXPECT_EQ(r->fValues, (std::vector<double>{1.0}));
  EXPECT_EQ(dn.design->NextPatternRow(), nullptr);
}

TEST(Design, MultinomialPatterns) {
  Model m({}, {1});
  m.s.SetDistType(TQConst::DistNominalMultinomial);
  m.s.SetScaleType(GZLConst_940::ScaleFixed);
  m.s.SetDependentSize(3);
  m.Effect({}, {1});
  // Response 1.4 is valid (rounds to 1) and adds to category 1 (truncation).
  Design d(m.s, {{0, 7}, {2, 8}, {1.4, 7}, {2, 7}});
  ASSERT_TRUE(d.status.IsOK());
  ASSERT_EQ(d.design->GetNPatterns(), 2);
  ASSERT_TRUE(d.design->BeginPass().IsOK());
  GZLDesignRow* r = d.design->NextPatternRow();
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->fCategoryWeights, (std::vector<double>{1, 1, 1}));
  EXPECT_EQ(r->fPatternTotal, 3.0);
  r = d.design->NextPatternRow();
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->fCategoryWeights, (std::vector<double>{0, 0, 1}));
  EXPECT_EQ(r->fValues, (std::vector<double>{1, 8}));
  EXPECT_EQ(d.design->NextPatternRow(), nullptr);
  EXPECT_EQ(d.design->GetNumOfParamsNominal(), 4);
  EXPECT_TRUE(d.design->SetReducedModel(1));
  EXPECT_EQ(d.design->GetReducedNParamsNominal(), 2);
}

TEST(Design, ReducedModel) {
  Model m({{1, 3}}, {2});
  m.Effect({1});
  m.Effect({}, {2});
  Design d(m.s, {{1, 0, 5}, {1, 2, 6}});
  EXPECT_FALSE(d.design->SetReducedModel(-1));
  EXPECT_FALSE(d.design->SetReducedModel(5));
  EXPECT_TRUE(d.design->SetReducedModel(1));
  EXPECT_EQ(d.Rows(), (std::vector<std::vector<double>>{{1}, {1}}));
  d.design->ClearReducedModel();
  EXPECT_EQ(d.Rows(), (std::vector<std::vector<double>>{{1, 1, 0, 5}, {1, 0, 1, 6}}));
}

// The scaled design: an intercept and one covariate of mean 10 and standard deviation 2. A
// scaled slope 4 and intercept 1 transform back to slope 2 and intercept -19.
TEST(Design, ScaledDesignTransforms) {
  Model m({}, {1});
  m.s.SetTransformEffects(true);
  m.Effect({}, {1});
  Design d(m.s, {{5, 8}, {6, 10}, {7, 12}});
  ASSERT_TRUE(d.status.IsOK());
  const TQRectMatrix& a = d.design->GetBackTransform();
  ASSERT_EQ(a.GetNumRows(), 2);
  std::vector<double> unscaled;
  ASSERT_TRUE(a.ComputeRV(std::vector<double>{1.0, 4.0}, unscaled));
  EXPECT_DOUBLE_EQ(unscaled[0], -19.0);
  EXPECT_DOUBLE_EQ(unscaled[1], 2.0);
  TQRectMatrix identity;
  ASSERT_TRUE(d.design->GetForwardTransform().Multiply(a, identity));
  EXPECT_DOUBLE_EQ(identity(0, 0), 1.0);
  EXPECT_DOUBLE_EQ(identity(0, 1), 0.0);
  EXPECT_DOUBLE_EQ(identity(1, 1), 1.0);
  // Rows hold the standardised covariate; the response is centred (normal, identity link),
  // and the offset moves with it.
  EXPECT_TRUE(d.design->IsResponseCentred());
  EXPECT_DOUBLE_EQ(d.design->GetResponseCentre(), 6.0);
  ASSERT_TRUE(d.design->BeginPass().IsOK());
  GZLDesignRow* row = d.design->GetNextRow();
  EXPECT_EQ(row->fValues, (std::vector<double>{1, -1}));
  EXPECT_DOUBLE_EQ(row->fResponse, -1.0);
  EXPECT_DOUBLE_EQ(row->fOffset, -6.0);
}

// With factors, covariates and factor-by-covariate terms, the scaled linear predictor equals
// the unscaled one at the back-transformed estimates, record by record.
TEST(Design, ScaledDesignIsAnExactReparameterisation) {
  auto build = [](bool scaled, Model& m) {
    m.s.SetTransformEffects(scaled);
    m.s.SetDistType(TQConst::DistPoisson);
    m.s.SetLinkType(TQConst::LinkLog);
    m.s.SetScaleType(GZLConst_940::ScaleFixed);
    m.s.SetFrequencyWeightVar(4);
    m.Effect({1});
    m.Effect({}, {2});
    m.Effect({1}, {3});
    m.Effect({}, {2, 3});
  };
  const std::vector<std::vector<double>> data{{1, 0, 1.5, 2, 1}, {2, 1, -0.5, 3, 2}, {0, 2, 4.0, -1, 1},
                                              {3, 1, 2.5, 0.5, 3}, {1, 0, 0.0, 1, 1}, {2, 2, 1.0, 2, 2}};
  Model mu({{1, 3}}, {2, 3});
  Model ms({{1, 3}}, {2, 3});
  build(false, mu);
  build(true, ms);
  Design du(mu.s, data);
  Design ds(ms.s, data);
  ASSERT_TRUE(du.status.IsOK());
  ASSERT_TRUE(ds.status.IsOK());
  const int p = ds.design->GetNumOfParams();
  ASSERT_EQ(p, 1 + 3 + 1 + 3 + 1);
  std::vector<double> scaledBeta(static_cast<std::size_t>(p));
  for (int j = 0; j < p; ++j) scaledBeta[static_cast<std::size_t>(j)] = 0.3 * j - 1.0;
  std::vector<double> beta;
  ASSERT_TRUE(ds.design->GetBackTransform().ComputeRV(scaledBeta, beta));
  const auto ru = du.Rows();
  const auto rs = ds.Rows();
  ASSERT_EQ(ru.size(), data.size());
  ASSERT_EQ(rs.size(), data.size());
  for (std::size_t i = 0; i < data.size(); ++i) {
    double etaU = 0.0, etaS = 0.0;
    for (int j = 0; j < p; ++j) {
      etaU += ru[i][static_cast<std::size_t>(j)] * beta[static_cast<std::size_t>(j)];
      etaS += rs[i][static_cast<std::size_t>(j)] * scaledBeta[static_cast<std::size_t>(j)];
    }
    EXPECT_NEAR(etaU, etaS, 1e-12 * (1.0 + std::fabs(etaU))) << "record " << i;
  }
}

TEST(DataStatistics, WeightedUpdate) {
  DataStat s(0);
  s.Update(1.0, 1.0);
  EXPECT_EQ(s.fStdDev, 0.0);
  s.Update(3.0, 1.0);
  EXPECT_EQ(s.fMean, 2.0);
  EXPECT_DOUBLE_EQ(s.fStdDev, std::sqrt(2.0));
  EXPECT_EQ(s.fMin, 1.0);
  EXPECT_EQ(s.fMax, 3.0);
  s.Update(TQMV::Missing, 1.0);
  EXPECT_EQ(s.fUnweightedN, 2.0);
  DataStat none(-1);
  none.Update(5.0, 1.0);
  EXPECT_EQ(none.fUnweightedN, 0.0);

  // Weighted: x = 2 (w 3), x = 6 (w 1): W = 4, mean 3, squared deviations 3*1 + 1*9 = 12,
  // sd = sqrt(12 / 3) = 2. A total weight of 1 or less leaves the deviation at 0.
  DataStat w(0);
  w.Update(2.0, 3.0);
  w.Update(6.0, 1.0);
  EXPECT_DOUBLE_EQ(w.fMean, 3.0);
  EXPECT_DOUBLE_EQ(w.fSumSqDev, 12.0);
  EXPECT_DOUBLE_EQ(w.fStdDev, 2.0);
  EXPECT_EQ(w.fWeightedN, 4.0);
  DataStat small(0);
  small.Update(1.0, 0.25);
  small.Update(3.0, 0.5);
  EXPECT_EQ(small.fStdDev, 0.0);
  EXPECT_GT(small.fSumSqDev, 0.0);

  // 0.1, 0.7, -(0.1 + 0.7): the running mean would end in a rounding residue (5.55e-17); it
  // is stored as exactly 0.
  const double third = -(0.1 + 0.7);
  double naive = 0.0, weight = 0.0;
  for (double x : {0.1, 0.7, third}) {
    weight += 1.0;
    naive += (x - naive) * (1.0 / weight);
  }
  ASSERT_NE(naive, 0.0);
  DataStat z(0);
  for (double x : {0.1, 0.7, third}) z.Update(x, 1.0);
  EXPECT_EQ(z.fMean, 0.0);
}

TEST(DataStatistics, DataStatsOfRecords) {
  // Fields: response 0, covariate 1, offset 2, frequency weight 3, scale weight 4.
  GZLDataStats stats({1}, 2, 4, 3, 0);
  const std::vector<double> r1{2, 10, 1, 2, 0.5};
  const std::vector<double> r2{4, 20, 3, 1, 2};
  const std::vector<double> missingWeight{9, 9, 9, TQMV::Missing, 1};
  stats.Update(Rec(r1));
  stats.Update(Rec(r2));
  stats.Update(Rec(missingWeight));
  const DataStat& y = stats.GetDependentStat();
  EXPECT_EQ(y.fWeightedN, 3.0);
  EXPECT_EQ(y.fUnweightedN, 2.0);
  EXPECT_DOUBLE_EQ(y.fMean, 8.0 / 3.0);
  // Two weights: 2 x 0.5 = 1 and 1 x 2 = 2.
  const DataStat& y2 = stats.GetDependentW2Stat();
  EXPECT_EQ(y2.fWeightedN, 3.0);
  EXPECT_DOUBLE_EQ(y2.fMean, 10.0 / 3.0);
  EXPECT_DOUBLE_EQ(stats.GetDependentSS(), 2 * 1 + 4 * 2);
  EXPECT_DOUBLE_EQ(stats.GetStatOfNthCov(0).fMean, 40.0 / 3.0);
  EXPECT_DOUBLE_EQ(stats.GetOffsetStat().fMean, 5.0 / 3.0);
  EXPECT_DOUBLE_EQ(stats.GetWeightStat().fMean, 1.0);
  EXPECT_EQ(stats.GetCovariateStat(1).fVarIndex, 1);
  const DataStat other = stats.GetCovariateStat(2);
  EXPECT_EQ(other.fVarIndex, -1);
  EXPECT_EQ(other.fMin, 1.7976931348623157e308);
  EXPECT_EQ(other.fWeightedN, 0.0);
  EXPECT_EQ(stats.GetStatOfNthCov(1).fVarIndex, -1);
}

TEST(DataStatistics, FactorAndEventCounts) {
  // Factors at fields 1 (4 categories) and 2 (2 categories), weight 3, response 0 with 3
  // categories, offset variable 4.
  GZLFactorCounts fc({1, 2}, {4, 2}, 3, 0, 3, 4, TQMV::Missing, TQConst::OffsetVariable);
  EXPECT_TRUE(fc.Update(Rec({0, 2.6, 1, 2, 0.5})));   // 2.6 is category 3
  EXPECT_FALSE(fc.Update(Rec({1, 4, 0, 1, 1.0})));    // value 4 = size: fails, factor 2 counted
  EXPECT_FALSE(fc.Update(Rec({3, 0, 0, 1, 1.0})));    // response out of range
  EXPECT_EQ(fc.GetNCategories(0), 4);
  EXPECT_EQ(fc.GetNCategories(2), -1);
  EXPECT_EQ((*fc.GetCountsPtr(0))[3], (GZLFactorCounts::Count{2.0, 1.0}));
  EXPECT_EQ((*fc.GetCountsPtr(0))[0], (GZLFactorCounts::Count{1.0, 1.0}));
  EXPECT_EQ((*fc.GetCountsPtr(1))[0], (GZLFactorCounts::Count{2.0, 2.0}));
  EXPECT_EQ(fc.GetNActiveCategories(0), 2);
  EXPECT_EQ(fc.GetNActiveCategories(-1), -1);
  EXPECT_EQ(fc.GetCountsPtr(5), nullptr);
  EXPECT_EQ((*fc.GetDependCountsPtr())[0], (GZLFactorCounts::Count{2.0, 1.0}));
  EXPECT_EQ((*fc.GetOffsetCountsForDepCatPtr())[0], (GZLFactorCounts::Count{1.0, 2.0}));
  GZLFactorCounts noResponse({1}, {2}, -1, -1, 0, -1, 2.0, TQConst::OffsetValue);
  EXPECT_EQ(noResponse.GetDependCountsPtr(), nullptr);
  EXPECT_EQ(noResponse.GetOffsetCountsForDepCatPtr(), nullptr);

  GZLEventsCount ec;
  EXPECT_FALSE(ec.Setup(-1, 1, -1));
  EXPECT_FALSE(ec.Setup(0, TQMV::Missing, -1));
  ASSERT_TRUE(ec.Setup(0, 1, 2));
  EXPECT_TRUE(ec.Update(Rec({3, 10, 2})));
  EXPECT_FALSE(ec.Update(Rec({TQMV::Missing, 10, 2})));
  EXPECT_FALSE(ec.Update(Rec({3, TQMV::Missing, 2})));
  EXPECT_EQ(ec.GetNonEventsCount(), (GZLEventsCount::Count{14.0, 7.0}));
  EXPECT_EQ(ec.GetEventsCount(), (GZLEventsCount::Count{6.0, 3.0}));
  GZLEventsCount constant;
  ASSERT_TRUE(constant.Setup(0, 5.0, -1));
  EXPECT_TRUE(constant.Update(Rec({2})));
  EXPECT_EQ(constant.GetNonEventsCount(), (GZLEventsCount::Count{3.0, 3.0}));
  GZLEventsCount unset;
  EXPECT_FALSE(unset.Update(Rec({1, 1})));
}

// The per-record path of a later pass allocates nothing: the one row is reused, grouping keys
// and dictionary lookups use buffers of their own.
TEST(Design, RowBuildingDoesNotAllocate) {
  datapass_test::ReferenceModel model("mtcars_normal_factor_by_covariate.json");
  GZLAlgorithm a(model.settings);
  GZLMemorySource src = model.Source();
  ASSERT_TRUE(a.InitializeModel(src).IsOK());
  GZLDesignMatrix* design = a.GetDesignMatrix();
  const GZLDesignRow* first = nullptr;
  int rows = 0;
  ASSERT_TRUE(design->BeginPass().IsOK());
  while (GZLDesignRow* row = design->GetNextRow()) {
    first = first ? first : row;
    ++rows;
  }
  ASSERT_EQ(rows, 32);
  const double* buffer = first->fValues.data();

  long before = gAllocations.load();
  int again = 0;
  bool sameRow = true;
  bool sameBuffer = true;
  double sum = 0.0;
  design->BeginPass();
  while (GZLDesignRow* row = design->GetNextRow()) {
    sameRow &= row == first;
    sameBuffer &= row->fValues.data() == buffer;
    sum += row->fValues[1] + row->fResponse;
    ++again;
  }
  // A reduced pass and a full one after it: the column list shrinks and grows in place.
  design->SetReducedModel(1);
  design->BeginPass();
  while (GZLDesignRow* row = design->GetNextRow()) sum += row->fValues[0];
  design->ClearReducedModel();
  design->BeginPass();
  while (GZLDesignRow* row = design->GetNextRow()) sum += row->fValues.back();
  const long allocations = gAllocations.load() - before;
  EXPECT_EQ(allocations, 0);
  EXPECT_EQ(again, 32);
  EXPECT_TRUE(sameRow);
  EXPECT_TRUE(sameBuffer);
  EXPECT_TRUE(std::isfinite(sum));
}

// Ordinal: the thresholds play the intercept's part, so centring moves every threshold;
// theta_t - x'beta is the same in both designs at the back-transformed estimates.
TEST(Design, ScaledOrdinalAndNominalTransforms) {
  auto build = [](bool scaled, Model& m, TQConst::DistType dist) {
    m.s.SetTransformEffects(scaled);
    m.s.SetDistType(dist);
    if (dist == TQConst::DistOrdinalMultinomial) m.s.SetLinkType(TQConst::LinkCumLogit);
    m.s.SetScaleType(GZLConst_940::ScaleFixed);
    m.s.SetDependentSize(3);
    m.Effect({}, {1});
    m.Effect({}, {2});
  };
  const std::vector<std::vector<double>> data{{0, 1.5, 2}, {1, -0.5, 3}, {2, 4.0, -1}, {1, 2.5, 0.5}};
  Model mu({}, {1, 2});
  Model ms({}, {1, 2});
  build(false, mu, TQConst::DistOrdinalMultinomial);
  build(true, ms, TQConst::DistOrdinalMultinomial);
  Design du(mu.s, data);
  Design ds(ms.s, data);
  ASSERT_TRUE(ds.status.IsOK());
  ASSERT_EQ(ds.design->GetNumOfParams(), 4);  // 2 thresholds, 2 slopes
  const std::vector<double> scaled{-0.5, 0.75, 1.25, -2.0};
  std::vector<double> beta;
  ASSERT_TRUE(ds.design->GetBackTransform().ComputeRV(scaled, beta));
  const auto ru = du.Rows();
  const auto rs = ds.Rows();
  ASSERT_EQ(rs.size(), data.size());
  for (std::size_t i = 0; i < data.size(); ++i) {
    ASSERT_EQ(rs[i].size(), 2u);
    for (int t = 0; t < 2; ++t) {
      const double etaU = beta[static_cast<std::size_t>(t)] - ru[i][0] * beta[2] - ru[i][1] * beta[3];
      const double etaS = scaled[static_cast<std::size_t>(t)] - rs[i][0] * scaled[2] - rs[i][1] * scaled[3];
      EXPECT_NEAR(etaU, etaS, 1e-12) << "record " << i << " threshold " << t;
    }
  }
  // Nominal: one block per non-reference logit.
  Model mn({}, {1, 2});
  mn.s.SetInterceptUse(true);
  build(true, mn, TQConst::DistNominalMultinomial);
  Design dn(mn.s, data);
  ASSERT_TRUE(dn.status.IsOK());
  EXPECT_EQ(dn.design->GetNumOfParams(), 3);
  const TQRectMatrix& a = dn.design->GetBackTransform();
  ASSERT_EQ(a.GetNumRows(), 6);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      EXPECT_EQ(a(i + 3, j + 3), a(i, j));
      EXPECT_EQ(a(i, j + 3), 0.0);
    }
  EXPECT_NE(a(0, 1), 0.0);
  EXPECT_FALSE(dn.design->IsResponseCentred());
}

TEST(Design, Displays) {
  datapass_test::ReferenceModel model("warpbreaks_poisson_interaction.json");
  GZLAlgorithm a(model.settings);
  GZLMemorySource src = model.Source();
  ASSERT_TRUE(a.InitializeModel(src).IsOK());
  std::ostringstream out;
  {
    TQDisplay_940::ScopedStream scope(out);
    a.Display();
  }
  const std::string text = out.str();
  for (const char* label : {"GZLAlgorithm display start", "GZLDesignMatrix display start", "GZLDataStats display start",
                            "Total number of records in data set: 54", "Parameter size: 12",
                            "GZLDesignMatrixEffect display start", "GZLDictionary display start", "Effect info:",
                            "number of values: 6", "GZLAlgorithm display end"})
    EXPECT_NE(text.find(label), std::string::npos) << label;
}
