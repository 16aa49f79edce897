#include "tools/ScoreFile.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>

#include <fcntl.h>
#include <unistd.h>

#include "GZLOutputStats.h"
#include "GZLProgress.h"
#include "GZLScoreStats.h"
#include "IGZLAlgorithm.h"
#include "support/TQMV.h"
#include "tools/CsvTokenizer.h"
#include "tools/GeeModel.h"
#include "tools/StatusText.h"

namespace {

bool Fail(std::string& error, std::string message) {
  error = std::move(message);
  return false;
}

// The engine's score types in mask order, with the names of their columns.
struct ScoreName {
  const char* name;      // scalar output
  const char* listName;  // per-category list of a multinomial response (null: none)
  int bit;
};
constexpr ScoreName kScoreNames[] = {
    {"XBPRED", "XBPREDNOMINAL", 0x1},
    {"XBSTDERROR", "XBSTDERRORNOMINAL", 0x2},
    {"MEANPRED", "MEANPREDNOMINAL", 0x4},
    {"CIMEANPRED", "CIMEANPREDNOMINAL", 0x8},
    {"LEVERAGE", nullptr, 0x10},
    {"RESID", nullptr, 0x20},
    {"PEARSONRESID", nullptr, 0x40},
    {"DEVIANCERESID", nullptr, 0x80},
    {"STDPEARSONRESID", nullptr, 0x100},
    {"STDDEVIANCERESID", nullptr, 0x200},
    {"LIKELIHOODRESID", nullptr, 0x400},
    {"COOK", nullptr, 0x800},
    {"CATPRED", nullptr, 0x1000},
    {"Conf1", nullptr, 0x2000},
    {"Conf2", nullptr, 0x4000},
    {"RawPropensity", nullptr, 0x8000},
};
// What a GEE model cannot have: the leverage and the outputs built on it, the deviance residual.
constexpr int kNotForGee = 0x10 | 0x80 | 0x100 | 0x200 | 0x400 | 0x800;
// What a multinomial response has besides its lists: the predicted category and its confidences.
constexpr int kMultinomialOutputs = 0xF | 0x1000 | 0x2000 | 0x4000;
constexpr int kBinaryOutputs = 0x1000 | 0x2000 | 0x4000 | 0x8000;

std::string Upper(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return out;
}

bool IsMultinomial(const GZLSettings& s) { return s.IsMultinomial(); }

int AllOutputs(const GZLSettings& s) {
  if (IsMultinomial(s)) return kMultinomialOutputs;
  int mask = 0xFFFF;
  if (s.IsModelGEE()) mask &= ~kNotForGee;
  if (!s.IsSingleDependentForBinomial()) mask &= ~kBinaryOutputs;
  return mask;
}

int DefaultOutputs(const GZLSettings& s) {
  if (IsMultinomial(s)) return 0x1 | 0x4 | 0x1000;
  int mask = 0x1 | 0x2 | 0x4 | 0x8 | 0x20 | 0x40;
  if (!s.IsModelGEE()) mask |= 0x10 | 0x80 | 0x800;
  if (s.IsSingleDependentForBinomial()) mask |= 0x1000;
  return mask;
}

bool SamePath(const std::string& a, const std::string& b) {
  if (a == b) return true;
  std::error_code ec;
  return std::filesystem::equivalent(a, b, ec);
}

// ---------------------------------------------------------------------------------------------
// CSV output.

// Fields go to a buffer of their own that is handed to the stream in large blocks, so that a
// field costs a copy, not a call through the stream.
class CsvOut {
 public:
  CsvOut(std::ostream& out, char separator) : fOut(out), fSeparator(separator) {
    for (char c : {separator, '"', '\n', '\r'}) fQuoted[static_cast<unsigned char>(c)] = true;
    fBuffer.reserve(kFlushBytes + 4096);
  }
  ~CsvOut() { Flush(); }
  CsvOut(const CsvOut&) = delete;
  CsvOut& operator=(const CsvOut&) = delete;

