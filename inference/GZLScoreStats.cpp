#include "GZLScoreStats.h"

#include "support/TQDisplay_940.h"
#include "support/TQMV.h"

GZLScoreStats::GZLScoreStats(GZLConst_940::ModelType modelType) : fModelType(modelType) { Initialize(); }

void GZLScoreStats::Initialize() noexcept {
  constexpr double m = TQMV::Missing;
  fXBPRED = fXBSTDERROR = fMEANPRED = m;
  fCIMEANPRED = Interval(m, m);
  fLEVERAGE = fRESID = fPEARSONRESID = fDEVIANCERESID = m;
  fSTDPEARSONRESID = fSTDDEVIANCERESID = fLIKELIHOODRESID = fCOOK = m;
  fXBPREDNOMINAL.clear();
  fXBSTDERRORNOMINAL.clear();
  fMEANPREDNOMINAL.clear();
  fCIMEANPREDNOMINAL.clear();
  fCATPRED = fConf1 = fConf2 = fRawPropensity = m;
}

void GZLScoreStats::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLScoreStats display start");
  DisplayI("Model type", fModelType);
  DisplayDF("Linear predictor", fXBPRED);
  DisplayDF("Standard error of the linear predictor", fXBSTDERROR);
  DisplayDF("Predicted mean", fMEANPRED);
  DisplayDV("Confidence interval of the mean", {fCIMEANPRED.first, fCIMEANPRED.second}, true);
  DisplayDF("Leverage", fLEVERAGE);
  DisplayDF("Raw residual", fRESID);
  DisplayDF("Pearson residual", fPEARSONRESID);
  DisplayDF("Deviance residual", fDEVIANCERESID);
  DisplayDF("Standardized Pearson residual", fSTDPEARSONRESID);
  DisplayDF("Standardized deviance residual", fSTDDEVIANCERESID);
  DisplayDF("Likelihood residual", fLIKELIHOODRESID);
  DisplayDF("Cook's distance", fCOOK);
  DisplayDV("Linear predictors of the categories", fXBPREDNOMINAL, true);
  DisplayDV("Standard errors of the linear predictors of the categories", fXBSTDERRORNOMINAL, true);
  DisplayDV("Predicted probabilities of the categories", fMEANPREDNOMINAL, true);
  std::vector<double> limits;
  limits.reserve(2 * fCIMEANPREDNOMINAL.size());
  for (const Interval& ci : fCIMEANPREDNOMINAL) {
    limits.push_back(ci.first);
    limits.push_back(ci.second);
  }
  DisplayDV("Confidence intervals of the category probabilities", limits, true);
  DisplayDF("Predicted category", fCATPRED);
  DisplayDF("Confidence of the prediction (first method)", fConf1);
  DisplayDF("Confidence of the prediction (second method)", fConf2);
  DisplayDF("Raw propensity", fRawPropensity);
  DisplayText(1, "GZLScoreStats display end");
}
