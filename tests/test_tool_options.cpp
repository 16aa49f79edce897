// Options of `gzl fit`: consistency checks, defaults that depend on the distribution, the data
// columns a model needs; and the JSON and table writers of the tool's output.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "support/TQMV.h"
#include "tools/CsvTable.h"
#include "tools/FitOptions.h"
#include "tools/JsonWriter.h"
#include "tools/ModelInfo.h"
#include "tools/ModelSpec.h"
#include "tools/TextTable.h"

namespace {

using namespace std::string_literals;

FitOptions PoissonOptions() {
  FitOptions o;
  o.dataPath = "data.csv"s;
  o.response = "y"s;
  o.distribution = TQConst::DistPoisson;
  o.factors = {"g"};
  o.covariates = {"x"};
  return o;
}

std::string CheckError(const FitOptions& o) {
  std::string error;
  EXPECT_FALSE(CheckFitOptions(o, error));
  return error;
}

}  // namespace

TEST(ToolOptions, DefaultsByDistribution) {
  EXPECT_EQ(DefaultLink(TQConst::DistNormal), TQConst::LinkIdentity);
  EXPECT_EQ(DefaultLink(TQConst::DistBinomial), TQConst::LinkLogit);
  EXPECT_EQ(DefaultLink(TQConst::DistOrdinalMultinomial), TQConst::LinkCumLogit);
  EXPECT_EQ(DefaultLink(TQConst::DistPoisson), TQConst::LinkLog);
  EXPECT_EQ(DefaultLink(TQConst::DistGamma), TQConst::LinkLog);

  FitOptions o = PoissonOptions();
  EXPECT_EQ(EffectiveScaleMethod(o), GZLConst_940::ScaleFixed);
  o.distribution = TQConst::DistGamma;
  EXPECT_EQ(EffectiveScaleMethod(o), GZLConst_940::ScaleMLE);
  o.scaleValue = 2.0;  // a value alone means a fixed scale
  EXPECT_EQ(EffectiveScaleMethod(o), GZLConst_940::ScaleFixed);
  o.scaleMethod = GZLConst_940::ScalePearson;
  EXPECT_EQ(EffectiveScaleMethod(o), GZLConst_940::ScalePearson);

  std::string error;
  EXPECT_TRUE(CheckFitOptions(PoissonOptions(), error)) << error;
  EXPECT_EQ(FitOptionLabel(LinkNames(), TQConst::LinkNLogLog), std::string("loglog"));
  EXPECT_EQ(FitOptionLabel(DistributionNames(), TQConst::DistInvGaussian), std::string("inverse-gaussian"));
  EXPECT_EQ(FitOptionLabel(DistributionNames(), 99), std::string("unknown"));
}

