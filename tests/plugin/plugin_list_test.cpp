#include <gtest/gtest.h>
#include <filesystem>
#include <set>
#include <tuple>

#include "plugin/ZMPluginListTask.h"
#include "plugin/ZMPluginRemoveListTask.h"
#include "support/TestListeners.h"
#include "support/TestSupport.h"

namespace {

using Events = std::vector<std::string>;

// An installed plug-in: its directory and the config beside it.
void Install(const std::string& root, const std::string& name) {
  WriteFile(root + "/" + name + "/main.js", "x");
  WriteFile(root + "/" + name + ".detail.json", "{}");
}

ZMValue Info(const std::string& provider, const std::string& version) {
  return {{"provider", provider}, {"version", version}};
}

template <typename Recorder, typename Task, typename... Args>
std::shared_ptr<Recorder> Run(const auto& input, Args... args) {
  auto listener = std::make_shared<Recorder>();
  const auto task = std::make_shared<Task>(args..., listener);  // a dropped task reports nothing
  task->execute(input);
  // Every run ends in its outcome: "success", "failure:...", "onListGameSuccess", ...
  EXPECT_TRUE(RunUntil([&] {
    const std::string last = listener->last();
    return last.find("uccess") != std::string::npos || last.find("ailure") != std::string::npos;
  }));
  DrainMainQueue();
  return listener;
}
auto List(const std::string& root) { return Run<ListRecorder, ZMPluginListTask>(root); }
auto Remove(const std::string& root, const ZMValue& list) {
  return Run<PluginRemoveRecorder, ZMPluginRemoveListTask>(list, root);
}

TEST(ZMPluginListTask, ListsDirectoriesWithASiblingConfigSplitAtTheFirstUnderscore) {
  TempDir dir;
  const std::string root = dir / "plugins";
  for (const char* name : {"p_1.0", "a_b_c", "q"}) Install(root, name);
  WriteFile(root + "/half_1/main.js", "x");         // no config: not installed
  WriteFile(root + "/orphan_2.detail.json", "{}");  // a config without its directory
  WriteFile(root + "/file_3", "x");                 // a file, even with a config beside it
  WriteFile(root + "/file_3.detail.json", "{}");
  LogCapture log;
  auto listed = List(root);
  EXPECT_EQ(listed->events(), Events{"onListGameSuccess"});
  EXPECT_EQ(
      std::set<ZMValue>(listed->items.begin(), listed->items.end()),
      (std::set<ZMValue>{{{"provider", "a"}, {"version", "b_c"}, {"path", root + "/a_b_c"}},
                         {{"provider", "p"}, {"version", "1.0"}, {"path", root + "/p_1.0"}}}));
  EXPECT_EQ(log.lines(), Events{"q plugin dir name error"});

  EXPECT_EQ(List(dir / "none")->events(),
            Events{"onListGameFailure:plugin root dir is not exist|0"});
  listed = List(root + "/file_3");  // a root that cannot be listed holds nothing
  EXPECT_EQ(listed->events(), Events{"onListGameSuccess"});
  EXPECT_EQ(listed->items, ZMValue::array());
}

TEST(ZMPluginRemoveListTask, RemovesInOrderAndStopsAtTheFirstBadOrUnsafeItem) {
  const ZMValue good = Info("good", "1"), ghost = Info("ghost", "2"), x = Info("x", "1");
  const std::string empty = "failure:plugin provider or version is empty|0",
                    unsafe = "failure:plugin provider or version is invalid|0";
  const std::vector<std::tuple<ZMValue, Events, bool>> rows = {
      // A plug-in never installed counts as removed.
      {{good, ghost}, {"start:good", "finish:good", "start:ghost", "finish:ghost", "success"}, 1},
      {{good, {{"provider", "bad"}}, x}, {"start:good", "finish:good", "start:bad", empty}, 1},
      {{Info("", "1"), good}, {"start:", empty}, 0},
      {ZMValue::array(), {"success"}, 0},
      {ZMValue(), {"failure:list is null|0"}, 0},
      // Names that leave the root delete nothing; at NUL, root/x_1 would be cut to root/x.
      {{Info("../victim", "1"), x}, {"start:../victim", unsafe}, 0},
      {{Info("sub/victim", "1"), x}, {"start:sub/victim", unsafe}, 0},
      {{Info("p", "/../../victim_1"), x}, {"start:p", unsafe}, 0},
      {{Info(std::string("x\0", 2), "1"), x}, {"start:" + std::string("x\0", 2), unsafe}, 0}};
  for (const auto& [list, events, goodIsGone] : rows) {
    TempDir dir;
    const std::string root = dir / "plugins";
    const Events installed = {"plugins/good_1", "plugins/x", "plugins/sub/victim_1", "victim_1"};
    for (const auto& name : installed) Install(dir.path(), name);
    std::filesystem::create_directories(root + "/p_");
    const auto removal = Remove(root, list);
    EXPECT_EQ(removal->events(), events) << list;
    for (const auto& name : installed) {
      const bool gone = goodIsGone && name == "plugins/good_1";
      EXPECT_EQ(Exists(dir / name) + Exists(dir / name + ".detail.json"), gone ? 0 : 2) << name;
    }
    if (events.back() == "success") {
      EXPECT_EQ(removal->removed, list.empty() ? ZMValue::array() : list);
    }
  }
}

}  // namespace