  void Field(std::string_view text) {
    Separate();
    bool quote = !text.empty() && (IsBlank(text.front()) || IsBlank(text.back()));
    for (std::size_t i = 0; i < text.size() && !quote; ++i) quote = fQuoted[static_cast<unsigned char>(text[i])];
    if (!quote) {
      fBuffer.append(text);
      return;
    }
    fBuffer.push_back('"');
    for (char c : text) {
      if (c == '"') fBuffer.push_back('"');
      fBuffer.push_back(c);
    }
    fBuffer.push_back('"');
  }

  // The shortest text that reads back as the same double; empty when missing or not finite.
  void Number(double value) {
    Separate();
    if (TQMV::IsMissingOrInfinite(value)) return;
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    fBuffer.append(buffer, static_cast<std::size_t>(result.ptr - buffer));
  }

  void Integer(long value) {
    Separate();
    char buffer[24];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    fBuffer.append(buffer, static_cast<std::size_t>(result.ptr - buffer));
  }

  void EndRecord() {
    fBuffer.push_back('\n');
    fFirst = true;
    if (fBuffer.size() >= kFlushBytes) Flush();
  }

  void Flush() {
    fOut.write(fBuffer.data(), static_cast<std::streamsize>(fBuffer.size()));
    fBuffer.clear();
  }

 private:
  static constexpr std::size_t kFlushBytes = std::size_t{1} << 20;
  static bool IsBlank(char c) { return c == ' ' || c == '\t'; }
  void Separate() {
    if (!fFirst) fBuffer.push_back(fSeparator);
    fFirst = false;
  }

