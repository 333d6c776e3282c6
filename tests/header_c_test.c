/* The umbrella header compiles as C, and its plain functions link from C. */
#include <stdlib.h>

#include <nimbara/nimbara.h>

int main(void) {
  ProtocolUnit* unit = create8bitProtocolUnit(5);
  int ok = unit != NULL && unit->length == 8 && countPlusBit(unit) == 2;
  free(unit->data);
  free(unit);
  return ok ? 0 : 1;
}
