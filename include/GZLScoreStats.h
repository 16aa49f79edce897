#pragma once
// The scores of one record, filled by IGZLAlgorithm::Score with the outputs its score-type mask
// asks for: linear predictor and its standard error, predicted mean and its confidence
// interval, six residuals, leverage, Cook's distance, and for categorical responses the
// predicted category, two confidence measures and the raw propensity; multinomial responses
// get per-category lists instead of the scalar predictions.
//
// Every scalar that was not asked for, or could not be computed, is the missing value
// (TQMV::Missing); a list that could not be computed is empty. A value class: the host owns it
// and may reuse one object for every record (Score re-initialises it).
#include <utility>
#include <vector>

#include "GZLConst_940.h"

class GZLScoreStats {
 public:
  // (lower, upper) confidence limits.
  using Interval = std::pair<double, double>;

  // The model type decides which fields may be written: a GEE model (type 1) has no leverage,
  // deviance, standardized or likelihood residuals, and no Cook's distance.
  explicit GZLScoreStats(GZLConst_940::ModelType modelType = GZLConst_940::GZLM);
  GZLScoreStats(const GZLScoreStats&) = default;
  GZLScoreStats(GZLScoreStats&&) noexcept = default;
  GZLScoreStats& operator=(const GZLScoreStats&) = default;
  GZLScoreStats& operator=(GZLScoreStats&&) noexcept = default;
  ~GZLScoreStats() = default;

  // Every scalar missing, every list empty (their storage is kept for the next record).
  void Initialize() noexcept;
  GZLConst_940::ModelType GetModelType() const noexcept { return fModelType; }

  double GetXBPRED() const noexcept { return fXBPRED; }
  void SetXBPRED(double v) noexcept { fXBPRED = v; }
  double GetXBSTDERROR() const noexcept { return fXBSTDERROR; }
  void SetXBSTDERROR(double v) noexcept { fXBSTDERROR = v; }
  double GetMEANPRED() const noexcept { return fMEANPRED; }
  void SetMEANPRED(double v) noexcept { fMEANPRED = v; }
  const Interval& GetCIMEANPRED() const noexcept { return fCIMEANPRED; }
  void SetCIMEANPRED(const Interval& v) noexcept { fCIMEANPRED = v; }

  // The six outputs a GEE model does not have: their setters refuse (false, old value kept)
  // when the model type is 1.
  double GetLEVERAGE() const noexcept { return fLEVERAGE; }
  bool SetLEVERAGE(double v) noexcept { return SetUnlessGEE(fLEVERAGE, v); }
  double GetRESID() const noexcept { return fRESID; }
  void SetRESID(double v) noexcept { fRESID = v; }
  double GetPEARSONRESID() const noexcept { return fPEARSONRESID; }
  void SetPEARSONRESID(double v) noexcept { fPEARSONRESID = v; }
  double GetDEVIANCERESID() const noexcept { return fDEVIANCERESID; }
  bool SetDEVIANCERESID(double v) noexcept { return SetUnlessGEE(fDEVIANCERESID, v); }
  double GetSTDPEARSONRESID() const noexcept { return fSTDPEARSONRESID; }
  bool SetSTDPEARSONRESID(double v) noexcept { return SetUnlessGEE(fSTDPEARSONRESID, v); }
  double GetSTDDEVIANCERESID() const noexcept { return fSTDDEVIANCERESID; }
  bool SetSTDDEVIANCERESID(double v) noexcept { return SetUnlessGEE(fSTDDEVIANCERESID, v); }
  double GetLIKELIHOODRESID() const noexcept { return fLIKELIHOODRESID; }
  bool SetLIKELIHOODRESID(double v) noexcept { return SetUnlessGEE(fLIKELIHOODRESID, v); }
  double GetCOOK() const noexcept { return fCOOK; }
  bool SetCOOK(double v) noexcept { return SetUnlessGEE(fCOOK, v); }

  // Per-category lists of multinomial responses (also under MULTINOMIAL in place of NOMINAL).
  const std::vector<double>& GetXBPREDNOMINAL() const noexcept { return fXBPREDNOMINAL; }
  const std::vector<double>& GetXBPREDMULTINOMIAL() const noexcept { return fXBPREDNOMINAL; }
  void SetXBPREDNOMINAL(const std::vector<double>& v) { fXBPREDNOMINAL = v; }
  const std::vector<double>& GetXBSTDERRORNOMINAL() const noexcept { return fXBSTDERRORNOMINAL; }
  const std::vector<double>& GetXBSTDERRORMULTINOMIAL() const noexcept { return fXBSTDERRORNOMINAL; }
  void SetXBSTDERRORNOMINAL(const std::vector<double>& v) { fXBSTDERRORNOMINAL = v; }
  const std::vector<double>& GetMEANPREDNOMINAL() const noexcept { return fMEANPREDNOMINAL; }
  const std::vector<double>& GetMEANPREDMULTINOMIAL() const noexcept { return fMEANPREDNOMINAL; }
  void SetMEANPREDNOMINAL(const std::vector<double>& v) { fMEANPREDNOMINAL = v; }
  const std::vector<Interval>& GetCIMEANPREDNOMINAL() const noexcept { return fCIMEANPREDNOMINAL; }
  const std::vector<Interval>& GetCIMEANPREDMULTINOMIAL() const noexcept { return fCIMEANPREDNOMINAL; }
  void SetCIMEANPREDNOMINAL(const std::vector<Interval>& v) { fCIMEANPREDNOMINAL = v; }

  double GetCATPRED() const noexcept { return fCATPRED; }
  void SetCATPRED(double v) noexcept { fCATPRED = v; }
  double GetConf1() const noexcept { return fConf1; }
  void SetConf1(double v) noexcept { fConf1 = v; }
  double GetConf2() const noexcept { return fConf2; }
  void SetConf2(double v) noexcept { fConf2 = v; }
  double GetRawPropensity() const noexcept { return fRawPropensity; }
  void SetRawPropensity(double v) noexcept { fRawPropensity = v; }

  // "GZLScoreStats display start", one labelled line per field, "GZLScoreStats display end".
  void Display() const;

 private:
  bool SetUnlessGEE(double& field, double v) noexcept {
    if (fModelType == GZLConst_940::GEE) return false;
    field = v;
    return true;
  }

  GZLConst_940::ModelType fModelType;
  double fXBPRED;
  double fXBSTDERROR;
  double fMEANPRED;
  Interval fCIMEANPRED;
  double fLEVERAGE;
  double fRESID;
  double fPEARSONRESID;
  double fDEVIANCERESID;
  double fSTDPEARSONRESID;
  double fSTDDEVIANCERESID;
  double fLIKELIHOODRESID;
  double fCOOK;
  std::vector<double> fXBPREDNOMINAL;
  std::vector<double> fXBSTDERRORNOMINAL;
  std::vector<double> fMEANPREDNOMINAL;
  std::vector<Interval> fCIMEANPREDNOMINAL;
  double fCATPRED;
  double fConf1;
  double fConf2;
  double fRawPropensity;
};