  std::ostream& fOut;
  char fSeparator;
  bool fQuoted[256] = {};  // bytes that make a field quoted
  bool fFirst = true;
  std::string fBuffer;
};

// The per-category lists of one record, in column order; a list shorter than its columns leaves
// the rest empty.
void WriteList(CsvOut& out, const std::vector<double>& values, std::size_t columns) {
  for (std::size_t i = 0; i < columns; ++i) out.Number(i < values.size() ? values[i] : TQMV::Missing);
}

// How the outputs of a mask are written, decided once before the records.
struct ScoreLayout {
  TQQueryCancel* cancel = nullptr;
  // Labels of a categorical response's categories by code: the predicted category is written
  // as its label. Empty for other responses.
  std::vector<std::string> responseLabels;
  GZLConst_940::ModelType modelType = GZLConst_940::GZLM;
  int mask = 0;
  bool multinomial = false;
  std::size_t categories = 0;  // K of a multinomial response
};

void WriteScores(CsvOut& out, const ScoreLayout& layout, const GZLScoreStats& s) {
  const int m = layout.mask;
  if (layout.multinomial) {
    const std::size_t k = layout.categories;
    const std::size_t k1 = k > 0 ? k - 1 : 0;
    if (m & 0x1) WriteList(out, s.GetXBPREDNOMINAL(), k1);
    if (m & 0x2) WriteList(out, s.GetXBSTDERRORNOMINAL(), k1);
    if (m & 0x4) WriteList(out, s.GetMEANPREDNOMINAL(), k);
    if (m & 0x8) {
      const auto& ci = s.GetCIMEANPREDNOMINAL();
      for (std::size_t i = 0; i < k; ++i) {
        out.Number(i < ci.size() ? ci[i].first : TQMV::Missing);
        out.Number(i < ci.size() ? ci[i].second : TQMV::Missing);
      }
    }
  } else {
    if (m & 0x1) out.Number(s.GetXBPRED());
    if (m & 0x2) out.Number(s.GetXBSTDERROR());
    if (m & 0x4) out.Number(s.GetMEANPRED());
    if (m & 0x8) {
      out.Number(s.GetCIMEANPRED().first);
      out.Number(s.GetCIMEANPRED().second);
    }
  }
  using Getter = double (GZLScoreStats::*)() const noexcept;
  static constexpr std::pair<int, Getter> kScalars[] = {
      {0x10, &GZLScoreStats::GetLEVERAGE},         {0x20, &GZLScoreStats::GetRESID},
      {0x40, &GZLScoreStats::GetPEARSONRESID},     {0x80, &GZLScoreStats::GetDEVIANCERESID},
      {0x100, &GZLScoreStats::GetSTDPEARSONRESID}, {0x200, &GZLScoreStats::GetSTDDEVIANCERESID},
      {0x400, &GZLScoreStats::GetLIKELIHOODRESID}, {0x800, &GZLScoreStats::GetCOOK},
      {0x1000, &GZLScoreStats::GetCATPRED},
      {0x2000, &GZLScoreStats::GetConf1},
      {0x4000, &GZLScoreStats::GetConf2},          {0x8000, &GZLScoreStats::GetRawPropensity}};
  for (const auto& [bit, get] : kScalars) {
    if (!(m & bit)) continue;
    const double value = (s.*get)();
    const auto code = static_cast<std::size_t>(value);
    if (bit == 0x1000 && !TQMV::IsMissing(value) && value >= 0.0 && code < layout.responseLabels.size())
      out.Field(layout.responseLabels[code]);
    else
      out.Number(value);
  }
}

// Factor codes of a second file, which its own read numbered, translated to the fitted file's
// codes by label; a label the fit never saw gets a code past the fit's categories, which the
// engine reports as an unused category.
struct FieldMap {
  int source = -1;                // field of the scored file; -1: absent (missing)
  std::vector<double> codes;      // factor fields: fitted code of each of the file's codes
};

double FittedCode(const CsvColumn& fitted, const std::string& label) {
  const auto& labels = fitted.labels;
  const auto found = std::find(labels.begin(), labels.end(), label);
  if (found != labels.end()) return static_cast<double>(found - labels.begin());
  double value = 0.0;
  if (fitted.numericLabels && ParseCsvNumber(label, value)) {
    for (std::size_t i = 0; i < labels.size(); ++i) {
      double other = 0.0;
      if (ParseCsvNumber(labels[i], other) && other == value) return static_cast<double>(i);
    }
  }
  return static_cast<double>(labels.size());
}

// Streams the records of a cache through Score into an output CSV file: each record's original
// fields from the data file, its status and its outputs. map (null for the fitted file itself)
// builds the fitted file's fields from the scored file's. The cancel query of the layout is asked
// every few thousand records.
bool WriteScoredRecordsTo(const std::string& dataPath, char separator, const std::vector<std::string>& header,
                          const RecordCache* records, const std::vector<FieldMap>* map, IGZLAlgorithm& algorithm,
                          const ScoreLayout& layout, const std::vector<std::string>& columns,
                          const std::string& outputPath, bool& created, std::string& error) {
  CsvSequentialReader reader;
  if (!reader.Open(dataPath, separator, error)) return false;
  std::ofstream file(outputPath, std::ios::binary | std::ios::trunc);
  if (!file) return Fail(error, "cannot create '" + outputPath + "'");
  created = true;
  CsvOut out(file, separator);
  for (const std::string& name : header) out.Field(name);
  out.Field("STATUS");
  for (const std::string& name : columns) out.Field(name);
  out.EndRecord();

  if (records != nullptr && records->NumRecords() > 0) {
    CacheRecordSource source(*records);
    if (source.Rewind() != 0) return Fail(error, "the records could not be read back from the temporary file");
    std::vector<double> row(map != nullptr ? map->size() : 0, TQMV::Missing);
    const Record mapped(row.data(), row.size());
    std::vector<std::string_view> fields;
    GZLScoreStats scores(layout.modelType);
    const int mask = layout.mask;
    std::uint64_t count = 0;
    while (const Record* record = source.NextRecord()) {
      if ((++count & 4095) == 0 && layout.cancel != nullptr && layout.cancel->IsCancelled())
        return Fail(error, "writing the scores was cancelled");
      if (!reader.FieldsAt(source.FileOffset(), fields, error)) return false;
      if (map != nullptr) {
        for (std::size_t f = 0; f < row.size(); ++f) {
          const FieldMap& m = (*map)[f];
          double v = m.source < 0 ? TQMV::Missing : (*record)[static_cast<std::size_t>(m.source)];
          if (!m.codes.empty() && !TQMV::IsMissing(v)) v = m.codes[static_cast<std::size_t>(v)];
          row[f] = v;
        }
      }
      const TQStatus status = algorithm.Score(map != nullptr ? mapped : *record, scores, &mask);
      const int code = status.GetErrorCode();
      if (code == GZLStatusCode::InvalidScoreType || code == GZLStatusCode::NoScoreSettings) {
        return Fail(error, "the score outputs asked for cannot be computed for this model: " + DescribeStatus(status));
      }
      for (std::string_view field : fields) out.Field(field);
      out.Integer(code);
      WriteScores(out, layout, scores);
      out.EndRecord();
    }
    if (source.Failed()) return Fail(error, "the records could not be read back from the temporary file");
  }
  out.Flush();
  file.flush();
  if (!file) return Fail(error, "cannot write '" + outputPath + "'");
  return true;
}

// WriteScoredRecordsTo, with the output file removed when it could not be written whole.
bool WriteScoredRecords(const std::string& dataPath, char separator, const std::vector<std::string>& header,
                        const RecordCache* records, const std::vector<FieldMap>* map, IGZLAlgorithm& algorithm,
                        const ScoreLayout& layout, const std::vector<std::string>& columns,
                        const std::string& outputPath, std::string& error) {
  bool created = false;
  if (WriteScoredRecordsTo(dataPath, separator, header, records, map, algorithm, layout, columns, outputPath, created,
                           error))
    return true;
  // A file cut short would pass for the scores of fewer records.
  if (created) std::remove(outputPath.c_str());
  return false;
}

bool IsGroupingColumn(const FitOptions& o, const std::string& column) {
  for (const auto* list : {&o.subjects, &o.within})
    for (const std::string& name : *list)
      if (GroupingColumn(o, name) == column) return true;
  return false;
}

// Reads the scored file's columns that the fit used (those it has) and maps them onto the
// fitted file's fields. The predictors, the offset and the subject variables must be there; the
// response, trials and weights may be absent (their outputs are then missing).
bool ReadScoredFile(const FitOptions& o, const CsvTable& fitted, CsvTable& scored, std::vector<FieldMap>& map,
                    std::string& error) {
  std::vector<std::string> header;
  if (!ReadCsvRecordAt(o.scoreDataPath, 0, o.separator, header, error)) return Fail(error, "--score-data: " + error);
  std::vector<CsvColumnRequest> requests;
  for (const CsvColumnRequest& r : FitColumnRequests(o)) {
    if (std::find(header.begin(), header.end(), r.HeaderName()) != header.end()) {
      requests.push_back(r);
      continue;
    }
    const bool optional = r.name == o.response || r.name == o.trialsVariable || r.name == o.frequencyWeight ||
                          r.name == o.scaleWeight;
    if (!optional) return Fail(error, o.scoreDataPath + ": no column '" + r.HeaderName() + "', which the model needs");
  }
  CsvReadOptions options;
  options.separator = o.separator;
  if (!CsvTable::ReadFile(o.scoreDataPath, requests, options, scored, error))
    return Fail(error, o.scoreDataPath + ": " + error);
  map.assign(fitted.NumColumns(), {});
  for (std::size_t f = 0; f < fitted.NumColumns(); ++f) {
    const CsvColumn& column = fitted.Column(f);
    FieldMap& m = map[f];
    m.source = scored.ColumnIndex(column.name);
    if (m.source < 0 || !column.isFactor) continue;
    // A subject or position the fit never saw is still a subject: scoring only asks that the
    // value is there, so any valid code stands for it.
    const bool grouping = IsGroupingColumn(o, column.name);
    for (const std::string& label : scored.Column(static_cast<std::size_t>(m.source)).labels) {
      const double code = FittedCode(column, label);
      m.codes.push_back(grouping && code >= static_cast<double>(column.labels.size()) ? 0.0 : code);
    }
  }
  return true;
}

}  // namespace

