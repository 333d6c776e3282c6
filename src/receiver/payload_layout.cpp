#include "receiver/payload_layout.h"

#include <nimbara/api/command.h>

#include <algorithm>

namespace nimbara::receiver {

std::vector<PayloadLayout> payloadLayouts() {
  std::vector<PayloadLayout> result;
  for (unsigned opcode = 0; opcode < 256; ++opcode) {
    PayloadLayout layout;
    for (unsigned bit = 0; bit < 8; ++bit) layout.prefix += (opcode >> (7 - bit)) & 1 ? '1' : '0';
    for (unsigned parameterBits : {8u, 16u, 32u, 48u}) {
      if (std::string(verbOfOpcode(opcode, parameterBits, nullptr)) == "unknown") continue;
      layout.ends[9 + parameterBits] = true;
      if (parameterBits == 8) {
        const auto ones = std::count(layout.prefix.begin(), layout.prefix.end(), '1');
        layout.prefix += std::string(8, '0') + (ones % 2 ? '1' : '0');
      }
    }
    if (layout.longest() == 0) continue;
    layout.evenParity = true;
    result.push_back(layout);
  }
  PayloadLayout any;
  for (int n : kPayloadLengths) any.ends[n] = true;
  result.push_back(any);
  return result;
}

bool isCommandPayload(const std::vector<PayloadLayout>& layouts, const std::string& bits) {
  const auto ones = std::count(bits.begin(), bits.end(), '1');
  return ones % 2 == 0 &&
         std::any_of(layouts.begin(), layouts.end() - 1, [&](const PayloadLayout& layout) {
           return bits.size() < layout.ends.size() && layout.ends[bits.size()] &&
                  bits.compare(0, layout.prefix.size(), layout.prefix) == 0;
         });
}

}  // namespace nimbara::receiver
