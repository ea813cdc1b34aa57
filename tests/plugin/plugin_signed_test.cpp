// Signed plug-in packages: with a trusted key, an install from the service, an update prefetch and
// the install of a prefetched update each take a package only with a good signature by that key;
// a refused one leaves the installed plug-in as it was.
#include <gtest/gtest.h>

#include "PluginFlows.h"
#include "plugin/ZMPluginManager.h"
#include "support/TestSigner.h"
#include "support/TestZip.h"

namespace {

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
  std::string cached() const {
    return ZMPluginManager::getPluginPackageDownloadPath(cache, "p", "1.0", hash);
  }
  void prefetch(const std::function<bool()>& done) {
    auto manager = PluginFlows::prefetch({"s"});
    EXPECT_TRUE(RunUntil(done));
    DrainMainQueue();
  }
};

TEST_F(SignedPlugin, InstallPrefetchAndLocalInstallTakeOnlyPackagesSignedByTheTrustedKey) {
  publish("v1", &signer);
  EXPECT_EQ(install({"s"})->last(), "success:p");
  EXPECT_EQ(ReadFile(plugin + "/main.js"), "v1");
  EXPECT_EQ(ListDir(cache), std::vector<std::string>{}) << "package and signature deleted";

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
  EXPECT_EQ(ListDir(cache), std::vector<std::string>{});

  // A good one is kept with its signature; when that signature is replaced meanwhile, the local
  // install refuses the package (and deletes it), and the check finds the plug-in as it was.
  publish("v3", &signer);
  prefetch([&] { return Exists(cached()); });
  EXPECT_TRUE(Exists(cached() + ".minisig"));
  WriteFile(cached() + ".minisig", stranger.signature(cached()));
  EXPECT_EQ(check(), Events{"success:p"});
  EXPECT_EQ(ReadFile(plugin + "/main.js"), "v1");
  EXPECT_EQ(log.startingWith(refused).size(), 2u);
  EXPECT_EQ(ListDir(cache), std::vector<std::string>{});

  prefetch([&] { return Exists(cached()); });
  EXPECT_EQ(check(), Events{"success:p"});
  EXPECT_EQ(ReadFile(plugin + "/main.js"), "v3");
  EXPECT_EQ(ListDir(cache), std::vector<std::string>{});
}

}  // namespace
