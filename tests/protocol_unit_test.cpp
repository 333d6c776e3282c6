#include <nimbara/frame/protocol_unit.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "support/expected_signal.h"

namespace {

using nimbara::test::bitsOf;

struct UnitDeleter {
  void operator()(ProtocolUnit* unit) const {
    std::free(unit->data);
    std::free(unit);
  }
};
using Unit = std::unique_ptr<ProtocolUnit, UnitDeleter>;

TEST(ProtocolUnit, IntegerUnitsAreMostSignificantBitFirst) {
  EXPECT_EQ(bitsOf(Unit(create8bitProtocolUnit(5)).get()), "00000101");
  EXPECT_EQ(bitsOf(Unit(create8bitProtocolUnit(255)).get()), "11111111");
  EXPECT_EQ(bitsOf(Unit(create8bitProtocolUnit(0)).get()), "00000000");
  EXPECT_EQ(bitsOf(Unit(create16bitProtocolUnit(1000)).get()), "0000001111101000");
  EXPECT_EQ(bitsOf(Unit(create16bitProtocolUnit(-1)).get()), std::string(16, '1'));
  EXPECT_EQ(bitsOf(Unit(create16bitProtocolUnit(-32768)).get()), "1" + std::string(15, '0'));
  EXPECT_EQ(bitsOf(Unit(create32bitProtocolUnit(0x80000000u)).get()), "1" + std::string(31, '0'));
  EXPECT_EQ(bitsOf(Unit(create32bitProtocolUnit(1)).get()), std::string(31, '0') + "1");
  EXPECT_EQ(bitsOf(Unit(create32bitProtocolUnit(0x12345678u)).get()),
            "00010010001101000101011001111000");
}

TEST(ProtocolUnit, LedParameterLaysOutColoursSpecialAndSignedTime) {
  Unit led(createLightLedParamProtocolUnit(255, 0, 128, 0, 100));
  EXPECT_EQ(bitsOf(led.get()),
            "11111111"
            "00000000"
            "10000000"
            "00000000"
            "00000000"
            "01100100");
  EXPECT_STREQ(led->name, "LED");
  EXPECT_EQ(led->length, 48);

  Unit negative(createLightLedParamProtocolUnit(0, 0, 0, 7, -2));
  EXPECT_EQ(bitsOf(negative.get()).substr(24),
            "00000111"
            "11111111"
            "11111110");
}

TEST(ProtocolUnit, EveryConstructedUnitIsAFreshNamedBitUnit) {
  for (ProtocolUnit* raw :
       {create8bitProtocolUnit(1), create16bitProtocolUnit(2), create32bitProtocolUnit(3),
        createLightLedParamProtocolUnit(1, 2, 3, 4, 5)}) {
    Unit unit(raw);
    EXPECT_EQ(unit->kind, 0u);
    EXPECT_EQ(unit->isStatic, 0);
    EXPECT_EQ(std::strlen(unit->name), 3u);
    EXPECT_EQ(unit->name[3], '\0');
  }
  EXPECT_STREQ(Unit(create16bitProtocolUnit(0)).get()->name, "DXX");
}

TEST(ProtocolUnit, CountPlusBitCountsEveryNonZeroElement) {
  EXPECT_EQ(countPlusBit(Unit(create8bitProtocolUnit(5)).get()), 2);
  EXPECT_EQ(countPlusBit(Unit(create8bitProtocolUnit(0)).get()), 0);
  std::uint8_t elements[] = {0, 2, 255, 1, 0};
  ProtocolUnit odd{elements, 5, 1, "TST", 0};
  EXPECT_EQ(countPlusBit(&odd), 3);
  ProtocolUnit empty{elements, 0, 0, "EMP", 0};
  EXPECT_EQ(countPlusBit(&empty), 0);
  EXPECT_EQ(countPlusBit(nullptr), 0);
}

}  // namespace
