// Scoring records after a fit: every record of the reference scoring cases (the fitted data, then
// extra records that test the partial-record rules), the statuses of bad requests and records,
// the mask (one output computes only its ingredients), the exact conventions of the binary and
// events/trials outputs, refits, and the per-category tie rule.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "GZLFactory.h"
#include "GZLOutputStats.h"
#include "GZLScoreStats.h"
#include "GZLSettings.h"
#include "data/GZLAlgorithm.h"
#include "data/GZLDesignMatrix.h"
#include "estimation/GZLOptimizer.h"
#include "inference/GZLScoringEngine.h"
#include "output_reference_models.h"
#include "support/ITQLinkFunc.h"
#include "support/TQDisplay_940.h"
#include "support/TQSymMatrix.h"

using output_test::TableSource;
using E = GZLScoringEngine;

namespace {

const std::string kScoringDir = std::string(GZL_TEST_DATA_DIR) + "/scoring";
constexpr double kMissing = TQMV::Missing;

std::unique_ptr<IGZLAlgorithm> Fit(const GZLSettings& settings, IGZLRecordSource& source) {
  std::unique_ptr<IGZLAlgorithm> a(GZLFactory::CreateAlgorithm(settings, false));
  if (a) a->BuildModel(source);
  return a;
}

void ExpectClose(const nlohmann::json& expected, double actual, const std::string& what) {
  if (expected.is_null()) {
    EXPECT_TRUE(TQMV::IsMissing(actual)) << what << ": engine " << actual << ", reference missing";
    return;
  }
  const double e = expected.get<double>();
  ASSERT_FALSE(TQMV::IsMissing(actual)) << what << ": engine missing, reference " << e;
  const double tol = std::fabs(e) < 1e-3 ? 1e-9 : 1e-6 * std::fabs(e);
  EXPECT_LE(std::fabs(actual - e), tol) << what << ": engine " << actual << ", reference " << e;
}

// Scores every record of the source into `out` (statuses and score objects in order).
void ScoreAll(IGZLAlgorithm& a, TableSource& source, const int* mask, std::vector<TQStatus>& statuses,
              std::vector<GZLScoreStats>& scores) {
  source.Rewind();
  while (const Record* r = source.NextRecord()) {
    GZLScoreStats s;
    statuses.push_back(a.Score(*r, s, mask));
    scores.push_back(s);
  }
}

}  // namespace

TEST(Scoring, ReferenceCases) {
  std::vector<std::string> files;
  for (const auto& e : std::filesystem::directory_iterator(kScoringDir + "/expected")) files.push_back(e.path());
  std::sort(files.begin(), files.end());
  ASSERT_EQ(files.size(), 9u);
  for (const std::string& file : files) {
    auto c = output_test::LoadCase(file, 1e-12);
    SCOPED_TRACE(c->name);
    ASSERT_TRUE(c->ok) << c->problem;
    const auto& m = c->model;
    GZLSettings& s = c->settings;
    if (m.value("model_type", std::string()) == "gee") output_test::ApplyGeeKeys(*c);
    if (m.contains("offset_value")) {
      ASSERT_TRUE(s.SetOffsetValue(m["offset_value"].get<double>()));
    }
    ASSERT_TRUE(s.SetConfidenceLevel(m["confidence"].get<double>() / 100.0));
    s.SetTestType(m["test_type"] == "t" ? TQConst::TestType0 : TQConst::TestType2);
    s.SetModelFittingTest(false);
    auto a = Fit(s, *c->source);
    ASSERT_TRUE(a && a->IsModelBuilt());
    a->SetPropensityCategory(m.value("propensity_category", 1));

    std::vector<TQStatus> statuses;
    std::vector<GZLScoreStats> scores;
    const int mask = m["score_mask"];
    ScoreAll(*a, *c->source, &mask, statuses, scores);
    const std::size_t nData = statuses.size();
    std::ifstream in(file);
    auto extra = std::make_unique<TableSource>(kScoringDir + "/data/" + nlohmann::json::parse(in)["score_data"].get<std::string>());
    ScoreAll(*a, *extra, nullptr, statuses, scores);

    const auto& records = c->expected["records"];
    ASSERT_EQ(records.size(), statuses.size());
    for (std::size_t i = 0; i < records.size(); ++i) {
      const auto& r = records[i];
      const std::size_t at = (r["file"] == "data" ? 0 : nData) + r["row"].get<std::size_t>();
      SCOPED_TRACE(r["file"].get<std::string>() + " row " + std::to_string(r["row"].get<int>()) + " " +
                   r.value("note", std::string()));
      const GZLScoreStats& got = scores[at];
      EXPECT_EQ(statuses[at].GetErrorCode(), r["status"].get<int>());
      using Getter = double (GZLScoreStats::*)() const noexcept;
      static const std::vector<std::pair<const char*, Getter>> fields{
          {"XBPRED", &GZLScoreStats::GetXBPRED}, {"XBSTDERROR", &GZLScoreStats::GetXBSTDERROR},
          {"MEANPRED", &GZLScoreStats::GetMEANPRED}, {"LEVERAGE", &GZLScoreStats::GetLEVERAGE},
          {"RESID", &GZLScoreStats::GetRESID}, {"PEARSONRESID", &GZLScoreStats::GetPEARSONRESID},
          {"DEVIANCERESID", &GZLScoreStats::GetDEVIANCERESID},
          {"STDPEARSONRESID", &GZLScoreStats::GetSTDPEARSONRESID},
          {"STDDEVIANCERESID", &GZLScoreStats::GetSTDDEVIANCERESID},
          {"LIKELIHOODRESID", &GZLScoreStats::GetLIKELIHOODRESID}, {"COOK", &GZLScoreStats::GetCOOK},
          {"Conf1", &GZLScoreStats::GetConf1}, {"Conf2", &GZLScoreStats::GetConf2},
          {"RawPropensity", &GZLScoreStats::GetRawPropensity}};
      for (const auto& [key, get] : fields) ExpectClose(r[key], (got.*get)(), key);
      // Absent for the events/trials records whose trials give no mean.
      if (r.contains("CIMEANPRED")) {
        const auto& ci = r["CIMEANPRED"];
        ExpectClose(ci.is_null() ? ci : ci[0], got.GetCIMEANPRED().first, "CIMEANPRED lower");
        ExpectClose(ci.is_null() ? ci : ci[1], got.GetCIMEANPRED().second, "CIMEANPRED upper");
      }
      if (r["CATPRED"].is_null())
        EXPECT_TRUE(TQMV::IsMissing(got.GetCATPRED()));
      else
        EXPECT_EQ(got.GetCATPRED(), r["CATPRED"].get<double>());
      // The per-category lists (null: empty); single responses have none.
      const std::vector<std::pair<const char*, const std::vector<double>&>> lists{
          {"XBPREDNOMINAL", got.GetXBPREDNOMINAL()},
          {"XBSTDERRORNOMINAL", got.GetXBSTDERRORNOMINAL()},
          {"MEANPREDNOMINAL", got.GetMEANPREDNOMINAL()}};
      for (const auto& [key, list] : lists) {
        const nlohmann::json expected = r.value(key, nlohmann::json());
        ASSERT_EQ(list.size(), expected.is_null() ? 0u : expected.size()) << key;
        for (std::size_t k = 0; k < list.size(); ++k) ExpectClose(expected[k], list[k], key + std::to_string(k));
      }
      if (!r.contains("MEANPREDNOMINAL")) {
        EXPECT_TRUE(got.GetCIMEANPREDNOMINAL().empty());
      }
    }
  }
}

