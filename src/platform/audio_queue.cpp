// The output queue shared by every backend: buffers, the enqueued ring, the
// queue's thread that plays buffers and calls back, and the dispose rules the
// playback engine's counting depends on. Backends only supply the stream.
#include <nimbara/platform/audio_queue.h>

#include <nimbara/platform/backend.h>
#include <nimbara/signal/signal_format.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

#include "common/bounded_queue.h"
#include "common/log.h"

using nimbara::platform::Backend;
using nimbara::platform::OutputStream;

struct NimbaraAudioQueue {
  std::shared_ptr<Backend> backend;
  std::unique_ptr<OutputStream> stream;
  NimbaraAudioQueueOutputCallback callback = nullptr;
  void* userData = nullptr;

  std::array<NimbaraAudioBuffer, NIMBARA_AUDIO_MAX_BUFFERS> buffers{};
  std::array<std::unique_ptr<std::uint8_t[]>, NIMBARA_AUDIO_MAX_BUFFERS> storage;
  std::array<std::atomic<bool>, NIMBARA_AUDIO_MAX_BUFFERS> inQueue{};
  std::atomic<unsigned> bufferCount{0};
  nimbara::detail::BoundedQueue<NimbaraAudioBuffer*, NIMBARA_AUDIO_MAX_BUFFERS> pending;

  std::atomic<std::int32_t> failure{0};  // the output's first failure
  std::atomic<bool> done{false};         // the thread has closed the stream
  std::atomic<std::uint32_t> signal{0};  // bumped whenever the thread has news
  std::atomic<bool> started{false};
  std::atomic<bool> disposed{false};
  std::atomic<bool> orphaned{false};  // the owner released the handle
  std::atomic<bool> stop{false};      // tells the stream to give up the current buffer
  std::atomic<int> refs{1};

  ~NimbaraAudioQueue() {
    // A started queue's thread closes the stream; an unstarted one closes here.
    if (stream && !started.load(std::memory_order_acquire)) stream->close();
  }

  void wake() {
    signal.fetch_add(1, std::memory_order_release);
    signal.notify_one();
  }

  void fail(std::int32_t status) {
    std::int32_t none = 0;
    if (status != 0) failure.compare_exchange_strong(none, status, std::memory_order_acq_rel);
  }

