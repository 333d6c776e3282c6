// What the ALSA backend reads from a sound card besides its PCM: the kernel's
// jack detection and the mixer.
#pragma once

#include <nimbara/platform/backend.h>

#include <string>

namespace nimbara::platform::alsa {

// The card a PCM plays on, -1 when it plays on none (a plugin such as null,
// file or pulse) or cannot be opened now.
int cardOf(const std::string& pcm);

// What the card's headphone jack controls ("Headphone Jack", "Front
// Headphone Jack", "Headset Mic Jack"...) say.
enum class Jack { Plugged, Empty, Unknown };
Jack headphoneJack(int card);

// The card's name for people: "HDA Intel PCH".
std::string cardName(int card);

// The level of the card's headphone control, else its master, else its PCM.
std::int32_t mixerLevel(int card, OutputLevel* level);

}  // namespace nimbara::platform::alsa
