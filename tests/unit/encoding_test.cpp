#include "jov/encoding.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace jov {
namespace {

using nlohmann::json;
using std::string;

// gtest would print a json as a container and recurse into scalars; compare texts instead.
string text(const std::optional<json>& value) {
  return value ? value->dump() : "<none>";
}

TEST(EncodingTest, Md5AndChecksum) {
  EXPECT_EQ(md5(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(md5("a"), "0cc175b9c0f1b6a831c399e269772661");
  EXPECT_EQ(md5("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
  EXPECT_EQ(md5("The quick brown fox jumps over the lazy dog"), "9e107d9d372bb6826bd81d3542a419d6");
  EXPECT_EQ(md5("\xC3\xA9"), "66ddcd97cfdeabb2f6fb8a999b4bc76f");

  // Same digest, other case.
  EXPECT_EQ(md5("abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(checksum(string("abc")), "900150983CD24FB0D6963F7D28E17F72");
  EXPECT_EQ(checksum(std::vector<std::uint8_t>{'a', 'b', 'c'}), "900150983CD24FB0D6963F7D28E17F72");
  // md5 stops at a zero byte, checksum digests every byte.
  const string withZero("abc\0def", 7);
  EXPECT_EQ(md5(withZero), md5("abc"));
  EXPECT_NE(checksum(withZero), checksum(string("abc")));
}

TEST(EncodingTest, PercentEncoding) {
  EXPECT_EQ(RFC3986Encode(""), "");
  EXPECT_EQ(RFC3986Encode("a b/c~"), "a%20b%2Fc~");
  EXPECT_EQ(RFC3986Encode("AZaz09-._~"), "AZaz09-._~");
  EXPECT_EQ(RFC3986Encode("\xC3\xA9"), "%C3%A9");
  EXPECT_EQ(RFC3986Encode("%+*"), "%25%2B%2A");
  EXPECT_EQ(RFC3986Encode(string("\0\xFF", 2)), "%00%FF");

  for (const char c : string("!*'();:@&=+$,/?#[]")) {
    const char expected[] = {'%', "0123456789ABCDEF"[c >> 4], "0123456789ABCDEF"[c & 0xF], 0};
    EXPECT_EQ(urlEncode(string(1, c)), expected) << c;
  }
  EXPECT_EQ(urlEncode("a b\"<>\\^`{|}"), "a%20b%22%3C%3E%5C%5E%60%7B%7C%7D");
  EXPECT_EQ(urlEncode("my-bucket_1.x~"), "my-bucket_1.x~");
  EXPECT_EQ(urlEncode("\xE3\x81\x82"), "%E3%81%82");
  EXPECT_EQ(urlEncode("50%"), "50%25");
}

TEST(EncodingTest, Base64AndHexToken) {
  // RFC 4648 test vectors.
  EXPECT_EQ(base64(string("")), "");
  EXPECT_EQ(base64(string("f")), "Zg==");
  EXPECT_EQ(base64(string("fo")), "Zm8=");
  EXPECT_EQ(base64(string("foo")), "Zm9v");
  EXPECT_EQ(base64(string("foob")), "Zm9vYg==");
  EXPECT_EQ(base64(string("fooba")), "Zm9vYmE=");
  EXPECT_EQ(base64(string("foobar")), "Zm9vYmFy");
  // Standard alphabet, not the URL one; zero bytes are data.
  EXPECT_EQ(base64(std::vector<std::uint8_t>{0xFB, 0xFF, 0xBF}), "+/+/");
  EXPECT_EQ(base64(string("\0\0", 2)), "AAA=");

  // Large inputs are encoded piecewise; the pieces must join seamlessly.
  string big, expected;
  for (int i = 0; i < (1 << 20) + 1; ++i) {
    big += "foo";
    expected += "Zm9v";
  }
  EXPECT_EQ(base64(big + "f"), expected + "Zg==");

  EXPECT_EQ(hexToken(std::vector<std::uint8_t>{0x01, 0xAB}), "01AB");
  EXPECT_EQ(hexToken(std::vector<std::uint8_t>{0x00, 0xFF, 0x10}), "00FF10");
  EXPECT_EQ(hexToken(std::vector<std::uint8_t>{}), "");
}

TEST(EncodingTest, JsonParseAndSerialise) {
  EXPECT_EQ(text(JSONValue(R"({ "b" : null, "a" : [1, "x"] })")), R"({"a":[1,"x"],"b":null})");
  EXPECT_EQ(text(JSONValue(" [true] ")), "[true]");
  for (const char* bad : {"", "{", "{\"a\":}", "{} x", "[1,]", "{'a':1}", "\"\xFF\""})
    EXPECT_EQ(text(JSONValue(bad)), "<none>") << bad;

  EXPECT_EQ(JSONRepresentation(json{{"a", json::array({1, "x"})}, {"b", nullptr}}),
            R"({"a":[1,"x"],"b":null})");
  EXPECT_EQ(JSONRepresentation(json{{"k", "\xC3\xA9"}}), "{\"k\":\"\xC3\xA9\"}");
  EXPECT_EQ(JSONRepresentation(json{{"k", "\xFF"}}), std::nullopt);
  EXPECT_EQ(JSONRepresentation(json{{"\xC3", 1}}), std::nullopt);
}

TEST(EncodingTest, JsonAccessorsTreatNullAndWrongTypesAsAbsent) {
  const json o = json::parse(R"({"s":"x","e":"","n":null,"i":42,"neg":-7,"f":12.0,"frac":1.5,
    "t":true,"f0":false,"str12":"12","big":18446744073709551615,"huge":1e300,
    "max":9223372036854775807,"min":-9223372036854775808,"over":9223372036854775808.0,
    "minf":-9223372036854775808.0})");

  EXPECT_EQ(jsonString(o, "s"), "x");
  EXPECT_EQ(jsonString(o, "e"), "");
  for (const char* key : {"n", "i", "t", "missing"}) EXPECT_EQ(jsonString(o, key), std::nullopt);
  EXPECT_EQ(jsonString(json::array({"s"}), "s"), std::nullopt);
  EXPECT_EQ(jsonString(json(nullptr), "s"), std::nullopt);

  EXPECT_EQ(jsonInt64(o, "i"), 42);
  EXPECT_EQ(jsonInt64(o, "neg"), -7);
  EXPECT_EQ(jsonInt64(o, "f"), 12);
  EXPECT_EQ(jsonInt64(o, "max"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(jsonInt64(o, "min"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(jsonInt64(o, "minf"), std::numeric_limits<std::int64_t>::min());
  for (const char* key : {"frac", "str12", "t", "n", "big", "huge", "over", "missing"})
    EXPECT_EQ(jsonInt64(o, key), std::nullopt) << key;

  EXPECT_EQ(jsonBool(o, "t"), true);
  EXPECT_EQ(jsonBool(o, "f0"), false);
  for (const char* key : {"i", "s", "n", "missing"}) EXPECT_EQ(jsonBool(o, key), std::nullopt);
}

}  // namespace
}  // namespace jov
