// `gzl fit --save` and `--score-data`: the scores of every record of the fitted file and of a
// second file, written as CSV, against the scoring references (a generalized linear model and a
// GEE model), including records that get a status instead of scores; the column names of the
// outputs; and the options' checks.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

#include <nlohmann/json.hpp>

#include "GZLSettings.h"
#include "tools/FitCommand.h"
#include "tools/ScoreFile.h"

namespace {

using nlohmann::json;

const std::string kData = std::string(GZL_TEST_DATA_DIR);

std::string TempPath(const std::string& name) {
  return (std::filesystem::temp_directory_path() / ("gzl_test_scores_" + std::to_string(::getpid()) + "_" + name))
      .string();
}

// A CSV file without quoted fields: the header, then the rows.
std::vector<std::vector<std::string>> ReadCsv(const std::string& path) {
  std::vector<std::vector<std::string>> rows;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    std::vector<std::string> fields;
    std::size_t start = 0;
    for (std::size_t comma; (comma = line.find(',', start)) != std::string::npos; start = comma + 1)
      fields.push_back(line.substr(start, comma - start));
    fields.push_back(line.substr(start));
    rows.push_back(std::move(fields));
  }
  return rows;
}

void ExpectField(const json& expected, const std::string& field, const std::string& what) {
  if (expected.is_null()) {
    EXPECT_EQ(field, "") << what;
    return;
  }
  ASSERT_NE(field, "") << what << ": reference " << expected;
  const double e = expected.get<double>();
  EXPECT_NEAR(std::stod(field), e, std::max(1e-6 * std::fabs(e), 1e-9)) << what;
}

int Column(const std::vector<std::string>& header, const std::string& name) {
  const auto it = std::find(header.begin(), header.end(), name);
  return it == header.end() ? -1 : static_cast<int>(it - header.begin());
}

}  // namespace

