#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "merin/MerinGameHandle.h"
#include "plugin/ZMPluginCheckPackageManager.h"
#include "plugin/ZMPluginCheckUpdateManager.h"
#include "plugin/ZMPluginInstallPackageManager.h"
#include "plugin/ZMPluginManager.h"
#include "runtime/ZMGameConfig.h"
#include "support/TestListeners.h"
#include "support/TestPluginService.h"
#include "support/TestSupport.h"
#include "tavo/ZMFileUtils.h"
#include "util/ZMTaskGroup.h"

// A service's listing of plug-in `id`'s package at `url`.
inline ZMValue Entry(const ZMValue& id, const std::string& hash, const std::string& url,
                     const std::string& version = "1.0") {
  return {{"plugin_id", id}, {"version", version}, {"hash", hash}, {"url", url}};
}

// Plug-in "p" 1.0 in a fresh directory with a package cache, a plug-in service, a game declaring
// its plug-ins, and the reference engine until a test sets another; the three flows (install from
// the service, update prefetch, install of a prefetched update by the check) run as the manager's.
struct PluginFlows {
  using Events = std::vector<std::string>;
  TempDir dir;
  TestPluginService service;
  const std::string cache = dir / "cache", root = dir / "plugin", plugin = root + "/p_1.0";
  const std::string config = plugin + ".detail.json";
  const ZMValue info = {{"provider", "p"}, {"version", "1.0"}};
  ZMPackageTrust trust;                                                  // none: no signatures
  std::shared_ptr<ZMTaskGroup> group = std::make_shared<ZMTaskGroup>();  // as the manager's

  explicit PluginFlows(
      const std::string& game = R"({"plugins":{"p":{"provider":"p","version":"1.0"}}})") {
    std::filesystem::create_directories(cache);  // the runtime made it long before
    WriteFile(dir / "game.config.json", game);
    MerinGameHandle::install();
  }
  ~PluginFlows() { ZMGameHandle::setInstance(nullptr); }

  std::string md5(const std::string& bytes) const {
    WriteFile(dir / "md5", bytes);
    return *ZMFileUtils::getFileMD5(dir / "md5");
  }
  // Host `name` lists `bytes` as p 1.0's package "p.zip", served unless empty; its MD5.
  std::string publish(const std::string& name, const std::string& bytes) {
    if (!bytes.empty()) service.serve("p.zip", bytes);
    const std::string hash = md5(bytes);
    service.lists(name, ZMValue::array({Entry("p", hash, service.package("p.zip"))}));
    return hash;
  }
  // Where a prefetch keeps plug-in `id` 1.0's package of this hash.
  std::string cachedPackage(const std::string& hash, const std::string& id = "p") const {
    return ZMPluginManager::getPluginPackageDownloadPath(cache, id, "1.0", hash);
  }
  // The service's hosts of these names; a URL stands for itself.
  std::vector<std::string> hosts(const Events& names) const {
    std::vector<std::string> urls;
    for (const auto& name : names)
      urls.push_back(name.starts_with("http") ? name : service.host(name));
    return urls;
  }
  // Installs p 1.0 from the named hosts; with `wait`, to its first callback and the queue's rest.
  std::shared_ptr<ZMPluginInstallPackageManager> installer;  // kept: a dropped one reports nothing
  std::shared_ptr<PluginInstallRecorder> install(const Events& names, bool wait = true) {
    auto host = std::make_shared<PluginInstallRecorder>();
    installer = std::make_shared<ZMPluginInstallPackageManager>(hosts(names), cache, plugin, "dev",
                                                                "com.example.host", "1.0.0", host,
                                                                ZMPackageLimits{}, trust);
    group->add(installer);
    installer->execute(info, "p", "1.0");
    EXPECT_TRUE(!wait || RunUntil([&] { return host->size() > 0; }));
    DrainMainQueue();
    return host;
  }
  // Starts the update prefetch of the game's plug-ins from the named hosts.
  std::shared_ptr<ZMPluginCheckUpdateManager> prefetch(const Events& names) {
    auto manager = std::make_shared<ZMPluginCheckUpdateManager>(
        root, cache, hosts(names), std::nullopt, "g", "com.example.host", "1.0.0",
        ZMPackageLimits{}, trust);
    manager->execute(ZMGameConfig::createGameCofingWithPath(dir / "game.config.json"));
    return manager;
  }
  std::shared_ptr<ZMPluginCheckPackageManager> checker(
      const std::shared_ptr<PluginCheckRecorder>& host) {
    return std::make_shared<ZMPluginCheckPackageManager>(cache, plugin, host, ZMPackageLimits{},
                                                         trust);
  }
  // Checks p 1.0 to its end (a failure and a success that follows it arrive together): what the
  // host heard, all of it on this (the main) thread.
  Events check() {
    auto host = std::make_shared<PluginCheckRecorder>();
    auto worker = checker(host);
    worker->execute("p", "1.0", info);
    EXPECT_TRUE(RunUntil([&] { return host->size() > 0; }));
    DrainMainQueue();
    EXPECT_EQ(host->distinctThreads(), std::set{std::this_thread::get_id()});
    return host->events();
  }
};
