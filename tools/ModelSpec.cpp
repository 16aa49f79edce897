#include "tools/ModelSpec.h"

#include <algorithm>
#include <cctype>
#include <new>
#include <stdexcept>

namespace {

enum class TokenKind { Name, Star, Open, Close, Separator, End };

struct Token {
  TokenKind kind = TokenKind::End;
  std::string text;      // the name (unquoted) or the symbol
  std::size_t column = 0;  // 1-based position in the list
};

bool IsSymbol(char c) { return c == '*' || c == '(' || c == ')' || c == ',' || c == '+'; }
bool IsSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// Names joined by '*', from position `from` on.
std::string Product(const std::vector<std::string>& names, std::size_t from = 0) {
  std::string out;
  for (std::size_t i = from; i < names.size(); ++i) {
    if (i > from) out += '*';
    out += QuoteEffectName(names[i]);
  }
  return out;
}

std::string Describe(const Token& token) {
  switch (token.kind) {
    case TokenKind::End:
      return "the end of the list";
    case TokenKind::Name:
      return "'" + token.text + "'";
    default:
      return "'" + token.text + "' at position " + std::to_string(token.column);
  }
}

// Splits the list into tokens; a failure (an unclosed quote, an empty quoted name) is reported
// through error.
bool Tokenize(std::string_view text, std::vector<Token>& tokens, std::string& error) {
  std::size_t i = 0;
  while (i < text.size()) {
    const char c = text[i];
    if (IsSpace(c)) {
      ++i;
      continue;
    }
    Token token;
    token.column = i + 1;
    if (IsSymbol(c)) {
      token.kind = c == '*' ? TokenKind::Star
                 : c == '(' ? TokenKind::Open
                 : c == ')' ? TokenKind::Close
                            : TokenKind::Separator;
      token.text = std::string(1, c);
      ++i;
    } else if (c == '`' || c == '"') {
      const std::size_t close = text.find(c, i + 1);
      if (close == std::string_view::npos) {
        error = "quoted name at position " + std::to_string(i + 1) + " is not closed";
        return false;
      }
      if (close == i + 1) {
        error = "empty quoted name at position " + std::to_string(i + 1);
        return false;
      }
      token.kind = TokenKind::Name;
      token.text = std::string(text.substr(i + 1, close - i - 1));
      i = close + 1;
    } else {
      const std::size_t begin = i;
      while (i < text.size() && !IsSpace(text[i]) && !IsSymbol(text[i]) && text[i] != '`' && text[i] != '"') ++i;
      token.kind = TokenKind::Name;
      token.text = std::string(text.substr(begin, i - begin));
    }
    tokens.push_back(std::move(token));
  }
  Token end;
  end.column = text.size() + 1;
  tokens.push_back(end);
  return true;
}

// One term as written: the names of the product and, after '(', the names of the enclosing
// product.
struct RawTerm {
  std::vector<std::string> inner;
  std::vector<std::string> outer;
  bool hasParens = false;

  std::string Written() const {
    std::string out = Product(inner);
    if (hasParens) {
      out += '(';
      out += Product(outer);
      out += ')';
    }
    return out;
  }
};

class EffectListParser {
 public:
  explicit EffectListParser(const std::vector<Token>& tokens) : fTokens(tokens) {}

  bool Parse(std::vector<RawTerm>& terms, std::string& error) {
    for (;;) {
      while (Peek().kind == TokenKind::Separator) ++fPos;
      if (Peek().kind == TokenKind::End) return true;
      RawTerm term;
      if (!ParseProduct(term.inner, error)) return false;
      if (Peek().kind == TokenKind::Open) {
        ++fPos;
        term.hasParens = true;
        if (!ParseProduct(term.outer, error)) return false;
        if (Peek().kind != TokenKind::Close) {
          error = "expected '*' or ')' in term '" + term.Written() + "', found " + Describe(Peek());
          return false;
        }
        ++fPos;
      }
      const TokenKind next = Peek().kind;
      if (next == TokenKind::Open || next == TokenKind::Close) {
        error = "unexpected " + Describe(Peek()) + " after term '" + term.Written() + "'";
        return false;
      }
      terms.push_back(std::move(term));
    }
  }

 private:
  const Token& Peek() const { return fTokens[fPos]; }

  bool ParseProduct(std::vector<std::string>& names, std::string& error) {
    for (;;) {
      if (Peek().kind != TokenKind::Name) {
        error = "expected a variable name, found " + Describe(Peek());
        return false;
      }
      names.push_back(Peek().text);
      ++fPos;
      if (Peek().kind != TokenKind::Star) return true;
      ++fPos;
    }
  }

