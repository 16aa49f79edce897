// Scoring records after a fit: every record of the reference scoring cases (the fitted data, then
// extra records that test the partial-record rules), the statuses of bad requests and records,
// the mask (one output computes only its ingredients), the exact conventions of the binary and
// events/trials outputs, refits, and the per-category tie rule.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "GZLFactory.h"
#include "GZLScoreStats.h"
#include "GZLSettings.h"
#include "data/GZLAlgorithm.h"
#include "data/GZLDesignMatrix.h"
#include "inference/GZLScoringEngine.h"
#include "output_reference_models.h"
#include "support/TQDisplay_940.h"
#include "support/TQSymMatrix.h"

using output_test::TableSource;
using E = GZLScoringEngine;

namespace {

const std::string kScoringDir = std::string(GZL_TEST_DATA_DIR) + "/scoring";
constexpr double kMissing = TQMV::Missing;

// A CSV file whose empty fields are missing values.
std::unique_ptr<TableSource> ReadCsv(const std::string& file) {
  std::ifstream in(file);
  std::string line;
  std::getline(in, line);
  std::vector<std::string> names;
  std::stringstream header(line);
  for (std::string name; std::getline(header, name, ',');) names.push_back(name);
  std::vector<std::vector<double>> rows;
  while (std::getline(in, line)) {
    if (line.empty()) continue;
    std::vector<double> row;
    std::size_t start = 0;
    for (std::size_t i = 0; i < names.size(); ++i) {
      const std::size_t end = std::min(line.find(',', start), line.size());
      const std::string cell = line.substr(start, end - start);
      row.push_back(cell.empty() ? kMissing : std::stod(cell));
      start = end + 1;
    }
    rows.push_back(row);
  }
  return std::make_unique<TableSource>(names, rows);
}

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
  ASSERT_EQ(files.size(), 7u);
  for (const std::string& file : files) {
    auto c = output_test::LoadCase(file, 1e-12);
    SCOPED_TRACE(c->name);
    ASSERT_TRUE(c->ok) << c->problem;
    const auto& m = c->model;
    GZLSettings& s = c->settings;
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
    auto extra = ReadCsv(kScoringDir + "/data/" + nlohmann::json::parse(in)["score_data"].get<std::string>());
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
      ExpectClose(r["XBPRED"], got.GetXBPRED(), "XBPRED");
      ExpectClose(r["XBSTDERROR"], got.GetXBSTDERROR(), "XBSTDERROR");
      ExpectClose(r["MEANPRED"], got.GetMEANPRED(), "MEANPRED");
      if (r.contains("CIMEANPRED")) {
        const auto& ci = r["CIMEANPRED"];
        ExpectClose(ci.is_null() ? ci : ci[0], got.GetCIMEANPRED().first, "CIMEANPRED lower");
        ExpectClose(ci.is_null() ? ci : ci[1], got.GetCIMEANPRED().second, "CIMEANPRED upper");
      }
      ExpectClose(r["LEVERAGE"], got.GetLEVERAGE(), "LEVERAGE");
      ExpectClose(r["RESID"], got.GetRESID(), "RESID");
      ExpectClose(r["PEARSONRESID"], got.GetPEARSONRESID(), "PEARSONRESID");
      ExpectClose(r["DEVIANCERESID"], got.GetDEVIANCERESID(), "DEVIANCERESID");
      ExpectClose(r["STDPEARSONRESID"], got.GetSTDPEARSONRESID(), "STDPEARSONRESID");
      ExpectClose(r["STDDEVIANCERESID"], got.GetSTDDEVIANCERESID(), "STDDEVIANCERESID");
      ExpectClose(r["LIKELIHOODRESID"], got.GetLIKELIHOODRESID(), "LIKELIHOODRESID");
      ExpectClose(r["COOK"], got.GetCOOK(), "COOK");
      if (r["CATPRED"].is_null())
        EXPECT_TRUE(TQMV::IsMissing(got.GetCATPRED()));
      else
        EXPECT_EQ(got.GetCATPRED(), r["CATPRED"].get<double>());
      ExpectClose(r["Conf1"], got.GetConf1(), "Conf1");
      ExpectClose(r["Conf2"], got.GetConf2(), "Conf2");
      ExpectClose(r["RawPropensity"], got.GetRawPropensity(), "RawPropensity");
      EXPECT_TRUE(got.GetXBPREDNOMINAL().empty() && got.GetMEANPREDNOMINAL().empty());
    }
  }
}