namespace {

// A small Poisson model: y on a factor f (3 declared categories, 1 never used) and a
// covariate x. Fields: y, f, x.
struct SmallModel {
  std::vector<int> vars{1, 2};
  GZLSettings settings;
  TableSource source{{"y", "f", "x"},
                     {{2, 0, 0.5}, {3, 0, 1.0}, {6, 0, 1.5}, {4, 0, 2.0}, {9, 0, 2.5}, {1, 2, 0.2},
                      {0, 2, 0.4}, {2, 2, 0.9}, {3, 2, 1.3}, {5, 2, 1.8}, {4, 2, 2.4}, {8, 0, 3.0}}};
  explicit SmallModel(TQConst::DistType dist = TQConst::DistPoisson, TQConst::LinkType link = TQConst::LinkLog) {
    settings.SetDistType(dist);
    settings.SetLinkType(link);
    settings.SetScaleType(GZLConst_940::ScaleFixed);
    settings.SetDependent(0);
    settings.SetInterceptUse(true);
    settings.AddFactor(1, 3);
    settings.AddCovariate(2);
    GZLModelEffect f(1, 1, &vars), x(1, 1, &vars);
    f.AddNewFactor(1, false);
    x.AddCovariate(2);
    settings.AddModelEffect(f);
    settings.AddModelEffect(x);
    settings.SetTestType(TQConst::TestType2);
    settings.SetModelFittingTest(false);
  }
};

TQStatus ScoreOne(IGZLAlgorithm& a, std::vector<double> values, GZLScoreStats& s, int mask = E::ScoreAll) {
  const Record r(values.data(), values.size());
  return a.Score(r, s, &mask);
}

// A record that is not scored has no output at all.
bool AllMissing(const GZLScoreStats& s) {
  return TQMV::IsMissing(s.GetXBPRED()) && TQMV::IsMissing(s.GetMEANPRED()) && TQMV::IsMissing(s.GetLEVERAGE()) &&
         TQMV::IsMissing(s.GetCIMEANPRED().first);
}

}  // namespace

