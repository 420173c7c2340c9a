// scene: runs scenes, that is, sets a list of things to the values that the scene's name stands for.
//
// It takes the name iot.gateway.scene. The scenes are in config/scenes.json of the installation; what has been set is
// in /quorvane/run/scene/state, and is taken up again by the next process. With -level=1 high availability is on: the
// same text is kept in /quorvane/run/scene/partner/state too, for the partner to fetch.
//
// usage: scene [--scenes=FILE] [-script=PID] [-level=0|1]
//        scene -stop    stops what startSC.sh has started
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

#include "scene_options.h"
#include "scenes.h"
#include "script_form.h"
#include "service.h"

namespace {

constexpr const char* state_name = "scene";
constexpr const char* partner_name = "scene/partner";

constexpr const char* introspection = R"(
  <method name="list"><arg name="scenes" type="as" direction="out"/></method>
  <method name="run"><arg name="scene" type="s" direction="in"/><arg name="done" type="b" direction="out"/></method>
  <method name="last"><arg name="scene" type="s" direction="out"/></method>
  <method name="level"><arg name="level" type="i" direction="out"/></method>)";

std::string content(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::filesystem::path state_file(const char* name) { return std::filesystem::path(gateway::run_root) / name / "state"; }

class SceneService {
 public:
  explicit SceneService(const gateway::SceneOptions& options) : level_(options.level) {
    (void)gateway::parse_scenes(content(options.scenes), scenes_, problem_);  // the state tells the problem
    state_ = gateway::parse_state(content(state_file(state_name)));
    std::error_code ignored;
    // An old copy must not be taken for the present state.
    if (level_ == 0) std::filesystem::remove(state_file(partner_name), ignored);
    keep();
  }

  // Writes the state down, unless it has been. To be called again and again: the directory may vanish.
  void keep() {
    const std::string text = gateway::format_state(state_, level_, problem_);
    if (content(state_file(state_name)) != text) (void)gateway::write_state(state_name, text);  // tried again
    if (level_ == 1 && content(state_file(partner_name)) != text) (void)gateway::write_state(partner_name, text);
  }

  void register_at(gateway::BusService& service) {
    service.method("list", [this](DBusMessage*, DBusMessage* reply) { return list(reply); });
    service.method("run", [this](DBusMessage* call, DBusMessage* reply) { return run(call, reply); });
    service.method("last", [this](DBusMessage*, DBusMessage* reply) {
      const char* text = state_.last.c_str();
      return dbus_message_append_args(reply, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID) != FALSE;
    });
    service.method("level", [this](DBusMessage*, DBusMessage* reply) {
      return dbus_message_append_args(reply, DBUS_TYPE_INT32, &level_, DBUS_TYPE_INVALID) != FALSE;
    });
  }

 private:
  bool list(DBusMessage* reply) const {
    DBusMessageIter results;
    DBusMessageIter array;
    dbus_message_iter_init_append(reply, &results);
    dbus_message_iter_open_container(&results, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING_AS_STRING, &array);
    for (const auto& [name, actions] : scenes_) {
      const char* text = name.c_str();
      dbus_message_iter_append_basic(&array, DBUS_TYPE_STRING, &text);
    }
    dbus_message_iter_close_container(&results, &array);
    return true;
  }

  bool run(DBusMessage* call, DBusMessage* reply) {
    const char* name = nullptr;
    if (!dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID)) return false;
    const auto found = scenes_.find(name);
    const dbus_bool_t done = found != scenes_.end();
    if (done) {
      state_.run(found->first, found->second);
      keep();
    }
    return dbus_message_append_args(reply, DBUS_TYPE_BOOLEAN, &done, DBUS_TYPE_INVALID) != FALSE;
  }

  std::int32_t level_;
  gateway::Scenes scenes_;
  gateway::SceneState state_;
  std::string problem_;
};

int serve(const gateway::SceneOptions& options) {
  using namespace std::chrono_literals;
  gateway::StopSignal stop;
  // After the signal is taken care of: from here on the script's end is one.
  if (options.script != 0 && !gateway::end_with_script(options.script)) return EXIT_SUCCESS;
  SceneService scene(options);
  gateway::BusService service("iot.gateway.scene", "/iot/gateway/scene", introspection, stop);
  scene.register_at(service);
  if (!service.connect()) return EXIT_FAILURE;
  do {
    service.feed_dog("scenes", 15s);
    scene.keep();
  } while (service.serve(5s));
  return stop.stopped() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
  const gateway::SceneOptions options = gateway::read_scene_options(argc, argv);
  if (options.stop) return gateway::stop_script_form() ? EXIT_SUCCESS : EXIT_FAILURE;
  return serve(options);
}
