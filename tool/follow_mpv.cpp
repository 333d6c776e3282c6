// play TRACK --follow mpv:SOCKET: mpv's JSON IPC socket tells where the film
// is (time-pos), whether it is paused and when it seeks or ends; the library's
// follower turns that into the cues that are due, sent one by one.
#include <nimbara/track/follower.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>

#include "output.h"
#include "report.h"
#include "track_commands.h"

namespace tool {
namespace {

double monotonicNow() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

class MpvSocket {
 public:
  explicit MpvSocket(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
      throw UsageError("the mpv socket's path is too long");
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0 ||
        ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      const std::string why = std::strerror(errno);
      close();
      throw std::runtime_error("cannot reach mpv at " + path + ": " + why);
    }
  }
  ~MpvSocket() { close(); }
  MpvSocket(const MpvSocket&) = delete;
  MpvSocket& operator=(const MpvSocket&) = delete;

  void send(const Json& request) {
    const std::string line = request.dump() + "\n";
    for (std::size_t sent = 0; sent < line.size();) {
      const ssize_t n = ::send(fd_, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) throw std::runtime_error(std::string("mpv's socket: ") + std::strerror(errno));
      sent += static_cast<std::size_t>(n);
    }
  }

  // Waits up to `seconds` (forever when negative) for messages; the whole
  // lines read, or false once mpv has closed the socket.
  bool receive(double seconds, std::vector<std::string>& lines) {
    pollfd p{fd_, POLLIN, 0};
    const int timeout = seconds < 0 ? -1 : static_cast<int>(std::ceil(seconds * 1000));
    const int ready = ::poll(&p, 1, timeout);
    if (ready < 0 && errno != EINTR) {
      throw std::runtime_error(std::string("mpv's socket: ") + std::strerror(errno));
    }
    if (ready <= 0) return true;
    char buffer[4096];
    const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
    if (n < 0 && errno == EINTR) return true;
    if (n <= 0) return false;
    pending_.append(buffer, static_cast<std::size_t>(n));
    for (std::size_t end; (end = pending_.find('\n')) != std::string::npos;) {
      lines.push_back(pending_.substr(0, end));
      pending_.erase(0, end + 1);
    }
    return true;
  }

 private:
  void close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

  int fd_ = -1;
  std::string pending_;
};

constexpr int kTimePos = 1, kPause = 2;

// Hands one message of mpv to the follower; false when the film has ended.
// `replies` counts mpv's answers to our requests.
bool apply(const std::string& line, nimbara::TrackFollower& follower, int& replies) {
  const Json message = Json::parse(line, nullptr, false);
  if (!message.is_object()) return true;
  if (!message.contains("event")) {
    if (message.value("error", "") != "success") {
      throw std::runtime_error("mpv refused to report the film's position: " + line);
    }
    ++replies;
    return true;
  }
  const std::string event = message["event"].get<std::string>();
  const double now = monotonicNow();
  if (event == "end-file" || event == "shutdown") return false;
  if (event == "seek") follower.seeked();
  if (event == "property-change" && message.contains("data")) {
    const Json& data = message["data"];
    if (message.value("id", 0) == kTimePos && data.is_number()) {
      follower.position(data.get<double>(), now);
    } else if (message.value("id", 0) == kPause && data.is_boolean()) {
      follower.paused(data.get<bool>(), now);
    }
  }
  return true;
}

}  // namespace

int runFollow(const Globals& globals, const std::string& path, const std::string& follow) {
  if (!follow.starts_with("mpv:") || follow.size() == 4) {
    throw UsageError("--follow takes mpv:SOCKET, not \"" + follow + "\"");
  }
  nimbara::TrackFollower follower(loadTrack(path));
  const Output output = openOutput(globals);
  checkPresence(globals);
  warnAboutLevel(output);

  MpvSocket mpv(follow.substr(4));
  mpv.send({{"command", {"observe_property", kPause, "pause"}}});
  mpv.send({{"command", {"observe_property", kTimePos, "time-pos"}}});
  int replies = 0;
  for (bool playing = true; playing;) {
    const auto next = follower.nextDue();
    std::vector<std::string> lines;
    playing = mpv.receive(next ? std::max(0.0, *next - monotonicNow()) : -1.0, lines);
    const bool subscribed = replies >= 2;
    for (const auto& line : lines) playing = playing && apply(line, follower, replies);
    if (!subscribed && replies >= 2) trace(globals, "following mpv at " + follow.substr(4));
    if (!playing) break;
    for (const auto& cue : follower.due(monotonicNow())) {
      const double sent = unixNow();
      trace(globals, "cue at " + std::to_string(cue.start) + " s: " + describeCommand(cue.command));
      const std::int32_t status = nimbara::sendCommand(cue.command);
      if (status != 0) failedOutput(globals, output, status);
      reportCue(globals, cue, sent);
    }
  }
  nimbara::platform::waitUntilIdle();
  trace(globals, "the film has ended");
  return 0;
}

}  // namespace tool