TEST(ToolScores, ReferenceRecordsOfTheFittedAndASecondFile) {
  for (const char* name : {"ships_poisson_offset", "ships_gee_poisson_independent"}) {
    SCOPED_TRACE(name);
    std::ifstream in(kData + "/scoring/expected/" + name + ".json");
    const json c = json::parse(in);
    const json& m = c["model"];
    FitOptions o;
    o.dataPath = kData + "/reference/data/" + c["data"].get<std::string>();
    o.response = m["response"];
    o.distribution = TQConst::DistPoisson;
    o.offsetVariable = m["offset"];
    o.factors = m["factors"].get<std::vector<std::string>>();
    o.subjects = m.value("subjects", std::vector<std::string>());
    o.paramTolerance = 1e-12;
    o.llTolerance = 1e-14;
    if (!o.subjects.empty()) o.geeParamTolerance = 1e-12;
    o.confidenceLevel = m["confidence"].get<double>() / 100.0;
    o.savePath = TempPath("save.csv");
    o.scoreDataPath = kData + "/scoring/data/" + c["score_data"].get<std::string>();
    o.scoreOutputPath = TempPath("scored.csv");
    // Every output a GLM has; the GEE default set is the reference's mask.
    if (o.subjects.empty()) o.scoreOutputs = {"all"};
    std::ostringstream out, err;
    ASSERT_EQ(RunFitCommand(o, {}, out, err), 0) << err.str();

    const auto saved = ReadCsv(o.savePath);
    const auto scored = ReadCsv(o.scoreOutputPath);
    ASSERT_FALSE(saved.empty());
    ASSERT_FALSE(scored.empty());
    const std::vector<std::string>& header = saved[0];
    EXPECT_EQ(header, scored[0]);
    const int status = Column(header, "STATUS");
    ASSERT_EQ(status, 5);  // after the five input columns
    EXPECT_EQ(header[0], "incidents");
    std::size_t compared = 0, statuses = 0;
    for (const auto& r : c["expected"]["records"]) {
      const auto& rows = r["file"] == "data" ? saved : scored;
      const std::size_t at = r["row"].get<std::size_t>() + 1;
      ASSERT_LT(at, rows.size());
      const std::vector<std::string>& row = rows[at];
      ASSERT_EQ(row.size(), header.size());
      SCOPED_TRACE(r["file"].get<std::string>() + " row " + std::to_string(at - 1));
      EXPECT_EQ(std::stoi(row[static_cast<std::size_t>(status)]), r["status"].get<int>());
      statuses += r["status"] != 0;
      for (const char* key : {"XBPRED", "XBSTDERROR", "MEANPRED", "LEVERAGE", "RESID", "PEARSONRESID", "DEVIANCERESID",
                              "STDPEARSONRESID", "STDDEVIANCERESID", "LIKELIHOODRESID", "COOK"}) {
        const int col = Column(header, key);
        if (col < 0) {
          // Left out of the GEE outputs: the engine does not compute them for GEE.
          EXPECT_TRUE(r[key].is_null()) << key;
          continue;
        }
        ExpectField(r[key], row[static_cast<std::size_t>(col)], key);
        ++compared;
      }
      const json& ci = r["CIMEANPRED"];
      ExpectField(ci.is_null() ? ci : ci[0], row[static_cast<std::size_t>(Column(header, "CIMEANPRED_LOWER"))], "lower");
      ExpectField(ci.is_null() ? ci : ci[1], row[static_cast<std::size_t>(Column(header, "CIMEANPRED_UPPER"))], "upper");
    }
    EXPECT_EQ(saved.size() - 1 + scored.size() - 1, c["expected"]["records"].size());
    EXPECT_GT(compared, 100u);
    EXPECT_GE(statuses, 2u);
    if (!o.subjects.empty()) {
      // A subject that the fit never saw is scored like any other.
      FitOptions n = o;
      std::ofstream(n.scoreDataPath = TempPath("new_subject.csv")) << "incidents,type,year,period,logservice\n"
                                                                  << "1,7,2,0,5.7037824746562\n";
      std::ostringstream out2, err2;
      ASSERT_EQ(RunFitCommand(n, {}, out2, err2), 0) << err2.str();
      const auto rows = ReadCsv(n.scoreOutputPath);
      ASSERT_EQ(rows.size(), 2u);
      EXPECT_EQ(rows[1][static_cast<std::size_t>(status)], "0");
      EXPECT_EQ(rows[1][static_cast<std::size_t>(status) + 1], scored[2][static_cast<std::size_t>(status) + 1]);
      std::filesystem::remove(n.scoreDataPath);
    }
    // The input fields are copied as they stand, empty ones included.
    std::ifstream extra(o.scoreDataPath);
    std::string line;
    std::getline(extra, line);
    std::getline(extra, line);
    EXPECT_EQ(scored[1][0] + "," + scored[1][1] + "," + scored[1][2] + "," + scored[1][3] + "," + scored[1][4], line);
    std::filesystem::remove(o.savePath);
    std::filesystem::remove(o.scoreOutputPath);
  }
}

