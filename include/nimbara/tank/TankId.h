/* The identity of the scent tank: its date, scent, serial number and two
 * reserved fields, with a 7-byte packed form and that form's Base64 text. */
#ifndef NIMBARA_TANK_TANKID_H
#define NIMBARA_TANK_TANKID_H

#include <nimbara/export.h>
#include <nimbara/tank/base64.h>

#ifdef __cplusplus
#include <atomic>
#include <cstdint>
#include <string>

namespace nimbara {

/** Every property is atomic: a reader never sees a torn value. Setters store
 * values unchanged; the packed form keeps only the bits of each slot. */
class NIMBARA_API TankId {
 public:
  TankId() = default;

  /** "date=%d/%d/%d, scentId=%d, serialId=%d, reserve1=%d, reserve2=%d" with
   * year, month, day, scentId, serialId, reserve1, reserve2. */
  std::string description() const;
  /** The Base64 text of the packed form: twelve characters. */
  std::string encodeBase64() const;
  /** Sets the properties from a Base64 text of a packed form; text that does
   * not hold seven bytes leaves them as they are. */
  void decodeBase64(const std::string& text);
  /** Seven bytes, most significant bit first: year 5 bits, month 4, day 5,
   * scentId 10, reserve1 2, serialId 14, reserve2 16. */
  Data encode() const;
  /** Sets every property from the first seven bytes; fewer than seven bytes
   * leave the properties as they are. */
  void decode(const Data& data);

  std::uint8_t year() const { return year_; }
  void setYear(std::uint8_t value) { year_ = value; }
  std::uint8_t month() const { return month_; }
  void setMonth(std::uint8_t value) { month_ = value; }
  std::uint8_t day() const { return day_; }
  void setDay(std::uint8_t value) { day_ = value; }
  std::uint16_t scentId() const { return scentId_; }
  void setScentId(std::uint16_t value) { scentId_ = value; }
  std::uint16_t serialId() const { return serialId_; }
  void setSerialId(std::uint16_t value) { serialId_ = value; }
  std::uint8_t reserve1() const { return reserve1_; }
  void setReserve1(std::uint8_t value) { reserve1_ = value; }
  std::uint16_t reserve2() const { return reserve2_; }
  void setReserve2(std::uint16_t value) { reserve2_ = value; }

 private:
  std::atomic<std::uint8_t> year_{0};
  std::atomic<std::uint8_t> month_{0};
  std::atomic<std::uint8_t> day_{0};
  std::atomic<std::uint16_t> scentId_{0};
  std::atomic<std::uint16_t> serialId_{0};
  std::atomic<std::uint8_t> reserve1_{0};
  std::atomic<std::uint16_t> reserve2_{0};
};

}  // namespace nimbara
#endif

#endif
