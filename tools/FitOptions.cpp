#include "tools/FitOptions.h"

#include <algorithm>
#include <array>

#include "tools/Emmeans.h"
#include "tools/GeeModel.h"
#include "tools/ModelSpec.h"
#include "tools/ScoreFile.h"

namespace {

constexpr std::array kDistributionNames{
    FitOptionName{"normal", TQConst::DistNormal},
    FitOptionName{"binomial", TQConst::DistBinomial},
    FitOptionName{"gamma", TQConst::DistGamma},
    FitOptionName{"inverse-gaussian", TQConst::DistInvGaussian},
    FitOptionName{"igauss", TQConst::DistInvGaussian},
    FitOptionName{"negative-binomial", TQConst::DistNegBinomial},
    FitOptionName{"negbin", TQConst::DistNegBinomial},
    FitOptionName{"poisson", TQConst::DistPoisson},
    FitOptionName{"ordinal", TQConst::DistOrdinalMultinomial},
    FitOptionName{"tweedie", TQConst::DistTweedie},
    FitOptionName{"nominal", TQConst::DistNominalMultinomial},
};

constexpr std::array kLinkNames{
    FitOptionName{"cloglog", TQConst::LinkCLogLog},
    FitOptionName{"identity", TQConst::LinkIdentity},
    FitOptionName{"log", TQConst::LinkLog},
    FitOptionName{"logc", TQConst::LinkLogC},
    FitOptionName{"logit", TQConst::LinkLogit},
    FitOptionName{"negbin", TQConst::LinkNegBinomial},
    FitOptionName{"loglog", TQConst::LinkNLogLog},
    FitOptionName{"oddspower", TQConst::LinkOddsPower},
    FitOptionName{"power", TQConst::LinkPower},
    FitOptionName{"probit", TQConst::LinkProbit},
    FitOptionName{"cumcauchit", TQConst::LinkCumCauchit},
    FitOptionName{"cumcloglog", TQConst::LinkCumCLogLog},
    FitOptionName{"cumlogit", TQConst::LinkCumLogit},
    FitOptionName{"cumloglog", TQConst::LinkCumNLogLog},
    FitOptionName{"cumprobit", TQConst::LinkCumProbit},
};

constexpr std::array kScaleMethodNames{
    FitOptionName{"mle", GZLConst_940::ScaleMLE},
    FitOptionName{"deviance", GZLConst_940::ScaleDeviance},
    FitOptionName{"pearson", GZLConst_940::ScalePearson},
    FitOptionName{"fixed", GZLConst_940::ScaleFixed},
};

constexpr std::array kHessianMethodNames{
    FitOptionName{"fisher", TQConst::HessianFisher},
    FitOptionName{"newton", TQConst::HessianNewtonRaphson},
    FitOptionName{"hybrid", TQConst::HessianHybrid},
};

constexpr std::array kConvergenceTypeNames{
    FitOptionName{"absolute", TQConst::ConvAbsolute},
    FitOptionName{"relative", TQConst::ConvRelative},
};

constexpr std::array kLogLikelihoodTypeNames{
    FitOptionName{"full", GZLConst_940::LLFull},
    FitOptionName{"kernel", GZLConst_940::LLKernel},
};

constexpr std::array kEffectTestNames{
    FitOptionName{"type1", TQConst::EffectTypeI},
    FitOptionName{"type3", TQConst::EffectTypeIII},
    FitOptionName{"both", TQConst::EffectTypeIAndIII},
    FitOptionName{"none", TQConst::EffectNone},
};

constexpr std::array kEmmeansContrastNames{
    FitOptionName{"pairwise", TQConst::ContrastPairwise},     FitOptionName{"simple", TQConst::ContrastSimple},
    FitOptionName{"deviation", TQConst::ContrastDeviation},   FitOptionName{"helmert", TQConst::ContrastHelmert},
    FitOptionName{"difference", TQConst::ContrastDifference}, FitOptionName{"repeated", TQConst::ContrastRepeated},
    FitOptionName{"polynomial", TQConst::ContrastPolynomial}, FitOptionName{"none", TQConst::ContrastNone},
};

constexpr std::array kEmmeansScaleNames{
    FitOptionName{"response", TQConst::EmmScaleOriginal},
    FitOptionName{"linear", TQConst::EmmScaleTransformed},
};

constexpr std::array kEmmeansAdjustNames{
    FitOptionName{"none", TQConst::PAdjNone},
    FitOptionName{"bonferroni", TQConst::PAdjBonferroni},
    FitOptionName{"seq_bonferroni", TQConst::PAdjSeqBonferroni},
    FitOptionName{"holm", TQConst::PAdjSeqBonferroni},
    FitOptionName{"sidak", TQConst::PAdjSidak},
    FitOptionName{"seq_sidak", TQConst::PAdjSeqSidak},
};

constexpr std::array kEmmeansTestNames{
    FitOptionName{"chisq", TQConst::TestType2},
    FitOptionName{"f", TQConst::TestType0},
};

constexpr std::array kEffectStatisticNames{
    FitOptionName{"wald", GZLConst_940::EffectStatWald},
    FitOptionName{"lr", GZLConst_940::EffectStatLR},
};

constexpr std::array kCITypeNames{
    FitOptionName{"wald", GZLConst_940::Wald},
    FitOptionName{"profile", GZLConst_940::Profile},
};

constexpr std::array kCovarianceNames{
    FitOptionName{"robust", TQConst::CovbRobust},
    FitOptionName{"model", TQConst::CovbModelBased},
};

bool IsMultinomial(TQConst::DistType d) {
  return d == TQConst::DistOrdinalMultinomial || d == TQConst::DistNominalMultinomial;
}

bool IsCumulativeLink(TQConst::LinkType l) { return l >= TQConst::LinkCumCauchit && l <= TQConst::LinkCumProbit; }

bool IsBinomialOnlyLink(TQConst::LinkType l) {
  return l == TQConst::LinkCLogLog || l == TQConst::LinkLogC || l == TQConst::LinkLogit || l == TQConst::LinkNLogLog ||
         l == TQConst::LinkOddsPower || l == TQConst::LinkProbit;
}

bool HasFreeScale(TQConst::DistType d) {
  return d == TQConst::DistNormal || d == TQConst::DistGamma || d == TQConst::DistInvGaussian ||
         d == TQConst::DistTweedie;
}

const char* DistLabel(TQConst::DistType d) { return FitOptionLabel(DistributionNames(), d); }
const char* LinkLabel(TQConst::LinkType l) { return FitOptionLabel(LinkNames(), l); }

// The link is checked here, before any data is read, so that an impossible combination gets a
// message naming the options rather than the engine's generic refusal of the settings.
bool CheckDistributionAndLink(const FitOptions& o, std::string& error) {
  const TQConst::LinkType link = EffectiveLink(o);
  const std::string pair = std::string("the ") + LinkLabel(link) + " link cannot be used with the " +
                           DistLabel(o.distribution) + " distribution";
  if (o.distribution == TQConst::DistOrdinalMultinomial) {
    if (!IsCumulativeLink(link)) {
      error = pair + " (use a cumulative link)";
      return false;
    }
  } else if (o.distribution != TQConst::DistNominalMultinomial) {
    if (IsCumulativeLink(link) || (IsBinomialOnlyLink(link) && o.distribution != TQConst::DistBinomial) ||
        (link == TQConst::LinkNegBinomial && o.distribution != TQConst::DistNegBinomial)) {
      error = pair;
      return false;
    }
  }
  if ((link == TQConst::LinkPower || link == TQConst::LinkOddsPower) && !o.linkParam) {
    error = std::string("the ") + LinkLabel(link) + " link needs --link-param";
    return false;
  }
  if (o.linkParam && link != TQConst::LinkPower && link != TQConst::LinkOddsPower) {
    error = std::string("--link-param applies to the power and oddspower links, not ") + LinkLabel(link);
    return false;
  }
  return true;
}

bool CheckDistributionParameter(const FitOptions& o, std::string& error) {
  if (o.distribution == TQConst::DistNegBinomial) {
    if (o.distParam && !(*o.distParam > 0.0)) {
      error = "the negative binomial k (--dist-param) must be above 0";
      return false;
    }
  } else if (o.distribution == TQConst::DistTweedie) {
    if (!o.distParam) {
      error = "the tweedie distribution needs its power (--dist-param, between 1 and 2)";
      return false;
    }
    if (!(*o.distParam > 1.0 && *o.distParam < 2.0)) {
      error = "the tweedie power (--dist-param) must lie strictly between 1 and 2";
      return false;
    }
  } else if (o.distParam) {
    error = std::string("--dist-param applies to the negative-binomial and tweedie distributions, not ") +
            DistLabel(o.distribution);
    return false;
  }
  if (o.estimateK && o.distribution != TQConst::DistNegBinomial) {
    error = "--estimate-k applies to the negative-binomial distribution only";
    return false;
  }
  return true;
}

bool CheckResponse(const FitOptions& o, std::string& error) {
  if (o.response.empty()) {
    error = "no response: give --response, or --events with --trials or --trials-value";
    return false;
  }
  if (o.responseForm != ResponseForm::Single && o.distribution != TQConst::DistBinomial) {
    error = "events and trials can only be used with the binomial distribution";
    return false;
  }
  if (o.responseForm == ResponseForm::EventsTrials && o.trialsVariable.empty()) {
    error = "no trials variable given for the events";
    return false;
  }
  if (o.responseForm == ResponseForm::EventsConstTrials && !(o.trialsValue > 0.0)) {
    error = "the number of trials (--trials-value) must be above 0";
    return false;
  }
  if (!o.referenceCategory.empty() && (!ResponseIsCategorical(o) || o.distribution == TQConst::DistOrdinalMultinomial)) {
    error = "--ref-category applies to a binary (single binomial) or nominal response only";
    return false;
  }
  return true;
}

bool CheckScale(const FitOptions& o, std::string& error) {
  const GZLConst_940::ScaleMethod method = EffectiveScaleMethod(o);
  if (method == GZLConst_940::ScaleMLE && !HasFreeScale(o.distribution)) {
    error = std::string("the scale cannot be estimated by maximum likelihood for the ") + DistLabel(o.distribution) +
            " distribution";
    return false;
  }
  if (o.scaleValue && method != GZLConst_940::ScaleFixed) {
    error = "--scale-value needs the fixed scale method";
    return false;
  }
  if (o.scaleValue && !(*o.scaleValue > 0.0)) {
    error = "the scale value must be above 0";
    return false;
  }
  if (o.estimateK && method == GZLConst_940::ScaleMLE) {
    error = "k and the scale cannot both be estimated by maximum likelihood";
    return false;
  }
  return true;
}

bool CheckControls(const FitOptions& o, std::string& error) {
  struct Bound {
    bool bad;
    const char* message;
  };
  const Bound checks[] = {
      {o.maxIterations && *o.maxIterations < 0, "--max-iterations must be 0 or more"},
      {o.maxStepHalving && *o.maxStepHalving < 1, "--max-step-halving must be 1 or more"},
      {o.fisherIterations && *o.fisherIterations < 1, "--fisher-iterations must be 1 or more"},
      {o.separationIteration && *o.separationIteration < 1, "--separation-iteration must be 1 or more"},
      {o.llTolerance && !(*o.llTolerance >= 0.0), "--ll-tolerance must be 0 or more"},
      {o.paramTolerance && !(*o.paramTolerance >= 0.0), "--param-tolerance must be 0 or more"},
      {o.hessianTolerance && !(*o.hessianTolerance >= 0.0), "--hessian-tolerance must be 0 or more"},
      {o.singularityTolerance && !(*o.singularityTolerance > 0.0 && *o.singularityTolerance < 1.0),
       "--singularity-tolerance must lie strictly between 0 and 1"},
      {o.confidenceLevel && !(*o.confidenceLevel > 0.0 && *o.confidenceLevel < 1.0),
       "the confidence level must lie strictly between 0 and 100 percent"},
      {o.fisherIterations && o.hessianMethod != TQConst::HessianHybrid, "--fisher-iterations needs --hessian hybrid"},
      {o.refitTolerance && !(*o.refitTolerance >= 0.0), "--refit-tolerance must be 0 or more"},
      {o.overdispersionTest && o.distribution != TQConst::DistPoisson,
       "--overdispersion-test applies to Poisson models only"},
      {o.offsetValue && !o.offsetVariable.empty(), "give either an offset variable or an offset value, not both"},
  };
  for (const auto& check : checks) {
    if (check.bad) {
      error = check.message;
      return false;
    }
  }
  return true;
}

// Each column plays one role: the response, the trials, the weights, the offset and the
// predictors are distinct variables.
bool CheckRoles(const FitOptions& o, std::string& error) {
  std::vector<std::pair<std::string, std::string>> roles;  // (name, role)
  roles.emplace_back(o.response, o.responseForm == ResponseForm::Single ? "the response" : "the events");
  if (o.responseForm == ResponseForm::EventsTrials) roles.emplace_back(o.trialsVariable, "the trials");
  for (const auto& f : o.factors) roles.emplace_back(f, "a factor");
  for (const auto& c : o.covariates) roles.emplace_back(c, "a covariate");
  if (!o.offsetVariable.empty()) roles.emplace_back(o.offsetVariable, "the offset");
  if (!o.frequencyWeight.empty()) roles.emplace_back(o.frequencyWeight, "the frequency weight");
  if (!o.scaleWeight.empty()) roles.emplace_back(o.scaleWeight, "the scale weight");
  for (std::size_t i = 0; i < roles.size(); ++i) {
    for (std::size_t j = i + 1; j < roles.size(); ++j) {
      if (roles[i].first == roles[j].first && roles[i].second != roles[j].second) {
        error = "'" + roles[i].first + "' cannot be both " + roles[i].second + " and " + roles[j].second;
        return false;
      }
    }
  }
  return true;
}

}  // namespace

