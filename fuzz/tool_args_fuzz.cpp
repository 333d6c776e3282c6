// The tool's command line from arbitrary words (split at zero bytes): it is
// parsed, never run, and always ends in a usage verdict or success.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "cli.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<std::string> words{"nimbara"};
  std::string word;
  for (std::size_t i = 0; i < size && words.size() < 64; ++i) {
    if (data[i] == 0) {
      words.push_back(word);
      word.clear();
    } else {
      word += static_cast<char>(data[i]);
    }
  }
  words.push_back(word);
  std::vector<const char*> argv;
  for (const std::string& w : words) argv.push_back(w.c_str());
  const int status = tool::runTool(static_cast<int>(argv.size()), argv.data(), false);
  if (status != 0 && status != 2) std::abort();
  return 0;
}