TEST(ToolOptions, ConsistencyChecks) {
  FitOptions o = PoissonOptions();
  o.response.clear();
  EXPECT_EQ(CheckError(o), "no response: give --response, or --events with --trials or --trials-value");

  o = PoissonOptions();
  o.responseForm = ResponseForm::EventsConstTrials;
  o.trialsValue = 5;
  EXPECT_EQ(CheckError(o), "events and trials can only be used with the binomial distribution");
  o.distribution = TQConst::DistBinomial;
  std::string error;
  EXPECT_TRUE(CheckFitOptions(o, error)) << error;
  o.trialsValue = 0.0;
  EXPECT_EQ(CheckError(o), "the number of trials (--trials-value) must be above 0");
  o.trialsValue = 1.0;
  o.referenceCategory = "last";
  EXPECT_EQ(CheckError(o), "--ref-category applies to a binary (single binomial) or nominal response only");
  o.responseForm = ResponseForm::Single;
  EXPECT_TRUE(CheckFitOptions(o, error)) << error;

  o = PoissonOptions();
  o.link = TQConst::LinkProbit;
  EXPECT_EQ(CheckError(o), "the probit link cannot be used with the poisson distribution");
  o.link = TQConst::LinkPower;
  EXPECT_EQ(CheckError(o), "the power link needs --link-param");
  o.linkParam = 0.5;
  EXPECT_TRUE(CheckFitOptions(o, error)) << error;
  o.link = TQConst::LinkLog;
  EXPECT_EQ(CheckError(o), "--link-param applies to the power and oddspower links, not log");

  o = PoissonOptions();
  o.distribution = TQConst::DistOrdinalMultinomial;
  o.link = TQConst::LinkLogit;
  EXPECT_EQ(CheckError(o), "the logit link cannot be used with the ordinal distribution (use a cumulative link)");
  o.link.reset();
  EXPECT_TRUE(CheckFitOptions(o, error)) << error;

  o = PoissonOptions();
  o.distribution = TQConst::DistTweedie;
  EXPECT_EQ(CheckError(o), "the tweedie distribution needs its power (--dist-param, between 1 and 2)");
  o.distParam = 2.0;
  EXPECT_EQ(CheckError(o), "the tweedie power (--dist-param) must lie strictly between 1 and 2");
  o.distParam = 1.5;
  EXPECT_TRUE(CheckFitOptions(o, error)) << error;

  o = PoissonOptions();
  o.estimateK = true;
  EXPECT_EQ(CheckError(o), "--estimate-k applies to the negative-binomial distribution only");
  o.distribution = TQConst::DistNegBinomial;
  EXPECT_TRUE(CheckFitOptions(o, error)) << error;
  o.scaleMethod = GZLConst_940::ScaleMLE;
  EXPECT_EQ(CheckError(o), "the scale cannot be estimated by maximum likelihood for the negative-binomial distribution");
  o.scaleMethod.reset();
  o.distParam = 0.0;
  EXPECT_EQ(CheckError(o), "the negative binomial k (--dist-param) must be above 0");

  o = PoissonOptions();
  o.scaleMethod = GZLConst_940::ScaleDeviance;
  o.scaleValue = 2.0;
  EXPECT_EQ(CheckError(o), "--scale-value needs the fixed scale method");
  o.scaleMethod = GZLConst_940::ScaleFixed;
  o.scaleValue = 0.0;
  EXPECT_EQ(CheckError(o), "the scale value must be above 0");

  o = PoissonOptions();
  o.maxStepHalving = 0;
  EXPECT_EQ(CheckError(o), "--max-step-halving must be 1 or more");
  o = PoissonOptions();
  o.confidenceLevel = 1.0;
  EXPECT_EQ(CheckError(o), "the confidence level must lie strictly between 0 and 100 percent");
  o = PoissonOptions();
  o.fisherIterations = 3;
  EXPECT_EQ(CheckError(o), "--fisher-iterations needs --hessian hybrid");
  o.hessianMethod = TQConst::HessianHybrid;
  EXPECT_TRUE(CheckFitOptions(o, error)) << error;

  o = PoissonOptions();
  o.covariates = {"x", "y"};
  EXPECT_EQ(CheckError(o), "'y' cannot be both the response and a covariate");
  o = PoissonOptions();
  o.offsetVariable = "w";
  o.frequencyWeight = "w";
  EXPECT_EQ(CheckError(o), "'w' cannot be both the offset and the frequency weight");
  o = PoissonOptions();
  o.covariates = {"g"};
  EXPECT_EQ(CheckError(o), "'g' is declared both as a factor and as a covariate");
}

TEST(ToolOptions, ColumnRequests) {
  FitOptions o = PoissonOptions();
  o.offsetVariable = "off";
  o.frequencyWeight = "fw";
  o.scaleWeight = "sw";
  auto requests = FitColumnRequests(o);
  ASSERT_EQ(requests.size(), 6u);
  const std::vector<std::string> names = {"y", "g", "x", "off", "fw", "sw"};
  for (std::size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(requests[i].name, names[i]);
    EXPECT_EQ(requests[i].kind, i == 1 ? CsvColumnKind::Factor : CsvColumnKind::Numeric) << names[i];
  }

  // A binary response is read as categories; events and trials as numbers.
  o = PoissonOptions();
  o.distribution = TQConst::DistBinomial;
  requests = FitColumnRequests(o);
  EXPECT_EQ(requests[0].kind, CsvColumnKind::Factor);
  o.responseForm = ResponseForm::EventsTrials;
  o.trialsVariable = "n";
  requests = FitColumnRequests(o);
  ASSERT_EQ(requests.size(), 4u);
  EXPECT_EQ(requests[0].kind, CsvColumnKind::Numeric);
  EXPECT_EQ(requests[1].name, "n");
}

