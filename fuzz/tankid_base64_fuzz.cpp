// TankId::decodeBase64 on any text, then encodeBase64: the identity read
// back from its own text is the same identity.
#include <nimbara/tank/TankId.h>

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  nimbara::TankId tank;
  tank.decodeBase64(std::string(reinterpret_cast<const char*>(data), size));
  const std::string text = tank.encodeBase64();
  if (text.size() != 12 || text.compare(10, 2, "==") != 0) std::abort();
  nimbara::TankId again;
  again.decodeBase64(text);
  if (again.description() != tank.description() || again.encode() != tank.encode()) std::abort();
  return 0;
}
