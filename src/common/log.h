// Internal logging entry point: printf-style, formatted into a fixed buffer, so
// that it is safe on the audio thread (no allocation, no lock, never waits).
#pragma once

namespace nimbara::detail {

void log(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Marks the calling thread as an audio thread: its lines are queued for the
// log thread and never wait for the sink. Backends call it on their threads.
void markAudioThread();
bool isAudioThread();

}  // namespace nimbara::detail

#define NIMBARA_LOG(...) ::nimbara::detail::log(__VA_ARGS__)
