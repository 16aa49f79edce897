// The effect-list syntax of the command-line tool: terms, nesting, powers, names and errors.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tools/ModelSpec.h"

namespace {

const std::vector<std::string> kFactors = {"a", "b", "c", "my var"};
const std::vector<std::string> kCovariates = {"x", "z"};

std::vector<ModelTerm> Parse(const std::string& text) {
  std::vector<ModelTerm> terms;
  std::string error;
  EXPECT_TRUE(ParseEffectList(text, kFactors, kCovariates, terms, error)) << text << ": " << error;
  return terms;
}

std::string ParseError(const std::string& text) {
  std::vector<ModelTerm> terms;
  std::string error;
  EXPECT_FALSE(ParseEffectList(text, kFactors, kCovariates, terms, error)) << text;
  EXPECT_TRUE(terms.empty()) << text;
  return error;
}

using Names = std::vector<std::string>;

}  // namespace

TEST(ToolEffects, TermStructure) {
  const auto terms = Parse("a b a*b x x*x c*x z*b*x a(b) c(a*b) x(a) x*z(b*c)");
  ASSERT_EQ(terms.size(), 11u);

  EXPECT_EQ(terms[0].factors, Names{"a"});
  EXPECT_TRUE(terms[0].covariates.empty());
  EXPECT_FALSE(terms[0].nested);
  EXPECT_EQ(terms[2].factors, (Names{"a", "b"}));
  EXPECT_TRUE(terms[3].factors.empty());
  EXPECT_EQ(terms[3].covariates, Names{"x"});
  EXPECT_EQ(terms[4].covariates, (Names{"x", "x"}));  // a power: x squared
  EXPECT_EQ(terms[5].factors, Names{"c"});
  EXPECT_EQ(terms[5].covariates, Names{"x"});
  // Factors and covariates are separated, each in written order.
  EXPECT_EQ(terms[6].factors, Names{"b"});
  EXPECT_EQ(terms[6].covariates, (Names{"z", "x"}));

  // Nested: the nested factor first, then the factors it is nested within.
  EXPECT_TRUE(terms[7].nested);
  EXPECT_EQ(terms[7].factors, (Names{"a", "b"}));
  EXPECT_TRUE(terms[8].nested);
  EXPECT_EQ(terms[8].factors, (Names{"c", "a", "b"}));
  EXPECT_TRUE(terms[8].covariates.empty());

  // Covariates within factors: not a nested factor, flagged as written in parentheses.
  EXPECT_FALSE(terms[9].nested);
  EXPECT_TRUE(terms[9].covariatesInParens);
  EXPECT_EQ(terms[9].factors, Names{"a"});
  EXPECT_EQ(terms[9].covariates, Names{"x"});
  EXPECT_TRUE(terms[10].covariatesInParens);
  EXPECT_EQ(terms[10].factors, (Names{"b", "c"}));
  EXPECT_EQ(terms[10].covariates, (Names{"x", "z"}));

  const Names texts = {"a", "b", "a*b", "x", "x*x", "c*x", "b*z*x", "a(b)", "c(a*b)", "x(a)", "x*z(b*c)"};
  for (std::size_t i = 0; i < terms.size(); ++i) EXPECT_EQ(terms[i].Text(), texts[i]);
}

TEST(ToolEffects, SeparatorsSpacingAndQuotedNames) {
  // Commas, '+' and blanks all separate terms; blanks around symbols are allowed.
  const auto terms = Parse(" a ,b+ a * b\t\nc ( a * b ) ,, x ( a ) + `my var`*\"x\" ");
  ASSERT_EQ(terms.size(), 6u);
  EXPECT_EQ(terms[2].factors, (Names{"a", "b"}));
  EXPECT_TRUE(terms[3].nested);
  EXPECT_EQ(terms[3].factors, (Names{"c", "a", "b"}));
  EXPECT_TRUE(terms[4].covariatesInParens);
  EXPECT_EQ(terms[5].factors, Names{"my var"});
  EXPECT_EQ(terms[5].covariates, Names{"x"});
  EXPECT_EQ(terms[5].Text(), "`my var`*x");

  // Text() reads back to the same effects.
  std::string joined;
  for (const auto& t : terms) joined += t.Text() + " ";
  const auto again = Parse(joined);
  ASSERT_EQ(again.size(), terms.size());
  for (std::size_t i = 0; i < terms.size(); ++i) EXPECT_TRUE(again[i].SameEffect(terms[i])) << terms[i].Text();

  EXPECT_EQ(QuoteEffectName("plain_name.1"), "plain_name.1");
  EXPECT_EQ(QuoteEffectName("a*b"), "`a*b`");
  EXPECT_EQ(QuoteEffectName("it`s"), "\"it`s\"");
}

