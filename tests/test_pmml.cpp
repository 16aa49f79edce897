// PMML export: documents of fitted models validate against the PMML 4.3 schema (xmllint), and
// a scorer that reads nothing but the document reproduces the engine's own predictions; the
// design's document details, statuses, and the metadata classes.
#include <gtest/gtest.h>

#include <algorithm>
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
#include "support/TQDisplay_940.h"
#include "support/TQPMMLExporter.h"
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

// folder: the reference folder under the test data ("reference", "multinomial"). Model factors
// and multinomial responses that the level list does not name are labelled by their codes.
std::unique_ptr<FittedCase> Fit(const std::string& name, const std::function<void(GZLSettings&)>& adjust = {},
                                const std::string& folder = "reference") {
  auto f = std::make_unique<FittedCase>();
  const std::string root = std::string(GZL_TEST_DATA_DIR) + "/" + folder;
  const std::string path = root + "/expected/" + name + ".json";
  f->c = output_test::LoadCase(path, 1e-10, folder == "reference" ? "" : root + "/data");
  if (adjust) adjust(f->c->settings);
  std::ifstream in(path);
  const std::string data = nlohmann::json::parse(in)["data"].get<std::string>();
  std::ifstream levelsIn(root + "/data/levels.json");
  const nlohmann::json levels = nlohmann::json::parse(levelsIn)[data.substr(0, data.find('.'))];

  const GZLSettings& s = f->c->settings;
  const std::vector<int>& factors = s.GetFactors();
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
    } else if (folder != "reference" && ((i == s.GetDependent() && s.IsMultinomial()) ||
                                         std::find(factors.begin(), factors.end(), i) != factors.end())) {
      for (int c = 0; c < f->c->source->Levels(i); ++c) values.push_back(std::to_string(c));
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

// A model written through the exporter alone, from a parameter list and estimates of the test's
// making: field 0 the response, 1 a factor with categories "a" and "b", 2 a covariate x, 3 an
// offset variable.
struct HandModel {
  GZLSettings settings;
  std::vector<int> modelVars{1, 2};
  TQVarList variables;
  std::vector<TQRegrParameter> parameters;
  std::vector<double> estimates;
  TQBitSet inModel;

  HandModel(TQConst::DistType dist, TQConst::LinkType link, std::vector<std::string> responseValues) {
    settings.SetDistType(dist);
    settings.SetLinkType(link);
    settings.SetDependent(0);
    settings.SetDependentSize(static_cast<int>(responseValues.size()));
    settings.AddFactor(1, 2);
    settings.AddCovariate(2);
    GZLPMMLMetadata metadata;
    GZLPMMLVariable v;
    const bool categorical = !responseValues.empty();
    v.Setup(0, "y", "Response", categorical ? MeasOrdinal : MeasContinuous, categorical ? DataString : DataNumeric);
    if (categorical) v.SetValidValues(responseValues, std::vector<std::string>(responseValues.size()));
    metadata.AddVariableInfo(v);
    v.Reset();
    v.Setup(1, "f", "", MeasNominal, DataString);
    v.SetValidValues({"a", "b"}, {"Level a", ""});
    metadata.AddVariableInfo(v);
    for (int field : {2, 3}) {
      v.Reset();
      v.Setup(field, field == 2 ? "x" : "o", "", MeasContinuous, DataNumeric);
      metadata.AddVariableInfo(v);
    }
    variables = TQVarList(metadata);
  }
  // Appends the parameters of one logit or of the effects: intercept (when target >= 0 or
  // intercept), [f=a], [f=b] (aliased), x.
  void AddBlock(int target, bool intercept, const std::vector<double>& values) {
    TQRegrParameter p;
    p.SetTargetCategory(target);
    if (intercept) parameters.push_back(p);
    for (int c = 0; c < 2; ++c) {
      TQRegrParameter f = p;
      f.AddFactor(1, c, 0);
      parameters.push_back(f);
    }
    TQRegrParameter x = p;
    x.AddCovariate(2, 1);
    x.SetEffectIndex(1);
    parameters.push_back(x);
    estimates.insert(estimates.end(), values.begin(), values.end());
  }
  std::string Export(const TQSymMatrix* covariance, TQStatus* status = nullptr, double k = TQMV::Missing) {
    inModel = TQBitSet(static_cast<int>(parameters.size()), true);
    for (std::size_t j = 0; j < parameters.size(); ++j)
      if (parameters[j].GetNFactors() == 1 && parameters[j].GetCategories()[0] == 1) inModel.Clear(static_cast<int>(j));
    GZLPMMLExporter exporter(settings, variables, nullptr, parameters, estimates, inModel, k);
    std::ostringstream out;
    const TQStatus s = exporter.ExportPMML(out, covariance);
    if (status != nullptr) *status = s;
    return out.str();
  }
};

// A covariance matrix with distinct entries.
TQSymMatrix SomeCovariance(int n) {
  TQSymMatrix c(n);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j) c(i, j) = i == j ? 1.0 + i : 0.01 * (i + 1) - 0.003 * j;
  return c;
}

