#pragma once
// The design matrix of a GEE model: the design rows of the generalized linear model, grouped
// into subjects.
//
// In the setup pass it also refuses records whose subject or within-subject values cannot be
// read, counts the subjects (sorted or unsorted counter), counts the subject and within-subject
// categories, and collects the distinct within-subject combinations, which are then numbered
// (their positions, 0 .. d-1, index the working correlation matrix).
//
// Every later pass hands out whole subjects: a subject is a run of consecutive records with
// equal subject keys, whichever counter the setup pass used. Only the records of the current
// subject (and the first record of the next one) are held, never the data:
//   if (!design.RestartPass()) -> NewPass
//   while (design.NextSubject(subject)) { ... subject.fRows[j], subject.fPositions[j] ... }
//   design.IsCancelled() -> the host cancelled during the pass
#include <map>
#include <memory>
#include <vector>

#include "GZLConst_940.h"
#include "GZLFactorCounts.h"
#include "data/GZLDesignMatrix.h"
#include "gee/GEENumSubject.h"

class TQQueryCancel;

// The records of one subject in the order of the data: their design rows and within-subject
// positions (-1 for every record when the model has no within-subject variables). The storage
// grows to the largest subject and is reused.
struct GEESubject {
  int fNRecords = 0;
  std::vector<GZLDesignRow> fRows;
  std::vector<int> fPositions;

  void Clear() noexcept { fNRecords = 0; }
  // The storage of record j, made when the subject is the largest so far.
  GZLDesignRow& Slot(int j);
  // The subject's frequency weight: that of its first record (the setup pass refuses subjects
  // whose records carry different weights).
  double GetFreqWeight() const noexcept { return fNRecords > 0 ? fRows[0].fFreqWeight : 0.0; }
};

class GEEDesignMatrix : public GZLDesignMatrix {
 public:
  explicit GEEDesignMatrix(const GZLSettings& settings);
  ~GEEDesignMatrix() override;

  // ---- the virtual operations, each calling the base first ----
  // Also reads the record's subject and within-subject keys (and position).
  void BuildRow(TQStatus& status, const Record& record, GZLDesignRow& row, bool skipWeights) override;
  // Also forgets the subject state of the previous pass.
  bool RestartPass() override;
  // Also adds a valid record to the subject counter, both category counts and the
  // within-subject combinations.
  void ProcessDictionaryRecord(TQStatus& status, const Record& record) override;
  // Also refuses (InvalidRecords, warning) a record whose subject or within-subject value lies
  // beyond the record, is missing, or rounds outside its variable's categories.
  TQStatus ValidateRecord(TQStatus& status, const Record& record, bool skipWeights) override;

  // Whether the subject and within-subject values of a record are usable (the part of the
  // record check that belongs to the grouping).
  bool IsValidGrouping(const Record& record) const noexcept;

  // ---- after the setup pass ----
  // Numbers the distinct within-subject combinations in lexicographic order (element by element
  // as signed ints, a shorter prefix first) and prepares the position lookup of later passes.
  void NumberWSCombinations();
  // The combinations in position order.
  const std::vector<std::vector<int>>& GetWSCombinations() const noexcept { return fWSCombinations; }
  bool HasWSVars() const noexcept { return fNWSVars > 0; }
  IGEENumSubject& GetSubjectCounter() noexcept { return *fpNumSubject; }
  const IGEENumSubject& GetSubjectCounter() const noexcept { return *fpNumSubject; }
  // Dimension d of the working correlation: the number of within-subject combinations, or the
  // largest subject when there are no within-subject variables.
  int GetCorrDimension();
  const TQFactorCounts& GetSubjectCounts() const noexcept { return fSubjectCounts; }
  const TQFactorCounts& GetWSCounts() const noexcept { return fWSCounts; }

  // ---- later passes ----
  // The next subject of the current pass (after RestartPass), or false at the end of the pass
  // or when the host cancelled (polled after every record).
  bool NextSubject(GEESubject& subject);
  bool IsCancelled() const noexcept { return fbCancelled; }

  void Display() const;

 private:
  // Position of the current record's within-subject key (-1 without within-subject variables or
  // for a combination the setup pass did not see).
  int LookUpPosition() const;

  std::vector<int> fSubjectVars;
  std::vector<int> fSubjectVarSizes;
  std::vector<int> fWSVars;
  std::vector<int> fWSVarSizes;
  int fNWSVars;
  // The keys of the record last checked or built.
  std::vector<int> fSubjectKey;
  std::vector<int> fWSKey;
  int fPosition = -1;
  TQFactorCounts fSubjectCounts;
  TQFactorCounts fWSCounts;
  std::unique_ptr<IGEENumSubject> fpNumSubject;
  // Within-subject combination -> position (numbered by NumberWSCombinations).
  std::map<std::vector<int>, int> fWSCombinationMap;
  std::vector<std::vector<int>> fWSCombinations;
  // Flat position table over the mixed-radix code of the within-subject key when the product
  // of the variables' sizes is small; the map serves otherwise.
  std::vector<int> fPositionTable;
  // Per-pass subject state: the subject key of the subject being read, and the first record of
  // the next subject, already read.
  std::vector<int> fCurrentKey;
  bool fbPending = false;
  GZLDesignRow fPendingRow;
  std::vector<int> fPendingKey;
  int fPendingPosition = -1;
  bool fbCancelled = false;
  TQQueryCancel* fpCancel;
};

// Every data pass of a GEE fit goes through here: the subjects of the pass in data order, each
// handed to step(subject, state), which adds it into `state` and answers false to end the pass
// early. States are mergeable (State::Merge, applied in a fixed order), so that this is the one
// place where whole subjects would be dealt to a second thread, each thread adding into a state
// of its own. Errors: NewPass when the source cannot start again, 1 when the host cancelled.
template <class State, class Step>
TQStatus GEERunSubjects(GEEDesignMatrix& design, GEESubject& subject, State& state, Step&& step) {
  if (!design.RestartPass()) return TQStatus::Error(GZLStatusCode::NewPass);
  while (design.NextSubject(subject))
    if (!step(subject, state)) break;
  if (design.IsCancelled()) return TQStatus::Error(GZLStatusCode::Cancelled);
  return TQStatus();
}