TEST(Scoring, RequestAndRecordStatuses) {
  SmallModel m;
  std::unique_ptr<IGZLAlgorithm> a(GZLFactory::CreateAlgorithm(m.settings, false));
  GZLScoreStats s;
  EXPECT_EQ(ScoreOne(*a, {2, 0, 1}, s).GetErrorCode(), GZLStatusCode::ModelNotBuilt);
  ASSERT_FALSE(a->BuildModel(m.source).IsError());
  const std::vector<double> good{2, 0, 1};
  const Record record(good.data(), good.size());

  // No mask yet, then masks asking for nothing or for something unknown.
  EXPECT_EQ(a->Score(record, s, nullptr).GetErrorCode(), GZLStatusCode::NoScoreSettings);
  EXPECT_EQ(ScoreOne(*a, good, s, 0).GetErrorCode(), GZLStatusCode::InvalidScoreType);
  EXPECT_EQ(ScoreOne(*a, good, s, 0x10001).GetErrorCode(), GZLStatusCode::InvalidScoreType);
  EXPECT_EQ(a->Score(record, s, nullptr).GetErrorCode(), GZLStatusCode::NoScoreSettings);
  EXPECT_TRUE(ScoreOne(*a, good, s).IsOK());
  EXPECT_TRUE(a->Score(record, s, nullptr).IsOK()) << "the mask is kept";
  EXPECT_FALSE(a->GetStatus().IsError()) << "scoring leaves the fit's status alone";

  // Factor missing, outside its categories, or on a category without weight in the fit; a
  // record too short to hold the factor.
  for (const std::vector<double>& bad : std::vector<std::vector<double>>{
           {2, kMissing, 1}, {2, 3, 1}, {2, 1, 1}, {2, -2, 1}, {2}}) {
    EXPECT_EQ(ScoreOne(*a, bad, s).GetErrorCode(), GZLStatusCode::CaseWithUnusedCategory);
    EXPECT_TRUE(AllMissing(s));
  }
  // A missing (or NaN) covariate fails the record's validity; an infinite one leaves the row
  // incomplete, so its linear predictor cannot be formed.
  for (double x : {kMissing, std::numeric_limits<double>::quiet_NaN()}) {
    const TQStatus st = ScoreOne(*a, {2, 0, x}, s);
    EXPECT_EQ(st.GetErrorCode(), GZLStatusCode::InvalidRecords);
    EXPECT_TRUE(st.IsWarning());
    EXPECT_TRUE(AllMissing(s));
  }
  EXPECT_EQ(ScoreOne(*a, {2, 0, INFINITY}, s).GetErrorCode(), GZLStatusCode::ScoringFailed);
  EXPECT_TRUE(AllMissing(s));

  // A count of 2.5, a negative or a missing count are no valid case: predictions and leverage
  // but no residuals.
  GZLScoreStats ref;
  ASSERT_TRUE(ScoreOne(*a, {2, 0, 1}, ref).IsOK());
  for (double y : {2.5, -1.0, kMissing}) {
    ASSERT_TRUE(ScoreOne(*a, {y, 0, 1}, s).IsOK());
    EXPECT_EQ(s.GetXBPRED(), ref.GetXBPRED());
    EXPECT_EQ(s.GetMEANPRED(), ref.GetMEANPRED());
    EXPECT_EQ(s.GetLEVERAGE(), ref.GetLEVERAGE());
    for (double r : {s.GetRESID(), s.GetPEARSONRESID(), s.GetDEVIANCERESID(), s.GetSTDPEARSONRESID(),
                     s.GetSTDDEVIANCERESID(), s.GetLIKELIHOODRESID(), s.GetCOOK()})
      EXPECT_TRUE(TQMV::IsMissing(r));
  }
  // Log link, normal quantile: the interval is exp(eta -/+ z se).
  const double z = 1.959963984540054;
  EXPECT_NEAR(ref.GetCIMEANPRED().first, std::exp(ref.GetXBPRED() - z * ref.GetXBSTDERROR()), 1e-12);
  EXPECT_NEAR(ref.GetCIMEANPRED().second, std::exp(ref.GetXBPRED() + z * ref.GetXBSTDERROR()), 1e-12);
  EXPECT_TRUE(TQMV::IsMissing(ref.GetCATPRED()) && TQMV::IsMissing(ref.GetRawPropensity()));
}