pmml_test::Record HandRecord(const char* f, double x, double o) {
  return {{"f", f}, {"x", TQStatXMLUtil::FormatDouble(x)}, {"o", TQStatXMLUtil::FormatDouble(o)}};
}

TEST(PMMLExport, OrdinalAndNominalDocumentsInTheStandardsTerms) {
  std::vector<std::string> files;
  const std::vector<std::tuple<const char*, double, double>> records = {{"a", 0.5, 0.0}, {"b", -1.25, 0.4}, {"a", 2.0, -0.3}};

  // Ordinal: thresholds for the first two of three categories, then the effects; the engine's
  // cumulative probability is F(theta_j - (x'b - offset)).
  for (int link = TQConst::LinkCumCauchit; link <= TQConst::LinkCumProbit; ++link) {
    HandModel m(TQConst::DistOrdinalMultinomial, static_cast<TQConst::LinkType>(link), {"low", "mid", "high"});
    m.settings.SetOffset(3);
    for (int c = 0; c < 2; ++c) {
      TQRegrParameter threshold;
      threshold.SetTargetCategory(c);
      m.parameters.push_back(threshold);
    }
    m.estimates = {-0.5, 0.8};
    m.AddBlock(-1, false, {0.3, 0.0, -0.7});
    const TQSymMatrix covariance = SomeCovariance(5);
    const std::string text = m.Export(&covariance);
    files.push_back(TempFile("ordinal_" + std::to_string(link)));
    WriteFile(files.back(), text);

    EXPECT_NE(text.find("cumulativeLink =\""), std::string::npos);
    pmml_test::Scorer scorer(text);
    EXPECT_EQ(scorer.Attribute("modelType"), "ordinalMultinomial");
    EXPECT_EQ(scorer.Attribute("functionName"), "classification");
    EXPECT_EQ(scorer.Attribute("distribution"), "");
    EXPECT_EQ(scorer.Attribute("offsetVariable"), "o");
    std::unique_ptr<ITQLinkFunc> F(CreateLinkFunction(static_cast<TQConst::LinkType>(link), TQMV::Missing));
    for (const auto& [f, x, o] : records) {
      const double lambda = (f[0] == 'a' ? 0.3 : 0.0) - 0.7 * x - o;
      const double p0 = F->GetMu(-0.5 - lambda, nullptr), p1 = F->GetMu(0.8 - lambda, nullptr);
      const std::vector<double> expected = {p0, p1 - p0, 1.0 - p1};
      const std::vector<double> got = scorer.Probabilities(HandRecord(f, x, o));
      for (int c = 0; c < 3; ++c) EXPECT_NEAR(got[c], expected[c], kTolerance) << "link " << link << " category " << c;
    }
    // Covariances follow the signs: threshold with effect reversed, effects with effects kept.
    pugi::xml_document doc;
    doc.load_string(text.c_str());
    for (pugi::xml_node cell : doc.child("PMML").child("GeneralRegressionModel").child("PCovMatrix").children("PCovCell")) {
      const int row = std::atoi(cell.attribute("pRow").value() + 1) - 1, col = std::atoi(cell.attribute("pCol").value() + 1) - 1;
      EXPECT_EQ(Number(cell.attribute("value").value()), (row < 2) == (col < 2) ? covariance(row, col) : -covariance(row, col));
      EXPECT_EQ(std::string(cell.attribute("tRow").value()), row < 2 ? (row == 0 ? "low" : "mid") : "");
    }
  }

  // Nominal: one block per non-reference category (reference 0, "a"), logit-major; no offset.
  HandModel m(TQConst::DistNominalMultinomial, TQConst::LinkLogit, {"a", "b", "c"});
  const std::vector<double> b1 = {0.2, -0.4, 0.0, 0.9}, b2 = {-1.1, 0.6, 0.0, 0.35};
  m.AddBlock(1, true, b1);
  m.AddBlock(2, true, b2);
  const TQSymMatrix covariance = SomeCovariance(8);
  const std::string text = m.Export(&covariance);
  files.push_back(TempFile("nominal"));
  WriteFile(files.back(), text);
  pmml_test::Scorer scorer(text);
  EXPECT_EQ(scorer.Attribute("modelType"), "multinomialLogistic");
  EXPECT_EQ(scorer.Attribute("targetReferenceCategory"), "a");
  for (const auto& [f, x, o] : records) {
    auto eta = [&](const std::vector<double>& b) { return b[0] + (f[0] == 'a' ? b[1] : 0.0) + b[3] * x; };
    const double e1 = std::exp(eta(b1)), e2 = std::exp(eta(b2)), sum = 1.0 + e1 + e2;
    const std::vector<double> got = scorer.Probabilities(HandRecord(f, x, o));
    EXPECT_NEAR(got[0], 1.0 / sum, kTolerance);
    EXPECT_NEAR(got[1], e1 / sum, kTolerance);
    EXPECT_NEAR(got[2], e2 / sum, kTolerance);
  }
  EXPECT_NE(text.find("label=\"[y=c]: [f=a]\""), std::string::npos);
  ExpectSchemaValid(files);
}

