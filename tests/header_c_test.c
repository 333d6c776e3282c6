/* The umbrella header compiles as C, and its plain functions link from C. */
#include <stdlib.h>

#include <nimbara/nimbara.h>

static void countLine(const char* line, void* user) {
  if (line[0] != '\0') ++*(int*)user;
}

int main(void) {
  /* The C sink receives the library's lines; a null sink silences it. */
  int lines = 0;
  nimbaraSetLogSink(countLine, &lines);
  ProtocolUnit* unit = create8bitProtocolUnit(5);
  FrameNode* frame = createAcquireProtocol();
  freeProtocolFrame(frame);
  nimbaraSetLogSink(NULL, NULL);
  const int seen = lines;
  freeProtocolFrame(createAcquireProtocol());
  int ok =
      unit != NULL && unit->length == 8 && countPlusBit(unit) == 2 && seen >= 4 && lines == seen;
  free(unit->data);
  free(unit);
  return ok ? 0 : 1;
}
