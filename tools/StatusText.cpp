#include "tools/StatusText.h"

#include "GZLConst_940.h"
#include "GZLMarginals.h"
#include "diagnostics/GZLComponentDisplay_940.h"

namespace {

// Codes the engine uses for the response categories of a nominal model (not named in the
// status-code list).
constexpr int kTooFewResponseCategories = 318;
constexpr int kReferenceCategoryNotObserved = 319;

}  // namespace

const char* StatusSentence(int code) noexcept {
  namespace C = GZLStatusCode;
  switch (code) {
    case C::Cancelled:
      return "the fit was cancelled";
    case C::NoValidTrainRecords:
    case C::NoValidRecords:
      return "no record can be used: every record has a missing value, a response outside the range of the "
             "distribution (for example not above 0 for gamma, negative counts for Poisson) or a weight that is "
             "not positive";
    case C::InvalidSettings:
      return "the engine refused the model settings";
    case C::InvalidCatValue:
      return "a categorical value lies outside the categories of its variable";
    case C::CantBuildModel:
      return "the model cannot be built";
    case C::StepHalvingProblem:
      return "step-halving could not improve the log-likelihood";
    case C::InitialValueFailed:
      return "starting values for the estimates could not be computed";
    case C::ModelNotBuilt:
      return "the model has not been fitted";
    case C::DivideByZero:
      return "a division by zero occurred";
    case C::LMatrixEmpty:
      return "a contrast matrix is empty: marginal means are not available for this model";
    case C::OneCategCompareFactor:
      return "the compared factor has fewer than two categories to compare";
    case C::PolynShortMetric:
      return "the polynomial contrast needs one metric value per category of the compared factor, all different";
    case C::PolynLongMetric:
      return "more polynomial metric values than categories of the compared factor; the extra values were ignored";
    case C::InvalidContrastCateg:
      return "the reference category of the contrast does not occur; the last category was taken";
    case C::InvalidEmmeansIndex:
      return "the marginal means name a variable that is not a factor or covariate of the model";
    case C::InvalidEmmeansTestIndex:
      return "invalid index of a marginal-means test";
    case C::OneCategCompareCombination:
      return "a combination of the other factors has a single category of the compared factor, so nothing is "
             "compared there";
    case C::HiRefCatDifferent:
      return "the reference category does not occur with every combination of the other factors; the last "
             "category was taken there";
    case C::IncompleteCompareFactor:
      return "some combinations of the other factors lack categories of the compared factor (empty cells)";
    case GZLMarginals::kTooFewPairwiseRecords:
      return "fewer than two categories to compare pairwise";
    case C::CompleteSeparation:
      return "complete separation: the predictors determine the response exactly, so the maximum likelihood "
             "estimates do not exist";
    case C::QuasiCompleteSeparation:
      return "quasi-complete separation: some estimates tend to infinity and the results may not be valid";
    case C::RobustCovarianceFailed:
      return "the covariance matrix of the estimates could not be computed, so no standard errors or tests are "
             "given";
    case C::LoopIterLargeMaxIter:
      return "the maximum number of iterations was reached before convergence";
    case C::InvalidRecords:
      return "some records were left out: a missing value, a response outside the range of the distribution or "
             "a weight that is not positive";
    case C::DegreeFreedomIsZero:
      return "the residual degrees of freedom are zero";
    case C::DevianceChiSquareIsZero:
      return "the deviance is zero";
    case C::PearsonChiSquareIsZero:
      return "the Pearson chi-square is zero";
    case C::InvalidCovarianceMatrix:
      return "the covariance matrix of the estimates is not valid";
    case C::NoFactorCategs:
      return "a factor has no categories in the records used";
    case C::DeviancePearsonConstLikelihoodMissing:
      return "the deviance, Pearson chi-square or log-likelihood could not be computed";
    case C::LogLikelihoodCovarianceNotSucceed:
      return "the log-likelihood or the covariance matrix could not be computed";
    case C::InitialParameterNumberInvalid:
      return "the number of initial values does not match the number of parameters";
    case C::SingularHessian:
      return "the Hessian matrix is singular: some parameters cannot be estimated";
    case C::HessianNotPositiveDefinite:
      return "the Hessian matrix is not positive definite at the final estimates; the validity of the model "
             "fit is uncertain";
    case C::InvalidRecordsForLinkFunction:
      return "some records were left out because their response or fitted value lies outside the range of the "
             "distribution or the link function; the omnibus test is not computed";
    case C::AllInvalidRecordsForLinkFunction:
      return "no record can be used: every response lies outside the range of the distribution or the link "
             "function (for example responses not above 0 for gamma, or negative counts for Poisson)";
    case C::ScaleIsZero:
      return "the scale parameter is zero";
    case C::PerfectFit:
      return "the model fits the data perfectly (scale parameter zero), so the log-likelihood is not defined";
    case C::OmnibusStatNegative:
      return "the omnibus test statistic is negative (the intercept-only model fits better), so the test is not "
             "given";
    case C::CasesWithDiffFW:
      return "records of one subject have different frequency weights";
    case C::CaseWithUnusedCategory:
      return "a record holds a category that the model does not use";
    case C::InvalidRecordsOverflow:
      return "the data hold values too large to be summed in double precision";
    case C::ComputeInitialStepSize:
      return "the initial step size could not be computed";
    case C::ScaleAndKBothMle:
      return "the scale and the negative binomial k cannot both be estimated";
    case C::KIsZero:
      return "the negative binomial k tends to zero (the data show no overdispersion; consider a Poisson model)";
    case C::LRStatisticProblem:
      return "a likelihood-ratio statistic could not be computed";
    case C::NoValidLRTests:
      return "no likelihood-ratio test could be computed";
    case C::NoValidPLCIStats:
      return "no profile likelihood interval could be computed";
    case C::HessianCriterionUnmet:
      return "the Hessian convergence criterion was not met";
    case C::NewPass:
      return "the data could not be read again for another pass";
    case C::PostEstimation:
      return "the statistics after estimation could not be computed";
    case C::InternalError:
      return "internal error in the engine";
    case C::AICCNotComputable:
      return "the AICC cannot be computed: too few records for the number of parameters";
    case kTooFewResponseCategories:
      return "the response has fewer than two categories in the records used";
    case kReferenceCategoryNotObserved:
      return "the reference category of the response does not occur in the records used; another category "
             "was taken as reference";
    default:
      return nullptr;
  }
}

std::string DescribeStatusCode(int code) {
  const char* sentence = StatusSentence(code);
  const char* name = GZLComponentDisplay_940::StatusCodeName(code);
  const std::string number = std::to_string(code);
  if (sentence == nullptr) return std::string(name) + " (" + number + ")";
  // Cancellation and the nominal-category codes have no name of their own.
  const std::string known(name);
  if (known == "Unrecognized error code" || code == GZLStatusCode::Cancelled) {
    return std::string(sentence) + " (" + number + ")";
  }
  return std::string(sentence) + " (" + known + ", " + number + ")";
}

std::string DescribeStatus(const TQStatus& status) { return DescribeStatusCode(status.GetErrorCode()); }