TEST(Scoring, RefitAndScaledDesign) {
  // A refit on other data replaces what the engine scores with, as does a new dictionary pass.
  SmallModel m;
  auto a = Fit(m.settings, m.source);
  GZLScoreStats before, after, fresh;
  ASSERT_TRUE(ScoreOne(*a, {2, 2, 1}, before).IsOK());
  TableSource other({"y", "f", "x"}, {{1, 0, 0.5}, {2, 0, 1.0}, {2, 0, 2.0}, {7, 2, 0.4}, {9, 2, 1.4}, {6, 2, 2.2}});
  ASSERT_FALSE(a->BuildModel(other).IsError());
  ASSERT_TRUE(ScoreOne(*a, {2, 2, 1}, after).IsOK());
  other.Rewind();
  auto b = Fit(m.settings, other);
  ASSERT_TRUE(ScoreOne(*b, {2, 2, 1}, fresh).IsOK());
  EXPECT_NE(before.GetXBPRED(), after.GetXBPRED());
  EXPECT_EQ(after.GetXBPRED(), fresh.GetXBPRED());
  EXPECT_EQ(after.GetXBSTDERROR(), fresh.GetXBSTDERROR());
  EXPECT_EQ(after.GetCOOK(), fresh.GetCOOK());
  m.source.Rewind();
  ASSERT_FALSE(a->InitializeModel(m.source).IsError());
  m.source.Rewind();
  ASSERT_FALSE(a->BuildModel(m.source).IsError());
  ASSERT_TRUE(ScoreOne(*a, {2, 2, 1}, after).IsOK());
  EXPECT_EQ(after.GetXBPRED(), before.GetXBPRED());

  // A normal identity model on centred and scaled columns scores as the model as specified.
  SmallModel plain(TQConst::DistNormal, TQConst::LinkIdentity), scaled(TQConst::DistNormal, TQConst::LinkIdentity);
  scaled.settings.SetTransformEffects(true);
  auto p = Fit(plain.settings, plain.source);
  auto q = Fit(scaled.settings, scaled.source);
  ASSERT_TRUE(p->IsModelBuilt() && q->IsModelBuilt());
  ASSERT_TRUE(static_cast<GZLAlgorithm&>(*q).GetGZLOptimizer()->IsRTransformed());
  ASSERT_TRUE(static_cast<GZLAlgorithm&>(*q).GetDesignMatrix()->IsResponseCentred());
  for (const std::vector<double>& rec : std::vector<std::vector<double>>{{2, 0, 1}, {7, 2, 3.5}}) {
    GZLScoreStats sp, sq;
    ASSERT_TRUE(ScoreOne(*p, rec, sp).IsOK());
    ASSERT_TRUE(ScoreOne(*q, rec, sq).IsOK());
    EXPECT_NEAR(sp.GetXBPRED(), sq.GetXBPRED(), 1e-9);
    EXPECT_NEAR(sp.GetMEANPRED(), sq.GetMEANPRED(), 1e-9);
    EXPECT_NEAR(sp.GetCIMEANPRED().second, sq.GetCIMEANPRED().second, 1e-9);
    EXPECT_NEAR(sp.GetCOOK(), sq.GetCOOK(), 1e-9);
  }
}

TEST(Scoring, ModelTypesOfTheMask) {
  // Fitted for a mixed-model host: no leverage-based outputs; the Pearson residual is divided
  // by sqrt(phi).
  SmallModel plain(TQConst::DistNormal, TQConst::LinkIdentity), host(TQConst::DistNormal, TQConst::LinkIdentity);
  for (SmallModel* m : {&plain, &host}) ASSERT_TRUE(m->settings.SetScaleValue(4.0));
  host.settings.SetGZLModelType(GZLConst_940::GZLMMM);
  auto p = Fit(plain.settings, plain.source);
  auto h = Fit(host.settings, host.source);
  ASSERT_TRUE(p->IsModelBuilt() && h->IsModelBuilt());
  GZLScoreStats sp, sh;
  EXPECT_EQ(ScoreOne(*h, {2, 0, 1}, sh, E::ScoreLEVERAGE).GetErrorCode(), GZLStatusCode::InvalidScoreType);
  const int basic = E::ScoreXBPRED | E::ScoreRESID | E::ScorePEARSONRESID;
  ASSERT_TRUE(ScoreOne(*p, {2, 0, 1}, sp, basic).IsOK());
  ASSERT_TRUE(ScoreOne(*h, {2, 0, 1}, sh, basic).IsOK());
  EXPECT_NEAR(sh.GetXBPRED(), sp.GetXBPRED(), 1e-12);
  EXPECT_NEAR(sh.GetPEARSONRESID(), sp.GetPEARSONRESID() / 2.0, 1e-12);

}

namespace {

// An engine on the design of a model, with a fit given by hand.
struct EngineOn {
  std::unique_ptr<GZLDesignMatrix> design;
  std::unique_ptr<GZLScoringEngine> engine;
  TQSymMatrix covariance;
  std::vector<double> estimates;
  GZLScoringFit fit;
  EngineOn(const GZLSettings& settings, IGZLRecordSource& source, std::vector<double> beta) : estimates(std::move(beta)) {
    design = std::make_unique<GZLDesignMatrix>(settings);
    source.Rewind();
    TQStatus st;
    design->RunDictionaryPass(st, source);
    engine = std::make_unique<GZLScoringEngine>(*design, settings);
    const int p = static_cast<int>(estimates.size());
    covariance = TQSymMatrix(p);
    for (int j = 0; j < p; ++j) covariance(j, j) = 0.01 * (j + 1);
    fit.fpEstimates = &estimates;
    fit.fpCovariance = fit.fpInverseInformation = &covariance;
    fit.fNNonRedundant = p;
    engine->SetFit(fit);
  }
  TQStatus Score(std::vector<double> values, GZLScoreStats& s) {
    TQStatus st;
    engine->ScoreRecord(st, Record(values.data(), values.size()), s);
    return st;
  }
};

}  // namespace