std::span<const FitOptionName> DistributionNames() { return kDistributionNames; }
std::span<const FitOptionName> LinkNames() { return kLinkNames; }
std::span<const FitOptionName> ScaleMethodNames() { return kScaleMethodNames; }
std::span<const FitOptionName> HessianMethodNames() { return kHessianMethodNames; }
std::span<const FitOptionName> ConvergenceTypeNames() { return kConvergenceTypeNames; }
std::span<const FitOptionName> LogLikelihoodTypeNames() { return kLogLikelihoodTypeNames; }
std::span<const FitOptionName> EffectTestNames() { return kEffectTestNames; }
std::span<const FitOptionName> EmmeansContrastNames() { return kEmmeansContrastNames; }
std::span<const FitOptionName> EmmeansScaleNames() { return kEmmeansScaleNames; }
std::span<const FitOptionName> EmmeansAdjustNames() { return kEmmeansAdjustNames; }
std::span<const FitOptionName> EmmeansTestNames() { return kEmmeansTestNames; }
std::span<const FitOptionName> EffectStatisticNames() { return kEffectStatisticNames; }
std::span<const FitOptionName> CITypeNames() { return kCITypeNames; }
std::span<const FitOptionName> CovarianceNames() { return kCovarianceNames; }

const char* FitOptionLabel(std::span<const FitOptionName> names, int value) {
  const auto it = std::find_if(names.begin(), names.end(), [value](const FitOptionName& n) { return n.value == value; });
  return it == names.end() ? "unknown" : it->name;
}

