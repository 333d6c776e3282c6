#include "platform/alsa/alsa_controls.h"

#include <alsa/asoundlib.h>

#include "platform/alsa/alsa_pcm.h"

#include <algorithm>
#include <string>

namespace nimbara::platform::alsa {
namespace {

std::string ctlName(int card) {
  return "hw:" + std::to_string(card);
}

bool isHeadphoneJack(const std::string& name) {
  const bool jack = name.size() > 5 && name.compare(name.size() - 5, 5, " Jack") == 0;
  return jack &&
         (name.find("Headphone") != std::string::npos || name.find("Headset") != std::string::npos);
}

}  // namespace

int cardOf(const std::string& pcm) {
  if (loadConfiguration() != 0) return -1;
  snd_pcm_t* handle = nullptr;
  if (snd_pcm_open(&handle, pcm.c_str(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK) < 0) return -1;
  snd_pcm_info_t* info = nullptr;
  int card = -1;
  if (snd_pcm_info_malloc(&info) == 0) {
    if (snd_pcm_info(handle, info) == 0) card = snd_pcm_info_get_card(info);
    snd_pcm_info_free(info);
  }
  snd_pcm_close(handle);
  return card;
}

Jack headphoneJack(int card) {
  if (card < 0) return Jack::Unknown;
  snd_ctl_t* ctl = nullptr;
  if (snd_ctl_open(&ctl, ctlName(card).c_str(), 0) < 0) return Jack::Unknown;
  snd_ctl_elem_list_t* list = nullptr;
  snd_ctl_elem_value_t* value = nullptr;
  Jack jack = Jack::Unknown;
  if (snd_ctl_elem_list_malloc(&list) == 0 && snd_ctl_elem_value_malloc(&value) == 0 &&
      snd_ctl_elem_list(ctl, list) == 0 &&
      snd_ctl_elem_list_alloc_space(list, snd_ctl_elem_list_get_count(list)) == 0 &&
      snd_ctl_elem_list(ctl, list) == 0) {
    for (unsigned i = 0; i < snd_ctl_elem_list_get_used(list); ++i) {
      if (snd_ctl_elem_list_get_interface(list, i) != SND_CTL_ELEM_IFACE_CARD ||
          !isHeadphoneJack(snd_ctl_elem_list_get_name(list, i))) {
        continue;
      }
      snd_ctl_elem_id_t* id = nullptr;
      if (snd_ctl_elem_id_malloc(&id) != 0) break;
      snd_ctl_elem_list_get_id(list, i, id);
      snd_ctl_elem_value_set_id(value, id);
      snd_ctl_elem_id_free(id);
      if (snd_ctl_elem_read(ctl, value) < 0) continue;
      if (snd_ctl_elem_value_get_boolean(value, 0)) {
        jack = Jack::Plugged;
        break;
      }
      jack = Jack::Empty;
    }
  }
  if (list != nullptr) {
    snd_ctl_elem_list_free_space(list);
    snd_ctl_elem_list_free(list);
  }
  if (value != nullptr) snd_ctl_elem_value_free(value);
  snd_ctl_close(ctl);
  return jack;
}

std::string cardName(int card) {
  char* name = nullptr;
  if (card < 0 || snd_card_get_name(card, &name) < 0 || name == nullptr) return {};
  std::string copy = name;
  free(name);  // NOLINT: alsa-lib's allocation
  return copy;
}

std::int32_t mixerLevel(int card, OutputLevel* level) {
  if (card < 0) return NIMBARA_AUDIO_ERR_NOT_SUPPORTED;
  snd_mixer_t* mixer = nullptr;
  if (snd_mixer_open(&mixer, 0) < 0) return NIMBARA_AUDIO_ERR_NO_MEMORY;
  std::int32_t status = NIMBARA_AUDIO_ERR_NOT_SUPPORTED;
  if (snd_mixer_attach(mixer, ctlName(card).c_str()) == 0 &&
      snd_mixer_selem_register(mixer, nullptr, nullptr) == 0 && snd_mixer_load(mixer) == 0) {
    for (const char* control : {"Headphone", "Master", "PCM"}) {
      snd_mixer_selem_id_t* id = nullptr;
      if (snd_mixer_selem_id_malloc(&id) != 0) break;
      snd_mixer_selem_id_set_name(id, control);
      snd_mixer_elem_t* elem = snd_mixer_find_selem(mixer, id);
      snd_mixer_selem_id_free(id);
      if (elem == nullptr || !snd_mixer_selem_has_playback_volume(elem)) continue;
      long low = 0, high = 0;
      snd_mixer_selem_get_playback_volume_range(elem, &low, &high);
      long loudest = low;
      bool on = false;
      for (int c = 0; c <= SND_MIXER_SCHN_LAST; ++c) {
        const auto channel = static_cast<snd_mixer_selem_channel_id_t>(c);
        if (!snd_mixer_selem_has_playback_channel(elem, channel)) continue;
        long volume = low;
        snd_mixer_selem_get_playback_volume(elem, channel, &volume);
        loudest = std::max(loudest, volume);
        int sw = 1;
        if (snd_mixer_selem_has_playback_switch(elem)) {
          snd_mixer_selem_get_playback_switch(elem, channel, &sw);
        }
        on = on || sw != 0;
      }
      level->volumePercent =
          high > low ? 100.0 * static_cast<double>(loudest - low) / static_cast<double>(high - low)
                     : 100.0;
      level->muted = !on;
      status = NIMBARA_AUDIO_OK;
      break;
    }
  }
  snd_mixer_close(mixer);
  return status;
}

}  // namespace nimbara::platform::alsa