TEST(Scoring, MaskComputesOnlyItsIngredients) {
  SmallModel m;
  EngineOn e(m.settings, m.source, {0.1, 0.2, 0.0, 0.3});
  GZLScoreStats s;
  const unsigned base = E::CacheEta | E::CacheMean;
  const unsigned lev = base | E::CacheXCX | E::CacheXIX | E::CacheLeverage;
  const unsigned resid = base | E::CacheValidCase | E::CacheResid;
  const std::vector<std::pair<int, unsigned>> cases{
      {E::ScoreXBPRED, E::CacheEta},
      {E::ScoreMEANPRED, base},
      {E::ScoreXBSTDERROR, E::CacheXCX | E::CacheStdErr},
      {E::ScoreLEVERAGE, lev},
      {E::ScoreDEVIANCERESID, resid | E::CacheDeviance},
      {E::ScoreCOOK, lev | resid | E::CachePearson | E::CacheStdFactor | E::CacheStdPearson | E::CacheCook},
      {E::ScoreAll, 0xFFFFu}};
  for (const auto& [mask, bits] : cases) {
    SCOPED_TRACE(mask);
    ASSERT_TRUE(e.engine->SetScoreType(mask).IsOK());
    ASSERT_TRUE(e.Score({2, 0, 1}, s).IsOK());
    EXPECT_EQ(e.engine->GetCacheBits(), bits);
  }
  // Only what was asked for is delivered.
  ASSERT_TRUE(e.engine->SetScoreType(E::ScoreLEVERAGE).IsOK());
  ASSERT_TRUE(e.Score({2, 0, 1}, s).IsOK());
  EXPECT_FALSE(TQMV::IsMissing(s.GetLEVERAGE()));
  EXPECT_TRUE(TQMV::IsMissing(s.GetXBPRED()) && TQMV::IsMissing(s.GetMEANPRED()) && TQMV::IsMissing(s.GetRESID()));

  // The same engine under a GEE fit: the leverage family is refused, the rest is scored.
  e.fit.fModelType = GZLConst_940::GEE;
  e.fit.fpInverseInformation = nullptr;
  e.engine->SetFit(e.fit);
  EXPECT_EQ(e.engine->SetScoreType(E::ScoreAll).GetErrorCode(), GZLStatusCode::InvalidScoreType);
  ASSERT_TRUE(e.engine->SetScoreType(111).IsOK());
  GZLScoreStats gee(GZLConst_940::GEE);
  ASSERT_TRUE(e.Score({2, 0, 1}, gee).IsOK());
  EXPECT_FALSE(TQMV::IsMissing(gee.GetXBSTDERROR()) || TQMV::IsMissing(gee.GetPEARSONRESID()));
  // Its score object refuses the six outputs a GEE model does not have.
  EXPECT_FALSE(gee.SetLEVERAGE(0.5) || gee.SetDEVIANCERESID(1) || gee.SetSTDPEARSONRESID(1) ||
               gee.SetSTDDEVIANCERESID(1) || gee.SetLIKELIHOODRESID(1) || gee.SetCOOK(1));
  EXPECT_TRUE(TQMV::IsMissing(gee.GetLEVERAGE()) && TQMV::IsMissing(gee.GetCOOK()));
  // Without a covariance neither standard errors nor intervals can be asked for; a fit that
  // loses its covariance invalidates the stored mask.
  e.fit.fModelType = GZLConst_940::GZLM;
  e.fit.fpCovariance = nullptr;
  e.fit.fFitCount = 1;
  e.engine->SetFit(e.fit);
  EXPECT_EQ(e.Score({2, 0, 1}, s).GetErrorCode(), GZLStatusCode::NoScoreSettings);
  EXPECT_EQ(e.engine->SetScoreType(E::ScoreCIMEANPRED).GetErrorCode(), GZLStatusCode::InvalidScoreType);
  EXPECT_TRUE(e.engine->SetScoreType(E::ScoreMEANPRED | E::ScoreRESID).IsOK());
}