bool ScoreMask(const std::vector<std::string>& names, const GZLSettings& s, int& mask, std::string& error) {
  mask = 0;
  if (names.empty()) {
    mask = DefaultOutputs(s);
    return true;
  }
  for (const std::string& given : names) {
    const std::string name = Upper(given);
    if (name == "ALL") {
      mask |= AllOutputs(s);
      continue;
    }
    const auto* found = std::find_if(std::begin(kScoreNames), std::end(kScoreNames), [&](const ScoreName& n) {
      return name == Upper(n.name) || (n.listName != nullptr && name == n.listName);
    });
    if (found == std::end(kScoreNames)) return Fail(error, "--score-outputs: '" + given + "' is not a score output");
    if (IsMultinomial(s) && !(found->bit & kMultinomialOutputs))
      return Fail(error, "--score-outputs: " + std::string(found->name) + " does not apply to a multinomial response");
    if (s.IsModelGEE() && (found->bit & kNotForGee))
      return Fail(error, "--score-outputs: " + std::string(found->name) + " is not computed for a GEE model");
    mask |= found->bit;
  }
  return true;
}

std::vector<std::string> ScoreColumnNames(int mask, bool multinomial, const std::vector<std::string>& categories) {
  std::vector<std::string> columns;
  for (const ScoreName& n : kScoreNames) {
    if (!(mask & n.bit)) continue;
    if (multinomial && n.listName != nullptr) {
      const std::size_t k = categories.size();
      const std::size_t count = n.bit <= 0x2 && k > 0 ? k - 1 : k;
      for (std::size_t i = 0; i < count; ++i) {
        const std::string base = std::string(n.listName) + "_" + categories[i];
        if (n.bit == 0x8) {
          columns.push_back(base + "_LOWER");
          columns.push_back(base + "_UPPER");
        } else {
          columns.push_back(base);
        }
      }
    } else if (n.bit == 0x8) {
      columns.push_back("CIMEANPRED_LOWER");
      columns.push_back("CIMEANPRED_UPPER");
    } else {
      columns.push_back(n.name);
    }
  }
  return columns;
}

