#include "platform/config_agent.h"

#include <map>
#include <string>
#include <thread>

#include "bus_test.h"

namespace test {
namespace {

using Tessaro::Iot::Component::CConfigAgent;

constexpr const char* service_name = "iot.dmp.configmanager";
constexpr const char* service_path = "/iot/dmp/configmanager";
constexpr int32_t no_value = 100100;
constexpr int32_t timeout_ms = 10'000;

class ConfigAgentTest : public BusTest {
 protected:
  void SetUp() override {
    BusTest::SetUp();
    channel_ = new_channel();
    service_ = new_channel(service_name, service_path);
    agent_ = std::make_unique<CConfigAgent>(channel_.get(), channel_name);
    service_->register_method_callback("get_config", [this](CDBusRequest& request, CDBusResponse& response, bool&) {
      std::string key;
      EXPECT_TRUE(request.get_string(key));
      const auto found = store_.find(key);
      EXPECT_TRUE(response.set_int32(found == store_.end() ? no_value : 0));
      EXPECT_TRUE(response.set_string(found == store_.end() ? "" : found->second));
    });
    service_->register_method_callback("set_config", [this](CDBusRequest& request, CDBusResponse& response, bool&) {
      signature_ = dbus_message_get_signature(request.message());
      std::string key;
      EXPECT_TRUE(request.get_string(key) && request.get_string(store_[key]));
      EXPECT_TRUE(response.set_int32(0));
    });
    service_->register_method_callback("reset_config", [this](CDBusRequest&, CDBusResponse& response, bool&) {
      store_.clear();
      EXPECT_TRUE(response.set_int32(0));
    });
    service_->register_method_callback(
        "flush_config", [](CDBusRequest&, CDBusResponse& response, bool&) { EXPECT_TRUE(response.set_int32(77)); });
    ASSERT_TRUE(channel_->start());
    ASSERT_TRUE(service_->start());
  }

  std::map<std::string, std::string> store_;  // of the dispatch thread of `service_`
  std::string signature_;
  std::unique_ptr<CDBusChannel> channel_;
  std::unique_ptr<CDBusChannel> service_;
  std::unique_ptr<CConfigAgent> agent_;
};

TEST_F(ConfigAgentTest, gives_back_what_was_set) {
  std::string value;
  EXPECT_EQ(agent_->set_config("gateway/pk", "k\xc3\xa4se", timeout_ms, true), 0);
  EXPECT_EQ(agent_->get_config("gateway/pk", value, timeout_ms), 0);
  EXPECT_EQ(value, "k\xc3\xa4se");
  service_->stop();
  EXPECT_EQ(signature_, "ssb");
}

TEST_F(ConfigAgentTest, leaves_the_value_empty_when_the_key_has_none) {
  std::string value = "old";
  EXPECT_EQ(agent_->get_config("unknown", value, timeout_ms), no_value);
  EXPECT_EQ(value, "");
}

TEST_F(ConfigAgentTest, hands_the_services_codes_on) {
  std::string value;
  EXPECT_EQ(agent_->set_config("a", "b", timeout_ms, false), 0);
  EXPECT_EQ(agent_->reset_config(timeout_ms), 0);
  EXPECT_EQ(agent_->get_config("a", value, timeout_ms), no_value);
  EXPECT_EQ(agent_->flush_config(timeout_ms), 77);
}

TEST_F(ConfigAgentTest, refuses_text_that_the_bus_does_not_carry) {
  std::string value = "old";
  EXPECT_EQ(agent_->get_config("\xff", value, timeout_ms), CConfigAgent::refused);
  EXPECT_EQ(value, "");
  EXPECT_EQ(agent_->set_config("key", "\xff", timeout_ms, false), CConfigAgent::refused);
  EXPECT_EQ(agent_->set_config("\xff", "value", timeout_ms, false), CConfigAgent::refused);
  EXPECT_EQ(agent_->set_config("key", std::string("a\0b", 3), timeout_ms, false), CConfigAgent::refused);
  EXPECT_LT(CConfigAgent::refused, 0);
}

TEST_F(ConfigAgentTest, says_why_there_was_no_code) {
  std::string value;
  service_->register_method_callback("flush_config", [](CDBusRequest&, CDBusResponse&, bool&) {});
  EXPECT_EQ(agent_->flush_config(timeout_ms), CDBusChannel::call_failed);
  service_->register_method_callback("flush_config", [](CDBusRequest&, CDBusResponse&, bool& later) { later = true; });
  EXPECT_EQ(agent_->flush_config(50), CDBusChannel::call_timed_out);
  service_->stop();
  EXPECT_EQ(agent_->get_config("a", value, timeout_ms), CDBusChannel::call_unanswerable);
  channel_->stop();
  EXPECT_EQ(agent_->get_config("a", value, timeout_ms), CDBusChannel::call_closed);
}

TEST_F(ConfigAgentTest, is_ended_at_once_when_its_channel_is_stopped) {
  Gate asked;
  service_->register_method_callback("reset_config", [&asked](CDBusRequest&, CDBusResponse&, bool& later) {
    later = true;
    asked.open();
  });
  std::thread client([this] { EXPECT_EQ(agent_->reset_config(60'000), CDBusChannel::call_closed); });
  ASSERT_TRUE(asked.pass());
  channel_->stop();
  client.join();
}

}  // namespace
}  // namespace test
