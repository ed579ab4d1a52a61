#include "jov/validation.hpp"

#include <gtest/gtest.h>

#include <string>

namespace jov {
namespace {

using std::string;

void check(const char* name, bool (*valid)(std::string_view),
           std::initializer_list<string> accepted, std::initializer_list<string> refused) {
  for (const auto& s : accepted) EXPECT_TRUE(valid(s)) << name << " refuses \"" << s << '"';
  for (const auto& s : refused) EXPECT_FALSE(valid(s)) << name << " accepts \"" << s << '"';
}

TEST(ValidationTest, NamesOfLettersDigitsHyphenUnderscoreDot) {
  // "0-9-_": the hyphen after the range is literal. '/' sits between '.' and the digits, '`'
  // and '[' neighbour the letter ranges. No anchors in the pattern, yet it must match the whole.
  check("username", usernameIsValid, {"abc", "a.b-c_D9", "---", string(64, 'x')},
        {"ab", string(65, 'x'), "abc@d", "ab/c", "ab`c", "ab[c", "ab c", "abc!", "!abc", "abc\n",
         "ab\xC3\xA9"});
  check("bucket", bucketNameIsValid, {"ab", string(64, '.')}, {"a", string(65, 'b'), "a b"});
  check("object ID", objectIdIsValid, {"a-", string(100, '_')},
        {"a", string(101, 'a'), "ab+", "+ab"});
  check("experiment ID", experimentIDIsValid, {"a-", string(100, '_')},
        {"a", string(101, 'a'), "ab+", "+ab"});
  check("topic ID", topicIdIsValid, {"a", "A_9-z", string(64, '-')}, {"", string(65, 'a'), "a.b"});
  // Starts with a letter, no upper bound, whole string rather than a match at its end.
  check("server code entry", serverCodeEntryNameIsValid, {"a", "Z_9", "a" + string(300, '_')},
        {"", "_a", "9a", "a-b", "-ab"});
}

TEST(ValidationTest, EmailPasswordAndCountry) {
  check("email", emailIsValid, {"a@b", "first last@example com"},
        {"", "@", "a@", "@b", "a@@b", "a@b@c", "ab"});
  check("password", passwordIsValid, {"    ", "~!a ", string(50, 'p')},
        {"abc", string(51, 'p'), "abc\t", "abc\x7F", "abc\xC3\xA9", string("ab\0c", 4)});
  check("country", countryCodeIsValid, {"JP"}, {"jp", "J", "JPN", "J1", "@["});
}

TEST(ValidationTest, DisplayNameCountsUtf16Units) {
  string kana;  // 50 three-byte characters: 150 bytes but 50 units
  for (int i = 0; i < 50; ++i) kana += "\xE3\x81\x82";
  string emoji;  // characters outside the BMP count twice
  for (int i = 0; i < 25; ++i) emoji += "\xF0\x9F\x98\x80";
  // Refused too: a truncated sequence, an overlong '/', a UTF-16 surrogate, above U+10FFFF.
  check("display name", displaynameIsValid, {"x", string(50, 'x'), kana, emoji},
        {"", string(51, 'x'), kana + "\xC3\xA9", emoji + "x", "\xFF", "ab\xE3\x81", "\xC0\xAF",
         "\xED\xA0\x80", "\xF4\x90\x80\x80"});
}

TEST(ValidationTest, PhoneNumbers) {
  // "$" must not stop before a line break.
  check("phone", phoneNumberIsValid,
        {"+1234567", "1234567", string(20, '9'), "+" + string(20, '9')},
        {"+123456", "123456", string(21, '9'), "123-4567", "++1234567", "1234567+", "1234567\n"});
  check("international phone", internationalPhoneNumberIsValid, {"+1234567"},
        {"1234567", "+" + string(21, '1')});
  check("local phone", localPhoneNumberIsValid, {"0901234567"}, {"+1234567", "123456a"});
}

}  // namespace
}  // namespace jov