TEST(ToolOutput, JsonWriter) {
  std::ostringstream out;
  JsonWriter json(out);
  json.BeginObject();
  json.Member("text", "quote \" backslash \\ newline \n tab \t bell \x07");
  json.Member("pi", 3.141592653589793);
  json.Member("tenth", 0.1);
  json.Member("missing", TQMV::Missing);
  json.Member("nan", std::numeric_limits<double>::quiet_NaN());
  json.Member("inf", std::numeric_limits<double>::infinity());
  json.Member("count", 42);
  json.Member("flag", false);
  json.Key("empty");
  json.BeginArray();
  json.EndArray();
  json.Key("list");
  json.BeginArray();
  json.Integer(1);
  json.BeginObject();
  json.Member("k", "v");
  json.EndObject();
  json.Null();
  json.EndArray();
  json.EndObject();
  EXPECT_TRUE(json.Done());

  const auto doc = nlohmann::json::parse(out.str());
  EXPECT_EQ(doc["text"], "quote \" backslash \\ newline \n tab \t bell \x07");
  EXPECT_EQ(doc["pi"].get<double>(), 3.141592653589793);  // round trip, not rounded
  EXPECT_EQ(doc["tenth"].get<double>(), 0.1);
  EXPECT_TRUE(doc["missing"].is_null());
  EXPECT_TRUE(doc["nan"].is_null());
  EXPECT_TRUE(doc["inf"].is_null());
  EXPECT_EQ(doc["count"], 42);
  EXPECT_EQ(doc["flag"], false);
  EXPECT_TRUE(doc["empty"].is_array() && doc["empty"].empty());
  EXPECT_EQ(doc["list"].size(), 3u);
  EXPECT_EQ(doc["list"][1]["k"], "v");
  EXPECT_NE(out.str().find("\"tenth\": 0.1,"), std::string::npos);
}

TEST(ToolOutput, TextTableAndNumbers) {
  TextTable table("Title", {"Name", "Value"}, {TextTable::Align::Left, TextTable::Align::Right});
  table.AddRow({"alpha", "1.5"});
  table.AddRow({"b", "-10"});
  table.AddRow({"short"});
  std::ostringstream out;
  table.Write(out);
  EXPECT_EQ(out.str(),
            "Title\n"
            "  Name   Value\n"
            "  ------------\n"
            "  alpha    1.5\n"
            "  b        -10\n"
            "  short\n");
  EXPECT_EQ(FormatNumber(TQMV::Missing), ".");
  EXPECT_EQ(FormatNumber(std::nan("")), ".");
  EXPECT_EQ(FormatNumber(2.0 / 3.0), "0.666667");
  EXPECT_EQ(FormatNumber(1234567.0, 3), "1.23e+06");
}

