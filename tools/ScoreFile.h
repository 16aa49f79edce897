#pragma once
// Scores of records written as CSV after a fit: `--save` scores every record of the fitted data
// file, `--score-data` the records of another file with the same columns. Each output line is
// the record's original fields, its scoring status (0 when scored) and the chosen outputs; a
// value the engine leaves missing is an empty field. Records are streamed one at a time from
// the record cache, their original text read again in sequence from the data file, so memory
// does not grow with the number of records.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "GZLSettings.h"
#include "tools/CsvTable.h"
#include "tools/FitOptions.h"

class IGZLAlgorithm;
class GZLOutputStats;

// The score-type mask of the outputs named (engine names such as XBPRED, CIMEANPRED,
// PEARSONRESID, any case; the per-category names XBPREDNOMINAL, ... select the same outputs as
// their scalar counterparts; "all" every output the model can have). Empty names: the default
// set of the model. False with a message for an unknown name.
bool ScoreMask(const std::vector<std::string>& names, const GZLSettings& settings, int& mask, std::string& error);

// The score options against each other (no data needed).
bool CheckScoreOptions(const FitOptions& options, std::string& error);

// The column names of the outputs of a mask: one per scalar output (the interval as
// CIMEANPRED_LOWER and CIMEANPRED_UPPER); for a multinomial response one per element of each
// list, named from the output and the category label (categories: the labels in the model's
// order; lists of K - 1 elements take the first K - 1).
std::vector<std::string> ScoreColumnNames(int mask, bool multinomial, const std::vector<std::string>& categories);

// Writes the files asked for by savePath and scoreDataPath (nothing when neither is set).
bool WriteScoreFiles(const FitOptions& options, const CsvTable& table, const GZLSettings& settings, IGZLAlgorithm& algorithm,
                     const GZLOutputStats& stats, std::string& error);

// Reads the records of a delimited file in sequence, each found by the byte offset at which its
// text starts (offsets increasing, as the record cache holds them). The file is read in windows
// of a few MB; a record's fields are views into the window, valid until the next call.
class CsvSequentialReader {
 public:
  CsvSequentialReader() = default;
  ~CsvSequentialReader();
  CsvSequentialReader(const CsvSequentialReader&) = delete;
  CsvSequentialReader& operator=(const CsvSequentialReader&) = delete;

  bool Open(const std::string& path, char separator, std::string& error);
  bool FieldsAt(std::uint64_t offset, std::vector<std::string_view>& fields, std::string& error);

 private:
  bool Fill(std::uint64_t start, std::size_t bytes, std::string& error);

  int fFd = -1;
  std::string fPath;
  char fSeparator = ',';
  std::vector<char> fWindow;
  std::uint64_t fWindowStart = 0;
  std::size_t fWindowBytes = 0;  // bytes of the window that the tokenizer reads
  std::size_t fScan = 0;         // where the next record of the window starts
  bool fFinal = false;           // the window ends the file
  std::size_t fWindowSize = std::size_t{4} << 20;
};
