// Solves the sandbox's skill-testing questions, so that the demo can run
// without a person at the keyboard.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zvcli {

/// The value of the arithmetic in a question such as "(7 x 3) + 9 - 4" or
/// "What is 12 ÷ 4 + 2?": integers, + - x × * / ÷ and parentheses, with the
/// usual precedence; words other than x, times, plus and minus are ignored.
/// nullopt when the text holds no well-formed expression (or divides by zero).
std::optional<double> evaluateArithmetic(std::string_view question);

/// The answer as a person would type it: "26", or "2.5" when not whole.
std::string answerText(double value);

}  // namespace zvcli
