// gzl: fits generalized linear models to a CSV file from the command line.
#include <CLI/CLI.hpp>

#include <cctype>
#include <exception>
#include <iostream>
#include <span>
#include <type_traits>
#include <new>
#include <string>
#include <vector>

#include <unistd.h>

#include "tools/FitCommand.h"
#include "tools/FitControl.h"
#include "tools/FitOptions.h"
#include "tools/FitRunner.h"
#include "tools/GeeModel.h"

namespace {

std::string Lowercase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// The value of a choice given in any case; false when the name is not in the table.
bool LookupChoice(std::span<const FitOptionName> names, const std::string& text, int& value) {
  const std::string wanted = Lowercase(text);
  for (const auto& n : names) {
    if (wanted == n.name) {
      value = n.value;
      return true;
    }
  }
  return false;
}

std::string ChoiceList(std::span<const FitOptionName> names, const char* joint) {
  std::string out;
  for (const auto& n : names) {
    if (!out.empty()) out += joint;
    out += n.name;
  }
  return out;
}

// An enumerated option: one of the table's names (any case), stored as the enumeration value.
template <typename Target>
CLI::Option* AddChoice(CLI::App& app, const std::string& flags, Target& target, std::span<const FitOptionName> names,
                       const std::string& help) {
  CLI::Validator choice(
      [names](std::string& text) {
        int value = 0;
        return LookupChoice(names, text, value) ? std::string()
                                                : "'" + text + "' is not one of " + ChoiceList(names, ", ");
      },
      "", "choice");
  return app
      .add_option_function<std::string>(
          flags,
          [&target, names](const std::string& text) {
            int value = 0;
            if (LookupChoice(names, text, value)) {
              using Enum = std::remove_cvref_t<decltype(target.value())>;
              target = static_cast<Enum>(value);
            }
          },
          help)
      ->check(choice)
      ->type_name("{" + ChoiceList(names, ",") + "}");
}

template <typename T>
CLI::Option* AddOptional(CLI::App& app, const std::string& flags, std::optional<T>& target, const std::string& help) {
  return app.add_option_function<T>(
      flags, [&target](const T& v) { target = v; }, help);
}

// A list of names: comma-separated, the option may be repeated.
CLI::Option* AddNameList(CLI::App& app, const std::string& flags, std::vector<std::string>& target,
                         const std::string& help) {
  return app.add_option(flags, target, help)
      ->delimiter(',')
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->type_name("NAMES");
}

bool SeparatorFromText(const std::string& text, char& separator) {
  if (text == "tab" || text == "\\t") {
    separator = '\t';
    return true;
  }
  if (text == "semicolon") {
    separator = ';';
    return true;
  }
  if (text.size() != 1) return false;
  separator = text[0];
  return true;
}

int Fail(const std::string& message) {
  std::cerr << "gzl: " << message << '\n';
  return 1;
}

// Exit status of a fit stopped by Ctrl-C, as a shell reports a process ended by SIGINT.
constexpr int kInterruptedExit = 130;

// The fit with progress on stderr (so that it never mixes with the results; by default only
// for a person at a terminal) and Ctrl-C cancelling it.
int RunFitWithHooks(const FitOptions& options, bool progress, bool quiet) {
  const bool terminal = isatty(STDERR_FILENO) != 0;
  FitHooks hooks;
  if (!quiet && (progress || terminal)) {
    hooks.progress = &std::cerr;
    hooks.progressIsTerminal = terminal;
  }
  InterruptFlag::Install();
  FlagCancel cancel(InterruptFlag::Pointer());
  hooks.cancel = &cancel;
  const int code = RunFitCommand(options, hooks, std::cout, std::cerr);
  return code != 0 && InterruptFlag::IsSet() ? kInterruptedExit : code;
}

// Values that the command line gives in another form than FitOptions holds them.
struct CommandLineExtras {
  std::string separator = ",";
  std::string events;
  std::string trials;
  std::optional<double> trialsValue;
  std::optional<double> confidencePercent;
  std::optional<TQConst::DistType> distribution;
  std::vector<std::string> effects;
  bool noIntercept = false;
  bool progress = false;
  bool quiet = false;
  std::string correlation;
  bool noCorrAdjust = false;
};

void DefineFitCommand(CLI::App& fit, FitOptions& o, CommandLineExtras& x) {
  fit.add_option("data", o.dataPath, "CSV file with a header line")->required()->type_name("DATA.csv");
  fit.add_option("--sep", x.separator, "Field separator: one character, 'tab' or 'semicolon' (default ',')")
      ->type_name("CHAR")
      ->group("Data");

  const std::string response = "Response";
  auto* single = fit.add_option("-y,--response", o.response, "Response variable")->type_name("NAME")->group(response);
  auto* events = fit.add_option("--events", x.events, "Events variable of a binomial events/trials response")
                     ->type_name("NAME")
                     ->group(response);
  auto* trials = fit.add_option("--trials", x.trials, "Trials variable of the events")->type_name("NAME")->group(response);
  auto* trialsValue =
      AddOptional(fit, "--trials-value", x.trialsValue, "Constant number of trials of the events")->group(response);
  single->excludes(events);
  trials->needs(events)->excludes(trialsValue);
  trialsValue->needs(events);
  fit.add_option("--ref-category", o.referenceCategory,
                 "Reference category of a binary or multinomial response: first, last or a category label "
                 "(default first: the event of a binary response is its second category)")
      ->type_name("CATEGORY")
      ->group(response);

  const std::string model = "Distribution and link";
  AddChoice(fit, "-d,--dist", x.distribution, DistributionNames(), "Distribution (default normal)")->group(model);
  AddChoice(fit, "-l,--link", o.link, LinkNames(),
            "Link (default: identity for normal, logit for binomial and nominal, cumlogit for ordinal, log otherwise)")
      ->group(model);
  AddOptional(fit, "--link-param", o.linkParam, "Parameter of the power and oddspower links")->group(model);
  AddOptional(fit, "--dist-param", o.distParam,
              "Negative binomial k (fixed, or the start value with --estimate-k) or Tweedie power")
      ->group(model);
  fit.add_flag("--estimate-k", o.estimateK, "Estimate the negative binomial k by maximum likelihood")->group(model);

  const std::string predictors = "Predictors and effects";
  AddNameList(fit, "-f,--factors", o.factors, "Factors (categorical predictors), comma-separated")->group(predictors);
  AddNameList(fit, "-c,--covariates", o.covariates, "Covariates (numeric predictors), comma-separated")
      ->group(predictors);
  fit.add_option("-e,--effects", x.effects,
                 "Model effects, separated by blanks, commas or '+': a, a*b (interaction), x*x (square), "
                 "a(b) (a nested within b), a(b*c), a*x, x(a). Default: a main effect of every factor and covariate")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->type_name("TERMS")
      ->group(predictors);
  fit.add_flag("--no-intercept", x.noIntercept, "Leave the intercept out of the model")->group(predictors);

  const std::string offsetWeights = "Offset and weights";
  auto* offset = fit.add_option("--offset", o.offsetVariable, "Offset variable")->type_name("NAME")->group(offsetWeights);
  auto* offsetValue = AddOptional(fit, "--offset-value", o.offsetValue, "Fixed offset value")->group(offsetWeights);
  offset->excludes(offsetValue);
  fit.add_option("--freq-weight", o.frequencyWeight, "Frequency weight variable")->type_name("NAME")->group(offsetWeights);
  fit.add_option("--scale-weight", o.scaleWeight, "Scale weight variable")->type_name("NAME")->group(offsetWeights);

  const std::string estimation = "Estimation";
  AddChoice(fit, "--scale-method", o.scaleMethod, ScaleMethodNames(),
            "Scale parameter: mle, deviance, pearson or fixed (default mle where the distribution has a free "
            "scale, else fixed at 1)")
      ->group(estimation);
  AddOptional(fit, "--scale-value", o.scaleValue, "Value of a fixed scale parameter (default 1)")->group(estimation);
  AddChoice(fit, "--hessian", o.hessianMethod, HessianMethodNames(),
            "Hessian: fisher (scoring), newton (Newton-Raphson) or hybrid")
      ->group(estimation);
  AddOptional(fit, "--fisher-iterations", o.fisherIterations,
              "Hybrid method: iterations of Fisher scoring before Newton-Raphson")
      ->group(estimation);
  AddOptional(fit, "--max-iterations", o.maxIterations, "Maximum number of iterations")->group(estimation);
  AddOptional(fit, "--max-step-halving", o.maxStepHalving, "Maximum number of step-halvings")->group(estimation);
  AddOptional(fit, "--separation-iteration", o.separationIteration,
              "First iteration checked for complete or quasi-complete separation")
      ->group(estimation);
  AddOptional(fit, "--ll-tolerance", o.llTolerance, "Log-likelihood convergence tolerance (0: off)")->group(estimation);
  AddChoice(fit, "--ll-convergence", o.llConvType, ConvergenceTypeNames(),
            "Log-likelihood change measured as absolute or relative")
      ->group(estimation);
  AddOptional(fit, "--param-tolerance", o.paramTolerance, "Parameter convergence tolerance (0: off)")
      ->group(estimation);
  AddChoice(fit, "--param-convergence", o.paramConvType, ConvergenceTypeNames(),
            "Parameter change measured as absolute or relative")
      ->group(estimation);
  AddOptional(fit, "--hessian-tolerance", o.hessianTolerance, "Hessian convergence tolerance (0: off)")
      ->group(estimation);
  AddChoice(fit, "--hessian-convergence", o.hessianConvType, ConvergenceTypeNames(),
            "Hessian measure taken as absolute or relative")
      ->group(estimation);
  AddOptional(fit, "--singularity-tolerance", o.singularityTolerance, "Tolerance for detecting aliased parameters")
      ->group(estimation);

  const std::string output = "Output";
  AddOptional(fit, "--confidence", x.confidencePercent, "Confidence level of intervals, in percent (default 95)")
      ->group(output);
  AddChoice(fit, "--loglik", o.llType, LogLikelihoodTypeNames(), "Log-likelihood reported: full or kernel")
      ->group(output);
  AddChoice(fit, "--effect-tests", o.effectTests, EffectTestNames(),
            "Wald tests of model effects: type1 (sequential), type3 (each effect adjusted for all others), both "
            "or none (default none)")
      ->group(output);
  AddChoice(fit, "--effect-statistic", o.effectStatistic, EffectStatisticNames(),
            "Statistic of the tests of model effects: wald, or lr (likelihood ratio: the model refitted under "
            "each effect's hypothesis) (default wald)")
      ->group(output);
  AddChoice(fit, "--ci", o.ciType, CITypeNames(),
            "Confidence intervals of the parameters: wald or profile (profile likelihood) (default wald)")
      ->group(output);
  fit.add_flag("--overdispersion-test", o.overdispersionTest,
               "Poisson models: Lagrange multiplier test against overdispersion")
      ->group(output);
  AddOptional(fit, "--refit-tolerance", o.refitTolerance,
              "Log-likelihood tolerance of likelihood-ratio refits and profile intervals (default 1e-4)")
      ->group(output);
  fit.add_flag("--json", o.json, "Write the output as one JSON document")->group(output);

  const std::string emmeans = "Estimated marginal means";
  fit.add_option("--emmeans", o.emmeans,
                 "Means of the cells of factors, the first compared (repeatable): a, a*b (a compared within each "
                 "b), a|b*c (a compared within each b and c)")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->type_name("FACTORS")
      ->group(emmeans);
  AddChoice(fit, "--emmeans-contrast", o.emmeansContrast, EmmeansContrastNames(),
            "Comparison of the compared factor's levels (default pairwise; none: means only)")
      ->group(emmeans);
  fit.add_option("--emmeans-ref", o.emmeansReference, "Reference category of the simple contrast (default the last)")
      ->type_name("CATEGORY")
      ->group(emmeans);
  fit.add_option("--emmeans-metric", o.emmeansMetric,
                 "Polynomial contrast: one value per level of the compared factor, comma-separated (default 1, 2, ...)")
      ->delimiter(',')
      ->type_name("VALUES")
      ->group(emmeans);
  AddChoice(fit, "--emmeans-scale", o.emmeansScale, EmmeansScaleNames(),
            "Means of the response or of the linear predictor (default response)")
      ->group(emmeans);
  AddChoice(fit, "--emmeans-adjust", o.emmeansAdjust, EmmeansAdjustNames(),
            "P-value adjustment of pairwise comparisons (default none; holm is seq_bonferroni)")
      ->group(emmeans);
  AddNameList(fit, "--emmeans-at", o.emmeansAt,
              "Covariate values of the means, name=value, comma-separated (default: each covariate at its mean)")
      ->type_name("NAME=VALUE")
      ->group(emmeans);
  AddChoice(fit, "--emmeans-test", o.emmeansTest, EmmeansTestNames(),
            "chisq (normal intervals, Wald chi-square) or f (t intervals, F tests with the residual degrees of "
            "freedom); default chisq")
      ->group(emmeans);
  fit.add_flag("--dry-run", o.dryRun, "Describe the model that would be fitted, and stop")->group(output);
  fit.add_option("--pmml", o.pmmlPath, "Write the fitted model as a PMML document to this file")
      ->type_name("FILE.xml")
      ->group(output);
  const std::string gee = "Generalized estimating equations (a GEE model when subjects are given)";
  AddNameList(fit, "--subject", o.subjects,
              "Subject variables, comma-separated: a subject is a run of records with equal values of all of them")
      ->group(gee);
  AddNameList(fit, "--within", o.within,
              "Within-subject variables, comma-separated: they give each record its position in the working "
              "correlation (default: the record's place in its subject)")
      ->group(gee);
  fit.add_flag("--sort-subjects", o.sortSubjects,
               "Sort the records by subject and within-subject values (a subject is then every record with its "
               "values, wherever it stands)")
      ->group(gee);
  fit.add_option("--corr", x.correlation,
                 "Working correlation: independent (default), exchangeable, ar1, mdep:M, unstructured, or fixed:FILE "
                 "(the values below the diagonal row by row, or the whole matrix)")
      ->type_name("STRUCTURE")
      ->group(gee);
  fit.add_flag("--no-corr-adjust", x.noCorrAdjust,
               "Do not subtract the number of parameters in the denominators of the correlation and scale estimates")
      ->group(gee);
  AddOptional(fit, "--corr-update", o.updateCorr,
              "Iterations between updates of the working correlation (default 1; 0: never updated)")
      ->group(gee);
  AddChoice(fit, "--covariance", o.covariance, CovarianceNames(),
            "Covariance of the estimates used for inference: robust (sandwich, default) or model (model-based)")
      ->group(gee);
  AddOptional(fit, "--gee-max-iterations", o.geeMaxIterations, "Maximum number of GEE iterations (default 100)")
      ->group(gee);
  AddOptional(fit, "--gee-param-tolerance", o.geeParamTolerance,
              "GEE parameter convergence tolerance (default 1e-6)")
      ->group(gee);
  AddChoice(fit, "--gee-param-convergence", o.geeParamConvType, ConvergenceTypeNames(),
            "GEE parameter change measured as absolute (default) or relative")
      ->group(gee);
  AddOptional(fit, "--gee-hessian-tolerance", o.geeHessianTolerance, "GEE Hessian convergence tolerance (default 0: off)")
      ->group(gee);

  const std::string scores = "Scores of records";
  fit.add_option("--save", o.savePath,
                 "Write every record of the data file with its scoring status and the score outputs to this CSV file")
      ->type_name("FILE.csv")
      ->group(scores);
  AddNameList(fit, "--score-outputs", o.scoreOutputs,
              "Score outputs, comma-separated: XBPRED, XBSTDERROR, MEANPRED, CIMEANPRED, LEVERAGE, RESID, "
              "PEARSONRESID, DEVIANCERESID, STDPEARSONRESID, STDDEVIANCERESID, LIKELIHOODRESID, COOK, CATPRED, "
              "CONF1, CONF2, RAWPROPENSITY, or all (default: predictions, their interval and the raw and Pearson "
              "residuals, with leverage, deviance residual and Cook's distance for a generalized linear model and the "
              "predicted category of a binary response)")
      ->type_name("OUTPUTS")
      ->group(scores);
  fit.add_option("--score-data", o.scoreDataPath, "Score the records of this CSV file (the data file's columns) with the fitted model")
      ->type_name("FILE.csv")
      ->group(scores);
  fit.add_option("--score-output", o.scoreOutputPath, "Where the scores of --score-data go (a CSV file)")
      ->type_name("FILE.csv")
      ->group(scores);

  auto* progress = fit.add_flag("--progress", x.progress,
                                "Report records read and iterations on stderr even when it is not a terminal")
                       ->group(output);
  fit.add_flag("--quiet", x.quiet, "Report no progress on stderr, not even at a terminal")
      ->excludes(progress)
      ->group(output);
}

// Moves the command-line forms into the options; false with a message for a bad value.
bool ApplyExtras(const CommandLineExtras& x, FitOptions& o, std::string& error) {
  if (!SeparatorFromText(x.separator, o.separator)) {
    error = "--sep: '" + x.separator + "' is not a single character, 'tab' or 'semicolon'";
    return false;
  }
  if (!x.events.empty()) {
    o.response = x.events;
    if (!x.trials.empty()) {
      o.responseForm = ResponseForm::EventsTrials;
      o.trialsVariable = x.trials;
    } else if (x.trialsValue) {
      o.responseForm = ResponseForm::EventsConstTrials;
      o.trialsValue = *x.trialsValue;
    } else {
      error = "--events needs --trials or --trials-value";
      return false;
    }
  }
  if (x.distribution) o.distribution = *x.distribution;
  if (x.confidencePercent) o.confidenceLevel = *x.confidencePercent / 100.0;
  for (const auto& part : x.effects) {
    if (!o.effects.empty()) o.effects += ' ';
    o.effects += part;
  }
  if (!x.effects.empty() && o.effects.find_first_not_of(" \t\n\r,+") == std::string::npos) {
    error = "--effects: the effect list is empty";
    return false;
  }
  o.intercept = !x.noIntercept;
  if (!x.correlation.empty() && !ParseCorrelation(x.correlation, o, error)) return false;
  if (x.noCorrAdjust) o.adjustCorr = false;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    CLI::App app{"gzl: generalized linear models from the command line"};
    app.require_subcommand(1);
    CLI::App* fit = app.add_subcommand("fit", "Fit a generalized linear model to the records of a CSV file");

    FitOptions options;
    CommandLineExtras extras;
    DefineFitCommand(*fit, options, extras);

    try {
      app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
      return app.exit(e);
    }

    std::string error;
    if (!ApplyExtras(extras, options, error)) return Fail(error);
    return RunFitWithHooks(options, extras.progress, extras.quiet);
  } catch (const std::bad_alloc&) {
    return Fail("out of memory");
  } catch (const std::exception& e) {
    return Fail(e.what());
  }
}
