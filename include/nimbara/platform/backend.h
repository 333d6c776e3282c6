/* Audio backends: the table of operations behind the platform audio layer, the
 * registry of backends by scheme, and the backend that new queues and session
 * calls use. A backend implements what its output can do; every operation it
 * lacks answers NIMBARA_AUDIO_ERR_NOT_SUPPORTED, so that callers never need to
 * know which backend they hold. */
#ifndef NIMBARA_PLATFORM_BACKEND_H
#define NIMBARA_PLATFORM_BACKEND_H

#include <nimbara/platform/audio_queue.h>

#ifdef __cplusplus
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace nimbara::platform {

/** One playback stream of a backend, fed by one queue. Every status is 0 or a
 * negative NIMBARA_AUDIO_ERR_... value. */
class NIMBARA_API OutputStream {
 public:
  virtual ~OutputStream() = default;
  /** A buffer of byteSize bytes is being allocated for the stream, on the
   * application's thread; a stream that cannot take it refuses. */
  virtual std::int32_t prepareBuffer(std::uint32_t byteSize);
  /** Sees every buffer as it is enqueued, on the enqueuing thread (the output
   * callback too). Must not allocate, lock or wait. A refusal keeps the buffer
   * out of the queue. */
  virtual std::int32_t enqueued(const std::int16_t* samples, std::size_t frames);
  /** The queue starts, on the application's thread. */
  virtual std::int32_t start();
  /** Plays one buffer of interleaved stereo frames on the queue's thread and
   * returns once the output has taken it: the backend's clock paces here.
   * Returns early once `stop` is set. Must not allocate or lock. A failure (a
   * write error, a lost server, NIMBARA_AUDIO_ERR_RAN_DRY for an output that
   * played silence because the stream came late) is returned, and the buffer
   * still takes its time, so that the transmission keeps its timing; the
   * queue keeps the first failure for the caller. */
  virtual std::int32_t play(const std::int16_t* samples, std::size_t frames,
                            const std::atomic<bool>& stop) = 0;
  /** Called once on the queue's thread after the last callback, outside the
   * real-time path: flush, drain, close. Its failure counts like play's, a
   * run-dry noticed while draining included. */
  virtual std::int32_t close();
};

/** A capture stream: 16-bit stereo frames at the signal's rate, from a source
 * of the backend (a sink's monitor, a microphone). */
class NIMBARA_API CaptureStream {
 public:
  virtual ~CaptureStream() = default;
  /** Fills `frames` interleaved stereo frames, waiting for them. */
  virtual std::int32_t read(std::int16_t* samples, std::size_t frames) = 0;
};

/** One output of a backend (a sink of a sound server, a sound card's PCM). */
struct OutputInfo {
  std::string name;         ///< what the backend's scheme takes after "scheme:"
  std::string description;  ///< for people
  std::string port;         ///< the active port's description, empty without ports
  std::string route;        ///< its route name, as the presence rule reads it
  bool isDefault = false;   ///< the output the backend plays on when none is named
  std::uint32_t rate = 0;   ///< the rate it runs at while the signal plays; 0: unknown
  bool exact = false;       ///< the signal reaches it unresampled
};

/** The output's volume (percent of normal, the loudest channel) and mute state. */
struct OutputLevel {
  double volumePercent = 0;
  bool muted = false;
};

/** The rate the output runs at while the signal plays on it. */
struct PlaybackRate {
  std::uint32_t rate = 0;
  bool exact = false;  ///< rate is the signal's own: it reaches the output unresampled
  /** How to let the output run at the signal's rate: one sentence and the
   * configuration lines, ending in a newline; empty when exact or unknown. */
  std::string howToAllow;
};

/** An audio output and the operations on it. Every call but OutputStream's
 * runs on the application's threads; every status is 0 or a negative
 * NIMBARA_AUDIO_ERR_... value. */
class NIMBARA_API Backend {
 public:
  virtual ~Backend() = default;
  /** The scheme the backend is registered under: "pulse", "virtual", "wav". */
  virtual const char* name() const = 0;
  /** Opens a stream for the format, already checked to be the signal's. */
  virtual std::int32_t openStream(const NimbaraStreamFormat& format,
                                  std::unique_ptr<OutputStream>* stream) = 0;
  /** The route of the output this backend plays on, for the presence rule. */
  virtual std::int32_t routeName(std::string* name) = 0;
  /** Every output this backend can play on, rates probed. */
  virtual std::int32_t listOutputs(std::vector<OutputInfo>* outputs);
  /** The level and mute state of the output this backend plays on. */
  virtual std::int32_t outputLevel(OutputLevel* level);
  /** The rate the output runs at while a stream of this backend plays on it
   * (it may have to play to tell). */
  virtual std::int32_t playbackRate(PlaybackRate* rate);
  /** Opens a capture stream on `source` (empty: the backend's default, the
   * monitor of its output where it has one). NIMBARA_AUDIO_ERR_NO_SUCH_NAME
   * when there is no source of that name. */
  virtual std::int32_t openCapture(const std::string& source,
                                   std::unique_ptr<CaptureStream>* stream);
  /** What the output has played since the last call, interleaved stereo, for
   * a backend that keeps it (the virtual device: what its in-process accessory
   * hears); an output that plays its sound away does not support it. */
  virtual std::int32_t takePlayed(std::vector<std::int16_t>* samples);
  /** Asks the output to run at `rate` while this backend's streams play. */
  virtual std::int32_t setPreferredSampleRate(double rate);
  /** Whether a stream may play on an output that cannot run at the signal's
   * rate, resampled (and logged so), rather than fail with
   * NIMBARA_AUDIO_ERR_RATE. Each backend keeps its own default: the PipeWire
   * backend refuses, the sound-server backend plays and the tool warns. An
   * output that never resamples accepts either. */
  virtual std::int32_t setAllowResampling(bool allow);
  /** The thread pause on this backend's clock; real time by default. */
  virtual void sleep(double seconds);
  /** Whether an immediate dispose hands the enqueued buffers back. */
  virtual bool returnsBuffersAfterDispose() const;
};

/** The backend for new queues and session calls. Queues keep the backend they
 * were made on. The default is the first registered backend that can run here:
 * PipeWire's where its daemon runs, the sound server's where one runs, otherwise ALSA or a
 * virtual device. */
NIMBARA_API void setBackend(std::shared_ptr<Backend> backend);

/** While it lives, the calling thread's new queues and session calls use
 * `backend` rather than the process-wide one, so that threads serving
 * different outputs play at the same time. Made and ended on one thread;
 * scopes nest, each restoring the one before. */
class NIMBARA_API ThreadBackendScope {
 public:
  explicit ThreadBackendScope(std::shared_ptr<Backend> backend);
  ~ThreadBackendScope();
  ThreadBackendScope(const ThreadBackendScope&) = delete;
  ThreadBackendScope& operator=(const ThreadBackendScope&) = delete;

 private:
  std::shared_ptr<Backend> backend_;
  const std::shared_ptr<Backend>* previous_;
};

/** A backend by name, "SCHEME" or "SCHEME:ARGUMENT", as the tool's --device
 * takes it: "pipewire" (PipeWire's default sink, natively), "pipewire:NODE"
 * (the sink node named NODE), "pulse" (the sound server's default sink),
 * "pulse:SINK" (the sink named SINK), "alsa", "alsa:PCM", "virtual" (in
 * memory, real time) or "wav:PATH" (into a WAV file). `route`
 * names the virtual or WAV output's route (empty: its default). Throws
 * std::invalid_argument for any other name, or for a backend this library was
 * built without. */
NIMBARA_API std::shared_ptr<Backend> makeBackend(const std::string& name,
                                                 const std::string& route = {});
/** The names makeBackend takes, for messages: "pulse, pulse:SINK, virtual or
 * wav:PATH". */
NIMBARA_API std::string backendNames();
/** The name of the backend used when none is chosen: "pipewire" where a
 * PipeWire daemon answers, else "pulse" where a PulseAudio server runs, else
 * "alsa" (or "virtual" in a library without a real output). */
NIMBARA_API std::string defaultBackendName();
/** The calling thread's backend when a ThreadBackendScope set one, otherwise
 * the process-wide one. */
NIMBARA_API std::shared_ptr<Backend> currentBackend();
/** The same, null when the default backend cannot be made (out of memory). */
NIMBARA_API std::shared_ptr<Backend> currentBackendOrNull() noexcept;

/** Queues whose thread is still running (a transmission's last callbacks run
 * after its caller has returned). */
NIMBARA_API std::size_t activeQueues();
/** Waits until no queue thread runs. */
NIMBARA_API void waitUntilIdle();

}  // namespace nimbara::platform
#endif

#endif
