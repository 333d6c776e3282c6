/* The facade applications use: one process-wide object that drives the
 * device through its controller. */
#ifndef NIMBARA_API_NIMBARASDK_H
#define NIMBARA_API_NIMBARASDK_H

#include <nimbara/export.h>

NIMBARA_BEGIN_C

/** "@(#)PROGRAM:NimbaraSDK  PROJECT:NimbaraSDK-1" and a line feed. */
NIMBARA_API extern const unsigned char NimbaraSDKVersionString[46];
NIMBARA_API extern const double NimbaraSDKVersionNumber;

NIMBARA_END_C

#ifdef __cplusplus
#include <nimbara/api/NimbaraException.h>
#include <nimbara/api/NimbaraProtocol.h>
#include <nimbara/tank/TankId.h>

#include <any>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

namespace nimbara {

/** The pause the facade takes before and after LED requests and the detailed
 * state query (0.05 s each). The default sleeps; an application with an event
 * loop of its own installs a hook that keeps the loop turning for that time. */
NIMBARA_API void setRunLoopPause(std::function<void(double seconds)> pause);

/** Every request blocks its caller until its sound has been produced. Meant
 * for one application thread. Requests forward to the singleton's controller,
 * whichever facade receives them; before the singleton exists they do nothing
 * and answer 0, false or null. */
class NIMBARA_API NimbaraSDK {
 public:
  /** The singleton, made on first use with its controller and audio session;
   * every call also sets the preferred sample rate to 44100. */
  static NimbaraSDK& nimbara();
  /** The same work as nimbara(). */
  void initialize();

  bool checkDeviceState();
  /** 0: present or check skipped; 1: no device. */
  std::uint32_t checkDetailedDeviceState();
  /** Puffs while flashing the LED; throws NimbaraException with no device. */
  void puffAndFlashLedWithRed(std::uint8_t red, std::uint8_t green, std::uint8_t blue,
                              std::uint8_t special, std::int16_t time);
  void puffAndFlashLedWithRed(std::uint8_t red, std::uint8_t green, std::uint8_t blue,
                              std::uint8_t special, std::int16_t time, std::any misc);
  void flashLedWithRed(std::uint8_t red, std::uint8_t green, std::uint8_t blue,
                       std::uint8_t special, std::int16_t time);
  std::shared_ptr<TankId> getTankId();
  std::uint32_t echo(std::uint32_t value);

  /** Runs block; a std::exception it throws becomes *error (when error is not
   * null): domain the exception's name (or its type's name), code 0, its user
   * info. True when the block returned normally. */
  static bool catchException(const std::function<void()>& block, std::shared_ptr<Error>* error);

  std::shared_ptr<NimbaraProtocol> nimbaraProtocol() const;
  void setNimbaraProtocol(std::shared_ptr<NimbaraProtocol> protocol);

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<NimbaraProtocol> nimbaraProtocol_;
};

}  // namespace nimbara
#endif

#endif