// Fitted ordinal and nominal models: the document validates, and its probabilities of every
// category, read by the scorer alone, are the engine's scores of every record. The ordinal case
// with an offset pins the offset's sign: document and scores both take theta_j - x'b + o.
TEST(PMMLExport, FittedMultinomialDocumentsScoreAsTheEngine) {
  std::vector<std::string> files;
  for (const std::string name : {"housing_cumlogit_freq", "wine_cumprobit_interaction", "sim_cumcloglog_offset_newton",
                                 "housing_nominal_type_reflast", "sim_nominal_factor_by_covariate_reffirst"}) {
    SCOPED_TRACE(name);
    auto f = Fit(name, {}, "multinomial");
    ASSERT_TRUE(f->c->ok && f->algorithm) << f->c->problem;
    ASSERT_TRUE(f->algorithm->IsModelBuilt()) << "status " << f->status.GetErrorCode();
    std::ostringstream out;
    ASSERT_TRUE(f->algorithm->ExportPMML(f->variables, out, true, nullptr).IsOK());
    files.push_back(TempFile("fitted_" + name));
    WriteFile(files.back(), out.str());
    pmml_test::Scorer scorer(out.str());
    // The engine lists the categories in the model's order; the document in the codes' order.
    const std::vector<int>& order = f->algorithm->GetDependCategories();
    ASSERT_EQ(order.size(), scorer.Categories().size());
    TableSource& source = *f->c->source;
    source.Rewind();
    GZLScoreStats scores;
    const int mask = 0x4;
    double worst = 0.0;
    int scored = 0;
    while (const Record* record = source.NextRecord()) {
      ASSERT_TRUE(f->algorithm->Score(*record, scores, &mask).IsOK());
      const std::vector<double> document = scorer.Probabilities(ScorerRecord(*f, *record));
      const std::vector<double>& engine = scores.GetMEANPREDNOMINAL();
      ASSERT_EQ(engine.size(), order.size());
      for (std::size_t k = 0; k < order.size(); ++k)
        worst = std::max(worst, std::fabs(engine[k] - document[static_cast<std::size_t>(order[k])]));
      ++scored;
    }
    EXPECT_EQ(scored, static_cast<int>(source.NumRows()));
    EXPECT_LE(worst, kTolerance);
  }
  ExpectSchemaValid(files);
}

