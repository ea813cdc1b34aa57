#include <gtest/gtest.h>
#include <filesystem>
#include <regex>
#include <set>

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
  EXPECT_TRUE(RunUntil(
      [&] { return std::regex_search(listener->last(), std::regex("[sS]uccess|[fF]ailure")); }));
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

TEST(ZMPluginRemoveListTask, RemovesInOrderAndStopsAtTheFirstBadItem) {
  const ZMValue good = Info("good", "1"), ghost = Info("ghost", "2"), good2 = Info("good2", "3");
  const Events all = {"good2_3", "good2_3.detail.json", "good_1", "good_1.detail.json", "keep"};
  const Events onlyGood2 = {"good2_3", "good2_3.detail.json", "keep"};
  const char* const empty = "failure:plugin provider or version is empty|0";
  for (const auto& [list, events, left] : std::vector<std::tuple<ZMValue, Events, Events>>{
           {{good, ghost},  // a plug-in never installed counts as removed
            {"start:good", "finish:good", "start:ghost", "finish:ghost", "success"},
            onlyGood2},
           {{good, {{"provider", "bad"}}, good2},
            {"start:good", "finish:good", "start:bad", empty},
            onlyGood2},
           {{Info("", "1"), good}, {"start:", empty}, all},
           {ZMValue::array(), {"success"}, all},
           {ZMValue(), {"failure:list is null|0"}, all}}) {
    TempDir dir;
    Install(dir.path(), "good_1");
    Install(dir.path(), "good2_3");
    WriteFile(dir / "keep", "x");
    const auto removal = Remove(dir.path(), list);
    EXPECT_EQ(removal->events(), events) << list;
    EXPECT_EQ(ListDir(dir.path()), left) << list;
    if (events.back() == "success") {
      EXPECT_EQ(removal->removed, list.empty() ? ZMValue::array() : list);
    }
  }
}

TEST(ZMPluginRemoveListTask, ProvidersOrVersionsThatLeaveTheRootDeleteNothing) {
  for (const auto& [provider, version] : std::vector<std::pair<std::string, std::string>>{
           {"../victim", "1"},
           {"sub/victim", "1"},
           {"p", "/../../victim_1"},
           {std::string("x\0", 2), "1"}}) {  // cut at NUL, root/x_1 would be root/x
    TempDir dir;
    const std::string root = dir / "plugins";
    Install(dir.path(), "victim_1");
    Install(root, "sub/victim_1");
    Install(root, "x");
    std::filesystem::create_directories(root + "/p_");
    const auto removal = Remove(root, {Info(provider, version), Info("x", "1")});
    EXPECT_EQ(removal->events(),
              (Events{"start:" + provider, "failure:plugin provider or version is invalid|0"}));
    EXPECT_EQ(ListDir(dir.path()), (Events{"plugins", "victim_1", "victim_1.detail.json"}));
    EXPECT_EQ(ListDir(root), (Events{"p_", "sub", "x", "x.detail.json"})) << provider;
    EXPECT_EQ(ListDir(root + "/sub"), (Events{"victim_1", "victim_1.detail.json"}));
  }
}

TEST(ZMPluginRemoveListTask, ASecondRequestCancelsTheFirstWhichIsThenNeverHeard) {
  TempDir dir;
  Install(dir.path(), "p_1");
  Install(dir.path(), "q_2");
  auto removing = std::make_shared<PluginRemoveRecorder>();
  auto listing = std::make_shared<ListRecorder>();
  auto removal = std::make_shared<ZMPluginRemoveListTask>(dir.path(), removing);
  auto list = std::make_shared<ZMPluginListTask>(listing);
  removal->execute(ZMValue::array({Info("p", "1")}));
  list->execute(dir.path());
  removal->cancel();  // what the manager does before it starts the next request
  list->cancel();
  EXPECT_EQ(Remove(dir.path(), ZMValue::array({Info("q", "2")}))->events(),
            (Events{"start:q", "finish:q", "success"}));
  EXPECT_EQ(removing->events(), Events{}) << "not even the start already posted";
  EXPECT_EQ(listing->events(), Events{});
}

}  // namespace