TQConst::LinkType DefaultLink(TQConst::DistType distribution) {
  switch (distribution) {
    case TQConst::DistNormal:
      return TQConst::LinkIdentity;
    case TQConst::DistBinomial:
    case TQConst::DistNominalMultinomial:
      return TQConst::LinkLogit;
    case TQConst::DistOrdinalMultinomial:
      return TQConst::LinkCumLogit;
    default:
      return TQConst::LinkLog;
  }
}

TQConst::LinkType EffectiveLink(const FitOptions& options) {
  return options.link ? *options.link : DefaultLink(options.distribution);
}

GZLConst_940::ScaleMethod EffectiveScaleMethod(const FitOptions& options) {
  if (options.scaleMethod) return *options.scaleMethod;
  if (options.scaleValue || !HasFreeScale(options.distribution)) return GZLConst_940::ScaleFixed;
  return GZLConst_940::ScaleMLE;
}

bool ResponseIsCategorical(const FitOptions& options) {
  return IsMultinomial(options.distribution) ||
         (options.distribution == TQConst::DistBinomial && options.responseForm == ResponseForm::Single);
}

bool CheckFitOptions(const FitOptions& options, std::string& error) {
  if (options.dataPath.empty()) {
    error = "no data file given";
    return false;
  }
  return CheckResponse(options, error) && CheckDistributionAndLink(options, error) &&
         CheckDistributionParameter(options, error) && CheckScale(options, error) &&
         CheckControls(options, error) && ValidateVariableLists(options.factors, options.covariates, error) &&
         CheckRoles(options, error) && CheckEmmeansOptions(options, error) && CheckGeeOptions(options, error) &&
         CheckScoreOptions(options, error);
}