pugi::xml_node ModelOf(pugi::xml_document& doc, const std::string& text) {
  doc.load_string(text.c_str());
  return doc.child("PMML").child("GeneralRegressionModel");
}

TEST(PMMLExport, ModelAttributesAndExplanation) {
  std::vector<std::string> files;
  auto keep = [&files](const std::string& name, const std::string& text) {
    files.push_back(TempFile(name));
    WriteFile(files.back(), text);
  };
  pugi::xml_document doc;
  // A binary response: multinomialLogistic classification with the host's confusion matrix; the
  // header names the host's application.
  {
    auto f = Fit("mtcars_binary_logit");
    ASSERT_TRUE(f->algorithm && f->algorithm->IsModelBuilt());
    TQClassificationMatrix classification(2);
    classification.Set(0, 0, 17);
    classification.Set(0, 1, 2);
    classification.Set(1, 1, 13);
    f->algorithm->SetClassification(classification);
    f->algorithm->SetNumOfPredictors(2);
    const TQApplicInfo4XML application("Host", "2.1", "(c) Host");
    std::ostringstream out;
    ASSERT_TRUE(f->algorithm->ExportPMML(f->variables, out, false, &application).IsOK());
    keep("binary", out.str());
    const pugi::xml_node model = ModelOf(doc, out.str());
    EXPECT_STREQ(model.attribute("modelType").value(), "multinomialLogistic");
    EXPECT_STREQ(model.attribute("functionName").value(), "classification");
    EXPECT_STREQ(model.attribute("targetReferenceCategory").value(), "0");
    EXPECT_STREQ(model.child("ParamMatrix").child("PCell").attribute("targetCategory").value(), "1");
    EXPECT_STREQ(doc.child("PMML").child("Header").child("Application").attribute("name").value(), "Host");
    EXPECT_STREQ(doc.child("PMML").child("Header").attribute("copyright").value(), "(c) Host");
    const pugi::xml_node quality = model.child("ModelExplanation").child("PredictiveModelQuality");
    EXPECT_STREQ(quality.attribute("targetField").value(), "am");
    EXPECT_STREQ(quality.attribute("numOfRecords").value(), "0");
    EXPECT_STREQ(quality.attribute("numOfPredictors").value(), "2");
    const GZLOutputStats* stats = nullptr;
    ASSERT_TRUE(f->algorithm->GetOutputStats(stats).IsOK());
    EXPECT_EQ(Number(quality.attribute("BIC").value()), stats->GetBIC());
    EXPECT_EQ(Number(quality.attribute("AICc").value()), stats->GetAICC());
    const pugi::xml_node confusion = quality.child("ConfusionMatrix");
    EXPECT_STREQ(confusion.child("ClassLabels").child_value("Array"), "\"0\" \"1\"");
    EXPECT_STREQ(confusion.child("Matrix").first_child().child_value(), "17 2");
    EXPECT_STREQ(model.child("Extension").attribute("name").value(), "modelID");
  }
  // Events and trials: generalizedLinear regression with the trials variable and the event
  // labels; the library's own application in the header.
  {
    auto f = Fit("esoph_binomial_logit");
    ASSERT_TRUE(f->algorithm && f->algorithm->IsModelBuilt());
    std::ostringstream out;
    ASSERT_TRUE(f->algorithm->ExportPMML(f->variables, out, false, nullptr).IsOK());
    keep("events_trials", out.str());
    const pugi::xml_node model = ModelOf(doc, out.str());
    EXPECT_STREQ(model.attribute("modelType").value(), "generalizedLinear");
    EXPECT_STREQ(model.attribute("functionName").value(), "regression");
    EXPECT_STREQ(model.attribute("trialsVariable").value(), "ntotal");
    EXPECT_STREQ(doc.child("PMML").child("Header").child("Application").attribute("name").value(), kGZLDefaultApplicName);
    EXPECT_STREQ(doc.child("PMML").child("Header").child("Application").attribute("version").value(), kGZLDefaultApplicVersion);
    EXPECT_STREQ(model.child("ModelExplanation").child("PredictiveModelQuality").child("ConfusionMatrix").child("ClassLabels").child_value("Array"),
                 "\"Non-Event\" \"Event\"");
  }
  // A continuous response: the regression gains as one LiftData; a power link with its
  // parameter; a fixed offset; constant trials as an integer.
  {
    HandModel m(TQConst::DistNormal, TQConst::LinkPower, {});
    m.settings.SetLinkParam(1.5);
    m.settings.SetOffsetValue(-0.125);
    m.AddBlock(-1, true, {1.0, 0.5, 0.0, 0.25});
    std::string text = m.Export(nullptr);
    keep("power", text);
    pugi::xml_node model = ModelOf(doc, text);
    EXPECT_STREQ(model.attribute("linkFunction").value(), "power");
    EXPECT_STREQ(model.attribute("linkParameter").value(), "1.5");
    EXPECT_STREQ(model.attribute("offsetValue").value(), "-0.125");
    EXPECT_STREQ(model.attribute("distribution").value(), "normal");
    EXPECT_FALSE(model.child("ModelExplanation").child("PredictiveModelQuality").child("ConfusionMatrix"));

    GZLPMMLExporter exporter(m.settings, m.variables, nullptr, m.parameters, m.estimates, m.inModel, TQMV::Missing);
    exporter.SetGainsRegr({{0.1, 0.2, 3.0, 3.5}, {1.0, 1.0, 0.5, 1.25}});
    std::ostringstream out;
    ASSERT_TRUE(exporter.ExportPMML(out, nullptr).IsOK());
    keep("gains", out.str());
    const pugi::xml_node graph = ModelOf(doc, out.str())
                                     .child("ModelExplanation").child("PredictiveModelQuality").child("LiftData")
                                     .child("ModelLiftGraph").child("LiftGraph");
    EXPECT_STREQ(graph.child("XCoordinates").child_value("Array"), "0.1 1");
    EXPECT_STREQ(graph.child("BoundaryValueMeans").child_value("Array"), "3.5 1.25");

    HandModel b(TQConst::DistBinomial, TQConst::LinkLogit, {});
    ASSERT_TRUE(b.settings.SetEventsConstTrials(3, 12.0));
    b.AddBlock(-1, true, {1.0, 0.5, 0.0, 0.25});
    text = b.Export(nullptr);
    keep("constant_trials", text);
    EXPECT_STREQ(ModelOf(doc, text).attribute("trialsValue").value(), "12");
  }
  // A Poisson model standing for a negative binomial with k = 0: distribution poisson and, with
  // the negative binomial link, link parameter 0. A negative binomial model writes its k.
  {
    HandModel m(TQConst::DistPoisson, TQConst::LinkNegBinomial, {});
    m.settings.SetNegBin0(true);
    m.AddBlock(-1, true, {-1.0, 0.5, 0.0, 0.25});
    std::string text = m.Export(nullptr);
    keep("negbin0", text);
    pugi::xml_node model = ModelOf(doc, text);
    EXPECT_STREQ(model.attribute("distribution").value(), "poisson");
    EXPECT_STREQ(model.attribute("linkParameter").value(), "0");
    m.settings.SetNegBin0(false);
    m.settings.SetDistType(TQConst::DistNegBinomial);
    text = m.Export(nullptr, nullptr, 0.75);
    keep("negbin", text);
    model = ModelOf(doc, text);
    EXPECT_STREQ(model.attribute("distribution").value(), "negbin");
    EXPECT_STREQ(model.attribute("distParameter").value(), "0.75");
    EXPECT_STREQ(model.attribute("linkParameter").value(), "0.75");
  }
  ExpectSchemaValid(files);
}

