/* Audio backends: the table of operations behind the platform audio layer,
 * and the choice of the backend that new queues and session calls use. */
#ifndef NIMBARA_PLATFORM_BACKEND_H
#define NIMBARA_PLATFORM_BACKEND_H

#include <nimbara/platform/audio_queue.h>

#ifdef __cplusplus
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

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
   * write error, a lost server) is returned, and the buffer still takes its
   * time, so that the transmission keeps its timing; the queue keeps the
   * first failure for the caller. */
  virtual std::int32_t play(const std::int16_t* samples, std::size_t frames,
                            const std::atomic<bool>& stop) = 0;
  /** Called once on the queue's thread after the last callback, outside the
   * real-time path: flush, drain, close. Its failure counts like play's. */
  virtual std::int32_t close();
};

/** An audio output and its session. Every call but OutputStream's runs on the
 * application's threads. */
class NIMBARA_API Backend {
 public:
  virtual ~Backend() = default;
  virtual const char* name() const = 0;
  /** Opens a stream for the format, already checked to be 44100 Hz s16 stereo. */
  virtual std::int32_t openStream(const NimbaraStreamFormat& format,
                                  std::unique_ptr<OutputStream>* stream) = 0;
  /** The current route's name. */
  virtual std::int32_t routeName(std::string* name) = 0;
  virtual std::int32_t initializeSession();
  virtual std::int32_t setCategoryPlayback();
  virtual std::int32_t setActive(bool active);
  virtual std::int32_t setPreferredSampleRate(double rate);
  /** The thread pause on this backend's clock; real time by default. */
  virtual void sleep(double seconds);
  /** Whether an immediate dispose hands the enqueued buffers back. */
  virtual bool returnsBuffersAfterDispose() const;
};

/** The backend for new queues and session calls. Queues keep the backend they
 * were made on. The default is the sound server's backend when the library was
 * built with one, otherwise a virtual device. */
NIMBARA_API void setBackend(std::shared_ptr<Backend> backend);

/** A backend by name, as the tool's --device takes it: "pulse" (the default
 * sink), "pulse:SINK" (the sink named SINK), "virtual" (in memory, real time)
 * or "wav:PATH" (into a WAV file). `route` names the virtual or WAV output's
 * route (empty: its default). Throws std::invalid_argument for any other
 * name, or for "pulse" in a library built without a sound server. */
NIMBARA_API std::shared_ptr<Backend> makeBackend(const std::string& name,
                                                 const std::string& route = {});
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
