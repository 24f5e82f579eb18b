#include "broker/base64.h"
#include "core/owned.h"

#include <cstring>
#include <gtest/gtest.h>
#include <optional>
#include <string>

namespace {

std::string encode(const std::string& bytes) {
  const c_string text{base64_encode(bytes.data(), bytes.size())};
  return text.get();
}

std::optional<std::string> decode(const char* text) {
  size_t length = 12345;
  const c_bytes bytes{base64_decode(text, &length)};
  if (bytes == nullptr) return std::nullopt;
  return std::string{reinterpret_cast<const char*>(bytes.get()), length};
}

struct pair_of_texts {
  const char* bytes;
  const char* text;
};

constexpr pair_of_texts rfc4648_vectors[] = {
    {"", ""},
    {"f", "Zg=="},
    {"fo", "Zm8="},
    {"foo", "Zm9v"},
    {"foob", "Zm9vYg=="},
    {"fooba", "Zm9vYmE="},
    {"foobar", "Zm9vYmFy"},
};

}  // namespace

TEST(Base64, EncodesTheVectorsOfTheRfc) {
  for (const auto& [bytes, text] : rfc4648_vectors) {
    EXPECT_EQ(encode(bytes), text);
  }
}

TEST(Base64, DecodesTheVectorsOfTheRfc) {
  for (const auto& [bytes, text] : rfc4648_vectors) {
    EXPECT_EQ(decode(text), bytes) << text;
  }
}

TEST(Base64, UsesTheWholeStandardAlphabet) {
  std::string bytes;
  for (unsigned i = 0; i < 64; i += 4) {
    const unsigned group = i << 18 | (i + 1) << 12 | (i + 2) << 6 | (i + 3);
    bytes += {static_cast<char>(group >> 16), static_cast<char>(group >> 8), static_cast<char>(group)};
  }
  const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  EXPECT_EQ(encode(bytes), alphabet);
  EXPECT_EQ(decode(alphabet), bytes);
}

TEST(Base64, EveryByteAndLengthSurvivesTheRoundTrip) {
  std::string bytes;
  for (int i = 0; i < 600; ++i) {
    EXPECT_EQ(decode(encode(bytes).c_str()), bytes);
    bytes += static_cast<char>(i * 7);
  }
}

TEST(Base64, LineEndsAreIgnoredAnywhere) {
  for (const char* text : {"Zm9v\nYmFy", "\r\nZm9vYmFy\r\n", "Z\nm\r9\nv\r\nYmFy"}) {
    EXPECT_EQ(decode(text), "foobar") << text;
  }
  EXPECT_EQ(decode("Zg=\r\n="), "f");
  EXPECT_EQ(decode("\r\n"), "");
}

TEST(Base64, AnythingElseGivesNoResult) {
  for (const char* text :
       {"Z",    "Zg",   "Zg=",  "Zm8",   "Zm9vY", "Zg===", "Zg==Zg==", "Zg==\nZ", "=",       "====", "Z===",
        "Zg=g", "Z=g=", "Zm 9", "Zm9v ", "Zm9\t", "Zm9-",  "Zm9_",     "Zm9v!",   "Zm9\x80", "Zm9v="}) {
    EXPECT_EQ(decode(text), std::nullopt) << text;
  }
}

TEST(Base64, ANullTextGivesNoResult) {
  EXPECT_EQ(decode(nullptr), std::nullopt);
}
