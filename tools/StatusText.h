#pragma once
// The engine's status codes in words, for the tool's messages and warning lists. A user of the
// command line sees a sentence first and the code's name only as a reference.
#include <string>

#include "support/TQStatus.h"

// A sentence (no final period) describing what the code means for someone fitting a model, or
// null when the tool has no sentence for it.
const char* StatusSentence(int code) noexcept;

// "<sentence> (<name>, <code>)"; for a code without a sentence, "<name> (<code>)".
std::string DescribeStatus(const TQStatus& status);
std::string DescribeStatusCode(int code);
