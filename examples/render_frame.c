/* Builds the frame of an LED command with the plain functions, plays it into
 * a WAV file and tells its shape. Usage: render_frame [OUT.wav] */
#include <stdio.h>

#include <nimbara/nimbara.h>

/* Counts the library's log lines instead of printing them. */
static void countLine(const char* line, void* user) {
  (void)line;
  ++*(int*)user;
}

int main(int argc, char** argv) {
  const char* out = argc > 1 ? argv[1] : "frame.wav";
  int logLines = 0;
  nimbaraSetLogSink(countLine, &logLines);
  char backend[512];
  snprintf(backend, sizeof backend, "wav:%s", out);
  if (nimbaraAudioUseBackend(backend) != 0) return 1;

  FrameNode* frame = createLightLedProtocol(255, 0, 128, 0, 500);
  int nodes = 0;
  for (FrameNode* node = frame; node != NULL; node = node->next) {
    printf("%s%.3s(%d)", nodes++ ? " " : "", node->protocol->name, node->protocol->length);
  }
  printf("\n");
  /* The engine takes the frame over and releases it when playback ends. */
  const int32_t status = executeFunction(frame, 1, 35280, NULL);
  nimbaraAudioWaitUntilIdle();
  nimbaraSetLogSink(NULL, NULL);
  printf("%s: %s (%d log lines)\n", out, nimbaraAudioStatusText(status), logLines);
  return status == 0 && nodes == 11 && logLines > 0 ? 0 : 1;
}
