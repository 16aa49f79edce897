// PMML export: documents of fitted models validate against the PMML 4.3 schema (xmllint), and
// a scorer that reads nothing but the document reproduces the engine's own predictions; the
// design's document details, statuses, and the metadata classes.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>

#include <nlohmann/json.hpp>
#include <pugixml.hpp>

#include "GZLFactory.h"
#include "GZLOutputStats.h"
#include "GZLPMMLExporter.h"
#include "GZLPMMLMetadata.h"
#include "GZLScoreStats.h"
#include "output_reference_models.h"
#include "pmml_scorer.h"
#include "support/ITQLinkFunc.h"
#include "support/LinkFunctions.h"
#include "support/TQDisplay_940.h"
#include "support/TQPMMLRegrExporter.h"
#include "support/TQStatXMLUtil.h"
#include "support/TQSymMatrix.h"
#include "support/TQVarList.h"

namespace {

using output_test::ReferenceCase;
using output_test::TableSource;

constexpr double kTolerance = 1e-10;

std::string TempFile(const std::string& name) { return ::testing::TempDir() + "gzl_pmml_" + name + ".xml"; }

void WriteFile(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

void ExpectSchemaValid(const std::vector<std::string>& files) {
  bool ok = false;
  const std::string output = pmml_test::ValidateWithXmllint(files, ok);
  EXPECT_TRUE(ok) << output;
}

// A fitted reference case with the description of its data: factors are nominal with their
// labels from the data's level list, a binary response nominal with 0 and 1, the rest numbers.
struct FittedCase {
  std::unique_ptr<ReferenceCase> c;
  std::unique_ptr<IGZLAlgorithm> algorithm;
  GZLPMMLMetadata metadata;
  TQVarList variables;
  std::vector<std::vector<std::string>> labels;
  TQStatus status;
};

std::unique_ptr<FittedCase> Fit(const std::string& name, const std::function<void(GZLSettings&)>& adjust = {}) {
  auto f = std::make_unique<FittedCase>();
  const std::string path = output_test::RefDir() + "/expected/" + name + ".json";
  f->c = output_test::LoadCase(path);
  if (adjust) adjust(f->c->settings);
  std::ifstream in(path);
  const std::string data = nlohmann::json::parse(in)["data"].get<std::string>();
  std::ifstream levelsIn(output_test::RefDir() + "/data/levels.json");
  const nlohmann::json levels = nlohmann::json::parse(levelsIn)[data.substr(0, data.find('.'))];

  const GZLSettings& s = f->c->settings;
  const std::vector<std::string>& names = f->c->source->Names();
  for (int i = 0; i < static_cast<int>(names.size()); ++i) {
    GZLPMMLVariable v;
    std::vector<std::string> values;
    GZLDataType type = DataNumeric;
    if (levels.is_object() && levels.contains(names[i])) {
      for (const auto& l : levels[names[i]]) {
        values.push_back(l.is_string() ? l.get<std::string>() : l.dump());
        if (l.is_string()) type = DataString;
      }
    } else if (i == s.GetDependent() && s.IsSingleDependentForBinomial()) {
      values = {"0", "1"};
    }
    EXPECT_TRUE(v.Setup(i, names[i], "", values.empty() ? MeasContinuous : MeasNominal, type));
    if (!values.empty()) {
      EXPECT_TRUE(v.SetValidValues(values, std::vector<std::string>(values.size())));
    }
    f->labels.push_back(values);
    EXPECT_TRUE(f->metadata.AddVariableInfo(v));
  }
  f->variables = TQVarList(f->metadata);
  f->algorithm.reset(GZLFactory::CreateAlgorithm(s, false));
  if (f->algorithm) {
    f->status = f->algorithm->BuildModel(*f->c->source);
  }
  return f;
}

// The record as the document's consumer sees it: categories by their labels, numbers exactly.
pmml_test::Record ScorerRecord(const FittedCase& f, const Record& record) {
  pmml_test::Record r;
  const std::vector<std::string>& names = f.c->source->Names();
  for (std::size_t i = 0; i < names.size() && i < record.Size(); ++i) {
    const std::vector<std::string>& labels = f.labels[i];
    r[names[i]] = labels.empty() ? TQStatXMLUtil::FormatDouble(record[i])
                                 : labels[static_cast<std::size_t>(record[i] + 0.5)];
  }
  return r;
}

double Number(const char* text) { return std::strtod(text, nullptr); }

// Exports the fitted case (with or without the covariance matrix), scores every record from the
// document alone and compares with the engine's Score; checks that estimates and covariances
// read back exactly. Returns the file written, for the schema check.
std::string CheckRoundTrip(FittedCase& f, bool covariance, const std::string& tag) {
  std::ostringstream out;
  const TQStatus status = f.algorithm->ExportPMML(f.variables, out, covariance, nullptr);
  EXPECT_TRUE(status.IsOK()) << tag << " status " << status.GetErrorCode();
  const std::string text = out.str();
  const std::string file = TempFile(tag + (covariance ? "_cov" : ""));
  WriteFile(file, text);
  if (!status.IsOK()) return file;

  pmml_test::Scorer scorer(text);
  const GZLSettings& s = f.c->settings;
  const bool binary = s.IsSingleDependentForBinomial();
  std::size_t event = 0;
  if (binary) {
    const auto& cats = scorer.Categories();
    event = cats[0] == scorer.Attribute("targetReferenceCategory") ? 1 : 0;
  }
  TableSource& source = *f.c->source;
  source.Rewind();
  GZLScoreStats scores;
  const int mask = 0x1 | 0x4;
  double worst = 0.0;
  int scored = 0;
  while (source.HasMoreRecords()) {
    const Record& record = *source.NextRecord();
    if (!f.algorithm->Score(record, scores, &mask).IsOK()) continue;
    const pmml_test::Record r = ScorerRecord(f, record);
    const double predicted = binary ? scorer.Probabilities(r)[event] : scorer.Predict(r);
    const double expected = scores.GetMEANPRED();
    worst = std::max(worst, std::fabs(predicted - expected) / std::max(1.0, std::fabs(expected)));
    ++scored;
  }
  EXPECT_EQ(scored, static_cast<int>(source.NumRows())) << tag;
  EXPECT_LE(worst, kTolerance) << tag;

  // Estimates and covariances are written so that they read back as the same doubles.
  const GZLOutputStats* stats = nullptr;
  EXPECT_TRUE(f.algorithm->GetOutputStats(stats).IsOK());
  pugi::xml_document doc;
  doc.load_string(text.c_str());
  const pugi::xml_node model = doc.child("PMML").child("GeneralRegressionModel");
  int j = 0, inModel = 0;
  for (pugi::xml_node cell : model.child("ParamMatrix").children("PCell")) {
    const bool redundant = stats->GetRedundancyIndicators()[static_cast<std::size_t>(j)];
    inModel += redundant ? 0 : 1;
    EXPECT_EQ(Number(cell.attribute("beta").value()), redundant ? 0.0 : stats->GetParamEstimates()[static_cast<std::size_t>(j)])
        << tag << " parameter " << j;
    ++j;
  }
  EXPECT_EQ(j, static_cast<int>(stats->GetParamEstimates().size())) << tag;
  const pugi::xml_node cov = model.child("PCovMatrix");
  EXPECT_EQ(static_cast<bool>(cov), covariance) << tag;
  if (cov) {
    EXPECT_EQ(std::distance(cov.children("PCovCell").begin(), cov.children("PCovCell").end()),
              inModel * (inModel + 1) / 2)
        << tag;
    const pugi::xml_node first = cov.child("PCovCell");
    const int row = std::atoi(first.attribute("pRow").value() + 1) - 1;
    EXPECT_EQ(Number(first.attribute("value").value()), stats->GetCovarianceMatrix()(row, row)) << tag;
  }
  return file;
}

TEST(PMMLExport, SingleResponseDocumentsValidateAndScoreAsTheEngine) {
  using Adjust = std::function<void(GZLSettings&)>;
  const std::vector<std::tuple<std::string, std::string, Adjust>> cases = {
      {"ships_poisson_offset", "offset variable, numeric category values", {}},
      {"mtcars_normal_identity", "normal identity", {}},
      {"mtcars_normal_factor_by_covariate", "factor-by-covariate products", {}},
      {"trees_normal_quadratic", "powers", {}},
      {"mtcars_normal_power_link", "power link", {}},
      {"esoph_binomial_logit", "events/trials variable", {}},
      {"esoph_binomial_cloglog", "cloglog", {}},
      {"trees_gamma_log", "gamma log", {}},
      {"trees_gamma_inverse_pearson", "gamma inverse", {}},
      {"mtcars_invgauss_log", "inverse Gaussian", {}},
      {"quine_negbin_k_estimated", "negative binomial, k estimated", {}},
      {"claims_tweedie_mle", "Tweedie", {}},
      {"mtcars_binary_logit", "binary, reference 0", {}},
      {"mtcars_binary_logit", "binary, reference last",
       [](GZLSettings& s) { s.SetDependentRefCateg(-1); }},
      {"warpbreaks_poisson_nested", "nested", {}},
      {"warpbreaks_poisson_identity", "Poisson identity", {}},
      {"esoph_binomial_logit", "probit", [](GZLSettings& s) { s.SetLinkType(TQConst::LinkProbit); }},
      {"esoph_binomial_logit", "negative log-log", [](GZLSettings& s) { s.SetLinkType(TQConst::LinkNLogLog); }},
      {"esoph_binomial_logit", "log-complement", [](GZLSettings& s) { s.SetLinkType(TQConst::LinkLogC); }},
      {"esoph_binomial_logit", "odds power",
       [](GZLSettings& s) {
         s.SetLinkType(TQConst::LinkOddsPower);
         s.SetLinkParam(0.1);
       }},
      {"esoph_binomial_logit", "constant trials",
       [](GZLSettings& s) { s.SetEventsConstTrials(s.GetDependent(), 60.0); }},
      {"quine_negbin_k_fixed", "negative binomial link",
       [](GZLSettings& s) { s.SetLinkType(TQConst::LinkNegBinomial); }},
      {"warpbreaks_poisson_interaction", "fixed offset", [](GZLSettings& s) { s.SetOffsetValue(0.25); }},
  };
  std::vector<std::string> files;
  for (const auto& [name, what, adjust] : cases) {
    SCOPED_TRACE(name + " (" + what + ")");
    auto f = Fit(name, adjust);
    ASSERT_TRUE(f->c->ok && f->algorithm) << f->c->problem;
    ASSERT_TRUE(f->algorithm->IsModelBuilt()) << "status " << f->status.GetErrorCode();
    std::string tag = name + "_" + std::to_string(files.size());
    files.push_back(CheckRoundTrip(*f, true, tag));
    files.push_back(CheckRoundTrip(*f, false, tag));
  }
  ExpectSchemaValid(files);
}

}  // namespace