  const std::vector<Token>& fTokens;
  std::size_t fPos = 0;
};

bool Contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

// Turns a written term into a model term, checking every name against the declarations.
bool BuildTerm(const RawTerm& raw, const std::vector<std::string>& factors, const std::vector<std::string>& covariates,
               ModelTerm& term, std::string& error) {
  const std::string written = raw.Written();
  for (const auto* part : {&raw.inner, &raw.outer}) {
    for (const auto& name : *part) {
      if (!Contains(factors, name) && !Contains(covariates, name)) {
        error = "unknown variable '" + name + "' in term '" + written + "': not among the factors or covariates";
        return false;
      }
    }
  }

  std::vector<std::string> innerFactors;
  std::vector<std::string> innerCovariates;
  for (const auto& name : raw.inner) (Contains(factors, name) ? innerFactors : innerCovariates).push_back(name);

  if (raw.hasParens) {
    for (const auto& name : raw.outer) {
      if (!Contains(factors, name)) {
        error = "in term '" + written + "', '" + name + "' is a covariate: only factors can enclose a nested term";
        return false;
      }
    }
    if (innerFactors.size() == 1 && innerCovariates.empty()) {
      term.nested = true;
      term.factors = innerFactors;
      term.factors.insert(term.factors.end(), raw.outer.begin(), raw.outer.end());
    } else if (innerFactors.empty()) {
      term.covariatesInParens = true;
      term.factors = raw.outer;
      term.covariates = innerCovariates;
    } else {
      error = "in term '" + written + "', only a single factor or covariates alone can be nested";
      return false;
    }
  } else {
    term.factors = innerFactors;
    term.covariates = innerCovariates;
  }

  for (std::size_t i = 0; i < term.factors.size(); ++i) {
    if (std::find(term.factors.begin() + i + 1, term.factors.end(), term.factors[i]) != term.factors.end()) {
      error = "factor '" + term.factors[i] + "' appears twice in term '" + written + "'";
      return false;
    }
  }
  return true;
}

std::vector<std::string> Sorted(std::vector<std::string> names) {
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace

std::string QuoteEffectName(const std::string& name) {
  const bool plain = !name.empty() && std::none_of(name.begin(), name.end(), [](char c) {
    return IsSpace(c) || IsSymbol(c) || c == '`' || c == '"';
  });
  if (plain) return name;
  // A name holding a backtick can only be written with double quotes.
  const char quote = name.find('`') == std::string::npos ? '`' : '"';
  std::string quoted(1, quote);
  quoted += name;
  quoted += quote;
  return quoted;
}

std::string ModelTerm::Text() const {
  std::string out;
  if (nested) {
    out = QuoteEffectName(factors.front());
    out += '(';
    out += Product(factors, 1);
    out += ')';
  } else if (covariatesInParens) {
    out = Product(covariates);
    out += '(';
    out += Product(factors);
    out += ')';
  } else {
    out = Product(factors);
    if (!factors.empty() && !covariates.empty()) out += '*';
    out += Product(covariates);
  }
  return out;
}

bool ModelTerm::SameEffect(const ModelTerm& other) const {
  if (nested != other.nested) return false;
  if (Sorted(covariates) != Sorted(other.covariates)) return false;
  if (nested) {
    // The nested factor keeps its place; the enclosing factors may come in any order.
    if (factors.empty() || other.factors.empty() || factors.front() != other.factors.front()) return false;
    return Sorted({factors.begin() + 1, factors.end()}) == Sorted({other.factors.begin() + 1, other.factors.end()});
  }
  return Sorted(factors) == Sorted(other.factors);
}

bool ValidateVariableLists(const std::vector<std::string>& factors, const std::vector<std::string>& covariates,
                           std::string& error) {
  for (const auto* list : {&factors, &covariates}) {
    const char* role = list == &factors ? "factor" : "covariate";
    for (std::size_t i = 0; i < list->size(); ++i) {
      const std::string& name = (*list)[i];
      if (name.empty()) {
        error = std::string("empty ") + role + " name";
        return false;
      }
      if (std::find(list->begin() + i + 1, list->end(), name) != list->end()) {
        error = std::string(role) + " '" + name + "' is listed twice";
        return false;
      }
    }
  }
  for (const auto& name : factors) {
    if (Contains(covariates, name)) {
      error = "'" + name + "' is declared both as a factor and as a covariate";
      return false;
    }
  }
  return true;
}

bool ParseEffectList(std::string_view text, const std::vector<std::string>& factors,
                     const std::vector<std::string>& covariates, std::vector<ModelTerm>& terms, std::string& error) {
  terms.clear();
  try {
    std::vector<Token> tokens;
    std::vector<RawTerm> raw;
    if (!Tokenize(text, tokens, error)) return false;
    if (!EffectListParser(tokens).Parse(raw, error)) return false;
    if (raw.empty()) {
      error = "the effect list is empty";
      return false;
    }
    std::vector<ModelTerm> built;
    for (const auto& rawTerm : raw) {
      ModelTerm term;
      if (!BuildTerm(rawTerm, factors, covariates, term, error)) return false;
      for (const auto& earlier : built) {
        if (earlier.SameEffect(term)) {
          error = "term '" + rawTerm.Written() + "' repeats the effect '" + earlier.Text() + "'";
          return false;
        }
      }
      built.push_back(std::move(term));
    }
    terms = std::move(built);
    return true;
  } catch (const std::bad_alloc&) {
    error = "out of memory while reading the effect list";
  } catch (const std::exception& e) {
    error = std::string("error while reading the effect list: ") + e.what();
  }
  terms.clear();
  return false;
}

std::vector<ModelTerm> MainEffectTerms(const std::vector<std::string>& factors,
                                       const std::vector<std::string>& covariates) {
  std::vector<ModelTerm> terms;
  for (const auto& name : factors) {
    ModelTerm term;
    term.factors.push_back(name);
    terms.push_back(std::move(term));
  }
  for (const auto& name : covariates) {
    ModelTerm term;
    term.covariates.push_back(name);
    terms.push_back(std::move(term));
  }
  return terms;
}
