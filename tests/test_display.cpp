#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "GZLConst_940.h"
#include "diagnostics/GZLComponentDisplay_940.h"
#include "support/TQDisplay_940.h"

namespace CD = GZLComponentDisplay_940;
namespace G = GZLConst_940;

namespace {
template <class F>
std::string Capture(F f) {
  std::ostringstream out;
  TQDisplay_940::ScopedStream redirect(out);
  f();
  return out.str();
}
}  // namespace

TEST(ComponentDisplay, StoppingCriteria) {
  EXPECT_EQ(Capture([] { CD::DisplayC("Crit", G::StoppingCriteria(5)); }), "Crit = unrecognized\n");
  EXPECT_EQ(Capture([] { CD::DisplayC("Crit", G::HessianCriterionUnmet); }), "Crit = unrecognized\n");
  EXPECT_EQ(Capture([] { CD::DisplayC("Crit", G::StoppingCriteria(12)); }), "Crit = unrecognized\n");
  EXPECT_EQ(Capture([] { CD::DisplayC("Crit", G::StoppingCriteria(-1)); }), "Crit = unrecognized\n");
  EXPECT_EQ(Capture([] { CD::DisplayC("Crit", G::NoIterations); }), "Crit = No iterations performed\n");
  EXPECT_EQ(Capture([] { CD::DisplayC("Crit", G::AllConverged); }),
            "Crit = All convergence criteria are satisfied\n");
  // Two-part texts come out as one line.
  EXPECT_EQ(Capture([] { CD::DisplayC("Crit", G::StepHalvingExhausted); }),
            "Crit = The maximum number of step-halvings was reached, but the log likelihood value cannot be "
            "further improved\n");
  EXPECT_EQ(Capture([] { CD::DisplayC("Crit", G::UnexpectedSingularity); }),
            "Crit = An unexpected singularity in the Hessian matrix was encountered. There may be undetected "
            "complete or quasi-complete separation in the data\n");
  EXPECT_EQ(Capture([] { CD::DisplayC("Crit", G::PerfectFit); }),
            "Crit = This model has perfect fit. The log likelihood is missing because the scale parameter is "
            "zero\n");
  EXPECT_STREQ(CD::EnumText(G::QuasiCompleteSeparation),
               " = A quasi-complete separation may exist in the data. Some parameter estimates will tend to "
               "infinity");
  EXPECT_STREQ(CD::EnumText(G::CompleteSeparation),
               " = The log likelihood value is approaching zero. There may be a complete separation in the data");
}

TEST(ComponentDisplay, OtherEnumerations) {
  EXPECT_EQ(Capture([] { CD::DisplayC("Scale", G::ScalePearson); }), "Scale = Pearson chi-square\n");
  EXPECT_EQ(Capture([] { CD::DisplayC("Scale", G::ScaleMethod(4)); }), "Scale = Type unrecognized\n");
  EXPECT_EQ(Capture([] { CD::DisplayC("K", G::DistParamMLE); }), "K = Maximum likelihood estimate\n");
  EXPECT_EQ(Capture([] { CD::DisplayC("K", G::DistParam(-1)); }), "K = Type unrecognized\n");
  EXPECT_EQ(Capture([] { CD::DisplayC("Corr", G::AR1); }), "Corr = AR(1)\n");
  EXPECT_EQ(Capture([] { CD::DisplayC("Corr", G::CorrType(6)); }), "Corr = unrecognized\n");
  EXPECT_EQ(Capture([] { CD::DisplayC("Model", G::GZLMMM); }), "Model = GZLM called from GLMM\n");
  EXPECT_EQ(Capture([] { CD::DisplayC("Model", G::ModelType(3)); }), "Model = unrecognized\n");
  EXPECT_EQ(Capture([] { CD::DisplayC("Stat", G::EffectStatLR); }), "Stat = Likelihood Ratio\n");
  EXPECT_EQ(Capture([] { CD::DisplayC("LL", G::LLType(2)); }), "LL = unrecognized\n");
  EXPECT_EQ(Capture([] { CD::DisplayC("CI", G::Profile); }), "CI = Profile\n");
}

TEST(ComponentDisplay, StatusNames) {
  EXPECT_STREQ(CD::StatusCodeName(0), "No error");
  EXPECT_STREQ(CD::StatusCodeName(GZLStatusCode::InvalidSettings), "InvalidSettings");
  EXPECT_STREQ(CD::StatusCodeName(130094), "InternalError");
  EXPECT_STREQ(CD::StatusCodeName(130072), "InvalidRecordsForLinkFunction");
  // Raised but deliberately unnamed, and codes that do not exist.
  for (int code : {130050, 130088, 130095, 130001, 130052, 130096, 1, -5})
    EXPECT_STREQ(CD::StatusCodeName(code), "Unrecognized error code") << code;

  EXPECT_EQ(Capture([] { CD::DisplayStatus("Fit status", TQStatus::Warning(130088)); }),
            "Fit status\nIsError: false\nerror code: 130088\nUnrecognized error code\n");
  EXPECT_EQ(Capture([] { CD::DisplayStatus("S", TQStatus::Error(130027)); }),
            "S\nIsError: true\nerror code: 130027\nModelNotBuilt\n");
}

TEST(ComponentDisplay, Vectors) {
  EXPECT_EQ(Capture([] { CD::DisplayVCrit("Criteria", {}); }), "Criteria (size = 0)\n");
  EXPECT_EQ(Capture([] { CD::DisplayVCrit("Criteria", {G::AllConverged, G::ScaleParamSingularity}); }),
            "Criteria (size = 2)\n"
            "\n"
            "index: 0\n"
            "Stopping criterion = All convergence criteria are satisfied\n"
            "\n"
            "index: 1\n"
            "Stopping criterion = unrecognized\n");
  EXPECT_EQ(Capture([] { CD::DisplayVStatus("Warnings", {TQStatus(), TQStatus::Warning(130050)}); }),
            "Warnings (size = 2)\n"
            "\n"
            "index: 0\n"
            "IsError: false\n"
            "error code: 0\n"
            "No error\n"
            "\n"
            "index: 1\n"
            "IsError: false\n"
            "error code: 130050\n"
            "Unrecognized error code\n");
  EXPECT_EQ(Capture([] { CD::DisplayVResults("Rows", {{1.5, -2.0}, {}}); }),
            "Rows (size = 2)\n"
            "\n"
            "index: 0\n"
            "vResults: 1.5 -2\n"
            "\n"
            "index: 1\n"
            "vResults:\n");
}