std::vector<CsvColumnRequest> FitColumnRequests(const FitOptions& options) {
  std::vector<CsvColumnRequest> requests;
  auto add = [&requests](const std::string& name, CsvColumnKind kind) {
    if (name.empty()) return;
    const bool present = std::any_of(requests.begin(), requests.end(),
                                     [&name](const CsvColumnRequest& r) { return r.name == name; });
    if (!present) requests.push_back({name, kind});
  };
  add(options.response, ResponseIsCategorical(options) ? CsvColumnKind::Factor : CsvColumnKind::Numeric);
  if (options.responseForm == ResponseForm::EventsTrials) add(options.trialsVariable, CsvColumnKind::Numeric);
  for (const auto& name : options.factors) add(name, CsvColumnKind::Factor);
  for (const auto& name : options.covariates) add(name, CsvColumnKind::Numeric);
  add(options.offsetVariable, CsvColumnKind::Numeric);
  add(options.frequencyWeight, CsvColumnKind::Numeric);
  add(options.scaleWeight, CsvColumnKind::Numeric);
  // Subject and within-subject variables key the records by category.
  for (const auto* list : {&options.subjects, &options.within}) {
    for (const auto& name : *list) {
      const std::string column = GroupingColumn(options, name);
      if (column == name) {
        add(name, CsvColumnKind::Factor);
      } else if (std::none_of(requests.begin(), requests.end(), [&](const auto& r) { return r.name == column; })) {
        requests.push_back({column, CsvColumnKind::Factor, name});
      }
    }
  }
  return requests;
}

