#include <string>

#include "bus_test.h"

namespace test {
namespace {

// What stands between `opening` and the next `closing` after it; empty when there is no `opening`.
std::string between(const std::string& xml, const std::string& opening, const std::string& closing) {
  const size_t begin = xml.find(opening);
  if (begin == std::string::npos) return {};
  const size_t end = xml.find(closing, begin);
  return xml.substr(begin, end - begin);
}

bool has(const std::string& xml, const std::string& part) { return xml.find(part) != std::string::npos; }

class IntrospectionTest : public BusTest {
 protected:
  void SetUp() override {
    BusTest::SetUp();
    channel_ = new_channel();
    channel_->register_method_callback("ask", [](CDBusRequest&, CDBusResponse&, bool&) {},
                                       {{{"key", "s"}, {"depth", "i"}}, {{"text", "s"}}});
    channel_->register_method_callback("plain", [](CDBusRequest&, CDBusResponse&, bool&) {});
    channel_->register_signal_callback("feedDog", [](CDBusSignal&) {}, {{{"item", "s"}}, {}});
    channel_->register_signal_callback("NameOwnerChanged", [](CDBusSignal&) {});
    ASSERT_TRUE(channel_->start());
  }

  std::string xml_at(const std::string& path) {
    return peer().call(channel_name, path, DBUS_INTERFACE_INTROSPECTABLE, "Introspect").text();
  }
  std::string own_interface() {
    return between(xml_at(channel_path), "<interface name=\"iot.test.channel\"", "</interface>");
  }

  std::unique_ptr<CDBusChannel> channel_;
};

TEST_F(IntrospectionTest, tells_the_methods_and_their_arguments) {
  const std::string ask = between(own_interface(), "<method name=\"ask\"", "</method>");
  EXPECT_TRUE(has(ask, R"(<arg name="key" type="s" direction="in"/>)"));
  EXPECT_TRUE(has(ask, R"(<arg name="depth" type="i" direction="in"/>)"));
  EXPECT_TRUE(has(ask, R"(<arg name="text" type="s" direction="out"/>)"));
  EXPECT_TRUE(has(own_interface(), R"(<method name="plain"/>)"));
}

TEST_F(IntrospectionTest, tells_the_signals_but_not_the_drivers) {
  const std::string signal = between(own_interface(), "<signal name=\"feedDog\"", "</signal>");
  EXPECT_TRUE(has(signal, R"(<arg name="item" type="s"/>)"));
  EXPECT_FALSE(has(xml_at(channel_path), "NameOwnerChanged"));
}

TEST_F(IntrospectionTest, follows_what_is_registered) {
  channel_->register_method_callback("ask", nullptr);
  channel_->register_signal_callback("feedDog", nullptr);
  channel_->register_method_callback("fresh", [](CDBusRequest&, CDBusResponse&, bool&) {}, {{{"a&b", "s"}}, {}});
  const std::string interface = own_interface();
  EXPECT_FALSE(has(interface, "ask"));
  EXPECT_FALSE(has(interface, "feedDog"));
  EXPECT_TRUE(has(interface, R"(<method name="fresh")"));
  EXPECT_TRUE(has(interface, R"(name="a&amp;b")"));
}

TEST_F(IntrospectionTest, tells_the_standard_interfaces_that_are_answered) {
  for (const char* path : {channel_path, "/iot/test", "/iot", "/"}) {
    const std::string xml = xml_at(path);
    EXPECT_TRUE(has(xml, R"(<interface name="org.freedesktop.DBus.Introspectable">)")) << path;
    EXPECT_TRUE(has(xml, R"(<interface name="org.freedesktop.DBus.Peer">)")) << path;
    EXPECT_FALSE(has(xml, "Properties")) << path;
  }
}

TEST_F(IntrospectionTest, leads_from_the_root_to_the_channel) {
  EXPECT_TRUE(has(xml_at("/"), R"(<node name="iot"/>)"));
  EXPECT_TRUE(has(xml_at("/iot"), R"(<node name="test"/>)"));
  EXPECT_TRUE(has(xml_at("/iot/test"), R"(<node name="channel"/>)"));
  EXPECT_FALSE(has(xml_at(channel_path), "<node name="));
  for (const char* path : {"/", "/iot", "/iot/test"}) EXPECT_FALSE(has(xml_at(path), channel_name)) << path;
}

TEST_F(IntrospectionTest, needs_no_interface) {
  EXPECT_EQ(peer().call(channel_name, channel_path, "", "Introspect").text(), xml_at(channel_path));
}

TEST_F(IntrospectionTest, works_for_a_channel_at_the_root) {
  auto root = new_channel(other_name, "/");
  root->register_method_callback("ask", [](CDBusRequest&, CDBusResponse&, bool&) {});
  ASSERT_TRUE(root->start());
  const std::string xml = peer().call(other_name, "/", DBUS_INTERFACE_INTROSPECTABLE, "Introspect").text();
  EXPECT_TRUE(has(xml, R"(<method name="ask"/>)"));
  EXPECT_TRUE(peer().call(other_name, "/", other_name, "ask").ok());
}

}  // namespace
}  // namespace test