TEST(ToolEffects, SameEffect) {
  const auto terms = Parse("a*b*x c(a*b) x*x");
  ModelTerm reordered;
  reordered.factors = {"b", "a"};
  reordered.covariates = {"x"};
  EXPECT_TRUE(terms[0].SameEffect(reordered));
  reordered.covariates = {"x", "x"};
  EXPECT_FALSE(terms[0].SameEffect(reordered));

  // c(b*a) is c(a*b); a(b*c) is not.
  ModelTerm nested;
  nested.nested = true;
  nested.factors = {"c", "b", "a"};
  EXPECT_TRUE(terms[1].SameEffect(nested));
  nested.factors = {"a", "b", "c"};
  EXPECT_FALSE(terms[1].SameEffect(nested));
  // A nested effect differs from the interaction of the same factors.
  ModelTerm crossed;
  crossed.factors = {"c", "a", "b"};
  EXPECT_FALSE(terms[1].SameEffect(crossed));
}

TEST(ToolEffects, Errors) {
  EXPECT_EQ(ParseError(""), "the effect list is empty");
  EXPECT_EQ(ParseError(" , + "), "the effect list is empty");
  EXPECT_EQ(ParseError("a*q"), "unknown variable 'q' in term 'a*q': not among the factors or covariates");
  EXPECT_EQ(ParseError("a b*"), "expected a variable name, found the end of the list");
  EXPECT_EQ(ParseError("(a)"), "expected a variable name, found '(' at position 1");
  EXPECT_EQ(ParseError("a**b"), "expected a variable name, found '*' at position 3");
  EXPECT_EQ(ParseError("a(b"), "expected '*' or ')' in term 'a(b)', found the end of the list");
  EXPECT_EQ(ParseError("a(b c)"), "expected '*' or ')' in term 'a(b)', found 'c'");
  EXPECT_EQ(ParseError("a(b)(c)"), "unexpected '(' at position 5 after term 'a(b)'");
  EXPECT_EQ(ParseError("a)"), "unexpected ')' at position 2 after term 'a'");
  EXPECT_EQ(ParseError("a*b*a"), "factor 'a' appears twice in term 'a*b*a'");
  EXPECT_EQ(ParseError("a(a)"), "factor 'a' appears twice in term 'a(a)'");
  EXPECT_EQ(ParseError("a(x)"), "in term 'a(x)', 'x' is a covariate: only factors can enclose a nested term");
  EXPECT_EQ(ParseError("a*b(c)"), "in term 'a*b(c)', only a single factor or covariates alone can be nested");
  EXPECT_EQ(ParseError("a*x(c)"), "in term 'a*x(c)', only a single factor or covariates alone can be nested");
  EXPECT_EQ(ParseError("a*b x b*a"), "term 'b*a' repeats the effect 'a*b'");
  // A covariate within a factor has the columns of the covariate-by-factor term.
  EXPECT_EQ(ParseError("x(a) a*x"), "term 'a*x' repeats the effect 'x(a)'");
  EXPECT_EQ(ParseError("`my var*a"), "quoted name at position 1 is not closed");
  EXPECT_EQ(ParseError("a ``"), "empty quoted name at position 3");
}

TEST(ToolEffects, VariableListsAndMainEffects) {
  std::string error;
  EXPECT_TRUE(ValidateVariableLists({"a", "b"}, {"x"}, error));
  EXPECT_FALSE(ValidateVariableLists({"a", "b", "a"}, {}, error));
  EXPECT_EQ(error, "factor 'a' is listed twice");
  EXPECT_FALSE(ValidateVariableLists({}, {"x", "x"}, error));
  EXPECT_EQ(error, "covariate 'x' is listed twice");
  EXPECT_FALSE(ValidateVariableLists({"a"}, {"a"}, error));
  EXPECT_EQ(error, "'a' is declared both as a factor and as a covariate");
  EXPECT_FALSE(ValidateVariableLists({""}, {}, error));
  EXPECT_EQ(error, "empty factor name");

  const auto terms = MainEffectTerms({"a", "b"}, {"x"});
  ASSERT_EQ(terms.size(), 3u);
  EXPECT_EQ(terms[0].Text(), "a");
  EXPECT_EQ(terms[1].Text(), "b");
  EXPECT_EQ(terms[2].Text(), "x");
  EXPECT_TRUE(terms[2].factors.empty());
}
