#include "catalogue.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace Tessaro::Iot::Component {
namespace {

struct Catalogue {
  ServiceTable table;
  bool ok = false;
  explicit Catalogue(const std::string& text) {
    std::istringstream stream(text);
    ok = read_catalogue(stream, table);
  }
  ~Catalogue() {
    for (ServiceRecord* record : table) delete record;
  }
  Catalogue(const Catalogue&) = delete;
  Catalogue& operator=(const Catalogue&) = delete;
};

TEST(Catalogue, FillsRecordsInFileOrder) {
  const Catalogue catalogue(R"([{"exec": "bin/a", "args": ["-x", 1], "monitor": 1, "delay": 2.5},
                                {"exec": "bin/b", "dbus_name": "iot.b"}])");
  ASSERT_TRUE(catalogue.ok);
  ASSERT_EQ(catalogue.table.size(), 2U);
  const ServiceRecord& first = *catalogue.table[0];
  EXPECT_EQ(first.exec, "bin/a");
  EXPECT_EQ(first.args, (std::list<std::string>{"-x", "1"}));
  EXPECT_EQ(first.monitor, 1);
  EXPECT_EQ(first.delay, 2.5);
  EXPECT_EQ(first.dbus_name, "");
  EXPECT_EQ(first.status, -1);
  EXPECT_EQ(first.pid, 0);
  EXPECT_EQ(first.start_time, 0U);
  const ServiceRecord& second = *catalogue.table[1];
  EXPECT_EQ(second.exec, "bin/b");
  EXPECT_TRUE(second.args.empty());
  EXPECT_EQ(second.monitor, 0);
  EXPECT_EQ(second.delay, 0.0);
  EXPECT_EQ(second.dbus_name, "iot.b");
  EXPECT_EQ(second.status, -1);
}

TEST(Catalogue, KeepsDuplicates) {
  const Catalogue catalogue(R"([{"exec": "a"}, {"exec": "a"}])");
  EXPECT_EQ(catalogue.table.size(), 2U);
}

TEST(Catalogue, EmptyArrayIsASuccess) {
  const Catalogue catalogue("[]");
  EXPECT_TRUE(catalogue.ok);
  EXPECT_TRUE(catalogue.table.empty());
}

TEST(Catalogue, RefusesAnythingButAnArray) {
  for (const char* text : {"", " ", "{}", "{\"a\": []}", "null", "1", "\"x\"", "[", "[{]", "not json", "\xff\xfe"}) {
    const Catalogue catalogue(text);
    EXPECT_FALSE(catalogue.ok) << text;
    EXPECT_TRUE(catalogue.table.empty()) << text;
  }
}

TEST(Catalogue, RefusesDeepNesting) {
  for (const size_t depth : {size_t{1001}, size_t{100000}}) {
    EXPECT_FALSE(Catalogue(std::string(depth, '[') + std::string(depth, ']')).ok) << depth;
    EXPECT_FALSE(Catalogue(std::string(depth, '[')).ok) << depth;
  }
}

TEST(Catalogue, ElementThatIsNoObjectIsARecordOfDefaults) {
  const Catalogue catalogue(R"([1, "x", null, true, [], [[1]], 1e300])");
  ASSERT_TRUE(catalogue.ok);
  ASSERT_EQ(catalogue.table.size(), 7U);
  for (const ServiceRecord* record : catalogue.table) {
    EXPECT_EQ(record->exec, "");
    EXPECT_TRUE(record->args.empty());
    EXPECT_EQ(record->monitor, 0);
    EXPECT_EQ(record->delay, 0.0);
    EXPECT_EQ(record->dbus_name, "");
    EXPECT_EQ(record->status, -1);
  }
}

TEST(Catalogue, MemberOfAnotherTypeIsAbsent) {
  const Catalogue catalogue(
      R"([{"exec": 1, "args": "x", "monitor": "1", "delay": "2", "dbus_name": ["iot.b"]},
          {"exec": {}, "args": {"0": "x"}, "monitor": true, "delay": true, "dbus_name": null},
          {"exec": [], "args": null, "monitor": 1.5, "delay": [], "dbus_name": 7},
          {"exec": null, "args": 1, "monitor": 99999999999, "delay": {}, "dbus_name": true}])");
  ASSERT_TRUE(catalogue.ok);
  for (const ServiceRecord* record : catalogue.table) {
    EXPECT_EQ(record->exec, "");
    EXPECT_TRUE(record->args.empty());
    EXPECT_EQ(record->monitor, 0);
    EXPECT_EQ(record->delay, 0.0);
    EXPECT_EQ(record->dbus_name, "");
  }
}

TEST(Catalogue, WholeNumbersOfAnyFormCount) {
  const Catalogue catalogue(R"([{"monitor": 1.0, "delay": 3}, {"monitor": -1, "delay": -2.5}])");
  ASSERT_EQ(catalogue.table.size(), 2U);
  EXPECT_EQ(catalogue.table[0]->monitor, 1);
  EXPECT_EQ(catalogue.table[0]->delay, 3.0);
  EXPECT_EQ(catalogue.table[1]->monitor, -1);
  EXPECT_EQ(catalogue.table[1]->delay, -2.5);
}

TEST(Catalogue, ArgumentsThatAreObjectsOrArraysAreSkipped) {
  const Catalogue catalogue(R"([{"args": ["a", {"b": 1}, ["c"], 2, true, null, 1.5, "d"]}])");
  ASSERT_EQ(catalogue.table.size(), 1U);
  EXPECT_EQ(catalogue.table[0]->args, (std::list<std::string>{"a", "2", "true", "", "1.5", "d"}));
}

TEST(Catalogue, UnknownKeysAreIgnored) {
  const Catalogue catalogue(R"([{"exec": "a", "Exec": "b", "restart": {"deep": [1]}, "": 1}])");
  ASSERT_EQ(catalogue.table.size(), 1U);
  EXPECT_EQ(catalogue.table[0]->exec, "a");
}

TEST(Catalogue, TakesWhatTheParserForgives) {
  const Catalogue catalogue("// comment\n[{\"exec\": \"a\", \"exec\": \"b\"}, /* comment */ {},] trailing text");
  ASSERT_TRUE(catalogue.ok);
  EXPECT_EQ(catalogue.table.size(), 2U);
  EXPECT_EQ(catalogue.table[0]->exec, "b");
}

TEST(Catalogue, SurvivesBytesThatAreNoText) {
  const Catalogue catalogue(std::string("[{\"exec\": \"a\0b\", \"args\": [\"\\u0000\", \"\xff\", \"\\ud800\"]}]", 50));
  for (const ServiceRecord* record : catalogue.table) EXPECT_LE(record->args.size(), 3U);
}

TEST(Catalogue, HoldsTenMegabytes) {
  std::string text = "[";
  while (text.size() < size_t{10} * 1024 * 1024)
    text += R"({"exec": "svc", "args": ["aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"]},)";
  text += "{}]";
  const Catalogue catalogue(text);
  ASSERT_TRUE(catalogue.ok);
  EXPECT_EQ(catalogue.table.back()->exec, "");
  EXPECT_EQ(catalogue.table.front()->exec, "svc");
}

}  // namespace
}  // namespace Tessaro::Iot::Component