TEST(Scoring, BinaryAndEventsTrialsConventions) {
  // Binary logit at mu = 0.5 exactly: the event category (1, reference 0), Conf1 0.5, Conf2 0.
  std::vector<int> vars;
  GZLSettings binary;
  binary.SetDistType(TQConst::DistBinomial);
  binary.SetLinkType(TQConst::LinkLogit);
  binary.SetScaleType(GZLConst_940::ScaleFixed);
  binary.SetDependent(0);
  binary.SetDependentRefCateg(0);
  binary.SetInterceptUse(true);
  binary.SetTestType(TQConst::TestType2);
  TableSource yOnly({"y", "e", "n"}, {{0, 3, 10}, {1, 4, 10}});
  EngineOn b(binary, yOnly, {0.0});
  ASSERT_TRUE(b.engine->SetScoreType(E::ScoreAll).IsOK());
  GZLScoreStats s;
  ASSERT_TRUE(b.Score({1, 0, 0}, s).IsOK());
  EXPECT_EQ(s.GetMEANPRED(), 0.5);
  EXPECT_EQ(s.GetCATPRED(), 1.0);
  EXPECT_EQ(s.GetConf1(), 0.5);
  EXPECT_EQ(s.GetConf2(), 0.0);
  EXPECT_EQ(s.GetRawPropensity(), 0.5);
  EXPECT_EQ(s.GetRESID(), 0.5);
  // Reference 1: the event is 0; mu = 0.2 predicts the reference, propensity 0 gives 1 - mu.
  binary.SetDependentRefCateg(1);
  EngineOn r(binary, yOnly, {std::log(0.25)});
  r.fit.fPropensityCategory = 0;
  r.engine->SetFit(r.fit);
  ASSERT_TRUE(r.engine->SetScoreType(E::ScoreAll).IsOK());
  ASSERT_TRUE(r.Score({0, 0, 0}, s).IsOK());
  EXPECT_NEAR(s.GetMEANPRED(), 0.2, 1e-15);
  EXPECT_EQ(s.GetCATPRED(), 1.0);
  EXPECT_NEAR(s.GetConf1(), 0.8, 1e-15);
  EXPECT_NEAR(s.GetRawPropensity(), 0.8, 1e-15);
  EXPECT_NEAR(s.GetRESID(), 0.8, 1e-15) << "y = 0 is the event";

  // Events/trials: e = 3 of n = 10 at mu = 0.2 gives the expected events 2 and RESID 1; the
  // binary outputs stay missing.
  GZLSettings et = binary;
  ASSERT_TRUE(et.SetEventsTrials(1, 2));
  EngineOn t(et, yOnly, {std::log(0.25)});
  ASSERT_TRUE(t.engine->SetScoreType(E::ScoreAll).IsOK());
  ASSERT_TRUE(t.Score({0, 3, 10}, s).IsOK());
  EXPECT_NEAR(s.GetMEANPRED(), 2.0, 1e-14);
  EXPECT_NEAR(s.GetRESID(), 1.0, 1e-14);
  EXPECT_NEAR(s.GetPEARSONRESID(), 1.0 / std::sqrt(10 * 0.2 * 0.8), 1e-14);
  EXPECT_TRUE(TQMV::IsMissing(s.GetCATPRED()) && TQMV::IsMissing(s.GetConf1()));
  EXPECT_GT(s.GetCIMEANPRED().second, 2.0);
  EXPECT_LT(s.GetCIMEANPRED().first, 2.0);
  // Trials that are missing, zero or not whole: no expected events and no interval.
  for (double n : {kMissing, 0.0, 10.5}) {
    ASSERT_TRUE(t.Score({0, 3, n}, s).IsOK());
    EXPECT_FALSE(TQMV::IsMissing(s.GetXBPRED()));
    EXPECT_TRUE(TQMV::IsMissing(s.GetMEANPRED()) && TQMV::IsMissing(s.GetCIMEANPRED().first));
    EXPECT_TRUE(TQMV::IsMissing(s.GetLEVERAGE()) && TQMV::IsMissing(s.GetRESID()));
  }
}

TEST(Scoring, CategoryTiesAndDisplay) {
  const double tiny = 1e-10;
  EXPECT_EQ(GZLScoringEngine::PickCategory({0.3, 0.3 + 1e-3, 0.4 - 1e-3}, {1, 1, 1}), 2);
  EXPECT_EQ(GZLScoringEngine::PickCategory({0.4, 0.4 + 1e-3, 0.2 - 1e-3}, {9, 1, 1}), 1);
  EXPECT_EQ(GZLScoringEngine::PickCategory({0.4, 0.4 + tiny, 0.2 - tiny}, {5, 7, 9}), 1);
  EXPECT_EQ(GZLScoringEngine::PickCategory({0.4, 0.4 + tiny, 0.2 - tiny}, {5, 5, 9}), 0);
  // A clear maximum later on restarts the ties.
  EXPECT_EQ(GZLScoringEngine::PickCategory({0.3, 0.3, 0.4}, {9, 9, 1}), 2);
  EXPECT_EQ(GZLScoringEngine::PickCategory({0.5, kMissing, 0.5}, {1, 1, 1}), -1);
  EXPECT_EQ(GZLScoringEngine::PickCategory({}, {}), -1);

  std::ostringstream out;
  {
    TQDisplay_940::ScopedStream redirect(out);
    GZLScoreStats s;
    s.SetXBPRED(1.5);
    s.Display();
  }
  const std::string text = out.str();
  EXPECT_EQ(text.rfind("GZLScoreStats display start", 0), 0u);
  EXPECT_NE(text.find("1.5"), std::string::npos);
  EXPECT_NE(text.find("GZLScoreStats display end"), std::string::npos);
}

