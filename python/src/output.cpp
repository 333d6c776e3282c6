// Output: one audio output (pulse, pulse:SINK, virtual, wav:PATH) and the
// transmissions sent on it. The library has one current backend per process,
// so every use of an output installs it under one lock and removes it after:
// transmissions from several threads or outputs take turns, and between them
// no output is left installed.
#include <nimbara/api/NimbaraProtocol.h>
#include <nimbara/api/command.h>
#include <nimbara/api/vocabulary.h>
#include <nimbara/device/route.h>
#include <nimbara/platform/audio_queue.h>
#include <nimbara/platform/backend.h>
#include <nimbara/receiver/receiver.h>
#include <nimbara/signal/signal_format.h>
#include <pybind11/stl.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "bindings.h"

namespace py = pybind11;

namespace nimbara::python {
namespace {

std::mutex& outputMutex() {
  static std::mutex mutex;
  return mutex;
}

// The controller that checks presence and answers for the tank and the echo.
// Never destroyed: its destructor releases the process-wide signal units,
// which audio threads may still use while the interpreter exits.
NimbaraProtocol& controller() {
  static NimbaraProtocol* protocol = new NimbaraProtocol;
  return *protocol;
}

// Installs a backend for the lifetime of a locked section.
class Installed {
 public:
  explicit Installed(std::shared_ptr<platform::Backend> backend) {
    platform::setBackend(std::move(backend));
  }
  ~Installed() { platform::setBackend(nullptr); }
  Installed(const Installed&) = delete;
  Installed& operator=(const Installed&) = delete;
};

std::string currentRoute() {
  char route[512];
  return nimbaraAudioSessionCopyRouteName(route, sizeof route) == 0 ? route : "";
}

// Whether the output keeps what it plays, for its accessory to hear: asked
// once, while nothing has played yet.
bool keepsWhatItPlays(platform::Backend& output) {
  std::vector<std::int16_t> nothing;
  return output.takePlayed(&nothing) == NIMBARA_AUDIO_OK;
}

class Output {
 public:
  Output(const std::string& device, const std::string& route, bool allowResampling)
      : backend_(platform::makeBackend(device, route)), hears_(keepsWhatItPlays(*backend_)) {
    // Without it each backend keeps its own default, as in the tool.
    if (allowResampling && backend_->setAllowResampling(true) != 0) {
      throw py::value_error(std::string("the ") + backend_->name() +
                            " output plays at 44100 Hz or not at all: it cannot allow resampling");
    }
    py::gil_scoped_release release;
    std::lock_guard lock(outputMutex());
    Installed installed(backend_);
    controller().initialize(nullptr);  // the session set-up, on this output
  }

  ~Output() {
    // A backend's teardown may log; the log may call Python.
    auto backend = std::move(backend_);
    py::gil_scoped_release release;
    backend.reset();
  }

  void close() {
    auto backend = std::move(backend_);
    py::gil_scoped_release release;
    backend.reset();
  }

  bool closed() const { return !backend_; }

  std::optional<std::string> route() {
    auto backend = live();
    py::gil_scoped_release release;
    std::lock_guard lock(outputMutex());
    std::string name;
    if (backend->routeName(&name) != 0) return std::nullopt;
    return name;
  }

  bool present() {
    auto backend = live();
    py::gil_scoped_release release;
    std::lock_guard lock(outputMutex());
    Installed installed(backend);
    return isHeadsetPluggedIn();
  }

  // Checks presence (unless skipped), sends and waits until the output has
  // taken everything. Returns (sent, status, answer, route): sent is false
  // when no device is on the route (then route names it); answer is the
  // controller's tank identity or echo, or None.
  py::tuple transmit(const std::string& fields, bool skipPrecheck) {
    auto backend = live();
    const Command command = commandFromFields(fields);
    const CommandAnswer answers = commandForm(command).answer;
    bool sent = false;
    std::int32_t status = 0;
    std::shared_ptr<TankId> tank;
    std::uint32_t echoed = 0;
    std::string route;
    {
      py::gil_scoped_release release;
      std::lock_guard lock(outputMutex());
      Installed installed(backend);
      NimbaraProtocol& protocol = controller();
      protocol.setPreCheck(skipPrecheck);
      try {
        if (answers == CommandAnswer::Tank) {
          tank = protocol.getTankId();
        } else if (answers == CommandAnswer::Echo) {
          echoed = protocol.echo(command.number);
        } else {
          protocol.preCheckDevice();
        }
        sent = true;
      } catch (const NimbaraException&) {
        route = currentRoute();
      }
      if (sent) {
        status = sendCommand(command);
        platform::waitUntilIdle();
        if (hears_) hear(*backend);
      }
    }
    // Ctrl-C pressed while the sound played: the command went out whole;
    // KeyboardInterrupt now.
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
    py::object answer = py::none();
    if (tank) answer = py::cast(tank);
    if (answers == CommandAnswer::Echo) answer = py::int_(echoed);
    return py::make_tuple(sent, status, answer, route);
  }

  // What the virtual accessory decoded since the last call.
  py::list heard() {
    live();
    if (!hears_) throw py::type_error("only the virtual device hears what it plays");
    std::vector<Transmission> taken;
    {
      py::gil_scoped_release release;
      std::lock_guard lock(outputMutex());
      taken.swap(heard_);
    }
    py::list out;
    for (const auto& t : taken) out.append(transmissionDict(t));
    return out;
  }

 private:
  std::shared_ptr<platform::Backend> live() const {
    if (!backend_) throw py::value_error("the accessory is closed");
    return backend_;
  }

  // The virtual accessory listens to each transmission as it is played;
  // only the decoded commands are kept. Called under outputMutex().
  void hear(platform::Backend& output) {
    std::vector<std::int16_t> played;
    if (output.takePlayed(&played) != NIMBARA_AUDIO_OK) return;
    Receiver receiver(NIMBARA_SAMPLE_RATE, NIMBARA_CHANNELS);
    receiver.push(played.data(), played.size() / 2);
    receiver.finish();
    for (auto& t : receiver.take()) heard_.push_back(std::move(t));
  }

  std::shared_ptr<platform::Backend> backend_;
  bool hears_;                       // the output keeps what it plays (the virtual device)
  std::vector<Transmission> heard_;  // under outputMutex()
};

}  // namespace

void bindOutput(py::module_& m) {
  py::class_<Output>(m, "Output")
      .def(py::init<const std::string&, const std::string&, bool>(), py::arg("device"),
           py::arg("route"), py::arg("allow_resampling"))
      .def("close", &Output::close)
      .def_property_readonly("closed", &Output::closed)
      .def("route", &Output::route)
      .def("present", &Output::present)
      .def("transmit", &Output::transmit, py::arg("fields"), py::arg("skip_precheck"))
      .def("heard", &Output::heard);
  m.def(
      "status_text",
      [](std::int32_t status) { return std::string(nimbaraAudioStatusText(status)); },
      py::arg("status"));
}

}  // namespace nimbara::python
