#pragma once
// The effect list of a model as the user writes it on the command line, and its structured form.
//
// Syntax: terms separated by blanks, commas or '+'. A term is a product of variable names joined
// by '*' (factors and covariates in any mix; a covariate repeated is a power, x*x is x squared),
// optionally followed by a parenthesized product of factors:
//   a(b)      factor a nested within factor b
//   a(b*c)    factor a nested within b and c
//   x(a)      covariate x nested within factor a (its slope varies by a)
// Names holding blanks or any of * ( ) , + can be quoted with backticks or double quotes.
#include <string>
#include <string_view>
#include <vector>

struct ModelTerm {
  // Factors of the term in written order. When nested is true, factors[0] is the nested factor
  // and factors[1..] are the factors it is nested within.
  std::vector<std::string> factors;
  // Covariates in written order, repeated for powers.
  std::vector<std::string> covariates;
  bool nested = false;
  // Written as covariates nested within factors, cov(fac).
  bool covariatesInParens = false;

  // The term in the effect-list syntax: factors before covariates, so a written x*a reads a*x.
  std::string Text() const;
  // True for terms that denote the same effect, whatever the order of their variables; x(a)
  // and a*x are one effect.
  bool SameEffect(const ModelTerm& other) const;
};

// Checks that the declared factors and covariates are non-empty names, none listed twice and
// none both a factor and a covariate.
bool ValidateVariableLists(const std::vector<std::string>& factors, const std::vector<std::string>& covariates,
                           std::string& error);

// Parses an effect list against the declared factors and covariates. On failure returns false
// with a one-line message in error and leaves terms empty.
bool ParseEffectList(std::string_view text, const std::vector<std::string>& factors,
                     const std::vector<std::string>& covariates, std::vector<ModelTerm>& terms, std::string& error);

// The main-effects model: each factor, then each covariate, as a term of its own.
std::vector<ModelTerm> MainEffectTerms(const std::vector<std::string>& factors,
                                       const std::vector<std::string>& covariates);

// A variable name as it must be written in an effect list (quoted when it needs to be).
std::string QuoteEffectName(const std::string& name);