TEST(Scoring, MultinomialListsByHand) {
  // Fitted ordinal and nominal models score their own records: the scores' probabilities give
  // back the fit's log-likelihood (so they are the fitted probabilities, the offset included),
  // sum to one and follow from the listed predictors; the predicted category is the most
  // probable; a record at the reference levels has the thresholds (intercepts) as predictors
  // with their standard errors.
  const int mask = E::ScoreXBPRED | E::ScoreXBSTDERROR | E::ScoreMEANPRED | E::ScoreCIMEANPRED | E::ScoreCATPRED |
                   E::ScoreConf1 | E::ScoreConf2;
  const std::string dir = std::string(GZL_TEST_DATA_DIR) + "/multinomial";
  for (const std::string name : {"housing_cumlogit_freq", "sim_cumcloglog_offset_newton", "housing_nominal_type_reflast",
                                 "sim_nominal_factor_by_covariate_reffirst"}) {
    SCOPED_TRACE(name);
    auto c = output_test::LoadCase(dir + "/expected/" + name + ".json", 1e-12, dir + "/data");
    ASSERT_TRUE(c->ok) << c->problem;
    c->settings.SetTestType(TQConst::TestType2);
    auto a = Fit(c->settings, *c->source);
    ASSERT_TRUE(a && a->IsModelBuilt());
    const bool ordinal = c->settings.GetDistType() == TQConst::DistOrdinalMultinomial;
    const std::vector<int>& order = a->GetDependCategories();
    const std::size_t K = order.size();
    std::unique_ptr<ITQLinkFunc> F(CreateLinkFunction(c->settings.GetLinkType(), c->settings.GetLinkParam()));

    std::vector<TQStatus> statuses;
    std::vector<GZLScoreStats> scores;
    ScoreAll(*a, *c->source, &mask, statuses, scores);
    const int y = c->source->Column(c->model["response"]);
    const int fw = c->model.contains("freq_weight") ? c->source->Column(c->model["freq_weight"]) : -1;
    double loglik = 0.0;
    c->source->Rewind();
    for (std::size_t i = 0; i < scores.size(); ++i) {
      const Record& record = *c->source->NextRecord();
      ASSERT_TRUE(statuses[i].IsOK());
      const GZLScoreStats& s = scores[i];
      const std::vector<double>& xb = s.GetXBPREDNOMINAL();
      const std::vector<double>& pi = s.GetMEANPREDNOMINAL();
      ASSERT_EQ(xb.size(), K - 1);
      ASSERT_EQ(s.GetXBSTDERRORNOMINAL().size(), K - 1);
      ASSERT_EQ(pi.size(), K);
      ASSERT_EQ(s.GetCIMEANPREDNOMINAL().size(), K);
      const std::size_t observed = std::find(order.begin(), order.end(), static_cast<int>(record[y])) - order.begin();
      ASSERT_LT(observed, K);
      loglik += (fw < 0 ? 1.0 : record[fw]) * std::log(pi[observed]);
      double sum = 0.0, cumulative = 0.0, expSum = 1.0;
      for (double e : xb) expSum += std::exp(e);
      for (std::size_t k = 0; k < K; ++k) {
        sum += pi[k];
        // Ordinal: the cumulative probabilities are F of the predictors; nominal: the softmax
        // of the predictors, the reference's being 0.
        cumulative += pi[k];
        if (ordinal && k + 1 < K) {
          EXPECT_NEAR(cumulative, F->GetMu(xb[k], nullptr), 1e-12);
        } else if (!ordinal) {
          EXPECT_NEAR(pi[k], (k + 1 < K ? std::exp(xb[k]) : 1.0) / expSum, 1e-12);
        }
        const auto& [lower, upper] = s.GetCIMEANPREDNOMINAL()[k];
        EXPECT_TRUE(lower <= pi[k] && pi[k] <= upper && lower >= 0.0 && upper <= 1.0) << k;
      }
      EXPECT_NEAR(sum, 1.0, 1e-12);
      const std::size_t best = std::max_element(pi.begin(), pi.end()) - pi.begin();
      EXPECT_EQ(s.GetCATPRED(), order[best]);
      EXPECT_EQ(s.GetConf1(), pi[best]);
      std::vector<double> sorted = pi;
      std::sort(sorted.rbegin(), sorted.rend());
      EXPECT_NEAR(s.GetConf2(), sorted[0] - sorted[1], 1e-15);
    }
    output_test::ExpectRel(c->expected["loglik"].get<double>(), loglik, "log-likelihood of the scores");

    // A record at the last level of every factor, with covariates and offset 0.
    const GZLOutputStats* stats = nullptr;
    ASSERT_TRUE(a->GetOutputStats(stats).IsOK());
    std::vector<double> values(c->source->Names().size(), 0.0);
    for (int f : c->settings.GetFactors()) values[static_cast<std::size_t>(f)] = c->source->Levels(f) - 1;
    GZLScoreStats s;
    ASSERT_TRUE(a->Score(Record(values.data(), values.size()), s, &mask).IsOK());
    const std::size_t block = ordinal ? 1 : stats->GetParamEstimates().size() / (K - 1);
    for (std::size_t j = 0; j + 1 < K; ++j) {
      const std::size_t at = j * block;
      EXPECT_NEAR(s.GetXBPREDNOMINAL()[j], stats->GetParamEstimates()[at], 1e-12);
      EXPECT_NEAR(s.GetXBSTDERRORNOMINAL()[j], std::sqrt(stats->GetCovarianceMatrix()(static_cast<int>(at), static_cast<int>(at))), 1e-12);
    }
    // A factor category never fitted, and a covariate the row cannot hold.
    values[static_cast<std::size_t>(c->settings.GetFactors()[0])] = c->source->Levels(c->settings.GetFactors()[0]);
    EXPECT_EQ(a->Score(Record(values.data(), values.size()), s, &mask).GetErrorCode(), GZLStatusCode::CaseWithUnusedCategory);
    EXPECT_TRUE(s.GetMEANPREDNOMINAL().empty() && TQMV::IsMissing(s.GetCATPRED()));
    if (!c->settings.GetCovariates().empty()) {
      values[static_cast<std::size_t>(c->settings.GetFactors()[0])] = 0;
      values[static_cast<std::size_t>(c->settings.GetCovariates()[0])] = INFINITY;
      EXPECT_EQ(a->Score(Record(values.data(), values.size()), s, &mask).GetErrorCode(), GZLStatusCode::ScoringFailed);
      EXPECT_TRUE(s.GetXBPREDNOMINAL().empty() && s.GetMEANPREDNOMINAL().empty() && TQMV::IsMissing(s.GetCATPRED()));
    }
  }
}

