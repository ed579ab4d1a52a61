// The readable clause syntax of `jov query --where` and `jov count --where`:
//
//   expression := term ("or" term)*
//   term       := factor ("and" factor)*
//   factor     := "not" factor | "(" expression ")" | comparison
//   comparison := FIELD ("=" | "!=" | "<" | "<=" | ">" | ">=" | "^=") VALUE
//               | FIELD "in" "[" VALUE ("," VALUE)* "]"
//               | FIELD "has" ("string" | "integer" | "decimal" | "boolean")
//   VALUE      := a number, true, false, a "double-quoted" string, or a bare word (a string)
//
// FIELD is a bare word (letters, digits, "_", ".", "-"). "^=" is a prefix match; "!=" is "not =".
// Keywords are case-insensitive. The result is the service's clause JSON.
#include <cctype>

#include "app.hpp"

namespace jovcli {

namespace {

class ClauseParser {
 public:
  explicit ClauseParser(const std::string& text) : text_(text) {}

  json parse() {
    json clause = expression();
    skipSpace();
    if (pos_ != text_.size()) fail("unexpected \"" + text_.substr(pos_, 12) + "\"");
    return clause;
  }

 private:
  [[noreturn]] void fail(const std::string& what) const {
    throw usageError("--where: " + what + " at column " + std::to_string(pos_ + 1) + " of \"" +
                     text_ + "\"");
  }

  void skipSpace() {
    while (pos_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[pos_]))) ++pos_;
  }

  static bool isWordChar(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.' || c == '-';
  }

  // The next bare word, without taking it.
  std::string peekWord() {
    skipSpace();
    std::size_t end = pos_;
    while (end < text_.size() && isWordChar(text_[end])) ++end;
    return text_.substr(pos_, end - pos_);
  }

  // Takes a keyword when it comes next (a whole word, any case).
  bool keyword(const char* word) {
    std::string next = peekWord();
    std::string lower;
    for (char c : next) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (lower != word) return false;
    pos_ += next.size();
    return true;
  }

  bool symbol(const char* sym) {
    skipSpace();
    const std::string s(sym);
    if (text_.compare(pos_, s.size(), s) != 0) return false;
    pos_ += s.size();
    return true;
  }

  json composite(const char* type, std::vector<json> clauses) {
    if (clauses.size() == 1) return std::move(clauses[0]);
    return {{"type", type}, {"clauses", std::move(clauses)}};
  }

  json expression() {
    std::vector<json> terms = {term()};
    while (keyword("or")) terms.push_back(term());
    return composite("or", std::move(terms));
  }

  json term() {
    std::vector<json> factors = {factor()};
    while (keyword("and")) factors.push_back(factor());
    return composite("and", std::move(factors));
  }

  json factor() {
    if (keyword("not")) return {{"type", "not"}, {"clause", factor()}};
    if (symbol("(")) {
      json inner = expression();
      if (!symbol(")")) fail("expected \")\"");
      return inner;
    }
    return comparison();
  }

  json value() {
    skipSpace();
    if (pos_ < text_.size() && text_[pos_] == '"') {
      std::string out;
      for (++pos_; pos_ < text_.size() && text_[pos_] != '"'; ++pos_) {
        if (text_[pos_] == '\\' && pos_ + 1 < text_.size()) ++pos_;
        out += text_[pos_];
      }
      if (pos_ == text_.size()) fail("a string without its closing quote");
      ++pos_;
      return out;
    }
    std::string word = peekWord();
    if (word.empty()) fail("expected a value");
    pos_ += word.size();
    if (word == "true") return true;
    if (word == "false") return false;
    json number = json::parse(word, nullptr, false);
    if (number.is_number()) return number;
    return word;
  }

  json comparison() {
    const std::string field = peekWord();
    if (field.empty()) fail("expected a field name");
    pos_ += field.size();
    if (keyword("in")) {
      if (!symbol("[")) fail("expected \"[\" after in");
      json values = json::array({value()});
      while (symbol(",")) values.push_back(value());
      if (!symbol("]")) fail("expected \"]\"");
      return {{"type", "in"}, {"field", field}, {"values", std::move(values)}};
    }
    if (keyword("has")) {
      const std::string type = peekWord();
      for (const char* known : {"string", "integer", "decimal", "boolean"}) {
        if (keyword(known)) {
          std::string upper;
          for (char c : type) upper += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
          return {{"type", "hasField"}, {"field", field}, {"fieldType", upper}};
        }
      }
      fail("expected string, integer, decimal or boolean after has");
    }
    // Longest operators first.
    for (const char* op : {"<=", ">=", "!=", "^=", "=", "<", ">"}) {
      if (!symbol(op)) continue;
      const std::string o(op);
      json v = value();
      if (o == "=") return {{"type", "eq"}, {"field", field}, {"value", v}};
      if (o == "!=") {
        return {{"type", "not"}, {"clause", {{"type", "eq"}, {"field", field}, {"value", v}}}};
      }
      if (o == "^=") {
        if (!v.is_string()) fail("a prefix is text");
        return {{"type", "prefix"}, {"field", field}, {"prefix", v}};
      }
      const bool lower = o[0] == '>';
      const bool included = o.size() == 2;
      return {{"type", "range"},
              {"field", field},
              {lower ? "lowerLimit" : "upperLimit", v},
              {lower ? "lowerIncluded" : "upperIncluded", included}};
    }
    fail("expected an operator after \"" + field + "\"");
  }

  const std::string& text_;
  std::size_t pos_ = 0;
};

}  // namespace

json parseClause(const std::string& text) {
  return ClauseParser(text).parse();
}

}  // namespace jovcli
