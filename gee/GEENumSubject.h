#pragma once
// Subject counters of the setup pass of a GEE model: how many subjects the data hold, the
// smallest and largest subject, and whether the data break the two rules of a subject (two
// records with the same subject and within-subject values; frequency weights that differ
// inside a subject).
//
// Keys are the subject (and within-subject) variables' values, each rounded into a category
// index (+0.5, truncated), in the order of the variable lists. Two counters exist because the
// host may promise sorted data or not:
// - GEENumSubjSorted: records may come in any order; a subject is a distinct subject key.
// - GEENumSubjUnSorted: a subject is a run of consecutive records with equal subject keys; the
//   same key after another one starts a new subject.
// The estimation passes always take runs (GEEDesignMatrix::NextSubject), whichever counter
// counted the subjects.
#include <map>
#include <set>
#include <vector>

#include "GZLRecord.h"

class IGEENumSubject {
 public:
  IGEENumSubject(const std::vector<int>& subjectVars, const std::vector<int>& wsVars, int freqWeightVar);
  virtual ~IGEENumSubject() = default;
  IGEENumSubject(const IGEENumSubject&) = delete;
  IGEENumSubject& operator=(const IGEENumSubject&) = delete;

  // One valid record of the setup pass.
  virtual void AddRecord(const Record& record) = 0;
  // Number of subjects and the extreme sizes (untouched while there is no subject). Runs once
  // after records were added.
  virtual void Compute() = 0;

  int GetNumSubjects() const noexcept { return fNSubjects; }
  int GetMinSubjectSize() const noexcept { return fMinSize; }
  int GetMaxSubjectSize() const noexcept { return fMaxSize; }
  bool IsRepeatedWithinSubject() const noexcept { return fbRepeatedWS; }
  bool IsMixedWeight() const noexcept { return fbMixedWeight; }
  bool IsComputed() const noexcept { return fbComputed; }

  // The rounded key of a record over the given variables, written into `key` (no allocation
  // once `key` has held as many values).
  static void BuildKey(const Record& record, const std::vector<int>& vars, std::vector<int>& key);

 protected:
  // The current record's keys and frequency weight (1 without a frequency-weight variable).
  void ReadRecord(const Record& record);

  std::vector<int> fSubjectVars;
  int fNSubjectVars;
  std::vector<int> fWSVars;
  int fNWSVars;
  int fNSubjects = 0;
  int fMinSize = 0;
  int fMaxSize = 0;
  bool fbComputed = false;
  std::vector<int> fSubjectKey;
  std::vector<int> fWSKey;
  int fFreqWeightVar;
  double fFreqWeight = 1.0;
  bool fbRepeatedWS = false;
  bool fbMixedWeight = false;
};

class GEENumSubjSorted final : public IGEENumSubject {
 public:
  using IGEENumSubject::IGEENumSubject;
  void AddRecord(const Record& record) override;
  void Compute() override;

 private:
  std::map<std::vector<int>, int> fCounts;
  std::map<std::vector<int>, double> fFirstWeights;
  // Subject key followed by within-subject key, for every record seen.
  std::set<std::vector<int>> fJoinedKeys;
  std::vector<int> fJoined;
};

class GEENumSubjUnSorted final : public IGEENumSubject {
 public:
  using IGEENumSubject::IGEENumSubject;
  void AddRecord(const Record& record) override;
  void Compute() override;

 private:
  std::vector<int> fSizes;
  std::vector<int> fPrevSubjectKey;
  double fPrevWeight = 1.0;
  std::set<std::vector<int>> fWSKeys;
};
