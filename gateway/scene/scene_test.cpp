#include <gtest/gtest.h>

#include <array>
#include <string>
#include <utility>

#include "scene_options.h"
#include "scenes.h"

namespace {

using gateway::parse_scenes;
using gateway::parse_state;
using gateway::SceneOptions;
using gateway::Scenes;
using gateway::SceneState;

TEST(SceneOptionsOf, the_supervisors_arguments_are_read) {
  const std::array<const char*, 4> words = {"scene", "--scenes=x.json", "anything", "-level=1"};
  const SceneOptions options = gateway::read_scene_options(4, words.data());
  EXPECT_EQ(options.scenes, "x.json");
  EXPECT_EQ(options.level, 1);
  EXPECT_EQ(options.script, 0);
  EXPECT_FALSE(options.stop);
}

TEST(SceneOptionsOf, no_arguments_are_the_defaults) {
  const std::array<const char*, 1> words = {"scene"};
  const SceneOptions options = gateway::read_scene_options(1, words.data());
  EXPECT_EQ(options.scenes, "../config/scenes.json");
  EXPECT_EQ(options.level, 0);
}

TEST(SceneOptionsOf, the_last_level_counts_and_anything_but_1_is_0) {
  const std::array<const char*, 6> words = {"scene", "-level=0", "-level=1", "-level=2", "-level=x", "-level="};
  for (const auto& [count, level] : {std::pair{2, 0}, {3, 1}, {4, 0}, {5, 0}, {6, 0}}) {
    EXPECT_EQ(gateway::read_scene_options(count, words.data()).level, level) << count;
  }
}

TEST(SceneOptionsOf, a_script_is_a_process_number) {
  const std::array<const char*, 2> good = {"scene", "-script=123"};
  EXPECT_EQ(gateway::read_scene_options(2, good.data()).script, 123);
  for (const char* word : {"-script=", "-script=-5", "-script=12x", "-script=99999999999"}) {
    const std::array<const char*, 2> words = {"scene", word};
    EXPECT_EQ(gateway::read_scene_options(2, words.data()).script, 0) << word;
  }
}

TEST(SceneFile, is_read) {
  Scenes scenes;
  std::string problem;
  EXPECT_TRUE(parse_scenes(R"([{"name": "b", "actions": [{"target": "lamp", "value": "on"}]},
                               {"name": "a", "actions": []}])",
                           scenes, problem));
  ASSERT_EQ(scenes.size(), 2U);
  EXPECT_EQ(scenes["b"].at(0).target, "lamp");
  EXPECT_EQ(scenes["b"].at(0).value, "on");
  EXPECT_TRUE(scenes["a"].empty());
  EXPECT_EQ(problem, "");
}

TEST(SceneFile, is_refused_as_a_whole_with_the_reason) {
  const auto problem_of = [](const std::string& text) {
    Scenes scenes;
    std::string problem;
    EXPECT_FALSE(parse_scenes(text, scenes, problem)) << text;
    EXPECT_TRUE(scenes.empty()) << text;
    return problem;
  };
  const std::string good = R"({"name": "good", "actions": []}, )";
  for (const std::string text : {"", "{}", "[", "5", "null"}) EXPECT_EQ(problem_of(text), "there is no JSON array");
  EXPECT_EQ(problem_of(std::string(100'000, '[')), "there is no JSON array");
  for (const char* scene : {"5", "{}", R"({"name": 5, "actions": []})", R"({"name": "", "actions": []})",
                            R"({"name": "a\nb", "actions": []})", R"({"name": "a\u0000b", "actions": []})",
                            "{\"name\": \"\xff\", \"actions\": []}"}) {
    EXPECT_EQ(problem_of("[" + good + scene + "]"), "a scene has no name") << scene;
  }
  for (const char* actions : {"5", "{}", "[5]", "[{}]", R"([{"target": "a"}])", R"([{"target": "", "value": "x"}])",
                              R"([{"target": "a=b", "value": "x"}])", R"([{"target": "a", "value": "x\ny"}])"}) {
    EXPECT_EQ(problem_of("[" + good + R"({"name": "bad", "actions": )" + actions + "}]"),
              "the actions of bad are wrong")
        << actions;
  }
  EXPECT_EQ(problem_of("[" + good + R"({"name": "good", "actions": []}])"), "there are two of good");
}

TEST(SceneStateText, tells_what_was_run_and_set) {
  SceneState state;
  state.run("one", {{"lamp", "on"}, {"door", "shut"}});
  state.run("two", {{"lamp", "off"}});
  EXPECT_EQ(gateway::format_state(state, 1, ""), "level 1\nscene two\nset door=shut\nset lamp=off\n");
  EXPECT_EQ(gateway::format_state({}, 0, "why"), "level 0\nproblem why\n");
}

TEST(SceneStateText, is_read_back) {
  SceneState state;
  state.run("one scene", {{"hall lamp", "a = b"}, {"x", ""}});
  const SceneState read = parse_state(gateway::format_state(state, 1, "some problem"));
  EXPECT_EQ(read.last, state.last);
  EXPECT_EQ(read.values, state.values);
}

TEST(SceneStateText, that_is_damaged_gives_what_is_left_of_it) {
  EXPECT_EQ(parse_state("").last, "");
  const SceneState read = parse_state("noise\nset \nset =x\nset a\nset b=1\nscene \xff\nset c=\x01\nscene");
  EXPECT_EQ(read.last, "");
  EXPECT_EQ(read.values, (std::map<std::string, std::string>{{"b", "1"}}));
}

}  // namespace
