#pragma once
// One model effect (main effect, interaction, nested effect, covariate or covariate-by-factor
// term) described against the model's full list of factor and covariate variables.
//
// The "main vector" has one entry per model factor followed by one per model covariate. A
// factor's entry is its nesting level in this effect (-1: not in the effect); a covariate's
// entry is the power with which it enters (0: absent). The variable-index list (record field
// index of every model factor, then of every model covariate) is shared by all effects of a
// model and not owned: whoever builds the effects keeps it alive.
#include <vector>

class GZLModelEffect {
 public:
  GZLModelEffect() = default;
  GZLModelEffect(int factorsInModel, int covariatesInModel, const std::vector<int>* varIndices);

  // Stores the counts and the index list, then resizes the factor part of the main vector (new
  // entries -1) and its covariate part (new entries 0). Existing entries are kept on purpose;
  // Reset clears them.
  void Setup(int factorsInModel, int covariatesInModel, const std::vector<int>* varIndices);
  void Reset();

  // Adds a model factor to the effect. With nested true the factors already present move one
  // nesting level up, so the newest nested factor has level 0. False when the variable is not a
  // model factor or is already in the effect.
  bool AddNewFactor(int variable, bool nested);
  // Raises the covariate's power by one; returns the new power, or -1 when the variable is not
  // a model covariate.
  int AddCovariate(int variable);

  // Nesting level of the factor in the effect, or -1.
  int ContainsFactor(int variable) const;

  int GetNFactors() const noexcept { return fFactorsInEffect; }
  int GetNCovariates() const noexcept { return fCovariatesInEffect; }
  int GetNModelFactors() const noexcept { return fFactorsInModel; }
  int GetNModelCovariates() const noexcept { return fCovariatesInModel; }
  int GetNLevels() const noexcept { return fNestingLevels; }

  // Field indices / nesting levels of the factors in the effect, in model-factor order.
  std::vector<int> GetFactors() const;
  std::vector<int> GetFactorLevels() const;
  // Field indices / powers of the covariates in the effect, in model-covariate order.
  std::vector<int> GetCovariates() const;
  std::vector<int> GetCovMultiplicities() const;
  // Power of a model covariate in the effect, or -1 when the variable is not a model covariate.
  int GetCovariateMult(int variable) const;
  int GetNCovariateMult() const;

  const std::vector<int>& GetModelEffect() const noexcept { return fMainVector; }
  const std::vector<int>* GetVarIndices() const noexcept { return fpVarIndices; }
  void SetVarIndices(const std::vector<int>* varIndices) noexcept { fpVarIndices = varIndices; }

  // Set when the effect was written with covariates nested within factors, as in cov(fac).
  bool GetFactorsInParens() const noexcept { return fbCovariatesInParens; }
  void SetFactorsInParens() noexcept { fbCovariatesInParens = true; }

  bool IsIntercept() const noexcept { return fFactorsInEffect + fCovariatesInEffect == 0; }
  // Strictly fewer factors, all of them in other, and identical covariate powers.
  bool IsContainedIn(const GZLModelEffect& other) const;
  // Drops every model variable whose mask entry is false (entries beyond the mask are kept).
  // False when a dropped variable was used by this effect.
  bool ApplyMask(const std::vector<bool>& mask);

  bool operator==(const GZLModelEffect& other) const;

  // One entry per model variable (sizes of the first effect): true when any effect uses it.
  static std::vector<bool> CheckVariableUse(const std::vector<GZLModelEffect>& effects);
  // Field indices of the used factors and covariates in order of first use. An empty effect
  // list leaves the outputs untouched.
  static void GetUsedVariables(const std::vector<GZLModelEffect>& effects, std::vector<int>& factors,
                               std::vector<int>& covariates);

  void Display() const;

 private:
  // Position of the variable among the model factors (or covariates), -1 when absent.
  int FactorPosition(int variable) const;
  int CovariatePosition(int variable) const;

  const std::vector<int>* fpVarIndices = nullptr;
  std::vector<int> fMainVector;
  int fFactorsInModel = 0;
  int fCovariatesInModel = 0;
  int fFactorsInEffect = 0;
  int fCovariatesInEffect = 0;
  int fNestingLevels = 0;
  bool fbCovariatesInParens = false;
};

// The regression layer's model effect is the same value class.
using TQModelEffect = GZLModelEffect;
