#pragma once
// Display of the engine's own enumerations, status values and vectors of them, through the
// display sink (TQDisplay_940).
#include <string>
#include <vector>

#include "GZLConst_940.h"
#include "support/TQStatus.h"

namespace GZLComponentDisplay_940 {

// The label immediately followed by the enumerator's text (" = ..."); a value without a text
// prints " = unrecognized" (" = Type unrecognized" for DistParam and ScaleMethod).
void DisplayC(std::string label, GZLConst_940::StoppingCriteria value);
void DisplayC(std::string label, GZLConst_940::DistParam value);
void DisplayC(std::string label, GZLConst_940::ScaleMethod value);
void DisplayC(std::string label, GZLConst_940::CIType value);
void DisplayC(std::string label, GZLConst_940::CorrType value);
void DisplayC(std::string label, GZLConst_940::EffectAnalysisStat value);
void DisplayC(std::string label, GZLConst_940::LLType value);
void DisplayC(std::string label, GZLConst_940::ModelType value);

// The display texts themselves (" = ..."), for callers that compose their own lines.
const char* EnumText(GZLConst_940::StoppingCriteria value) noexcept;
const char* EnumText(GZLConst_940::DistParam value) noexcept;
const char* EnumText(GZLConst_940::ScaleMethod value) noexcept;
const char* EnumText(GZLConst_940::CIType value) noexcept;
const char* EnumText(GZLConst_940::CorrType value) noexcept;
const char* EnumText(GZLConst_940::EffectAnalysisStat value) noexcept;
const char* EnumText(GZLConst_940::LLType value) noexcept;
const char* EnumText(GZLConst_940::ModelType value) noexcept;

// Name of a status code: "No error" for 0, the code's name, or "Unrecognized error code".
const char* StatusCodeName(int code) noexcept;

// The label line, "IsError", "error code" and the code's name.
void DisplayStatus(std::string label, const TQStatus& status);
// A header "label (size = n)", then per element an empty line, "index" and the element.
void DisplayVStatus(std::string label, const std::vector<TQStatus>& statuses);
void DisplayVCrit(std::string label, const std::vector<GZLConst_940::StoppingCriteria>& criteria);
void DisplayVResults(std::string label, const std::vector<std::vector<double>>& results);

}  // namespace GZLComponentDisplay_940