  void dropRef() {
    if (refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

  int indexOf(const NimbaraAudioBuffer* buffer) const {
    const unsigned count = bufferCount.load(std::memory_order_acquire);
    for (unsigned i = 0; i < count; ++i) {
      if (&buffers[i] == buffer) return static_cast<int>(i);
    }
    return -1;
  }
};

namespace {

std::atomic<std::size_t> runningQueues{0};

// Queue threads are joined once they have finished, by the next start or by
// waitUntilIdle, so that no thread outlives its accounting.
struct ThreadRegistry {
  std::mutex mutex;
  std::vector<std::thread> live;
  std::vector<std::thread::id> finished;

  // Never destroyed, since threads may outlive statics; and in static
  // storage, so that the first start cannot fail for want of memory.
  static ThreadRegistry& instance() {
    alignas(ThreadRegistry) static unsigned char storage[sizeof(ThreadRegistry)];
    static ThreadRegistry* registry = new (storage) ThreadRegistry;
    return *registry;
  }

  // Room for one more thread, made before it starts: neither adding it nor
  // its own markFinished can then fail for want of memory.
  void reserveOne() {
    std::lock_guard lock(mutex);
    live.reserve(live.size() + 1);
    finished.reserve(live.size() + finished.size() + 1);
  }

  void add(std::thread thread) {
    std::lock_guard lock(mutex);
    live.push_back(std::move(thread));
  }

  void markFinished() {
    std::lock_guard lock(mutex);
    finished.push_back(std::this_thread::get_id());
  }

  // Joins the threads that have finished. A finished thread has nothing left
  // to do but count itself out, so joining under the lock is short, and
  // needs no memory.
  void reap() {
    std::lock_guard lock(mutex);
    // A thread may finish before its starter has registered it: such an id
    // stays until the next reap.
    std::erase_if(finished, [&](std::thread::id id) {
      auto it = std::find_if(live.begin(), live.end(),
                             [id](const std::thread& t) { return t.get_id() == id; });
      if (it == live.end()) return false;
      it->join();
      live.erase(it);
      return true;
    });
  }
};

bool isPlayableFormat(const NimbaraStreamFormat& f) {
  constexpr std::uint32_t kBytesPerFrame = 2 * NIMBARA_CHANNELS;
  return f.sampleRate == NIMBARA_SAMPLE_RATE && f.formatID == NIMBARA_FORMAT_LINEAR_PCM &&
         (f.formatFlags & NIMBARA_FORMAT_FLAG_SIGNED_INTEGER) != 0 &&
         f.bytesPerPacket == kBytesPerFrame && f.framesPerPacket == 1 &&
         f.bytesPerFrame == kBytesPerFrame && f.channelsPerFrame == NIMBARA_CHANNELS &&
         f.bitsPerChannel == 16;
}

const std::int16_t* samplesOf(const NimbaraAudioBuffer& buffer) {
  return static_cast<const std::int16_t*>(buffer.audioData);
}

std::size_t framesOf(const NimbaraAudioBuffer& buffer) {
  return buffer.audioDataByteSize / 4;
}

// The queue's thread: play each enqueued buffer, then hand it back. Once the
// queue is disposed of, what is still enqueued comes back unplayed.
void runQueue(NimbaraAudioQueue* q) {
  nimbara::detail::markAudioThread();
  const bool returnAfterDispose = q->backend->returnsBuffersAfterDispose();
  for (;;) {
    if (q->orphaned.load(std::memory_order_acquire)) break;
    const std::uint32_t seen = q->signal.load(std::memory_order_acquire);
    NimbaraAudioBuffer* buffer = nullptr;
    if (!q->pending.tryPop(&buffer)) {
      if (q->disposed.load(std::memory_order_acquire)) break;
      q->signal.wait(seen, std::memory_order_acquire);
      continue;
    }
    const bool disposed = q->disposed.load(std::memory_order_acquire);
    if (!disposed) q->fail(q->stream->play(samplesOf(*buffer), framesOf(*buffer), q->stop));
    q->inQueue[static_cast<std::size_t>(q->indexOf(buffer))].store(false,
                                                                   std::memory_order_release);
    if (q->orphaned.load(std::memory_order_acquire)) break;
    if (!q->disposed.load(std::memory_order_acquire) || returnAfterDispose) {
      q->callback(q->userData, q, buffer);
    }
  }
  q->fail(q->stream->close());
  q->done.store(true, std::memory_order_release);
  q->done.notify_all();
  q->dropRef();
  ThreadRegistry::instance().markFinished();
  runningQueues.fetch_sub(1, std::memory_order_acq_rel);
  runningQueues.notify_all();
}

}  // namespace

const char* nimbaraAudioStatusText(int32_t status) {
  switch (status) {
    case NIMBARA_AUDIO_OK:
      return "success";
    case NIMBARA_AUDIO_ERR_NO_SERVER:
      return "the audio server cannot be reached";
    case NIMBARA_AUDIO_ERR_FORMAT:
      return "the stream format is not 44100 Hz 16-bit stereo PCM";
    case NIMBARA_AUDIO_ERR_DISPOSED:
      return "the audio queue has been disposed of";
    case NIMBARA_AUDIO_ERR_INVALID:
      return "invalid argument";
    case NIMBARA_AUDIO_ERR_NO_MEMORY:
      return "out of memory or buffer slots";
    case NIMBARA_AUDIO_ERR_BUSY:
      return "buffer already enqueued or queue already started";
    case NIMBARA_AUDIO_ERR_IO:
      return "the audio output failed";
    case NIMBARA_AUDIO_ERR_NO_ROUTE:
      return "the audio route cannot be read";
    case NIMBARA_AUDIO_ERR_STREAM:
      return "the audio server refused the playback stream";
    case NIMBARA_AUDIO_ERR_LOST:
      return "the audio output was lost while playing";
    case NIMBARA_AUDIO_ERR_NOT_SUPPORTED:
      return "not supported";
    case NIMBARA_AUDIO_ERR_RAN_DRY:
      return "the output ran dry while the command played";
    case NIMBARA_AUDIO_ERR_NO_SUCH_NAME:
      return "no output or source of that name";
    case NIMBARA_AUDIO_ERR_RATE:
      return "the output cannot run at 44100 Hz without resampling the signal, and resampling "
             "is not allowed (allow it to play resampled)";
    default:
      return status < 0 ? "unknown audio error" : "platform status";
  }
}

int32_t nimbaraAudioQueueNewOutput(const NimbaraStreamFormat* format,
                                   NimbaraAudioQueueOutputCallback callback, void* userData,
                                   uint32_t /*flags*/, NimbaraAudioQueueRef* outQueue) {
  if (format == nullptr || callback == nullptr || outQueue == nullptr) {
    return NIMBARA_AUDIO_ERR_INVALID;
  }
  if (!isPlayableFormat(*format)) return NIMBARA_AUDIO_ERR_FORMAT;
  std::shared_ptr<Backend> backend = nimbara::platform::currentBackendOrNull();
  if (!backend) return NIMBARA_AUDIO_ERR_NO_MEMORY;
  std::unique_ptr<OutputStream> stream;
  if (const std::int32_t status = backend->openStream(*format, &stream)) return status;
  if (!stream) return NIMBARA_AUDIO_ERR_STREAM;
  auto* queue = new (std::nothrow) NimbaraAudioQueue;
  if (queue == nullptr) return NIMBARA_AUDIO_ERR_NO_MEMORY;
  queue->backend = std::move(backend);
  queue->stream = std::move(stream);
  queue->callback = callback;
  queue->userData = userData;
  *outQueue = queue;
  return NIMBARA_AUDIO_OK;
}

int32_t nimbaraAudioQueueAllocateBuffer(NimbaraAudioQueueRef queue, uint32_t byteSize,
                                        NimbaraAudioBufferRef* outBuffer) {
  if (queue == nullptr || outBuffer == nullptr) return NIMBARA_AUDIO_ERR_INVALID;
  if (queue->disposed.load(std::memory_order_acquire)) return NIMBARA_AUDIO_ERR_DISPOSED;
  const unsigned index = queue->bufferCount.load(std::memory_order_relaxed);
  if (index >= NIMBARA_AUDIO_MAX_BUFFERS) return NIMBARA_AUDIO_ERR_NO_MEMORY;
  if (const std::int32_t refused = queue->stream->prepareBuffer(byteSize)) return refused;
  auto& storage = queue->storage[index];
  storage.reset(new (std::nothrow) std::uint8_t[byteSize > 0 ? byteSize : 1]());
  if (!storage) return NIMBARA_AUDIO_ERR_NO_MEMORY;
  NimbaraAudioBuffer& buffer = queue->buffers[index];
  buffer.audioData = storage.get();
  buffer.audioDataBytesCapacity = byteSize;
  buffer.audioDataByteSize = 0;
  queue->bufferCount.store(index + 1, std::memory_order_release);
  *outBuffer = &buffer;
  return NIMBARA_AUDIO_OK;
}

int32_t nimbaraAudioQueueEnqueueBuffer(NimbaraAudioQueueRef queue, NimbaraAudioBufferRef buffer) {
  if (queue == nullptr || buffer == nullptr) return NIMBARA_AUDIO_ERR_INVALID;
  const int index = queue->indexOf(buffer);
  if (index < 0 || buffer->audioDataByteSize > buffer->audioDataBytesCapacity) {
    return NIMBARA_AUDIO_ERR_INVALID;
  }
  if (queue->disposed.load(std::memory_order_acquire)) return NIMBARA_AUDIO_ERR_DISPOSED;
  if (queue->inQueue[static_cast<std::size_t>(index)].exchange(true, std::memory_order_acq_rel)) {
    return NIMBARA_AUDIO_ERR_BUSY;
  }
  if (const std::int32_t refused = queue->stream->enqueued(samplesOf(*buffer), framesOf(*buffer))) {
    queue->inQueue[static_cast<std::size_t>(index)].store(false, std::memory_order_release);
    return refused;
  }
  queue->pending.tryPush(buffer);  // cannot be full: one slot per buffer
  queue->wake();
  return NIMBARA_AUDIO_OK;
}

int32_t nimbaraAudioQueueStart(NimbaraAudioQueueRef queue) {
  if (queue == nullptr) return NIMBARA_AUDIO_ERR_INVALID;
  if (queue->disposed.load(std::memory_order_acquire)) return NIMBARA_AUDIO_ERR_DISPOSED;
  if (queue->started.load(std::memory_order_acquire)) return NIMBARA_AUDIO_ERR_BUSY;
  if (const std::int32_t refused = queue->stream->start()) return refused;
  if (queue->started.exchange(true, std::memory_order_acq_rel)) return NIMBARA_AUDIO_ERR_BUSY;
  queue->refs.fetch_add(1, std::memory_order_relaxed);
  runningQueues.fetch_add(1, std::memory_order_acq_rel);
  try {
    ThreadRegistry::instance().reap();
    ThreadRegistry::instance().reserveOne();
    ThreadRegistry::instance().add(std::thread(runQueue, queue));
  } catch (...) {  // no memory or no thread: the queue cannot run
    runningQueues.fetch_sub(1, std::memory_order_acq_rel);
    queue->started.store(false, std::memory_order_release);
    queue->dropRef();
    return NIMBARA_AUDIO_ERR_NO_MEMORY;
  }
  return NIMBARA_AUDIO_OK;
}

int32_t nimbaraAudioQueueDispose(NimbaraAudioQueueRef queue, bool immediate) {
  if (queue == nullptr || !immediate) return NIMBARA_AUDIO_ERR_INVALID;
  if (queue->disposed.exchange(true, std::memory_order_acq_rel)) return NIMBARA_AUDIO_ERR_DISPOSED;
  queue->stop.store(true, std::memory_order_release);
  queue->wake();
  return NIMBARA_AUDIO_OK;
}

int32_t nimbaraAudioQueueGetStatus(NimbaraAudioQueueRef queue) {
  if (queue == nullptr) return NIMBARA_AUDIO_ERR_INVALID;
  return queue->failure.load(std::memory_order_acquire);
}

void nimbaraAudioQueueWaitUntilDone(NimbaraAudioQueueRef queue) {
  if (queue == nullptr || !queue->started.load(std::memory_order_acquire)) return;
  queue->done.wait(false, std::memory_order_acquire);
}

void nimbaraAudioQueueRelease(NimbaraAudioQueueRef queue) {
  if (queue == nullptr) return;
  queue->orphaned.store(true, std::memory_order_release);
  queue->stop.store(true, std::memory_order_release);
  queue->wake();
  queue->dropRef();
}

namespace nimbara::platform {

std::size_t activeQueues() {
  return runningQueues.load(std::memory_order_acquire);
}

void waitUntilIdle() {
  for (std::size_t n = activeQueues(); n != 0; n = activeQueues()) {
    runningQueues.wait(n, std::memory_order_acquire);
  }
  ThreadRegistry::instance().reap();
}

}  // namespace nimbara::platform

void nimbaraAudioWaitUntilIdle(void) {
  nimbara::platform::waitUntilIdle();
}