bool CheckScoreOptions(const FitOptions& o, std::string& error) {
  if (!o.scoreOutputs.empty() && o.savePath.empty() && o.scoreDataPath.empty())
    return Fail(error, "--score-outputs needs --save or --score-data");
  if (o.scoreDataPath.empty() != o.scoreOutputPath.empty())
    return Fail(error, "--score-data and --score-output go together");
  if (!o.savePath.empty() && SamePath(o.savePath, o.dataPath))
    return Fail(error, "--save would overwrite the data file");
  if (!o.scoreOutputPath.empty() &&
      (SamePath(o.scoreOutputPath, o.scoreDataPath) || SamePath(o.scoreOutputPath, o.dataPath)))
    return Fail(error, "--score-output would overwrite a data file");
  if (!o.savePath.empty() && SamePath(o.savePath, o.scoreOutputPath))
    return Fail(error, "--save and --score-output name the same file");
  return true;
}

bool WriteScoreFiles(const FitOptions& o, const CsvTable& table, const GZLSettings& s, IGZLAlgorithm& algorithm,
                     const GZLOutputStats& stats, std::string& error) {
  if (o.savePath.empty() && o.scoreDataPath.empty()) return true;
  ScoreLayout layout;
  if (!ScoreMask(o.scoreOutputs, s, layout.mask, error)) return false;
  layout.multinomial = IsMultinomial(s);
  layout.cancel = s.GetCancelPointer();
  if (ResponseIsCategorical(o)) layout.responseLabels = table.Column(static_cast<std::size_t>(table.ColumnIndex(o.response))).labels;
  layout.modelType = s.IsModelGEE() ? GZLConst_940::GEE : GZLConst_940::GZLM;
  std::vector<std::string> categories;
  if (layout.multinomial) {
    const int response = table.ColumnIndex(o.response);
    for (int code : stats.GetDependCategories()) {
      const auto& labels = table.Column(static_cast<std::size_t>(response)).labels;
      categories.push_back(code >= 0 && static_cast<std::size_t>(code) < labels.size()
                               ? labels[static_cast<std::size_t>(code)]
                               : std::to_string(code));
    }
    layout.categories = categories.size();
  }
  const std::vector<std::string> columns = ScoreColumnNames(layout.mask, layout.multinomial, categories);
  if (!o.savePath.empty() &&
      !WriteScoredRecords(o.dataPath, o.separator, table.HeaderNames(), table.Records().get(), nullptr, algorithm,
                          layout, columns, o.savePath, error)) {
    return Fail(error, "--save: " + error);
  }
  if (o.scoreDataPath.empty()) return true;
  CsvTable scored;
  std::vector<FieldMap> map;
  if (!ReadScoredFile(o, table, scored, map, error)) return false;
  if (!WriteScoredRecords(o.scoreDataPath, o.separator, scored.HeaderNames(), scored.Records().get(), &map,
                          algorithm, layout, columns, o.scoreOutputPath, error)) {
    return Fail(error, "--score-output: " + error);
  }
  return true;
}

