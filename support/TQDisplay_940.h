#pragma once
// The display sink through which every Display operation prints its labelled lines.
// Lines go to a stream the host chooses (standard output by default). The stream pointer is
// the only process-wide setting of the library; like the diagnostic switches it is meant to
// be set once by the host, not changed during a fit.
#include <iosfwd>
#include <string>
#include <vector>

#include "TQConst.h"

namespace TQDisplay_940 {

// Sets the stream the sink writes to; null restores standard output. Returns the previous one.
std::ostream* SetStream(std::ostream* out);
std::ostream& Stream();

// RAII helper: redirects the sink for the lifetime of the object (handy in tests).
class ScopedStream {
 public:
  explicit ScopedStream(std::ostream& out) : fpPrevious(SetStream(&out)) {}
  ~ScopedStream() { SetStream(fpPrevious); }
  ScopedStream(const ScopedStream&) = delete;
  ScopedStream& operator=(const ScopedStream&) = delete;

 private:
  std::ostream* fpPrevious;
};

// Each prints one line "label: value" (vectors print their elements separated by blanks); a
// label that already ends in a colon, possibly followed by blanks, gets no second colon.
void DisplayB(std::string label, bool value);
void DisplayI(std::string label, int value);
void DisplayD(std::string label, double value);   // general format, 6 significant digits
void DisplayDF(std::string label, double value);  // full precision (17 significant digits)
void DisplayS(std::string label, std::string value);
void DisplayIV(std::string label, const std::vector<int>& values);
void DisplayDV(std::string label, const std::vector<double>& values, bool fullPrecision = false);
void DisplayBV(std::string label, const std::vector<bool>& values);
void DisplaySV(std::string label, const std::vector<std::string>& values);

// The regression-layer enumerations: the label followed by " = " and the enumerator's text.
void DisplayC(std::string label, TQConst::DistType value);
void DisplayC(std::string label, TQConst::LinkType value);
void DisplayC(std::string label, TQConst::TQHessianCompMethod value);
void DisplayC(std::string label, TQConst::TQConvType value);
void DisplayC(std::string label, TQConst::TQDependentType value);
void DisplayC(std::string label, TQConst::TQEffectAnalysisType value);
void DisplayC(std::string label, TQConst::TQOffsetType value);
void DisplayC(std::string label, TQConst::TQCovbType value);

// A free line; level n indents by 2*(n-1) blanks.
void DisplayText(int level, std::string text);

}  // namespace TQDisplay_940
