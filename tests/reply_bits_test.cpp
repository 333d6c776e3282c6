#include <nimbara/device/reply_bits.h>

#include <gtest/gtest.h>

#include <vector>

namespace {

constexpr std::uint32_t kRejected = 0xFFFFFFFFu;

TEST(ReplyBits, DecodeReadsARunMostSignificantFirst) {
  const std::uint8_t bits[] = {1, 0, 1, 1};
  EXPECT_EQ(decode(bits, 4, 0, 4), 11u);
  EXPECT_EQ(decode(bits, 4, 1, 3), 3u);
  EXPECT_EQ(decode(bits, 4, 0, 0), 0u);
  const std::uint8_t onlyLowBit[] = {2, 3};
  EXPECT_EQ(decode(onlyLowBit, 2, 0, 2), 1u);
  std::vector<std::uint8_t> byte = {0, 0, 0, 0, 1, 0, 1, 0};
  EXPECT_EQ(decode(byte.data(), 8, 0, 8), 10u);
}

TEST(ReplyBits, DecodeRejectsWithTheValueOfThirtyTwoOnes) {
  const std::vector<std::uint8_t> ones(40, 1);
  EXPECT_EQ(decode(ones.data(), 32, 0, 32), kRejected);  // legitimate, and the same value
  EXPECT_EQ(decode(ones.data(), 40, 0, 33), kRejected);
  const std::vector<std::uint8_t> zeros(8, 0);
  EXPECT_EQ(decode(zeros.data(), 8, 4, 5), kRejected);
  EXPECT_EQ(decode(zeros.data(), 8, 4, 4), 0u);
  EXPECT_EQ(decode(zeros.data(), 8, -1, 4), kRejected);
  EXPECT_EQ(decode(zeros.data(), 8, 0x7FFFFFFF, 2), kRejected);  // no wrap-around
  EXPECT_EQ(decode(zeros.data(), 8, 2, -3), 0u);
}

TEST(ReplyBits, ParityHoldsForAnEvenNumberOfOnes) {
  const std::uint8_t a[] = {1, 1, 0}, b[] = {1, 0, 0}, c[] = {3, 5};
  EXPECT_EQ(checkZeroOneDataArrayParity(a, 3), 1);
  EXPECT_EQ(checkZeroOneDataArrayParity(b, 3), 0);
  EXPECT_EQ(checkZeroOneDataArrayParity(c, 2), 1);
  EXPECT_EQ(checkZeroOneDataArrayParity(a, 0), 1);
  EXPECT_EQ(checkZeroOneDataArrayParity(b, -4), 1);
}

}  // namespace