TEST(Scoring, MultinomialIntervalsFollowTheDeltaMethod) {
  // The interval of a category probability is expit(logit(pi) -/+ q se(pi) / (pi (1 - pi))),
  // se(pi)^2 = g'Cg with g the gradient of pi in the parameters: here g by central differences
  // through the engine itself, at the fitted estimates and covariance.
  const std::string dir = std::string(GZL_TEST_DATA_DIR) + "/multinomial";
  const double q = 1.959963984540054, h = 1e-6;
  for (const std::string name : {"sim_cumcloglog_offset_newton", "sim_nominal_factor_by_covariate_reffirst"}) {
    SCOPED_TRACE(name);
    auto c = output_test::LoadCase(dir + "/expected/" + name + ".json", 1e-12, dir + "/data");
    c->settings.SetTestType(TQConst::TestType2);
    auto a = Fit(c->settings, *c->source);
    ASSERT_TRUE(a && a->IsModelBuilt());
    const GZLOutputStats* stats = nullptr;
    ASSERT_TRUE(a->GetOutputStats(stats).IsOK());
    EngineOn e(c->settings, *c->source, stats->GetParamEstimates());
    e.covariance = stats->GetCovarianceMatrix();
    e.fit.fFitCount = 1;
    e.engine->SetFit(e.fit);
    ASSERT_TRUE(e.engine->SetScoreType(E::ScoreMEANPRED | E::ScoreCIMEANPRED).IsOK());
    const int P = static_cast<int>(e.estimates.size());
    for (std::vector<double> values : {std::vector<double>{1, 2, -0.7, 1, 0.2}, std::vector<double>{0, 1, 0.4, 0, -0.5}}) {
      values.resize(c->source->Names().size());
      GZLScoreStats s, up, down;
      ASSERT_TRUE(e.Score(values, s).IsOK());
      const std::size_t K = s.GetMEANPREDNOMINAL().size();
      ASSERT_GE(K, 3u);
      std::vector<std::vector<double>> g(K, std::vector<double>(static_cast<std::size_t>(P)));
      for (int j = 0; j < P; ++j) {
        const double at = e.estimates[static_cast<std::size_t>(j)];
        e.estimates[static_cast<std::size_t>(j)] = at + h;
        e.engine->SetFit(e.fit);
        ASSERT_TRUE(e.Score(values, up).IsOK());
        e.estimates[static_cast<std::size_t>(j)] = at - h;
        e.engine->SetFit(e.fit);
        ASSERT_TRUE(e.Score(values, down).IsOK());
        e.estimates[static_cast<std::size_t>(j)] = at;
        for (std::size_t k = 0; k < K; ++k)
          g[k][static_cast<std::size_t>(j)] = (up.GetMEANPREDNOMINAL()[k] - down.GetMEANPREDNOMINAL()[k]) / (2 * h);
      }
      e.engine->SetFit(e.fit);
      for (std::size_t k = 0; k < K; ++k) {
        double v = 0.0;
        for (int i = 0; i < P; ++i)
          for (int j = 0; j < P; ++j) v += g[k][static_cast<std::size_t>(i)] * e.covariance(i, j) * g[k][static_cast<std::size_t>(j)];
        const double p = s.GetMEANPREDNOMINAL()[k], d = q * std::sqrt(v) / (p * (1 - p));
        const double logit = std::log(p / (1 - p));
        EXPECT_NEAR(s.GetCIMEANPREDNOMINAL()[k].first, 1 / (1 + std::exp(-(logit - d))), 1e-8) << k;
        EXPECT_NEAR(s.GetCIMEANPREDNOMINAL()[k].second, 1 / (1 + std::exp(-(logit + d))), 1e-8) << k;
      }
    }
  }
}
