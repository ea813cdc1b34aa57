// Plug-in packages installed: from the service, from a prefetched update by the check, and signed.
#include <gtest/gtest.h>

#include <thread>

#include "PluginFlows.h"
#include "plugin/ZMPluginUnzipPackageTask.h"
#include "support/TestSigner.h"
#include "support/TestZip.h"

namespace {

namespace fs = std::filesystem;
using Events = std::vector<std::string>;
const Events kOk = {"success:p"}, kNoConfig = {"failure:p|Error:plugin config no exist.|0"},
             kLost = {"failure:p|Error:plugin package no exist.|0", "success:p"};

// The reference engine noting each unzip it is asked for; with `hold` it keeps the request for
// the test to answer, and with `effect` it only applies that to the destination and succeeds.
struct Engine : MerinGameHandle {
  Events unzips;
  bool hold = false;
  std::shared_ptr<ZMUnzipGamePackageListener> held;
  std::function<void(const std::string&)> effect;
  void unzipFile(const std::string& zip, const std::string& dir,
                 std::shared_ptr<ZMUnzipGamePackageListener> listener) override {
    unzips.push_back(zip + " -> " + dir);
    if (effect) return effect(dir), listener->onUnzipSucceed();
    hold ? void(held = std::move(listener)) : MerinGameHandle::unzipFile(zip, dir, listener);
  }
};

struct Install : PluginFlows {
  std::shared_ptr<Engine> engine = std::make_shared<Engine>();
  Install() { ZMGameHandle::setInstance(engine); }
};

// Plug-in "p" 1.0 installed, its config naming a prefetched package "h".
struct PluginCheck : ::testing::Test, Install {
  const std::string package = cache + "/h_p_1.0.zip";
  PluginCheck() {
    WriteFile(plugin + "/old.txt", "O");
    WriteFile(config, R"({"hash":"old","updateHash":"h","keep":"x"})");
  }
};

using ZMPluginCheckPackageManager = PluginCheck;

// With a trusted key, each flow takes a package only with a good signature by that key; a refused
// one leaves the installed plug-in as it was.
struct SignedPlugin : ::testing::Test, PluginFlows {
  TestSigner signer, stranger;
  std::string hash;  // of the package served now

