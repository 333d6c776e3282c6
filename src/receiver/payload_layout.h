// What a payload can be: each command's opcode with the lengths its
// parameter comes in and even parity (a request's parameter is eight 0-bits,
// so its whole payload is fixed), and any bits of a valid length, which is
// how a payload no command has is told.
#pragma once

#include <array>
#include <string>
#include <vector>

namespace nimbara::receiver {

constexpr int kLongestPayload = 57;
constexpr int kPayloadLengths[] = {17, 25, 41, 57};

struct PayloadLayout {
  std::string prefix;                            // the leading bits it fixes
  std::array<bool, kLongestPayload + 1> ends{};  // the lengths it may have
  bool evenParity = false;
  int longest() const {
    int n = kLongestPayload;
    while (n > 0 && !ends[n]) --n;
    return n;
  }
};

// The commands' layouts, then the layout of any bits (always last).
std::vector<PayloadLayout> payloadLayouts();

// Whether `bits` fit one of the commands' layouts.
bool isCommandPayload(const std::vector<PayloadLayout>& layouts, const std::string& bits);

}  // namespace nimbara::receiver
