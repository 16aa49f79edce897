#include "tools/EffectTests.h"

#include <algorithm>

#include "GZLOutputStats.h"
#include "tools/JsonWriter.h"
#include "tools/TextTable.h"

namespace {

std::vector<EffectTestRow> RowsOf(const FitOptions& o, const std::vector<ModelTerm>& terms,
                                  const TQModelTestStats& stats) {
  const bool ordinal = o.distribution == TQConst::DistOrdinalMultinomial;
  const int first = (o.intercept || ordinal) ? 1 : 0;
  std::vector<EffectTestRow> rows;
  for (int i = 0; i < stats.GetNumTests(); ++i) {
    EffectTestRow row;
    row.test = stats.GetTest(i);
    row.effect = row.test.fEffect - first;
    if (row.effect < 0)
      row.term = ordinal ? "(Thresholds)" : "(Intercept)";
    else if (static_cast<std::size_t>(row.effect) < terms.size())
      row.term = terms[static_cast<std::size_t>(row.effect)].Text();
    else
      row.term = "effect " + std::to_string(row.effect);
    rows.push_back(std::move(row));
  }
  return rows;
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
}

void WriteEffectTestsText(std::ostream& out, const EffectTestsReport& report) {
  if (report.typeI) {
    WriteTable(out, "\nTests of model effects (Wald, type I: each effect after those above it)", report.type1,
               "every column of the effect is aliased with the effects above it");
  }
  if (report.typeIII) {
    WriteTable(out, "\nTests of model effects (Wald, type III: each effect adjusted for all others)", report.type3,
               "no column of the effect is estimable apart from the effects that do not contain it");
  }
}

void WriteEffectTestsJson(JsonWriter& json, const EffectTestsReport& report) {
  if (report.typeI) WriteArray(json, "wald_type1", report.type1);
  if (report.typeIII) WriteArray(json, "wald_type3", report.type3);
}
