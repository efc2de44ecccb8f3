#include "ZVCliArithmetic.h"

#include <fmt/core.h>
#include <cctype>
#include <cmath>
#include <vector>

namespace zvcli {
namespace {

struct Token {
  char op = 0;  // one of + - * / ( ), or 0 for a number
  double number = 0;
};

// Operators spelled with more than one byte or as words.
struct Spelling {
  std::string_view text;
  char op;
};
constexpr Spelling kSpellings[] = {
    {"×", '*'}, {"÷", '/'},     {"−", '-'},    {"x", '*'},
    {"X", '*'}, {"times", '*'}, {"plus", '+'}, {"minus", '-'},
};

std::optional<std::vector<Token>> tokenize(std::string_view text) {
  std::vector<Token> tokens;
  size_t i = 0;
  while (i < text.size()) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (std::isdigit(c)) {
      double value = 0;
      while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) {
        value = value * 10 + (text[i] - '0');
        if (value > 1e15) return std::nullopt;  // beyond exact doubles: not a quiz question
        ++i;
      }
      tokens.push_back({0, value});
      continue;
    }
    if (std::string_view("+-*/()").find(static_cast<char>(c)) != std::string_view::npos) {
      tokens.push_back({static_cast<char>(c), 0});
      ++i;
      continue;
    }
    if (std::isalpha(c)) {
      size_t end = i;
      while (end < text.size() && std::isalpha(static_cast<unsigned char>(text[end]))) ++end;
      const auto word = text.substr(i, end - i);
      for (const auto& spelling : kSpellings)
        if (word == spelling.text) tokens.push_back({spelling.op, 0});
      i = end;
      continue;
    }
    bool matched = false;
    for (const auto& spelling : kSpellings) {
      if (static_cast<unsigned char>(spelling.text[0]) >= 0x80 &&
          text.substr(i).starts_with(spelling.text)) {
        tokens.push_back({spelling.op, 0});
        i += spelling.text.size();
        matched = true;
        break;
      }
    }
    if (!matched) ++i;  // punctuation, '?', '=', other text
  }
  return tokens;
}

// Recursive descent over expr := term {(+|-) term}; term := factor {(*|/) factor};
// factor := -factor | number | ( expr ).
class Parser {
 public:
  explicit Parser(std::vector<Token> tokens) : tokens_(std::move(tokens)) {}

  std::optional<double> parse() {
    auto value = expression(0);
    if (!value || pos_ != tokens_.size()) return std::nullopt;
    return value;
  }

 private:
  static constexpr int kMaxDepth = 64;

  bool accept(char op) {
    if (pos_ < tokens_.size() && tokens_[pos_].op == op) {
      ++pos_;
      return true;
    }
    return false;
  }

  std::optional<double> expression(int depth) {
    auto value = term(depth);
    while (value) {
      if (accept('+')) {
        auto rhs = term(depth);
        if (!rhs) return std::nullopt;
        *value += *rhs;
      } else if (accept('-')) {
        auto rhs = term(depth);
        if (!rhs) return std::nullopt;
        *value -= *rhs;
      } else {
        break;
      }
    }
    return value;
  }

  std::optional<double> term(int depth) {
    auto value = factor(depth);
    while (value) {
      if (accept('*')) {
        auto rhs = factor(depth);
        if (!rhs) return std::nullopt;
        *value *= *rhs;
      } else if (accept('/')) {
        auto rhs = factor(depth);
        if (!rhs || *rhs == 0) return std::nullopt;
        *value /= *rhs;
      } else {
        break;
      }
    }
    return value;
  }

  std::optional<double> factor(int depth) {
    if (depth > kMaxDepth || pos_ >= tokens_.size()) return std::nullopt;
    if (accept('-')) {
      auto value = factor(depth + 1);
      if (value) *value = -*value;
      return value;
    }
    if (accept('(')) {
      auto value = expression(depth + 1);
      if (!value || !accept(')')) return std::nullopt;
      return value;
    }
    if (tokens_[pos_].op == 0) return tokens_[pos_++].number;
    return std::nullopt;
  }

  std::vector<Token> tokens_;
  size_t pos_ = 0;
};

}  // namespace

std::optional<double> evaluateArithmetic(std::string_view question) {
  auto tokens = tokenize(question);
  if (!tokens || tokens->empty()) return std::nullopt;
  auto value = Parser(std::move(*tokens)).parse();
  if (!value || !std::isfinite(*value)) return std::nullopt;
  return value;
}

std::string answerText(double value) {
  if (std::nearbyint(value) == value && std::fabs(value) < 1e15)
    return fmt::format("{}", static_cast<long long>(value));
  return fmt::format("{}", value);
}

}  // namespace zvcli