TEST(PMMLExport, StatusesAndNothingWrittenOnError) {
  HandModel m(TQConst::DistNormal, TQConst::LinkIdentity, {});
  m.settings.SetOffset(3);
  m.AddBlock(-1, true, {1.0, 0.5, 0.0, 0.25});
  {
    // Not fitted yet.
    std::unique_ptr<IGZLAlgorithm> algorithm(GZLFactory::CreateAlgorithm(m.settings, false));
    ASSERT_TRUE(algorithm);
    std::ostringstream out;
    EXPECT_EQ(algorithm->ExportPMML(m.variables, out, true, nullptr).GetErrorCode(), GZLStatusCode::ModelNotBuilt);
    EXPECT_TRUE(out.str().empty());
  }
  // A variable missing from the list (datum 1: 0 factor, 1 covariate, 2 offset), a factor
  // without categories, or with fewer than the parameters name.
  const TQVarList all = m.variables;
  struct Case {
    int field;
    std::vector<std::string> factorValues;
    int code, kind;
  };
  for (const Case& c : {Case{1, {"a", "b"}, GZLStatusCode::NoMetadataForVar, 0}, Case{2, {"a", "b"}, GZLStatusCode::NoMetadataForVar, 1},
                        Case{3, {"a", "b"}, GZLStatusCode::NoMetadataForVar, 2}, Case{-1, {}, GZLStatusCode::NoFactorCategs, 0},
                        Case{-1, {"a"}, GZLStatusCode::NoFactorCategs, 0}}) {
    GZLPMMLMetadata metadata;
    for (GZLPMMLVariable v : all.GetMetadata().GetVariableInfo()) {
      if (v.GetIndex() == 1) v.SetValidValues(c.factorValues, std::vector<std::string>(c.factorValues.size()));
      if (v.GetIndex() != c.field) metadata.AddVariableInfo(v);
    }
    m.variables = TQVarList(metadata);
    TQStatus status;
    EXPECT_TRUE(m.Export(nullptr, &status).empty());
    EXPECT_EQ(status.GetErrorCode(), c.code);
    EXPECT_EQ(status.GetDiscreteData(0), c.field < 0 ? 1 : c.field);
    EXPECT_EQ(status.GetDiscreteData(1), c.code == GZLStatusCode::NoMetadataForVar ? c.kind : 0);
  }
  m.variables = all;
  // A covariance matrix of the wrong size: 130061, nothing written, and the error stays.
  GZLPMMLExporter exporter(m.settings, m.variables, nullptr, m.parameters, m.estimates, m.inModel, TQMV::Missing);
  const TQSymMatrix wrong(3);
  std::ostringstream out;
  EXPECT_EQ(exporter.ExportPMML(out, &wrong).GetErrorCode(), GZLStatusCode::InvalidCovarianceMatrix);
  EXPECT_EQ(exporter.ExportPMML(out, nullptr).GetErrorCode(), GZLStatusCode::InvalidCovarianceMatrix);
  EXPECT_TRUE(out.str().empty());
  // A stream that cannot be written.
  GZLPMMLExporter second(m.settings, m.variables, nullptr, m.parameters, m.estimates, m.inModel, TQMV::Missing);
  std::ostringstream bad;
  bad.setstate(std::ios::badbit);
  EXPECT_EQ(second.ExportPMML(bad, nullptr).GetErrorCode(), GZLStatusCode::OutputFileError);
  // Display.
  std::ostringstream shown;
  {
    TQDisplay_940::ScopedStream scope(shown);
    second.Display();
  }
  for (const char* label : {"GZLPMMLExporter display start", "Metadata for PMML:", "Model is GZLM", "Factors:",
                            "Number of parameters", "Consistency has been checked", "Error code in status: 130093",
                            "Recode into UTF8?", "GZLPMMLExporter display end"})
    EXPECT_NE(shown.str().find(label), std::string::npos) << label;
}

