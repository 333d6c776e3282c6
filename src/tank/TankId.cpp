#include <nimbara/tank/TankId.h>

#include <cstdio>

namespace nimbara {

std::string TankId::description() const {
  char text[128];
  std::snprintf(text, sizeof text,
                "date=%d/%d/%d, scentId=%d, serialId=%d, reserve1=%d, reserve2=%d", year(), month(),
                day(), scentId(), serialId(), reserve1(), reserve2());
  return text;
}

std::string TankId::encodeBase64() const {
  return base64EncodedString(encode());
}

void TankId::decodeBase64(const std::string& text) {
  decode(dataFromBase64String(text));
}

Data TankId::encode() const {
  const unsigned y = year(), m = month(), d = day(), scent = scentId(), serial = serialId(),
                 r1 = reserve1(), r2 = reserve2();
  auto byte = [](unsigned value) { return static_cast<std::uint8_t>(value & 0xFF); };
  return {
      byte((y << 3) | ((m >> 1) & 0x07)),
      byte((m << 7) | ((d << 2) & 0x7C) | ((scent >> 8) & 0x03)),
      byte(scent),
      byte((r1 << 6) | ((serial >> 8) & 0x3F)),
      byte(serial),
      byte(r2 >> 8),
      byte(r2),
  };
}

void TankId::decode(const Data& data) {
  if (data.size() < 7) return;
  const unsigned b0 = data[0], b1 = data[1], b2 = data[2], b3 = data[3], b4 = data[4], b5 = data[5],
                 b6 = data[6];
  setYear(static_cast<std::uint8_t>(b0 >> 3));
  setMonth(static_cast<std::uint8_t>(((b0 << 1) & 0x0E) | (b1 >> 7)));
  setDay(static_cast<std::uint8_t>((b1 >> 2) & 0x1F));
  setScentId(static_cast<std::uint16_t>(((b1 & 0x03) << 8) | b2));
  setReserve1(static_cast<std::uint8_t>(b3 >> 6));
  setSerialId(static_cast<std::uint16_t>(((b3 & 0x3F) << 8) | b4));
  setReserve2(static_cast<std::uint16_t>((b5 << 8) | b6));
}

}  // namespace nimbara
