#include <nimbara/tank/base64.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

namespace {

struct Free {
  void operator()(void* block) const { std::free(block); }
};

std::string encode(const std::string& bytes, bool breakLines) {
  std::size_t length = 12345;
  std::unique_ptr<char, Free> text(
      NewBase64Encode(bytes.data(), bytes.size(), breakLines, &length));
  EXPECT_EQ(std::strlen(text.get()), length);
  return std::string(text.get(), length);
}

// The decoded bytes, and the decoded length as reported.
std::pair<std::string, std::size_t> decode(const std::string& text) {
  std::size_t length = 12345;
  std::unique_ptr<char, Free> bytes(
      static_cast<char*>(NewBase64Decode(text.data(), text.size(), &length)));
  return {length == SIZE_MAX ? std::string() : std::string(bytes.get(), length), length};
}

std::string fromHex(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

// Python's one-line Base64 broken into 64-character lines joined by CR LF.
std::string withLineBreaks(const std::string& line) {
  std::string out;
  for (std::size_t i = 0; i < line.size(); i += 64) {
    if (i > 0) out += "\r\n";
    out += line.substr(i, 64);
  }
  return out;
}

TEST(Base64, RoundTripsAgainstAnIndependentEncoder) {
  std::ifstream vectors(NIMBARA_TEST_DATA "/base64_vectors.txt");
  ASSERT_TRUE(vectors.good());
  int count = 0;
  for (std::string line; std::getline(vectors, line); ++count) {
    std::istringstream fields(line);
    std::size_t n;
    std::string hex, expected;
    fields >> n >> hex >> expected;
    const std::string bytes = hex == "-" ? "" : fromHex(hex);
    if (expected == "-") expected.clear();
    ASSERT_EQ(bytes.size(), n);
    EXPECT_EQ(encode(bytes, false), expected) << n;
    EXPECT_EQ(encode(bytes, true), withLineBreaks(expected)) << n;
    EXPECT_EQ(decode(expected).first, bytes) << n;
    EXPECT_EQ(decode(withLineBreaks(expected)).first, bytes) << n;
  }
  EXPECT_EQ(count, 201);
}

TEST(Base64, LineBreaksEvery64CharactersAndNoneAtTheEnd) {
  EXPECT_EQ(encode("", true), "");
  EXPECT_EQ(encode("A", false), "QQ==");
  EXPECT_EQ(encode("AB", false), "QUI=");
  EXPECT_EQ(encode("ABC", false), "QUJD");
  EXPECT_EQ(encode(std::string(48, 'x'), true).size(), 64u);
  const std::string fortyNine = encode(std::string(49, 'x'), true);
  EXPECT_EQ(fortyNine.size(), 70u);
  EXPECT_EQ(fortyNine.substr(64, 2), "\r\n");
  EXPECT_EQ(fortyNine.substr(68), "==");
  const std::string ninetySix = encode(std::string(96, 'x'), true);
  EXPECT_EQ(ninetySix.size(), 130u);
  EXPECT_EQ(ninetySix.find("\r\n"), 64u);
  EXPECT_EQ(ninetySix.rfind("\r\n"), 64u);
  EXPECT_EQ(encode(std::string(500, 'x'), false).find('\n'), std::string::npos);
}

TEST(Base64, DecodingSkipsWhatIsNotInTheAlphabet) {
  EXPECT_EQ(decode("QUJD").first, "ABC");
  EXPECT_EQ(decode("QUI=").first, "AB");
  EXPECT_EQ(decode("QUI").first, "AB");
  EXPECT_EQ(decode("QQ==").first, "A");
  EXPECT_EQ(decode("QQ").first, "A");
  EXPECT_EQ(decode("Q"), std::make_pair(std::string(), std::size_t{0}));
  EXPECT_EQ(decode("QU JD").first, "ABC");
  EXPECT_EQ(decode("QU\r\nJD").first, "ABC");
  EXPECT_EQ(decode("Q-U_JD").first, "ABC");  // URL-safe characters are skipped
  EXPECT_EQ(decode("Q\xc3"
                   "U\x80"
                   "J\xff"
                   "D")
                .first,
            "ABC");
}

TEST(Base64, DecodingKeepsItsTwoLengthQuirks) {
  // Trailing junk after a complete group loses the last byte.
  EXPECT_EQ(decode("QUJD\n"), std::make_pair(std::string("AB"), std::size_t{2}));
  EXPECT_EQ(decode("====").second, SIZE_MAX);
  EXPECT_EQ(decode("").second, 0u);
}

TEST(Base64, AllBitsSetLengthMeansZeroTerminated) {
  std::size_t length = 0;
  std::unique_ptr<char, Free> bytes(static_cast<char*>(NewBase64Decode("QUJD", SIZE_MAX, &length)));
  EXPECT_EQ(std::string(bytes.get(), length), "ABC");
}

TEST(Base64, TheObjectLayerDecodesAsciiTextOnly) {
  EXPECT_EQ(nimbara::base64EncodedString({1, 2, 3, 4, 5, 6, 7}).size(), 12u);
  EXPECT_EQ(nimbara::dataFromBase64String("QUJD"), (nimbara::Data{'A', 'B', 'C'}));
  EXPECT_TRUE(nimbara::dataFromBase64String("").empty());
  EXPECT_TRUE(nimbara::dataFromBase64String("====").empty());
  EXPECT_TRUE(nimbara::dataFromBase64String("QUJD\xc3\xa9").empty());
  const nimbara::Data large(100, 0xAB);
  EXPECT_EQ(nimbara::dataFromBase64String(nimbara::base64EncodedString(large)), large);
}

}  // namespace
