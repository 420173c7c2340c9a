// Messages of the bus. The first byte chooses the member; its high bit says that the rest is a whole message, else the
// rest is the one string of it.
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>

#include "fake_channel.h"
#include "fake_world.h"
#include "fuzz.h"
#include "platform/json_opr.h"
#include "platform/text.h"
#include "start_up.h"

namespace Tessaro::Iot::Quorvaned {

// A friend of the controller, here as in the unit tests.
class StartupProbe {
 public:
  explicit StartupProbe(CStartup& startup) : startup_(startup) {}
  void register_handlers() const { startup_.register_handlers(); }
  void begin() const {
    startup_.running = true;
    startup_.pending.identity = {};
  }
  [[nodiscard]] bool running() const { return startup_.running; }
  [[nodiscard]] bool load_services() const { return startup_.service_manager->load_services() == 1; }
  [[nodiscard]] bool has_identity() const {
    for (const std::string& value : startup_.pending.identity) {
      if (value.empty()) return false;
    }
    return true;
  }

 private:
  CStartup& startup_;
};

}  // namespace Tessaro::Iot::Quorvaned

using namespace Tessaro::Iot;
using namespace Tessaro::Iot::Component;
using namespace Tessaro::Iot::Quorvaned;

namespace {

constexpr std::array<const char*, 2> methods = {"set_gateway_triple", "get_le_status"};
constexpr std::array<const char*, 2> signals = {"feedDog", "NameOwnerChanged"};

// The catalogue is read relative to the working directory, once.
StartupProbe& controller() {
  static CStartup& startup = *new CStartup(-1, {});
  static StartupProbe probe(startup);
  static const bool ready = [] {
    const std::filesystem::path before = std::filesystem::current_path();
    std::string directory = "/tmp/request-XXXXXX";
    Fuzz::require(::mkdtemp(directory.data()) != nullptr, "there is a directory");
    std::filesystem::create_directories(directory + "/config");
    std::filesystem::create_directories(directory + "/bin");
    std::ofstream(directory + "/config/services.json")
        << R"([{"exec":"a\u0007b","monitor":1,"dbus_name":"iot.a"},{"exec":"c"}])";
    std::filesystem::current_path(directory + "/bin");
    const bool loaded = probe.load_services();
    std::filesystem::current_path(before);
    std::filesystem::remove_all(directory);
    return loaded;
  }();
  Fuzz::require(ready, "the catalogue is read");
  return probe;
}

DBusMessagePtr message_of(const char* member, bool is_call, const std::string& text) {
  CDBusRequest call("iot.gateway.quorvaned", "/iot/gateway/quorvaned", "iot.gateway.quorvaned", member);
  CDBusSignal signal("/iot/gateway/watchdog", "iot.gateway.watchdog", member);
  CDBusMessageOpr& message = is_call ? static_cast<CDBusMessageOpr&>(call) : signal;
  Fuzz::require(message.set_string(text) == Text::is_bus_text(text), "what the bus would refuse is refused");
  dbus_message_set_serial(message.message(), 1);
  Fuzz::require(!message.set_string("more"), "a message that was sent takes no more");
  return message.take();
}

DBusMessagePtr message_of(std::string_view bytes) {
  DBusMessagePtr message(dbus_message_demarshal(bytes.data(), static_cast<int>(bytes.size()), nullptr));
  if (message != nullptr && dbus_message_get_serial(message.get()) == 0) message.reset();  // the bus lets none in
  return message;
}

void call(const char* member, DBusMessagePtr message) {
  CDBusRequest request(std::move(message));
  CDBusResponse response(request);
  // What libdbus wrote as an answer has no serial yet, so the handler can write to it.
  bool later = false;
  Fakes::fake_channel("iot.gateway.quorvaned").methods[member](request, response, later);
  std::string text;
  Fuzz::require(!later && response.get_string(text), "a call is answered with a string");
  if (member != methods[0]) return;
  Json::Value reply;
  Fuzz::require(JsonOpr::string_to_json(text, reply), "which is an object");
  const int32_t code = JsonOpr::get_json_value(reply, "code", -1);
  Fuzz::require(code >= 0 && code <= 2, "with a code that is known");
  Fuzz::require((code == 0) == controller().has_identity(), "0 means that a whole identity has come");
  Fuzz::require((code == 0) == !controller().running(), "which begins the stack anew");
}

void signal(const char* member, DBusMessagePtr message) {
  CDBusSignal arrived(std::move(message));
  Fakes::fake_channel("iot.gateway.watchdog").signals[member](arrived);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Fuzz::silence_stderr();
  Fakes::World::get().reset();
  controller().register_handlers();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int initialized = LLVMFuzzerInitialize(nullptr, nullptr);
  (void)initialized;
  if (size == 0) return 0;
  Fakes::World& world = Fakes::World::get();
  world.reset();
  world.config_answers = false;  // a change of identity would clean the run-time data
  controller().begin();
  const bool is_call = (data[0] & 2U) == 0;
  const char* const member = (is_call ? methods : signals)[data[0] & 1U];
  const std::string_view rest = Fuzz::as_text(data + 1, size - 1);
  DBusMessagePtr message = (data[0] & 0x80U) != 0 ? message_of(rest) : message_of(member, is_call, std::string(rest));
  if (message == nullptr) return 0;
  if (is_call) {
    call(member, std::move(message));
  } else {
    signal(member, std::move(message));
  }
  return 0;
}
