#include "tools/EffectTests.h"

#include <algorithm>

#include "GZLOutputStats.h"
#include "tools/GeeModel.h"
#include "tools/JsonWriter.h"
#include "tools/StatusText.h"
#include "tools/TextTable.h"

namespace {

// The effect list position and label of the test at position `test` of the test order.
void NameTest(const FitOptions& o, const std::vector<ModelTerm>& terms, int test, int& effect, std::string& term) {
  const bool ordinal = o.distribution == TQConst::DistOrdinalMultinomial;
  effect = test - ((o.intercept || ordinal) ? 1 : 0);
  if (effect < 0)
    term = ordinal ? "(Thresholds)" : "(Intercept)";
  else if (static_cast<std::size_t>(effect) < terms.size())
    term = terms[static_cast<std::size_t>(effect)].Text();
  else
    term = "effect " + std::to_string(effect);
}

std::vector<EffectTestRow> RowsOf(const FitOptions& o, const std::vector<ModelTerm>& terms,
                                  const TQModelTestStats& stats) {
  std::vector<EffectTestRow> rows;
  for (int i = 0; i < stats.GetNumTests(); ++i) {
    EffectTestRow row;
    row.test = stats.GetTest(i);
    NameTest(o, terms, row.test.fEffect, row.effect, row.term);
    rows.push_back(std::move(row));
  }
  return rows;
}

std::vector<LRTestRow> LRRowsOf(const FitOptions& o, const std::vector<ModelTerm>& terms,
                                const std::vector<std::vector<double>>& values, const std::vector<TQStatus>& statuses) {
  std::vector<LRTestRow> rows;
  for (std::size_t i = 0; i < values.size(); ++i) {
    LRTestRow row;
    NameTest(o, terms, static_cast<int>(i), row.effect, row.term);
    row.values = values[i];
    row.values.resize(7, TQMV::Missing);
    if (i < statuses.size()) row.status = statuses[i];
    rows.push_back(std::move(row));
  }
  return rows;
}

void WriteLRTable(std::ostream& out, const std::string& title, const std::vector<LRTestRow>& rows) {
  using Align = TextTable::Align;
  const bool f = std::any_of(rows.begin(), rows.end(), [](const LRTestRow& r) { return !TQMV::IsMissing(r.values[3]); });
  std::vector<std::string> headers{"Effect", "Likelihood-ratio chi-square", "df", "Sig."};
  if (f) headers.insert(headers.end(), {"F", "df2", "Sig. (F)", "Deviance"});
  std::vector<Align> align(headers.size(), Align::Right);
  align[0] = Align::Left;
  TextTable table(title, headers, align);
  std::vector<std::string> notes;
  for (const LRTestRow& r : rows) {
    const std::vector<double>& v = r.values;
    if (TQMV::IsMissing(v[0])) {
      // No statistic: say why, once per reason.
      const std::string why = r.status.GetErrorCode() == GZLStatusCode::LMatrixNotExist
                                  ? std::string("no estimable hypothesis")
                                  : DescribeStatus(r.status);
      auto it = std::find(notes.begin(), notes.end(), why);
      if (it == notes.end()) it = notes.insert(notes.end(), why);
      table.AddRow({r.term + "^" + std::to_string(it - notes.begin() + 1), "."});
      continue;
    }
    std::vector<std::string> cells{r.term, FormatNumber(v[0]), FormatNumber(v[1]), FormatSignificance(v[2])};
    if (f) cells.insert(cells.end(), {FormatNumber(v[3]), FormatNumber(v[4]), FormatSignificance(v[5]), FormatNumber(v[6])});
    table.AddRow(std::move(cells));
  }
  table.Write(out);
  for (std::size_t i = 0; i < notes.size(); ++i) out << "  ^" << i + 1 << " Not tested: " << notes[i] << ".\n";
}

void WriteLRArray(JsonWriter& json, const char* key, const std::vector<LRTestRow>& rows) {
  static const char* const kKeys[7] = {"chisq", "df", "sig", "f", "df2", "f_sig", "deviance"};
  json.Key(key);
  json.BeginArray();
  for (const LRTestRow& r : rows) {
    json.BeginObject();
    json.Member("effect", r.effect);
    json.Member("term", r.term);
    for (int i = 0; i < 7; ++i) json.Member(kKeys[i], r.values[static_cast<std::size_t>(i)]);
    json.Member("status", r.status.GetErrorCode());
    json.EndObject();
  }
  json.EndArray();
}

bool AnyFForm(const std::vector<EffectTestRow>& rows) {
  return std::any_of(rows.begin(), rows.end(), [](const EffectTestRow& r) { return !TQMV::IsMissing(r.test.fF); });
}

void WriteTable(std::ostream& out, const std::string& title, const std::vector<EffectTestRow>& rows,
                const char* untestedNote) {
  using Align = TextTable::Align;
  const bool f = AnyFForm(rows);
  std::vector<std::string> headers{"Effect", "Wald chi-square", "df", "Sig."};
  if (f) headers.insert(headers.end(), {"F", "df2", "Sig. (F)"});
  std::vector<Align> align(headers.size(), Align::Right);
  align[0] = Align::Left;
  TextTable table(title, headers, align);
  bool untested = false;
  for (const EffectTestRow& r : rows) {
    const TQModelTestStats::Test& t = r.test;
    if (!t.fbTested) {
      untested = true;
      table.AddRow({r.term + "^a", ".", "0", "."});
      continue;
    }
    std::vector<std::string> cells{r.term, FormatNumber(t.fChiSquare), FormatNumber(t.fDF),
                                   FormatSignificance(t.fSig)};
    if (f) cells.insert(cells.end(), {FormatNumber(t.fF), FormatNumber(t.fDF2), FormatSignificance(t.fFSig)});
    table.AddRow(std::move(cells));
  }
  table.Write(out);
  if (untested) out << "  ^a Not tested: " << untestedNote << ".\n";
}

void WriteArray(JsonWriter& json, const char* key, const std::vector<EffectTestRow>& rows) {
  json.Key(key);
  json.BeginArray();
  for (const EffectTestRow& r : rows) {
    const TQModelTestStats::Test& t = r.test;
    json.BeginObject();
    json.Member("effect", r.effect);
    json.Member("term", r.term);
    json.Member("chisq", t.fbTested ? t.fChiSquare : TQMV::Missing);
    json.Member("df", t.fDF);
    json.Member("sig", t.fbTested ? t.fSig : TQMV::Missing);
    if (!TQMV::IsMissing(t.fF)) {
      json.Member("f", t.fF);
      json.Member("df2", t.fDF2);
      json.Member("f_sig", t.fFSig);
    }
    json.EndObject();
  }
  json.EndArray();
}

}  // namespace

