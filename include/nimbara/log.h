/* The library's log: every step writes one line through a replaceable sink. */
#ifndef NIMBARA_LOG_H
#define NIMBARA_LOG_H

#include <nimbara/export.h>

NIMBARA_BEGIN_C

/** Receives one log line, zero-terminated, without time prefix or newline;
 * `user` is what was passed with it. The same contract as the C++ sink below:
 * lines in order, one at a time, the audio thread's on the log thread. */
typedef void (*NimbaraLogSink)(const char* line, void* user);

/** Replaces the library's log sink; a null sink silences the library. */
NIMBARA_API void nimbaraSetLogSink(NimbaraLogSink sink, void* user);

NIMBARA_END_C

#ifdef __cplusplus
#include <functional>
#include <string_view>

namespace nimbara {

/** Receives one log line, without time prefix and without newline, in the
 * order the lines were written, one line at a time. It is called on the
 * thread that wrote the line, except for the audio thread's lines, which
 * reach it on the library's log thread: a slow sink delays the log, never the
 * sound. A sink that throws loses that line and nothing else. */
using LogSink = std::function<void(std::string_view line)>;

/** Replaces the sink; an empty function silences the library. Lines written
 * before the call are delivered to the old sink first. The default sink writes
 * each line to stderr with a local time prefix, the process name and its id. */
NIMBARA_API void setLogSink(LogSink sink);

/** Waits until every line written so far has reached the sink: lines of other
 * threads are out when the call that wrote them returns; this waits for the
 * audio thread's too. */
NIMBARA_API void flushLog();

/** Lines of the audio thread that were dropped because the log was full. */
NIMBARA_API unsigned long long droppedLogLines();

}  // namespace nimbara
#endif

#endif