bool ResolveReferenceCategory(const FitOptions& options, const CsvTable& table, std::optional<int>& category,
                              std::string& error) {
  category.reset();
  if (options.referenceCategory.empty()) return true;
  const int column = table.ColumnIndex(options.response);
  if (column < 0 || !table.Column(column).isFactor) {
    error = "--ref-category: the response '" + options.response + "' is not categorical";
    return false;
  }
  const std::vector<std::string>& labels = table.Column(column).labels;
  if (labels.empty()) {
    error = "--ref-category: the response '" + options.response + "' has no categories";
    return false;
  }
  // A label takes precedence, so that a response with a category named "first" can use it.
  const auto found = std::find(labels.begin(), labels.end(), options.referenceCategory);
  if (found != labels.end()) {
    category = static_cast<int>(found - labels.begin());
  } else if (options.referenceCategory == "first") {
    category = 0;
  } else if (options.referenceCategory == "last") {
    category = static_cast<int>(labels.size()) - 1;
  } else {
    std::string list;
    for (const auto& label : labels) {
      if (!list.empty()) list += ", ";
      list += label;
    }
    error = "--ref-category: '" + options.referenceCategory + "' is not a category of '" + options.response +
            "' (" + list + ")";
    return false;
  }
  return true;
}

bool CheckFitData(const FitOptions& options, const CsvTable& table, std::string& error) {
  if (options.distribution == TQConst::DistBinomial && options.responseForm == ResponseForm::Single) {
    const int column = table.ColumnIndex(options.response);
    if (column >= 0 && table.Column(column).labels.size() > 2) {
      error = "the binomial response '" + options.response + "' has " +
              std::to_string(table.Column(column).labels.size()) + " categories; it must have two";
      return false;
    }
  }
  std::optional<int> reference;
  return ResolveReferenceCategory(options, table, reference, error);
}
