// The library's own render of a command, as raw 16-bit samples on standard
// output: the reference for commands the tool has no operation name for.
#include <nimbara/api/command.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <vector>

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: render_native NAME [ARGS...]\n");
    return 2;
  }
  std::vector<long long> arguments;
  for (int i = 2; i < argc; ++i) arguments.push_back(std::strtoll(argv[i], nullptr, 10));
  try {
    const auto samples = nimbara::renderCommand(nimbara::makeCommand(argv[1], arguments));
    std::fwrite(samples.data(), sizeof samples[0], samples.size(), stdout);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
  }
  return 0;
}
