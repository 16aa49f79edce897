#pragma once
// Splits a block of delimited text into records and fields without copying: a field is a span
// of the block. Quoted fields may hold separators, doubled quotes and line breaks; blanks
// around an unquoted field are dropped; CR before LF is ignored; lines that hold nothing but
// blanks are skipped.
//
// A file is read as a series of blocks, each ending right after a line break (LF, or a CR that
// is not followed by LF), the last one at the end of the data. A block is tokenized as if it
// started at a record boundary; when a quoted field is still open at the end of a block that is
// not the last, the record is reported Incomplete and the caller tokenizes it again with the
// next block appended. Line numbers count from 0 at the start of the block.
#include <cstddef>
#include <string_view>
#include <vector>

struct CsvField {
  std::size_t begin = 0;  // the field's text is [begin, end) of the block
  std::size_t end = 0;
  bool escaped = false;  // quoted, with doubled quotes or CRLF still to be undone by Text
};

class CsvTokenizer {
 public:
  enum class Step { Record, End, Incomplete, Error };

  // final: the block ends the data.
  CsvTokenizer(char* text, std::size_t size, char separator, bool final) noexcept;

  // The next record's fields. Record: fields hold it; End: no record is left; Incomplete: the
  // record from RecordStart() on needs the next block; Error: see ErrorLine and ErrorText.
  Step Next(std::vector<CsvField>& fields);

  // The field's text; a quoted field's doubled quotes and CRLF are undone in place, once.
  std::string_view Text(CsvField& field) noexcept;

  // Where tokenizing stands: after the last record returned (or where it stopped).
  std::size_t Position() const noexcept { return fPos; }
  // Line breaks consumed so far.
  std::size_t Line() const noexcept { return fLine; }
  // Start and first line of the record last returned or left incomplete.
  std::size_t RecordStart() const noexcept { return fRecordStart; }
  std::size_t RecordLine() const noexcept { return fRecordLine; }
  // The line of an error and its description, which follows "line N" in a message.
  std::size_t ErrorLine() const noexcept { return fErrorLine; }
  const char* ErrorText() const noexcept { return fpError; }

 private:
  enum class FieldEnd { Done, Incomplete, Error };

  bool IsBlank(char c) const noexcept { return (c == ' ' || c == '\t') && c != fSeparator; }
  bool AtFieldEnd(std::size_t p) const noexcept;
  bool SkipBlankLines() noexcept;
  FieldEnd ReadField(CsvField& field) noexcept;
  FieldEnd ReadQuotedField(CsvField& field) noexcept;
  FieldEnd Fail(std::size_t line, const char* text) noexcept;

  char* fText;
  std::size_t fSize;
  char fSeparator;
  bool fbFinal;
  bool fStops[256];  // bytes that end an unquoted field's scan
  std::size_t fPos = 0;
  std::size_t fLine = 0;
  std::size_t fRecordStart = 0;
  std::size_t fRecordLine = 0;
  std::size_t fErrorLine = 0;
  const char* fpError = "";
};
