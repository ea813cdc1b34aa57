// Signed plug-in packages: with a trusted key, an install from the service, an update prefetch and
// the install of a prefetched update each take a package only with a good signature by that key;
// a refused one leaves the installed plug-in as it was.
#include <gtest/gtest.h>

#include <filesystem>

#include "merin/MerinGameHandle.h"
#include "plugin/ZMPluginCheckPackageManager.h"
#include "plugin/ZMPluginCheckUpdateManager.h"
#include "plugin/ZMPluginInstallPackageManager.h"
#include "plugin/ZMPluginManager.h"
#include "runtime/ZMGameConfig.h"
#include "support/TestListeners.h"
#include "support/TestPluginService.h"
#include "support/TestSigner.h"
#include "support/TestZip.h"

namespace {

struct SignedPlugin : ::testing::Test {
  TempDir dir;
  TestPluginService service;
  TestSigner signer, stranger;
  const ZMPackageTrust trust =
      ZMPackageTrust::fromOptions({{ZM_KEY_PACKAGE_TRUSTED_KEYS, signer.publicKey()}});
  const std::string cache = dir / "cache", root = dir / "plugin", plugin = root + "/p_1.0";
  const ZMValue info = {{"provider", "p"}, {"version", "1.0"}};
  std::string hash;  // of the package served now

  SignedPlugin() {
    std::filesystem::create_directories(cache);
    WriteFile(dir / "game.config.json", R"({"plugins":{"p":{"provider":"p","version":"1.0"}}})");
    MerinGameHandle::install();
  }
  ~SignedPlugin() override { ZMGameHandle::setInstance(nullptr); }

  // Serves a package whose main.js reads `text`, signed by `by` (none without), as the newer
  // package of p 1.0.
  void publish(const std::string& text, const TestSigner* by) {
    const std::string zip = dir / "p.zip";
    MakeZip(zip, {{"main.js", text}});
    hash = *ZMFileUtils::getFileMD5(zip);
    service.serve("p.zip", ReadFile(zip));
    service.answer("GET p.zip.minisig", by ? by->signature(zip) : "", by ? 200 : 404);
    service.lists("s", ZMValue::array({{{"plugin_id", "p"},
                                        {"version", "1.0"},
                                        {"hash", hash},
                                        {"url", service.package("p.zip")}}}));
  }
  std::string cached() const {
    return ZMPluginManager::getPluginPackageDownloadPath(cache, "p", "1.0", hash);
  }
  std::string install() {
    auto host = std::make_shared<PluginInstallRecorder>();
    auto manager = std::make_shared<ZMPluginInstallPackageManager>(
        std::vector{service.host("s")}, cache, plugin, "dev", "com.example.host", "1.0.0", host,
        ZMPackageLimits{}, trust);
    manager->execute(info, "p", "1.0");
    EXPECT_TRUE(RunUntil([&] { return host->size() > 0; }));
    DrainMainQueue();
    return host->last();
  }
  // Runs the prefetch until `done`.
  void prefetch(const std::function<bool()>& done) {
    auto manager = std::make_shared<ZMPluginCheckUpdateManager>(
        root, cache, std::vector{service.host("s")}, std::nullopt, "g", "com.example.host", "1.0.0",
        ZMPackageLimits{}, trust);
    manager->execute(ZMGameConfig::createGameCofingWithPath(dir / "game.config.json"));
    EXPECT_TRUE(RunUntil(done));
    DrainMainQueue();
  }
  std::string check() {
    auto host = std::make_shared<PluginCheckRecorder>();
    auto manager = std::make_shared<ZMPluginCheckPackageManager>(cache, plugin, host,
                                                                 ZMPackageLimits{}, trust);
    manager->execute("p", "1.0", info);
    EXPECT_TRUE(RunUntil([&] { return host->size() > 0; }));
    DrainMainQueue();
    return host->last();
  }
};

TEST_F(SignedPlugin, InstallPrefetchAndLocalInstallTakeOnlyPackagesSignedByTheTrustedKey) {
  publish("v1", &signer);
  EXPECT_EQ(install(), "success:p");
  EXPECT_EQ(ReadFile(plugin + "/main.js"), "v1");
  EXPECT_EQ(ListDir(cache), std::vector<std::string>{}) << "package and signature deleted";

  const std::string sigUrl = service.package("p.zip") + ".minisig";
  publish("v2", &stranger);
  EXPECT_EQ(install(), "failure:p|package signature untrusted: " + stranger.keyId() + "|0");
  publish("v2", nullptr);
  EXPECT_EQ(install(), "failure:p|package signature missing: " + sigUrl + "|0");
  EXPECT_EQ(ReadFile(plugin + "/main.js"), "v1") << "a refused install leaves the plug-in";

  // An update signed by another key is not prefetched, and says so.
  LogCapture log;
  publish("v3", &stranger);
  const std::string refused = "plugin update refused: package signature untrusted: ";
  prefetch([&] { return log.contains(refused + stranger.keyId()); });
  EXPECT_EQ(ListDir(cache), std::vector<std::string>{});

  // A good one is kept with its signature; when that signature is replaced meanwhile, the local
  // install refuses the package (and deletes it), and the check finds the plug-in as it was.
  publish("v3", &signer);
  prefetch([&] { return Exists(cached()); });
  EXPECT_TRUE(Exists(cached() + ".minisig"));
  WriteFile(cached() + ".minisig", stranger.signature(cached()));
  EXPECT_EQ(check(), "success:p");
  EXPECT_EQ(ReadFile(plugin + "/main.js"), "v1");
  EXPECT_EQ(log.startingWith(refused).size(), 2u);
  EXPECT_EQ(ListDir(cache), std::vector<std::string>{});

  prefetch([&] { return Exists(cached()); });
  EXPECT_EQ(check(), "success:p");
  EXPECT_EQ(ReadFile(plugin + "/main.js"), "v3");
  EXPECT_EQ(ListDir(cache), std::vector<std::string>{});
}

}  // namespace