TEST(PMMLMetadata, VariablesAndListRules) {
  GZLPMMLVariable v;
  EXPECT_FALSE(v.Setup(3, "x", "", MeasContinuous, DataString));  // continuous text refused
  EXPECT_EQ(v.GetDataType(), DataNumeric);
  EXPECT_EQ(v.GetIndex(), 3);
  EXPECT_FALSE(v.SetValidValues({"1"}, {""}));  // only categorical variables have categories
  EXPECT_FALSE(v.Setup(-1, "x", "", MeasNominal, DataString));
  EXPECT_EQ(v.GetIndex(), 3);  // a negative index is not stored
  EXPECT_FALSE(v.Setup(3, "", "", MeasNominal, DataString));
  EXPECT_FALSE(v.Setup(3, "x", "", MeasUnknown, DataString));
  EXPECT_TRUE(v.Setup(3, "x", "X", MeasNominal, DataString));
  EXPECT_FALSE(v.SetValidValues({"a", "b"}, {"A"}));
  EXPECT_TRUE(v.SetValidValues({"a", "b"}, {"A", ""}));
  EXPECT_EQ(v.GetNValidValues(), 2);
  std::string low, high;
  EXPECT_FALSE(v.GetMissingInterval(low, high));
  v.SetMissingInterval("-99", "-90");
  EXPECT_TRUE(v.GetMissingInterval(low, high));
  EXPECT_EQ(high, "-90");

  GZLPMMLMetadata metadata;
  EXPECT_TRUE(metadata.AddVariableInfo(v));
  EXPECT_FALSE(metadata.AddVariableInfo(v));  // same index
  GZLPMMLVariable same = v;
  same.Setup(5, "x", "", MeasNominal, DataString);
  EXPECT_FALSE(metadata.AddVariableInfo(same));  // same name
  EXPECT_EQ(metadata.GetVariable(3)->GetLabel(), "X");
  EXPECT_EQ(metadata.GetVariable(0), nullptr);
  EXPECT_EQ(metadata.GetVariable(7), nullptr);
  const TQVarList list(metadata);
  EXPECT_EQ(*list.GetCategoryValue(3, 1), "b");
  EXPECT_EQ(list.GetCategoryValue(3, 2), nullptr);

  // The data dictionary keeps the missing interval in an extension and the discrete missing
  // values as Values with property "missing", after the valid ones.
  v.AddDiscreteUserMissing("z", "Not asked");
  GZLPMMLMetadata withMissing;
  withMissing.AddVariableInfo(v);
  pugi::xml_document doc;
  TQPMMLExporter().ExportDataDictionary(doc.append_child("PMML"), TQVarList(withMissing));
  const pugi::xml_node field = doc.child("PMML").child("DataDictionary").child("DataField");
  EXPECT_STREQ(field.child("Extension").attribute("value").value(), "-99");
  EXPECT_STREQ(field.last_child().attribute("property").value(), "missing");
  EXPECT_STREQ(field.last_child().attribute("displayValue").value(), "Not asked");
}

TEST(PMMLExport, NumbersReadBackExactly) {
  using TQStatXMLUtil::FormatDouble;
  EXPECT_EQ(FormatDouble(NAN), "NaN");
  EXPECT_EQ(FormatDouble(TQMV::Missing), "NaN");
  EXPECT_EQ(FormatDouble(INFINITY), "INF");
  EXPECT_EQ(FormatDouble(-INFINITY), "-INF");
  EXPECT_EQ(FormatDouble(0.1), "0.1");
  for (double v : {1.0 / 3.0, -2.5e-310, 5e-324, 1.7976931348623157e308, -0.0, 123456789.123456789})
    EXPECT_EQ(std::strtod(FormatDouble(v).c_str(), nullptr), v) << FormatDouble(v);
  EXPECT_TRUE(TQStatXMLUtil::IsInteger(12.0));
  EXPECT_FALSE(TQStatXMLUtil::IsInteger(12.5));
  EXPECT_FALSE(TQStatXMLUtil::IsInteger(1e300));
}

}  // namespace