TEST(ToolOutput, ModelInfoJson) {
  std::istringstream data("y,g,x,w\n1,b,0.5,1\n0,a,NA,2\n1,b,1.5,1\n");
  CsvTable table;
  std::string error;
  FitOptions o;
  o.dataPath = "mem.csv";
  o.response = "y";
  o.distribution = TQConst::DistBinomial;
  o.referenceCategory = "last";
  o.factors = {"g"};
  o.covariates = {"x"};
  o.frequencyWeight = "w";
  o.maxIterations = 20;
  o.hessianMethod = TQConst::HessianNewtonRaphson;
  ASSERT_TRUE(CheckFitOptions(o, error)) << error;
  ASSERT_TRUE(CsvTable::Read(data, FitColumnRequests(o), {}, table, error)) << error;
  std::vector<ModelTerm> terms;
  ASSERT_TRUE(ParseEffectList("g x g*x", o.factors, o.covariates, terms, error)) << error;

  std::ostringstream out;
  JsonWriter json(out);
  WriteModelInfoJson(json, o, table, terms);
  const auto doc = nlohmann::json::parse(out.str());
  EXPECT_EQ(doc["data"]["records"], 3);
  EXPECT_EQ(doc["response"]["categories"], (nlohmann::json{"0", "1"}));
  EXPECT_EQ(doc["response"]["reference_category"], "last");
  EXPECT_EQ(doc["distribution"]["name"], "binomial");
  EXPECT_EQ(doc["link"]["name"], "logit");
  EXPECT_EQ(doc["scale"]["method"], "fixed");
  EXPECT_EQ(doc["scale"]["value"], 1.0);
  EXPECT_EQ(doc["factors"][0]["categories"], (nlohmann::json{"a", "b"}));
  EXPECT_EQ(doc["effects"], (nlohmann::json{"g", "x", "g*x"}));
  EXPECT_EQ(doc["frequency_weight"], "w");
  EXPECT_TRUE(doc["offset"].is_null());
  EXPECT_EQ(doc["controls"]["max_iterations"], 20);
  EXPECT_EQ(doc["controls"]["hessian"], "newton");
  EXPECT_FALSE(doc["controls"].contains("ll_tolerance"));

  std::ostringstream text;
  WriteModelInfoText(text, o, table, terms);
  // The covariate's missing cell is counted in the variables table.
  EXPECT_NE(text.str().find("  x         covariate               1"), std::string::npos) << text.str();
}

TEST(ToolOptions, ResponseCategories) {
  FitOptions o;
  o.dataPath = "mem.csv"s;
  o.response = "y"s;
  o.distribution = TQConst::DistBinomial;
  std::istringstream data("y\nyes\nno\nyes\nlast\n");
  CsvTable table;
  std::string error;
  ASSERT_TRUE(CsvTable::Read(data, FitColumnRequests(o), {}, table, error)) << error;

  // Three categories are too many for a binary response.
  EXPECT_FALSE(CheckFitData(o, table, error));
  EXPECT_EQ(error, "the binomial response 'y' has 3 categories; it must have two");

  std::optional<int> reference;
  o.distribution = TQConst::DistNominalMultinomial;
  EXPECT_TRUE(ResolveReferenceCategory(o, table, reference, error));
  EXPECT_FALSE(reference.has_value());
  // Categories: last, no, yes. A label wins over the keywords.
  o.referenceCategory = "last"s;
  ASSERT_TRUE(ResolveReferenceCategory(o, table, reference, error)) << error;
  EXPECT_EQ(reference, 0);
  o.referenceCategory = "yes"s;
  ASSERT_TRUE(ResolveReferenceCategory(o, table, reference, error)) << error;
  EXPECT_EQ(reference, 2);
  o.referenceCategory = "first"s;
  ASSERT_TRUE(ResolveReferenceCategory(o, table, reference, error)) << error;
  EXPECT_EQ(reference, 0);
  o.referenceCategory = "maybe"s;
  EXPECT_FALSE(CheckFitData(o, table, error));
  EXPECT_EQ(error, "--ref-category: 'maybe' is not a category of 'y' (last, no, yes)");

  std::istringstream binary("y\n0\n1\n1\n");
  o.distribution = TQConst::DistBinomial;
  ASSERT_TRUE(CsvTable::Read(binary, FitColumnRequests(o), {}, table, error)) << error;
  o.referenceCategory = "last"s;
  ASSERT_TRUE(CheckFitData(o, table, error)) << error;
  ASSERT_TRUE(ResolveReferenceCategory(o, table, reference, error)) << error;
  EXPECT_EQ(reference, 1);
}
