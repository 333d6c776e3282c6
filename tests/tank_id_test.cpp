#include <nimbara/tank/TankId.h>

#include <gtest/gtest.h>

namespace {

using nimbara::Data;
using nimbara::TankId;

void set(TankId& t, unsigned y, unsigned m, unsigned d, unsigned scent, unsigned serial,
         unsigned r1, unsigned r2) {
  t.setYear(static_cast<std::uint8_t>(y));
  t.setMonth(static_cast<std::uint8_t>(m));
  t.setDay(static_cast<std::uint8_t>(d));
  t.setScentId(static_cast<std::uint16_t>(scent));
  t.setSerialId(static_cast<std::uint16_t>(serial));
  t.setReserve1(static_cast<std::uint8_t>(r1));
  t.setReserve2(static_cast<std::uint16_t>(r2));
}

TEST(TankId, PacksSevenBytesAndReadsThemBack) {
  TankId tank;
  set(tank, 13, 11, 15, 0x155, 0x2AAA, 2, 0xBEEF);
  EXPECT_EQ(tank.encode(), (Data{0x6D, 0xBD, 0x55, 0xAA, 0xAA, 0xBE, 0xEF}));
  EXPECT_EQ(tank.description(),
            "date=13/11/15, scentId=341, serialId=10922, reserve1=2, reserve2=48879");
  EXPECT_EQ(tank.encodeBase64(), "bb1Vqqq+7w==");

  TankId back;
  back.decodeBase64("bb1Vqqq+7w==");
  EXPECT_EQ(back.description(), tank.description());
  TankId longer;
  longer.decode({0x6D, 0xBD, 0x55, 0xAA, 0xAA, 0xBE, 0xEF, 0x99, 0x98});
  EXPECT_EQ(longer.encode(), tank.encode());
}

TEST(TankId, SlotsAtTheirMaximaFillEveryBitAndWiderValuesLoseTheirHighBits) {
  TankId tank;
  EXPECT_EQ(tank.encode(), Data(7, 0));
  set(tank, 31, 15, 31, 1023, 16383, 3, 65535);
  EXPECT_EQ(tank.encode(), Data(7, 0xFF));
  TankId wide;
  set(wide, 40, 0, 0, 0, 0, 0, 0);
  TankId eight;
  set(eight, 8, 0, 0, 0, 0, 0, 0);
  EXPECT_EQ(wide.encode(), eight.encode());
  set(wide, 255, 255, 255, 0xFFFF, 0xFFFF, 255, 0);
  TankId decoded;
  decoded.decode(wide.encode());
  EXPECT_EQ(decoded.description(),
            "date=31/15/31, scentId=1023, serialId=16383, reserve1=3, reserve2=0");
}

TEST(TankId, MonthOneLivesInTheSecondByteOnly) {
  TankId tank;
  tank.decode({0x00, 0x80, 0, 0, 0, 0, 0});
  EXPECT_EQ(tank.description(), "date=0/1/0, scentId=0, serialId=0, reserve1=0, reserve2=0");
}

TEST(TankId, ShortDataLeavesThePropertiesUntouched) {
  TankId tank;
  set(tank, 13, 11, 15, 1, 2, 3, 4);
  const std::string before = tank.description();
  tank.decode({1, 2, 3, 4, 5, 6});
  tank.decodeBase64("");
  tank.decodeBase64("?!*==");
  tank.decodeBase64("QUJD");
  EXPECT_EQ(tank.description(), before);
}

}  // namespace
