/* The controller between the facade and the device operations: it prepares
 * the audio session, guards every device command with the presence check
 * (unless "SKIP_PRECHECK" switched it off) and hands out tank identities. */
#ifndef NIMBARA_API_NIMBARAPROTOCOL_H
#define NIMBARA_API_NIMBARAPROTOCOL_H

#include <nimbara/api/NimbaraException.h>
#include <nimbara/tank/TankId.h>

#ifdef __cplusplus
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace nimbara {

/** Options of initialize: "SKIP_PRECHECK" with a value read like a boolean
 * text ("YES", "true", "1": skip; "NO", "false", "0": check). */
using Options = std::map<std::string, std::string>;

class NIMBARA_API NimbaraProtocol {
 public:
  static std::shared_ptr<NimbaraProtocol> create();
  NimbaraProtocol() = default;
  /** Releases the process-wide signal units (cleanUp). */
  ~NimbaraProtocol();
  NimbaraProtocol(const NimbaraProtocol&) = delete;
  NimbaraProtocol& operator=(const NimbaraProtocol&) = delete;

  NimbaraException createNimbaraException(int code, const std::string& reason) const;
  /** Throws NimbaraException code 1 unless a device is on the route or the
   * check is skipped. */
  void preCheckDevice();
  void preCheckDeviceByMicWave();
  /** Sets up the audio session and reads "SKIP_PRECHECK"; null for none. */
  void initialize(const Options* options);
  void cleanUp();

  bool checkDeviceState();
  /** 0: device present or check skipped; 1: no device. Never throws for it. */
  std::uint32_t checkDetailedDeviceState();

  void puffAndFlashLedWithRed(std::uint8_t red, std::uint8_t green, std::uint8_t blue,
                              std::uint8_t special, std::int16_t time);
  /** Sprays asking for the cartridge; returns the fixed identity 13/11/15. */
  std::shared_ptr<TankId> puffAndFlashLedWithRedAndGetTankId(std::uint8_t red, std::uint8_t green,
                                                             std::uint8_t blue,
                                                             std::uint8_t special,
                                                             std::int16_t time);
  void flashLedWithRed(std::uint8_t red, std::uint8_t green, std::uint8_t blue,
                       std::uint8_t special, std::int16_t time);
  /** The fixed identity 13/11/15, after the check; sends nothing. */
  std::shared_ptr<TankId> getTankId();
  /** 0 after the check; sends nothing. */
  std::uint32_t echo(std::uint32_t value);

  /** True disables the presence check. */
  bool preCheck() const { return preCheck_.load(); }
  void setPreCheck(bool skip) { preCheck_.store(skip); }

 private:
  std::atomic<bool> preCheck_{false};
};

/** The boolean value of a text: leading blanks, a sign and zeros are skipped;
 * true when the next character is one of Y y T t 1-9. */
NIMBARA_API bool boolValue(const std::string& text);

}  // namespace nimbara
#endif

#endif