// ---------------------------------------------------------------------------------------------

CsvSequentialReader::~CsvSequentialReader() {
  if (fFd >= 0) ::close(fFd);
}

bool CsvSequentialReader::Open(const std::string& path, char separator, std::string& error) {
  fFd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fFd < 0) return Fail(error, "cannot open '" + path + "'");
  fPath = path;
  fSeparator = separator;
  return true;
}

bool CsvSequentialReader::Fill(std::uint64_t start, std::size_t bytes, std::string& error) {
  fWindow.resize(bytes);
  std::size_t got = 0;
  while (got < bytes) {
    const ssize_t n = ::pread(fFd, fWindow.data() + got, bytes - got, static_cast<off_t>(start + got));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return Fail(error, "cannot read '" + fPath + "'");
    if (n == 0) break;
    got += static_cast<std::size_t>(n);
  }
  fWindowStart = start;
  fScan = 0;
  fFinal = got < bytes;
  fWindowBytes = got;
  if (!fFinal) {
    // The tokenizer takes a window that ends right after a line break: LF, or CR not followed
    // by LF (a CR at the very end might be the first half of CRLF).
    std::size_t end = 0;
    for (std::size_t i = got; i-- > 0;) {
      if (fWindow[i] == '\n' || (fWindow[i] == '\r' && i + 1 < got && fWindow[i + 1] != '\n')) {
        end = i + 1;
        break;
      }
    }
    fWindowBytes = end;
  }
  return true;
}

bool CsvSequentialReader::FieldsAt(std::uint64_t offset, std::vector<std::string_view>& fields,
                                   std::string& error) {
  fields.clear();
  if (fFd < 0) return Fail(error, "no data file is open");
  if (offset < fWindowStart + fScan) return Fail(error, "records asked for out of order in '" + fPath + "'");
  std::vector<CsvField> spans;
  for (bool refilled = false;;) {
    while (offset < fWindowStart + fWindowBytes && fScan < fWindowBytes) {
      CsvTokenizer tokenizer(fWindow.data() + fScan, fWindowBytes - fScan, fSeparator, fFinal);
      const CsvTokenizer::Step step = tokenizer.Next(spans);
      if (step == CsvTokenizer::Step::Error) {
        return Fail(error, fPath + ": " + tokenizer.ErrorText());
      }
      if (step != CsvTokenizer::Step::Record) break;
      const std::uint64_t start = fWindowStart + fScan + tokenizer.RecordStart();
      fScan += tokenizer.Position();
      if (start < offset) continue;
      if (start > offset) break;
      for (CsvField& span : spans) fields.push_back(tokenizer.Text(span));
      return true;
    }
    // The record starts past the window, or does not fit in it: a new window from the record
    // on, twice as large when the last one started there and still could not hold it.
    if (refilled && fFinal) break;
    if (refilled) fWindowSize *= 2;
    if (!Fill(offset, fWindowSize, error)) return false;
    refilled = true;
  }
  return Fail(error, "no record at byte " + std::to_string(offset) + " of '" + fPath + "'");
}