  SignedPlugin() {
    trust = ZMPackageTrust::fromOptions({{ZM_KEY_PACKAGE_TRUSTED_KEYS, signer.publicKey()}});
  }
  // Serves a package whose main.js reads `text`, signed by `by` (none without).
  void publish(const std::string& text, const TestSigner* by) {
    const std::string zip = dir / "p.zip";
    MakeZip(zip, {{"main.js", text}});
    hash = PluginFlows::publish("s", ReadFile(zip));
    service.answer("GET p.zip.minisig", by ? by->signature(zip) : "", by ? 200 : 404);
  }
  void prefetch(const std::function<bool()>& done) {
    auto manager = PluginFlows::prefetch({"s"});
    EXPECT_TRUE(RunUntil(done));
    DrainMainQueue();
  }
};

TEST(ZMPluginInstallPackageManager, AsksHostsInOrderThenDownloadsUnpacksAndRecordsTheHash) {
  auto t = std::make_unique<Install>();
  MakeZip(t->dir / "zip", {{"lib/x.so", "X"}});
  const std::string zip = ReadFile(t->dir / "zip"), hash = t->publish("b", zip);
  WriteFile(t->config, R"({"updateHash":"u","hash":"old"})");
  WriteFile(t->plugin + "/old_only.js", "an earlier install's file");

  const auto host = t->install({"a", "b"});
  EXPECT_EQ(host->events(), Events{"success:p"});  // a answers code 500
  EXPECT_EQ(t->service.log(), (Events{"a url", "b url", "GET p.zip"}));
  EXPECT_GT(host->progressCalls, 0);
  EXPECT_EQ(host->distinctThreads(), std::set{std::this_thread::get_id()});
  // Unpacked under a private name into a staged directory beside the plug-in's, then swapped in.
  ASSERT_EQ(t->engine->unzips.size(), 1u);
  EXPECT_TRUE(t->engine->unzips[0].starts_with(t->cache + "/" + hash + "_p_1.0.zip.unzip-"));
  EXPECT_NE(t->engine->unzips[0].find(" -> " + t->root + "/.p_1.0.staging-"), std::string::npos);
  EXPECT_EQ(ListDir(t->root), (Events{"p_1.0", "p_1.0.detail.json"}));
  EXPECT_EQ(ListDir(t->plugin), Events{"lib"});
  EXPECT_EQ(ReadFile(t->plugin + "/lib/x.so"), "X");
  EXPECT_EQ(ListDir(t->cache), Events{}) << "the package is deleted once unpacked";
  EXPECT_EQ(ReadFile(t->config), "{\n  \"updateHash\" : \"u\",\n  \"hash\" : \"" + hash + "\"\n}");
  EXPECT_EQ(t->group->sizeForTesting(), 0u) << "the finished run is let go";

  // Only the query moves on to the next host; a failed download or unpack ends the install. Hosts
  // a and b reply ("lists:<package>" names the package), the service sees, the failure begins:
  for (const auto& [a, b, log, failure] :
       std::vector<std::tuple<std::string, std::string, Events, std::string>>{
           {R"({"code":404})", "not json", {"a url", "b url"}, "get plugin url error (null)|0"},
           {"not json", R"({"code":404})", {"a url", "b url"}, "get plugin url error 404|0"},
           {"", "", {}, "null"},  // no host at all, so no error to pass on
           {"lists:", "", {"a url", "GET p.zip"}, "NSNetServicesErrorDomain|404"},
           {"lists:corrupt", "", {"a url", "GET p.zip"}, ""}}) {
    t.reset(), t = std::make_unique<Install>();  // the old engine leaves the slot first
    t->service.answer("a", a);
    t->service.answer("b", b);
    if (a.starts_with("lists:")) t->publish("a", a.substr(6));
    const auto events = t->install(log.empty() ? Events{} : Events{"a", "b"})->events();
    EXPECT_EQ(t->service.log(), log);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_TRUE(events[0].starts_with("failure:p|" + failure)) << events[0];
    EXPECT_FALSE(Exists(t->plugin) || Exists(t->config));
    EXPECT_EQ(ListDir(t->cache), Events{});
    EXPECT_EQ(t->group->sizeForTesting(), 0u);
  }

  // Cancelled while the engine unpacks: the unpack still cleans up, the host hears nothing.
  t.reset(), t = std::make_unique<Install>();
  t->engine->hold = true;
  t->publish("a", zip);
  const auto unheard = t->install({"a"}, false);
  ASSERT_TRUE(RunUntil([&] { return t->engine->held != nullptr; }));
  t->installer->cancel();
  std::thread([held = std::move(t->engine->held)] { held->onUnzipSucceed(); }).join();
  DrainMainQueue();
  EXPECT_EQ(unheard->events(), Events{});
  EXPECT_EQ(ListDir(t->cache), Events{});
  EXPECT_EQ(t->group->sizeForTesting(), 0u);
}

TEST(ZMPluginUnzipPackageTask, APackageBeyondTheLimitsIsDeletedUnopened) {
  Install t;
  const std::string zip = t.cache + "/h_p_1.0.zip";
  MakeZip(zip, {{"lib.so", std::string(4096, 'x')}});
  auto listener = std::make_shared<InstallRecorder>();
  auto task = std::make_shared<ZMPluginUnzipPackageTask>(t.plugin, "h", listener,
                                                         ZMPackageLimits{.maxUnpackedBytes = 4095});
  task->execute(zip);
  EXPECT_TRUE(RunUntil([&] { return listener->size() == 1; }));
  EXPECT_EQ(listener->last(), "onInstallFailure:package \"" + zip +
                                  "\" would unpack to 4096 bytes, more than the limit of 4095|0");
  EXPECT_TRUE(t.engine->unzips.empty()) << "the engine is never asked";
  EXPECT_FALSE(Exists(zip));
  EXPECT_FALSE(Exists(t.plugin));
}

TEST(ZMPluginUnzipPackageTask, AnUndeletablePackageIsReportedAsFailureThenSuccess) {
  Install t;
  t.engine->hold = true;
  auto listener = std::make_shared<InstallRecorder>();
  auto task = std::make_shared<ZMPluginUnzipPackageTask>(t.plugin, "h", listener);
  task->execute("/proc/self/status");  // "unpacked" below, and never deletable
  WriteFile(t.plugin + "/x", "x");
  std::thread([held = std::move(t.engine->held)] { held->onUnzipSucceed(); }).join();
  EXPECT_TRUE(RunUntil([&] { return listener->size() == 2; }));
  EXPECT_EQ(listener->events(), (Events{"onInstallFailure:deleteFile failure: /proc/self/status|0",
                                        "onInstallSuccess"}));
  EXPECT_EQ(listener->distinctThreads(), std::set{std::this_thread::get_id()});
  EXPECT_FALSE(Exists(t.plugin));
}

TEST(ZMPluginInstallPackageManager, AServiceHashThatNamesNoFileInTheCacheTouchesNothing) {
  using namespace std::string_literals;
  for (const std::string& hash : {"victim.zgp\0"s, "victim_dir\0"s, "../cache/victim.zgp"s}) {
    Install t;
    WriteFile(t.cache + "/victim.zgp", "kept");
    WriteFile(t.cache + "/victim_dir/x", "kept");
    t.service.lists("a", ZMValue::array({Entry("p", hash, t.service.package("p.zip"))}));
    EXPECT_EQ(t.install({"a"})->events(), Events{"failure:p|invalid plugin hash: " + hash + "|0"});
    EXPECT_EQ(ListDir(t.cache), (Events{"victim.zgp", "victim_dir"}));
    EXPECT_EQ(t.service.log(), Events{"a url"}) << "nothing is downloaded";
  }
}

TEST_F(ZMPluginCheckPackageManager, InstallsAPrefetchedPackageThroughStagingAndNeedsBothHalves) {
  MakeZip(package, {{"new.txt", "N"}, {"lib/a.so", "A"}});
  WriteFile(cache + "/p_1.0/stale.txt", "S");  // an earlier run's leftover
  EXPECT_EQ(check(), kOk);
  EXPECT_EQ(ListDir(plugin), (Events{"lib", "new.txt"}));
  EXPECT_EQ(ZMValue::parse(ReadFile(config)), ZMValue::parse(R"({"hash":"h","keep":"x"})"));
  EXPECT_EQ(ListDir(cache), Events{}) << "package and staging directory are gone";

  // A package that does not unpack is deleted with its staging; the installed plug-in stays.
  WriteFile(config, R"({"updateHash":"bad"})");
  WriteFile(cache + "/bad_p_1.0.zip", "not a zip");
  EXPECT_EQ(check(), kOk);
  EXPECT_EQ(ListDir(plugin), (Events{"lib", "new.txt"}));
  EXPECT_EQ(ZMValue::parse(ReadFile(config)), ZMValue::parse(R"({"updateHash":"bad"})"));
  EXPECT_EQ(ListDir(cache), Events{});

  // Either half left alone is deleted.
  fs::remove(config);
  EXPECT_EQ(check(), kNoConfig);
  EXPECT_FALSE(Exists(plugin));
  WriteFile(config, "{}");
  EXPECT_EQ(check(), kLost) << "both outcomes, failure first";
  EXPECT_FALSE(Exists(config));
}

TEST_F(ZMPluginCheckPackageManager, AFailedConfigWriteIsLoggedAndTheInstallIsLost) {
  WriteFile(package, "zip");
  engine->effect = [&](const std::string& dest) {  // unpacks, but the config cannot be replaced
    fs::create_directories(dest);
    fs::remove(config);
    fs::create_directory(config);
  };
  LogCapture log;
  EXPECT_EQ(check(), kLost);
  EXPECT_EQ(log.startingWith("install update plugin error: Error Domain=NSCocoaErrorDomain").size(),
            1u);
  EXPECT_FALSE(Exists(plugin) || Exists(config) || Exists(package) || Exists(cache + "/p_1.0"));
}

TEST_F(ZMPluginCheckPackageManager, CancelSilencesEverything) {
  MakeZip(package, {{"new.txt", "N"}});
  auto host = std::make_shared<PluginCheckRecorder>();
  auto worker = checker(host);
  worker->execute("p", "1.0", info);
  worker->cancel();
  ASSERT_TRUE(RunUntil([&] { return !Exists(package); })) << "the unpack itself runs to its end";
  DrainMainQueue();
  EXPECT_TRUE(host->events().empty());
  EXPECT_EQ(ListDir(plugin), Events{"old.txt"}) << "nothing is moved after cancel";
}

TEST_F(SignedPlugin, InstallPrefetchAndLocalInstallTakeOnlyPackagesSignedByTheTrustedKey) {
  publish("v1", &signer);
  EXPECT_EQ(install({"s"})->last(), "success:p");
  EXPECT_EQ(ReadFile(plugin + "/main.js"), "v1");
  EXPECT_EQ(ListDir(cache), Events{}) << "package and signature deleted";

  const std::string sigUrl = service.package("p.zip") + ".minisig";
  publish("v2", &stranger);
  EXPECT_EQ(install({"s"})->last(),
            "failure:p|package signature untrusted: " + stranger.keyId() + "|0");
  publish("v2", nullptr);
  EXPECT_EQ(install({"s"})->last(), "failure:p|package signature missing: " + sigUrl + "|0");
  EXPECT_EQ(ReadFile(plugin + "/main.js"), "v1") << "a refused install leaves the plug-in";

  // An update signed by another key is not prefetched, and says so.
  LogCapture log;
  publish("v3", &stranger);
  const std::string refused = "plugin update refused: package signature untrusted: ";
  prefetch([&] { return log.contains(refused + stranger.keyId()); });
  EXPECT_EQ(ListDir(cache), Events{});

  // A good one is kept with its signature; when that signature is replaced meanwhile, the local
  // install refuses the package (and deletes it), and the check finds the plug-in as it was.
  publish("v3", &signer);
  prefetch([&] { return Exists(cachedPackage(hash)); });
  EXPECT_TRUE(Exists(cachedPackage(hash) + ".minisig"));
  WriteFile(cachedPackage(hash) + ".minisig", stranger.signature(cachedPackage(hash)));
  EXPECT_EQ(check(), Events{"success:p"});
  EXPECT_EQ(ReadFile(plugin + "/main.js"), "v1");
  EXPECT_EQ(log.startingWith(refused).size(), 2u);
  EXPECT_EQ(ListDir(cache), Events{});

  prefetch([&] { return Exists(cachedPackage(hash)); });
  EXPECT_EQ(check(), Events{"success:p"});
  EXPECT_EQ(ReadFile(plugin + "/main.js"), "v3");
  EXPECT_EQ(ListDir(cache), Events{});
}

}  // namespace