void GatherEffectTests(const FitOptions& o, const std::vector<ModelTerm>& terms, const GZLOutputStats& stats,
                       EffectTestsReport& report) {
  const TQConst::TQEffectAnalysisType type = o.effectTests.value_or(TQConst::EffectNone);
  report.typeI = type == TQConst::EffectTypeI || type == TQConst::EffectTypeIAndIII;
  report.typeIII = type == TQConst::EffectTypeIII || type == TQConst::EffectTypeIAndIII;
  if (report.typeI) report.type1 = RowsOf(o, terms, stats.GetTypeITestStats());
  if (report.typeIII) report.type3 = RowsOf(o, terms, stats.GetTypeIIITestStats());
  report.nominal = o.distribution == TQConst::DistNominalMultinomial;
  report.likelihoodRatio = o.effectStatistic == GZLConst_940::EffectStatLR;
  if (!report.likelihoodRatio) return;
  report.generalizedScore = IsGeeFit(o);
  if (report.typeI) report.lr1 = LRRowsOf(o, terms, stats.GetTypeILRStats(), stats.GetTypeILRStatusEff());
  if (report.typeIII) report.lr3 = LRRowsOf(o, terms, stats.GetTypeIIILRStats(), stats.GetTypeIIILRStatusEff());
}

void WriteEffectTestsText(std::ostream& out, const EffectTestsReport& report) {
  if (report.likelihoodRatio) {
    const std::string kind = report.generalizedScore ? "generalized score" : "likelihood ratio";
    if (report.typeI)
      WriteLRTable(out, "\nTests of model effects (" + kind + ", type I: each effect after those above it)",
                   report.lr1);
    if (report.typeIII)
      WriteLRTable(out, "\nTests of model effects (" + kind + ", type III: each effect adjusted for all others)",
                   report.lr3);
  } else {
    if (report.typeI) {
      WriteTable(out, "\nTests of model effects (Wald, type I: each effect after those above it)", report.type1,
                 "every column of the effect is aliased with the effects above it");
    }
    if (report.typeIII) {
      WriteTable(out, "\nTests of model effects (Wald, type III: each effect adjusted for all others)", report.type3,
                 "no column of the effect is estimable apart from the effects that do not contain it");
    }
  }
  if (report.nominal && (report.typeI || report.typeIII))
    out << "  Each test covers all logits at once: the effect's hypothesis holds for every response category\n"
           "  against the reference (df: the effect's columns times the number of logits).\n";
}

void WriteEffectTestsJson(JsonWriter& json, const EffectTestsReport& report) {
  if (report.typeI) WriteArray(json, "wald_type1", report.type1);
  if (report.typeIII) WriteArray(json, "wald_type3", report.type3);
  if (report.likelihoodRatio && report.typeI) WriteLRArray(json, "lr_type1", report.lr1);
  if (report.likelihoodRatio && report.typeIII) WriteLRArray(json, "lr_type3", report.lr3);
}
