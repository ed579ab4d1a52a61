#include "jov/validation.hpp"

#include <gtest/gtest.h>

#include <string>

namespace jov {
namespace {

using std::string;

TEST(ValidationTest, NamesOfLettersDigitsHyphenUnderscoreDot) {
  EXPECT_TRUE(usernameIsValid("abc"));
  EXPECT_TRUE(usernameIsValid("a.b-c_D9"));
  EXPECT_TRUE(usernameIsValid("---"));  // "0-9-_": the hyphen after the range is literal
  EXPECT_TRUE(usernameIsValid(string(64, 'x')));
  EXPECT_FALSE(usernameIsValid("ab"));
  EXPECT_FALSE(usernameIsValid(string(65, 'x')));
  EXPECT_FALSE(usernameIsValid("abc@d"));
  EXPECT_FALSE(usernameIsValid("ab/c"));  // '/' sits just below '0', between '.' and the digits
  EXPECT_FALSE(usernameIsValid("ab`c"));  // '`' and '[' neighbour the letter ranges
  EXPECT_FALSE(usernameIsValid("ab[c"));
  EXPECT_FALSE(usernameIsValid("ab c"));
  // No anchors in the pattern, yet it must match the whole string.
  EXPECT_FALSE(usernameIsValid("abc!"));
  EXPECT_FALSE(usernameIsValid("!abc"));
  EXPECT_FALSE(usernameIsValid("abc\n"));
  EXPECT_FALSE(usernameIsValid("ab\xC3\xA9"));

  EXPECT_TRUE(bucketNameIsValid("ab"));
  EXPECT_TRUE(bucketNameIsValid(string(64, '.')));
  EXPECT_FALSE(bucketNameIsValid("a"));
  EXPECT_FALSE(bucketNameIsValid(string(65, 'b')));
  EXPECT_FALSE(bucketNameIsValid("a b"));

  for (auto* valid : {objectIdIsValid, experimentIDIsValid}) {
    EXPECT_TRUE(valid("a-"));
    EXPECT_TRUE(valid(string(100, '_')));
    EXPECT_FALSE(valid("a"));
    EXPECT_FALSE(valid(string(101, 'a')));
    EXPECT_FALSE(valid("ab+"));
    EXPECT_FALSE(valid("+ab"));
  }

  EXPECT_TRUE(topicIdIsValid("a"));
  EXPECT_TRUE(topicIdIsValid("A_9-z"));
  EXPECT_TRUE(topicIdIsValid(string(64, '-')));
  EXPECT_FALSE(topicIdIsValid(""));
  EXPECT_FALSE(topicIdIsValid(string(65, 'a')));
  EXPECT_FALSE(topicIdIsValid("a.b"));  // no dot in topic IDs
}

TEST(ValidationTest, ServerCodeEntryNameStartsWithALetter) {
  EXPECT_TRUE(serverCodeEntryNameIsValid("a"));
  EXPECT_TRUE(serverCodeEntryNameIsValid("Z_9"));
  EXPECT_TRUE(serverCodeEntryNameIsValid("a" + string(300, '_')));  // no upper bound
  EXPECT_FALSE(serverCodeEntryNameIsValid(""));
  EXPECT_FALSE(serverCodeEntryNameIsValid("_a"));
  EXPECT_FALSE(serverCodeEntryNameIsValid("9a"));
  EXPECT_FALSE(serverCodeEntryNameIsValid("a-b"));
  EXPECT_FALSE(serverCodeEntryNameIsValid("-ab"));  // whole string, not a match at its end
}

TEST(ValidationTest, EmailHasOneAtWithTextOnBothSides) {
  EXPECT_TRUE(emailIsValid("a@b"));
  EXPECT_TRUE(emailIsValid("first last@example com"));
  EXPECT_FALSE(emailIsValid(""));
  EXPECT_FALSE(emailIsValid("@"));
  EXPECT_FALSE(emailIsValid("a@"));
  EXPECT_FALSE(emailIsValid("@b"));
  EXPECT_FALSE(emailIsValid("a@@b"));
  EXPECT_FALSE(emailIsValid("a@b@c"));
  EXPECT_FALSE(emailIsValid("ab"));
}

TEST(ValidationTest, PasswordIsPrintableAscii) {
  EXPECT_TRUE(passwordIsValid("    "));
  EXPECT_TRUE(passwordIsValid("~!a "));
  EXPECT_TRUE(passwordIsValid(string(50, 'p')));
  EXPECT_FALSE(passwordIsValid("abc"));
  EXPECT_FALSE(passwordIsValid(string(51, 'p')));
  EXPECT_FALSE(passwordIsValid("abc\t"));
  EXPECT_FALSE(passwordIsValid("abc\x7F"));
  EXPECT_FALSE(passwordIsValid("abc\xC3\xA9"));
  EXPECT_FALSE(passwordIsValid(string("ab\0c", 4)));
}

TEST(ValidationTest, DisplayNameCountsUtf16Units) {
  EXPECT_FALSE(displaynameIsValid(""));
  EXPECT_TRUE(displaynameIsValid("x"));
  EXPECT_TRUE(displaynameIsValid(string(50, 'x')));
  EXPECT_FALSE(displaynameIsValid(string(51, 'x')));

  string kana;  // 50 three-byte characters: 150 bytes but 50 units
  for (int i = 0; i < 50; ++i) kana += "\xE3\x81\x82";
  EXPECT_TRUE(displaynameIsValid(kana));
  EXPECT_FALSE(displaynameIsValid(kana + "\xC3\xA9"));

  string emoji;  // characters outside the BMP count twice
  for (int i = 0; i < 25; ++i) emoji += "\xF0\x9F\x98\x80";
  EXPECT_TRUE(displaynameIsValid(emoji));
  EXPECT_FALSE(displaynameIsValid(emoji + "x"));

  EXPECT_FALSE(displaynameIsValid("\xFF"));
  EXPECT_FALSE(displaynameIsValid("ab\xE3\x81"));        // truncated
  EXPECT_FALSE(displaynameIsValid("\xC0\xAF"));          // overlong '/'
  EXPECT_FALSE(displaynameIsValid("\xED\xA0\x80"));      // UTF-16 surrogate
  EXPECT_FALSE(displaynameIsValid("\xF4\x90\x80\x80"));  // above U+10FFFF
}

TEST(ValidationTest, PhoneNumbers) {
  EXPECT_TRUE(phoneNumberIsValid("+1234567"));
  EXPECT_TRUE(phoneNumberIsValid("1234567"));
  EXPECT_TRUE(phoneNumberIsValid(string(20, '9')));
  EXPECT_TRUE(phoneNumberIsValid("+" + string(20, '9')));
  EXPECT_FALSE(phoneNumberIsValid("+123456"));
  EXPECT_FALSE(phoneNumberIsValid("123456"));
  EXPECT_FALSE(phoneNumberIsValid(string(21, '9')));
  EXPECT_FALSE(phoneNumberIsValid("123-4567"));
  EXPECT_FALSE(phoneNumberIsValid("++1234567"));
  EXPECT_FALSE(phoneNumberIsValid("1234567+"));
  EXPECT_FALSE(phoneNumberIsValid("1234567\n"));  // "$" must not stop before a line break

  EXPECT_TRUE(internationalPhoneNumberIsValid("+1234567"));
  EXPECT_FALSE(internationalPhoneNumberIsValid("1234567"));
  EXPECT_FALSE(internationalPhoneNumberIsValid("+" + string(21, '1')));

  EXPECT_TRUE(localPhoneNumberIsValid("0901234567"));
  EXPECT_FALSE(localPhoneNumberIsValid("+1234567"));
  EXPECT_FALSE(localPhoneNumberIsValid("123456a"));
}

TEST(ValidationTest, CountryCodeIsTwoCapitals) {
  EXPECT_TRUE(countryCodeIsValid("JP"));
  EXPECT_FALSE(countryCodeIsValid("jp"));
  EXPECT_FALSE(countryCodeIsValid("J"));
  EXPECT_FALSE(countryCodeIsValid("JPN"));
  EXPECT_FALSE(countryCodeIsValid("J1"));
  EXPECT_FALSE(countryCodeIsValid("@["));  // just outside 'A'..'Z'
}

}  // namespace
}  // namespace jov
