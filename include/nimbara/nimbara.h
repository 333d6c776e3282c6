/* Every public header of nimbara. The C section comes first; the C++ layer of
 * each header is only seen by C++ code. */
#ifndef NIMBARA_NIMBARA_H
#define NIMBARA_NIMBARA_H

#include <nimbara/api/NimbaraSDK.h>
#include <nimbara/device/operations.h>
#include <nimbara/device/reply_bits.h>
#include <nimbara/device/route.h>
#include <nimbara/export.h>
#include <nimbara/frame/commands.h>
#include <nimbara/frame/frame.h>
#include <nimbara/frame/protocol_unit.h>
#include <nimbara/platform/audio_queue.h>
#include <nimbara/signal/playback.h>
#include <nimbara/signal/renderer.h>
#include <nimbara/signal/signal_format.h>
#include <nimbara/signal/signal_units.h>
#include <nimbara/tank/base64.h>

#include <nimbara/api/NimbaraException.h>
#include <nimbara/api/NimbaraProtocol.h>
#include <nimbara/api/command.h>
#include <nimbara/api/timeline.h>
#include <nimbara/api/vocabulary.h>
#include <nimbara/audio/audio_file.h>
#include <nimbara/log.h>
#include <nimbara/platform/backend.h>
#include <nimbara/platform/virtual_device.h>
#include <nimbara/platform/wav_device.h>
#include <nimbara/receiver/receiver.h>
#include <nimbara/tank/TankId.h>
#include <nimbara/track/track.h>

#endif