TEST(ToolScores, OutputNamesMasksAndChecks) {
  GZLSettings glm;
  glm.SetDistType(TQConst::DistPoisson);
  int mask = 0;
  std::string error;
  ASSERT_TRUE(ScoreMask({"xbpred", "CIMEANPRED", "conf1"}, glm, mask, error));
  EXPECT_EQ(mask, 0x1 | 0x8 | 0x2000);
  EXPECT_EQ(ScoreColumnNames(mask, false, {}),
            (std::vector<std::string>{"XBPRED", "CIMEANPRED_LOWER", "CIMEANPRED_UPPER", "Conf1"}));
  EXPECT_FALSE(ScoreMask({"XBPRED", "FITTED"}, glm, mask, error));
  EXPECT_EQ(error, "--score-outputs: 'FITTED' is not a score output");
  GZLSettings gee = glm;
  gee.SetGZLModelType(GZLConst_940::GEE);
  EXPECT_FALSE(ScoreMask({"COOK"}, gee, mask, error));
  ASSERT_TRUE(ScoreMask({"all"}, gee, mask, error));
  EXPECT_EQ(mask, 0xF | 0x20 | 0x40);
  // Per-category lists: one column per element, named by category (K - 1 linear predictors).
  EXPECT_EQ(ScoreColumnNames(0x1 | 0x8 | 0x1000, true, {"low", "mid", "high"}),
            (std::vector<std::string>{"XBPREDNOMINAL_low", "XBPREDNOMINAL_mid", "CIMEANPREDNOMINAL_low_LOWER",
                                      "CIMEANPREDNOMINAL_low_UPPER", "CIMEANPREDNOMINAL_mid_LOWER",
                                      "CIMEANPREDNOMINAL_mid_UPPER", "CIMEANPREDNOMINAL_high_LOWER",
                                      "CIMEANPREDNOMINAL_high_UPPER", "CATPRED"}));

  // An ordinal response through the command: one column per category of each list.
  {
    FitOptions o;
    o.dataPath = kData + "/../../examples/wine.csv";
    o.response = "rating";
    o.distribution = TQConst::DistOrdinalMultinomial;
    o.factors = {"temp", "contact"};
    o.savePath = TempPath("wine.csv");
    std::ostringstream out, err;
    ASSERT_EQ(RunFitCommand(o, {}, out, err), 0) << err.str();
    const auto rows = ReadCsv(o.savePath);
    ASSERT_EQ(rows.size(), 73u);
    const std::vector<std::string> scores(rows[0].begin() + 4, rows[0].end());
    EXPECT_EQ(scores, (std::vector<std::string>{"STATUS", "XBPREDNOMINAL_1", "XBPREDNOMINAL_2", "XBPREDNOMINAL_3",
                                                "XBPREDNOMINAL_4", "MEANPREDNOMINAL_1", "MEANPREDNOMINAL_2",
                                                "MEANPREDNOMINAL_3", "MEANPREDNOMINAL_4", "MEANPREDNOMINAL_5",
                                                "CATPRED"}));
    for (std::size_t i = 1; i < rows.size(); ++i) {
      const auto& row = rows[i];
      ASSERT_EQ(row.size(), rows[0].size());
      EXPECT_EQ(row[4], "0");
      double total = 0.0;
      for (std::size_t c = 9; c < 14; ++c) total += std::stod(row[c]);
      EXPECT_NEAR(total, 1.0, 1e-12);
      // The predicted category by its label.
      EXPECT_TRUE(row[14] >= "1" && row[14] <= "5" && row[14].size() == 1) << row[14];
    }
    std::filesystem::remove(o.savePath);
  }

  FitOptions o;
  o.dataPath = kData + "/reference/data/ships.csv";
  o.response = "incidents";
  o.distribution = TQConst::DistPoisson;
  o.factors = {"type"};
  for (const auto& [change, message] : std::vector<std::pair<void (*)(FitOptions&), std::string>>{
           {[](FitOptions& x) { x.scoreOutputs = {"XBPRED"}; }, "--score-outputs needs --save or --score-data"},
           {[](FitOptions& x) { x.scoreDataPath = x.dataPath; }, "--score-data and --score-output go together"},
           {[](FitOptions& x) { x.savePath = x.dataPath; }, "--save would overwrite the data file"},
           {[](FitOptions& x) {
              x.subjects = {"type"};
              x.savePath = "/nonexistent/dir/s.csv";
            },
            "--save: cannot create '/nonexistent/dir/s.csv'"},
           {[](FitOptions& x) {
              x.scoreDataPath = kData + "/scoring/data/ships_gee_poisson_independent.csv";
              x.scoreOutputPath = "/nonexistent/o.csv";
              x.factors = {"period"};
              x.offsetVariable = "logservice";
              x.covariates = {"year"};
              x.scoreDataPath = kData + "/reference/data/warpbreaks.csv";
            },
            "no column 'period', which the model needs"},
       }) {
    FitOptions bad = o;
    change(bad);
    std::ostringstream out, err;
    EXPECT_EQ(RunFitCommand(bad, {}, out, err), 1) << message;
    EXPECT_NE(err.str().find(message), std::string::npos) << err.str();
  }
}
