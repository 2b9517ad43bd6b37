#include "tests/support/RandomJson.h"

#include <algorithm>

namespace yajson::test {
namespace {

using namespace std::string_view_literals;

constexpr std::string_view kSpaces[] = {" ", "  ", "\n", "\r\n", "\t", "\n\n   "};
constexpr std::string_view kComments[] = {"/**/", "// x\n", "/*, ]*/", "//\n",
                                          "/*/",  "/***/",  "//"};
constexpr std::string_view kScalars[] = {"null",
                                         "true",
                                         "false",
                                         "0",
                                         "-0",
                                         "-0.0",
                                         "1",
                                         "NaN",
                                         "Infinity",
                                         "-Infinity",
                                         "0x1F",
                                         "-0x10",
                                         "0xffffffffffffffff",
                                         "01",
                                         "1.",
                                         "tru",
                                         "nul",
                                         "+1",
                                         "-",
                                         "0x",
                                         "1e400",
                                         "1e-400",
                                         "-NaN",
                                         "0X8000000000000000",
                                         "-0x8000000000000001",
                                         "0x10000000000000000",
                                         "9223372036854775808",
                                         "18446744073709551616"};
constexpr std::string_view kStringParts[] = {
    "a",
    "bc",
    "\\n",
    "\\\\",
    "\\\"",
    "\\/",
    "\\'",
    "'",
    "\\u0041",
    "\\u00e9",
    "\\u20aC",
    "\\ud83d\\ude00",
    "\\u0000",
    "\xc3\xa9",
    "\xff",
    "{",
    "],",
    "/*",
    "\x7f",
    "0123456789",
    "0123456789abcde",
    "more than the bytes that fit into a value of three words "};
constexpr std::string_view kBadStringParts[] = {
    "\\q",  "\\u12", "\\ud83d", "\\ude00", "\\ud83d\\u0041", "\\ud83d\\u12", "\\ug000", "\n",
    "\0"sv, "\x1f",  "\\",      "\"",      "\\ud83d\\n",     "\\u000"};
constexpr std::string_view kKeys[] = {"",
                                      "a",
                                      "b",
                                      "ap-mac",
                                      "a\\u0062",
                                      "ab",
                                      "fifteen bytes..",
                                      "sixteen bytes...",
                                      "a key of more than sixteen bytes",
                                      "A key of more than sixteen bytes"};
constexpr std::string_view kBareKeys[] = {"a", "_b1", "$", "a_name_of_more_than_sixteen_bytes",
                                          "1a"};
constexpr std::string_view kBytes =
    "{}[]\",:'\\/*0123456789-+.eExXuUnNtTfFiIaAzZ$_ \t\r\n\v\0\x01\x1f\x7f\x80\xc3\xff"sv;

}  // namespace

ParseOptions RandomJson::options() {
  ParseOptions options;
  if (one_in(8)) options.max_depth = 1 + pick(5);
  options.allow_duplicate_keys = !one_in(3);
  if (one_in(3)) return options;  // like the messages and the configuration
  for (bool ParseOptions::*flag :
       {&ParseOptions::allow_comments, &ParseOptions::allow_trailing_commas,
        &ParseOptions::allow_single_quotes, &ParseOptions::allow_unquoted_keys,
        &ParseOptions::allow_nan_inf, &ParseOptions::allow_hex, &ParseOptions::allow_control_chars})
    options.*flag = one_in(2);
  return options;
}

std::string RandomJson::digits(std::uint32_t count, bool no_leading_zero) {
  std::string text;
  while (text.size() < count)
    text += static_cast<char>('0' + (text.empty() && no_leading_zero ? 1 + pick(9) : pick(10)));
  return text;
}

std::string RandomJson::number() {
  constexpr std::string_view kExponents[] = {"e", "E", "e+", "E-", "e-"};
  std::string text = one_in(2) ? "-" : "";
  text += one_in(4) ? "0" : digits(1 + pick(one_in(8) ? 30 : 20), true);
  const std::uint32_t form = pick(4);
  if (form & 1) text += "." + digits(1 + pick(22), false);
  if (form & 2)
    text += std::string(any_of(kExponents)) + std::to_string(pick(one_in(4) ? 600 : 30));
  return text;
}

std::string RandomJson::space() {
  std::string text;
  while (one_in(3)) text += one_in(8) ? any_of(kComments) : any_of(kSpaces);
  return text;
}

std::string RandomJson::string(char quote) {
  std::string text(1, quote);
  for (std::uint32_t parts = pick(5); parts > 0; --parts)
    text += one_in(40) ? any_of(kBadStringParts) : any_of(kStringParts);
  return text + quote;
}

std::string RandomJson::scalar() {
  switch (pick(6)) {
    case 0:
      return number();
    case 1:
    case 2:
      return std::to_string(pick(1000));
    case 3:
      return std::string(any_of(kScalars).substr(0, one_in(4) ? 30 : 5));
    default:
      return string(one_in(10) ? '\'' : '"');
  }
}

std::string RandomJson::key() {
  if (one_in(20)) return std::string(any_of(kBareKeys));
  const std::string quote = one_in(20) ? "'" : "\"";
  if (one_in(4)) return quote + "key" + std::to_string(pick(60)) + quote;
  if (one_in(20)) return string(quote[0]);
  return quote + std::string(any_of(kKeys)) + quote;
}

std::string RandomJson::container(int levels) {
  const bool is_object = one_in(2);
  // Around 15 members an object changes its ways.
  const std::uint32_t count = one_in(12) ? 12 + pick(30) : pick(5);
  std::string text(1, is_object ? '{' : '[');
  for (std::uint32_t i = 0; i < count; ++i) {
    if (i > 0) text += ",";
    text += space();
    if (is_object) {
      // Few keys are new by chance: most are made so.
      text += one_in(3) ? key() : "\"k" + std::to_string(i) + "\"";
      text += space() + ":" + space();
    }
    text += value(count > 5 ? 0 : levels - 1) + space();
  }
  if (one_in(30)) text += ",";
  if (one_in(8)) text += space();
  return text + (is_object ? '}' : ']');
}

std::string RandomJson::value(int levels) {
  return levels <= 0 || one_in(4) ? scalar() : container(levels);
}

std::string RandomJson::document() {
  std::string text = space() + value(static_cast<int>(pick(5))) + space();
  if (one_in(100)) {
    const std::uint32_t depth = 505 + pick(12);
    text = std::string(depth, '[') + text + std::string(depth, ']');
  }
  if (one_in(10)) text += std::string(pick(700), ' ');  // how far the end is decides look-aheads
  return text;
}

void RandomJson::damage(std::string& text) {
  const std::size_t size = text.size();
  const std::size_t at = pick(static_cast<std::uint32_t>(size) + 1);
  const std::size_t count = std::min<std::size_t>(size - at, pick(one_in(4) ? 40 : 4));
  const char byte = one_in(16) ? static_cast<char>(pick(256))
                               : kBytes[pick(static_cast<std::uint32_t>(kBytes.size()))];
  switch (pick(7)) {
    case 0:
      text.erase(at, 1);
      return;
    case 1:
      text.insert(at, 1, byte);
      return;
    case 2:
      if (at < size) text[at] = byte;
      return;
    case 3:
      text.resize(at);
      return;
    case 4:
      text.erase(at, count);
      return;
    case 5:
      text.insert(at, text.substr(at, count));
      return;
    default:
      text.insert(pick(static_cast<std::uint32_t>(size) + 1), text.substr(at, count));
  }
}

std::string RandomJson::damaged_document() {
  std::string text = document();
  for (std::uint32_t times = pick(5); times > 0; --times) damage(text);
  return text;
}

}  // namespace yajson::test
