#include <string>

#include "bus_test.h"

namespace test {
namespace {

class MethodTest : public BusTest {
 protected:
  void SetUp() override {
    BusTest::SetUp();
    channel_ = new_channel();
    channel_->register_method_callback("echo", [](CDBusRequest& request, CDBusResponse& response, bool&) {
      std::string text;
      if (request.get_string(text)) (void)response.set_string(text);
    });
    ASSERT_TRUE(channel_->start());
  }

  std::string error_of(const std::string& path, const std::string& interface, const std::string& member) {
    return peer().call(channel_name, path, interface, member).error;
  }

  std::unique_ptr<CDBusChannel> channel_;
};

TEST_F(MethodTest, is_answered_with_what_its_handler_wrote) {
  Answer answer = peer().call(channel_name, channel_path, channel_name, "echo", {"gr\xc3\xbc\xc3\x9f"});
  EXPECT_TRUE(answer.ok());
  EXPECT_EQ(answer.text(), "gr\xc3\xbc\xc3\x9f");
}

TEST_F(MethodTest, is_found_by_its_member_when_the_call_names_no_interface) {
  EXPECT_EQ(peer().call(channel_name, channel_path, "", "echo", {"a"}).text(), "a");
  EXPECT_EQ(error_of(channel_path, "", "unheardOf"), DBUS_ERROR_UNKNOWN_METHOD);
}

TEST_F(MethodTest, gets_an_empty_answer_when_its_handler_writes_nothing) {
  Answer answer = peer().call(channel_name, channel_path, channel_name, "echo");
  ASSERT_TRUE(answer.ok());
  EXPECT_STREQ(dbus_message_get_signature(answer.reply.message()), "");
}

TEST_F(MethodTest, that_does_not_exist_is_an_unknown_method) {
  EXPECT_EQ(error_of(channel_path, channel_name, "unheardOf"), DBUS_ERROR_UNKNOWN_METHOD);
  EXPECT_EQ(error_of(channel_path, DBUS_INTERFACE_INTROSPECTABLE, "unheardOf"), DBUS_ERROR_UNKNOWN_METHOD);
  EXPECT_EQ(error_of(channel_path, DBUS_INTERFACE_PEER, "unheardOf"), DBUS_ERROR_UNKNOWN_METHOD);
}

TEST_F(MethodTest, whose_handler_was_taken_away_is_an_unknown_method) {
  channel_->register_method_callback("echo", nullptr);
  EXPECT_EQ(error_of(channel_path, channel_name, "echo"), DBUS_ERROR_UNKNOWN_METHOD);
}

TEST_F(MethodTest, on_another_interface_is_an_unknown_interface) {
  EXPECT_EQ(error_of(channel_path, "iot.test.foreign", "echo"), DBUS_ERROR_UNKNOWN_INTERFACE);
  EXPECT_EQ(error_of(channel_path, DBUS_INTERFACE_PROPERTIES, "GetAll"), DBUS_ERROR_UNKNOWN_INTERFACE);
  EXPECT_EQ(error_of(channel_path, DBUS_INTERFACE_DBUS, "ListNames"), DBUS_ERROR_UNKNOWN_INTERFACE);
  EXPECT_EQ(error_of("/iot", DBUS_INTERFACE_PROPERTIES, "GetAll"), DBUS_ERROR_UNKNOWN_INTERFACE);
}

TEST_F(MethodTest, at_another_path_is_an_unknown_object) {
  for (const char* path :
       {"/iot/test/channel/below", "/iot/test/chan", "/iot/tes", "/else", "/", "/iot", "/iot/test"}) {
    EXPECT_EQ(error_of(path, channel_name, "echo"), DBUS_ERROR_UNKNOWN_OBJECT) << path;
  }
  EXPECT_EQ(error_of("/else", DBUS_INTERFACE_INTROSPECTABLE, "Introspect"), DBUS_ERROR_UNKNOWN_OBJECT);
  EXPECT_EQ(error_of("/else", DBUS_INTERFACE_PROPERTIES, "GetAll"), DBUS_ERROR_UNKNOWN_OBJECT);
}

TEST_F(MethodTest, of_the_peer_interface_is_answered_everywhere) {
  EXPECT_TRUE(peer().settle(channel_name));
  EXPECT_TRUE(peer().call(channel_name, channel_path, DBUS_INTERFACE_PEER, "Ping").ok());
  Answer ours = peer().call(channel_name, channel_path, DBUS_INTERFACE_PEER, "GetMachineId");
  Answer theirs = peer().call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_PEER, "GetMachineId");
  EXPECT_EQ(ours.error, theirs.error);
  EXPECT_EQ(ours.text(), theirs.text());
}

TEST_F(MethodTest, that_throws_is_answered_with_a_failure) {
  channel_->register_method_callback("explode", [](CDBusRequest&, CDBusResponse&, bool& answered_later) {
    answered_later = true;
    throw std::string("boom");
  });
  EXPECT_EQ(error_of(channel_path, channel_name, "explode"), DBUS_ERROR_FAILED);
  EXPECT_TRUE(peer().settle(channel_name));
}

TEST_F(MethodTest, whose_text_is_refused_is_answered_without_it) {
  channel_->register_method_callback("rot", [](CDBusRequest&, CDBusResponse& response, bool&) {
    (void)response.set_string("cut \xc3");
    (void)response.set_int32(5);
  });
  Answer answer = peer().call(channel_name, channel_path, channel_name, "rot");
  ASSERT_TRUE(answer.ok());
  EXPECT_STREQ(dbus_message_get_signature(answer.reply.message()), "i");
}

TEST_F(MethodTest, may_be_answered_later) {
  CDBusResponse kept;
  channel_->register_method_callback("defer", [&kept](CDBusRequest&, CDBusResponse& response, bool& answered_later) {
    kept = std::move(response);
    answered_later = true;
  });
  CDBusRequest request(channel_name, channel_path, channel_name, "defer");
  ASSERT_TRUE(peer().send(request.message()));
  ASSERT_TRUE(peer().settle(channel_name));  // the handler has returned, and no answer has come before the ping's
  ASSERT_TRUE(kept.set_string("at last"));
  ASSERT_TRUE(channel_->send(kept));
  const dbus_uint32_t serial = dbus_message_get_serial(request.message());
  CDBusResponse answer(peer().receive([serial](DBusMessage* message) {
    return dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_METHOD_RETURN &&
           dbus_message_get_reply_serial(message) == serial;
  }));
  std::string text;
  EXPECT_TRUE(answer.get_string(text));
  EXPECT_EQ(text, "at last");
}

TEST_F(MethodTest, that_wants_no_answer_gets_none) {
  Notes notes;
  channel_->register_method_callback("note", [&notes](CDBusRequest&, CDBusResponse& response, bool&) {
    notes.add("ran");
    (void)response.set_string("unwanted");
  });
  for (const char* member : {"note", "unheardOf"}) {
    CDBusRequest request(channel_name, channel_path, channel_name, member);
    dbus_message_set_no_reply(request.message(), TRUE);
    ASSERT_TRUE(peer().send(request.message()));
  }
  ASSERT_TRUE(peer().settle(channel_name));
  EXPECT_EQ(notes.size(), 1U);
  EXPECT_EQ(peer().receive(
                [](DBusMessage* message) {
                  const int type = dbus_message_get_type(message);
                  return type == DBUS_MESSAGE_TYPE_METHOD_RETURN || type == DBUS_MESSAGE_TYPE_ERROR;
                },
                20),
            nullptr);
}

TEST_F(MethodTest, survives_a_handler_that_takes_everything_away) {
  channel_->register_method_callback("steal", [](CDBusRequest& request, CDBusResponse& response, bool&) {
    (void)request.take();
    (void)response.take();
  });
  channel_->register_method_callback("steal_and_throw", [](CDBusRequest& request, CDBusResponse&, bool&) {
    (void)request.take();
    throw 1;
  });
  CDBusRequest request(channel_name, channel_path, channel_name, "steal");
  ASSERT_TRUE(peer().send(request.message()));
  EXPECT_TRUE(peer().settle(channel_name));
  EXPECT_EQ(error_of(channel_path, channel_name, "steal_and_throw"), DBUS_ERROR_FAILED);
}

TEST_F(MethodTest, may_replace_itself_while_it_runs) {
  channel_->register_method_callback("once", [this](CDBusRequest&, CDBusResponse& response, bool&) {
    channel_->register_method_callback("once", nullptr);
    (void)response.set_string("first and last");
  });
  EXPECT_EQ(peer().call(channel_name, channel_path, channel_name, "once").text(), "first and last");
  EXPECT_EQ(error_of(channel_path, channel_name, "once"), DBUS_ERROR_UNKNOWN_METHOD);
}

TEST_F(MethodTest, of_a_client_without_a_name_does_not_exist) {
  auto client = new_channel("", "");
  client->register_method_callback("echo", [](CDBusRequest&, CDBusResponse&, bool&) {});
  CDBusRequest who(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "ListNames");
  CDBusResponse names;
  ASSERT_TRUE(client->start());
  ASSERT_EQ(client->call(who, names, 5000), 0);
  const std::string unique_name = dbus_message_get_destination(names.message());
  EXPECT_EQ(peer().call(unique_name, "/", "iot.test.any", "echo").error, DBUS_ERROR_UNKNOWN_OBJECT);
  EXPECT_TRUE(peer().settle(unique_name));
}

}  // namespace
}  // namespace test
