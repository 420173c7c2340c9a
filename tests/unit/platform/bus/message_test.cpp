#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "platform/dbus_message.h"

namespace test {
namespace {

using Tessaro::Iot::Component::CDBusMessageOpr;
using Tessaro::Iot::Component::CDBusRequest;
using Tessaro::Iot::Component::CDBusResponse;
using Tessaro::Iot::Component::CDBusSignal;
using Tessaro::Iot::Component::DBusMessagePtr;

constexpr const char* name = "iot.test.a";
constexpr const char* path = "/iot/test/a";

CDBusRequest new_request() { return CDBusRequest(name, path, name, "ask"); }

// A request as a handler gets it: it has been on the wire.
CDBusRequest received(const CDBusRequest& request) {
  dbus_message_set_serial(request.message(), 7);
  return CDBusRequest(DBusMessagePtr(dbus_message_ref(request.message())));
}

TEST(Message, gives_its_arguments_back_in_order) {
  CDBusRequest request = new_request();
  ASSERT_TRUE(request.set_string("one"));
  ASSERT_TRUE(request.set_int32(-2));
  ASSERT_TRUE(request.set_string(""));
  ASSERT_TRUE(request.set_bool(true));
  EXPECT_STREQ(dbus_message_get_signature(request.message()), "sisb");

  std::string text;
  int32_t number = 0;
  EXPECT_TRUE(request.get_string(text));
  EXPECT_EQ(text, "one");
  EXPECT_TRUE(request.get_int32(number));
  EXPECT_EQ(number, -2);
  EXPECT_TRUE(request.get_string(text));
  EXPECT_EQ(text, "");
}

TEST(Message, does_not_consume_an_argument_of_another_type) {
  CDBusRequest request = new_request();
  ASSERT_TRUE(request.set_string("one"));
  ASSERT_TRUE(request.set_int32(2));
  std::string text = "before";
  int32_t number = 99;
  EXPECT_FALSE(request.get_int32(number));
  EXPECT_EQ(number, 99);
  EXPECT_TRUE(request.get_string(text));
  EXPECT_FALSE(request.get_string(text));
  EXPECT_EQ(text, "one");
  EXPECT_TRUE(request.get_int32(number));
  EXPECT_EQ(number, 2);
}

TEST(Message, ends_after_its_last_argument) {
  CDBusRequest request = new_request();
  std::string text = "before";
  int32_t number = 99;
  EXPECT_FALSE(request.get_string(text));
  ASSERT_TRUE(request.set_int32(1));
  EXPECT_TRUE(request.get_int32(number));
  EXPECT_FALSE(request.get_int32(number));
  EXPECT_FALSE(request.get_string(text));
  EXPECT_EQ(text, "before");
  EXPECT_EQ(number, 1);
}

TEST(Message, never_takes_a_bool_or_a_path_for_something_else) {
  CDBusRequest request = new_request();
  const char* object = "/some/object";
  const dbus_uint32_t word = 5;
  ASSERT_TRUE(dbus_message_append_args(request.message(), DBUS_TYPE_OBJECT_PATH, &object, DBUS_TYPE_UINT32, &word,
                                       DBUS_TYPE_INVALID));
  std::string text;
  int32_t number = 0;
  EXPECT_FALSE(request.get_string(text));
  EXPECT_FALSE(request.get_int32(number));
}

TEST(Message, refuses_text_that_the_bus_does_not_carry) {
  CDBusRequest request = new_request();
  EXPECT_FALSE(request.set_string("\xff"));
  EXPECT_FALSE(request.set_string("cut \xc3"));
  EXPECT_FALSE(request.set_string("\xed\xb0\x80"));  // half of a surrogate pair
  EXPECT_FALSE(request.set_string("\xc0\x80"));      // an overlong NUL
  EXPECT_FALSE(request.set_string(std::string("a\0b", 3)));
  EXPECT_FALSE(request.set_string(std::string(size_t{16} * 1024 * 1024 + 1, 'x')));
  EXPECT_STREQ(dbus_message_get_signature(request.message()), "");
  EXPECT_TRUE(request.set_string("\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80"));
}

TEST(Message, has_no_message_when_a_name_is_not_valid) {
  const std::string nul("iot.test.a\0b", 12);
  EXPECT_EQ(CDBusRequest("", path, name, "ask").message(), nullptr);
  EXPECT_EQ(CDBusSignal(path, "", "told").message(), nullptr);
  for (const std::string& bad :
       {std::string("nodot"), std::string("iot..a"), std::string("iot.\xff"), nul, std::string(300, 'a') + ".b"}) {
    EXPECT_EQ(CDBusRequest(bad, path, name, "ask").message(), nullptr) << bad;
    EXPECT_EQ(CDBusRequest(name, path, bad, "ask").message(), nullptr) << bad;
    EXPECT_EQ(CDBusSignal(path, bad, "told").message(), nullptr) << bad;
  }
  for (const char* bad : {"", "iot", "/iot/", "//", "/iot/\xc3\xa4"}) {
    EXPECT_EQ(CDBusRequest(name, bad, name, "ask").message(), nullptr) << bad;
    EXPECT_EQ(CDBusSignal(bad, name, "told").message(), nullptr) << bad;
  }
  for (const char* bad : {"", "a.b", "1a", "a b", "\xff"}) {
    EXPECT_EQ(CDBusRequest(name, path, name, bad).message(), nullptr) << bad;
    EXPECT_EQ(CDBusSignal(path, name, bad).message(), nullptr) << bad;
  }
  EXPECT_NE(CDBusRequest(name, path, "", "ask").message(), nullptr);
}

TEST(Message, without_a_message_refuses_everything) {
  CDBusRequest request("", "", "", "");
  std::string text;
  int32_t number = 0;
  EXPECT_FALSE(request.set_string("a"));
  EXPECT_FALSE(request.set_int32(1));
  EXPECT_FALSE(request.set_bool(true));
  EXPECT_FALSE(request.get_string(text));
  EXPECT_FALSE(request.get_int32(number));
  EXPECT_EQ(CDBusResponse(request).message(), nullptr);
  EXPECT_EQ(CDBusResponse().message(), nullptr);
}

TEST(Message, that_was_received_is_not_written_to) {
  CDBusRequest request = received(new_request());
  EXPECT_FALSE(request.set_string("late"));
  EXPECT_FALSE(request.set_int32(1));
}

TEST(Message, answers_a_request_that_was_received) {
  CDBusResponse response(received(new_request()));
  ASSERT_NE(response.message(), nullptr);
  EXPECT_EQ(dbus_message_get_reply_serial(response.message()), 7U);
  EXPECT_TRUE(response.set_string("yes"));
}

TEST(Message, answers_a_request_that_was_never_sent) {
  CDBusResponse response(new_request());
  std::string text;
  EXPECT_TRUE(response.set_string("yes"));
  EXPECT_TRUE(response.get_string(text));
  EXPECT_EQ(text, "yes");
}

TEST(Message, reads_on_after_it_was_moved) {
  CDBusRequest first = new_request();
  ASSERT_TRUE(first.set_string("one"));
  ASSERT_TRUE(first.set_string("two"));
  std::string text;
  ASSERT_TRUE(first.get_string(text));
  CDBusRequest second = std::move(first);
  EXPECT_TRUE(second.get_string(text));
  EXPECT_EQ(text, "two");
  CDBusMessageOpr third(nullptr);
  third = std::move(second);
  EXPECT_FALSE(third.get_string(text));
  EXPECT_NE(third.take(), nullptr);
  EXPECT_EQ(third.message(), nullptr);
}

}  // namespace
}  // namespace test
