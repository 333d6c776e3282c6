/* The receiver: turns the accessory's audio back into commands. It finds the
 * two payloads of each transmission by their energy, band-passes them, reads
 * each as the sequence of 0-bits (one square period of 20 samples at 44100 Hz)
 * and 1-bits (40 samples) that correlates best: first as any bits of a valid
 * length, then, unless that reading is a clear command, within the commands'
 * layouts (opcode, length, even parity), and once more through a short filter
 * learnt from that reading when reflections or band shaping smear the bits.
 * It checks each repetition's even parity, that both repetitions agree and
 * that every bit won by a clear margin; when the repetitions disagree, their
 * sum is read, and counts only if it reads more clearly still. It copes with
 * gain, either polarity, offsets and hum, resampling down to 8000 Hz, band
 * limits, lossy codecs, rooms and echoes, clock error, noise and
 * interference; weaker copies close behind a transmission are taken for
 * echoes. Memory is bounded and a transmission is reported a few milliseconds
 * after it ends. Plain C++, single-threaded. */
#ifndef NIMBARA_RECEIVER_RECEIVER_H
#define NIMBARA_RECEIVER_RECEIVER_H

#include <nimbara/export.h>

#ifdef __cplusplus
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace nimbara {

/** One transmission as the accessory would have understood it. */
struct Transmission {
  double startSeconds = 0; /**< where its wake-up began in the stream */
  std::uint8_t opcode = 0;
  /** The command's verb: "flash", "puff", "spray", "state", "tank", "echo",
   * or "unknown" when no command has the received layout. */
  std::string command;
  /** A puff that also asks for the tank identity (opcode 5). */
  bool asksTank = false;
  /** The LED commands' arguments. */
  std::uint8_t red = 0, green = 0, blue = 0, special = 0;
  /** Milliseconds: the LED commands' and the spray's time. */
  std::int16_t time = 0;
  /** The echo's number. */
  std::uint32_t number = 0;
  /** Even parity held in the first and second repetition. */
  bool parityOk[2] = {false, false};
  /** Both repetitions were received and carry the same bits. */
  bool repetitionsAgree = false;
  /** Not a command: bad parity, disagreeing or missing repetitions, or a
   * layout no command has. Its fields are then those of the first repetition
   * as far as they could be read. */
  bool damaged = true;
  /** The bits of each repetition: command, parameter and parity (when only
   * the repetitions' sum read as a command, its bits in both). */
  std::string bits[2];
  /** How sure the receiver is, from 0 to 1: the weakest bit's margin (how
   * much worse the best reading with that bit flipped, or with the start one
   * bit off, fits), in units of a clean 0-bit; below 0.25 the transmission is
   * damaged. The smaller of the two repetitions'. */
  double confidence = 0;
  /** The signal-to-noise ratio the receiver estimated in its band (about
   * 700 to 7500 Hz), in dB: the payloads against the silence before them. */
  double snrDb = 0;
};

/** Push-based: feed samples in chunks of any size, collect transmissions. */
class NIMBARA_API Receiver {
 public:
  /** sampleRate from 8000 to 192000 Hz, one or more interleaved channels
   * (combined so that channels of opposite polarity add instead of
   * cancelling); by default the rendered signal's 44100 Hz and 2 channels, as
   * in Python and JavaScript. Throws std::invalid_argument outside that. */
  explicit Receiver(double sampleRate = 44100, int channels = 2);
  ~Receiver();
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

  /** Interleaved frames: 16-bit integers, or floats in -1..1. */
  void push(const std::int16_t* samples, std::size_t frames);
  void push(const float* samples, std::size_t frames);
  /** The end of the stream: decodes what is still pending. */
  void finish();

  /** Transmissions decoded so far, in order; each is handed out once. */
  std::vector<Transmission> take();
  /** Called with each transmission as soon as it is decoded, in addition. */
  void onTransmission(std::function<void(const Transmission&)> callback);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

/** Interleaved float samples of an audio file, with its rate and channel
 * count. */
struct WavAudio {
  double sampleRate = 0;
  int channels = 0;
  std::vector<float> samples;
};

/** Reads a whole audio file, of any format libsndfile reads (WAV, FLAC, Ogg,
 * AIFF...; readAudioFile in <nimbara/audio/audio_file.h> reads block by
 * block); on failure returns false and says why in *error. */
NIMBARA_API bool readWavFile(const std::string& path, WavAudio* audio, std::string* error);

/** Every transmission in a whole recording. */
NIMBARA_API std::vector<Transmission> decodeAudio(const WavAudio& audio);

}  // namespace nimbara
#endif

#endif
