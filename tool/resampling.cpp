#include "resampling.h"

namespace tool {

std::string describeRate(const nimbara::platform::PlaybackRate& rate) {
  if (rate.refused) {
    return std::to_string(rate.rate) + " Hz, refused (--allow-resampling plays it resampled)";
  }
  return std::to_string(rate.rate) + " Hz, " + (rate.exact ? "exact" : "resampled");
}

std::string resamplingWarning(const nimbara::platform::PlaybackRate& rate) {
  // A refusing output fails the transmission with its own line instead.
  if (rate.exact || rate.refused) return "";
  return "nimbara: warning: the sink runs at " + std::to_string(rate.rate) +
         " Hz, so the 44100 Hz signal is resampled on its way out and the accessory may not "
         "hear it; " +
         rate.howToAllow;
}

}  // namespace tool
