// Signed game packages as a host sees them: with a trusted key, a package downloads (its
// signature kept beside it) and installs only when a good signature by that key comes with it,
// and a refused one leaves the installed version as it was; without keys nothing asks for one.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <fstream>
#include <functional>
#include <map>
#include <mutex>

#include "support/TestHttpServer.h"
#include "support/TestRuntime.h"
#include "support/TestSigner.h"
#include "support/TestZip.h"

namespace {

using Events = std::vector<std::string>;

// Serves whatever is put under a name, 404 for the rest, and keeps the names asked for.
struct Files {
  std::mutex mutex;
  std::map<std::string, std::string> bytes;
  Events asked;
  TestHttpServer server;

  Files() {
    server.Get("/(.*)", [this](const httplib::Request& req, httplib::Response& res) {
      std::lock_guard lock(mutex);
      asked.push_back(req.matches[1]);
      const auto it = bytes.find(req.matches[1]);
      if (it == bytes.end()) {
        res.status = 404;
        return;
      }
      res.set_content(it->second, "application/zip");
    });
    server.start();
  }
  void put(const std::string& name, std::optional<std::string> content) {
    std::lock_guard lock(mutex);
    asked.clear();
    if (content) {
      bytes[name] = *content;
    } else {
      bytes.erase(name);
    }
  }
};

std::string Md5(const std::string& path) { return ZMFileUtils::getFileMD5(path).value_or(""); }

class SignedPackages : public ::testing::Test {
 protected:
  TestRuntime t;
  TestSigner signer;
  Files files;
  const std::string zip = t.root() + "/game.zip";

  ZMValue game(const std::string& version) {
    return {{ZM_KEY_GAME_PACKAGE_APP_ID, "g1"}, {ZM_KEY_GAME_PACKAGE_VERSION, version}};
  }
  std::string download(const std::string& hash) {
    auto listener = std::make_shared<DownloadRecorder>();
    ZMValue options = game("2.0");
    options[ZM_KEY_GAME_PACKAGE_URL] = files.server.url("/game.zip");
    options[ZM_KEY_GAME_PACKAGE_HASH] = hash;
    t.runtime->downloadGamePackage(options, listener);
    EXPECT_TRUE(RunUntil([&] {
      return listener->last().starts_with("onDownload") &&
             listener->last() != "onDownloadProgress" && listener->last() != "onDownloadStart";
    }));
    return listener->last();
  }
  std::string install(const std::string& version, const std::string& package) {
    auto listener = std::make_shared<InstallRecorder>();
    ZMValue options = game(version);
    options[ZM_KEY_GAME_PACKAGE_PATH] = package;
    t.runtime->installGamePackage(options, listener);
    EXPECT_TRUE(RunUntil([&] { return listener->size() >= 2; }));
    return listener->last();
  }
};

TEST_F(SignedPackages, OnlyAGoodSignatureByATrustedKeyGetsAPackageDownloadedOrInstalled) {
  TestSigner stranger;
  // A whole .pub file serves as well as its key line.
  t.extraOptions[ZM_KEY_PACKAGE_TRUSTED_KEYS] =
      ZMValue::array({"untrusted comment: minisign public key\n" + signer.publicKey() + "\n"});
  t.switchUser("u1");
  const std::string v1 = t.root() + "/v1.zip";

  using Tamper = std::function<std::optional<std::string>(std::string)>;
  const Tamper same = [](std::string signature) { return signature; };
  struct Case {
    std::string name;
    bool legacy;
    Tamper tamper;  // what becomes of the signature; null: none at all
    std::string refusal;
  };
  const std::string sigUrl = files.server.url("/game.zip.minisig");
  const std::vector<Case> cases = {
      {"prehashed", false, same, ""},
      {"legacy", true, same, ""},
      {"changed after signing", false,
       [&](std::string signature) {
         MakeGamePackage(zip, "{}", {{"main.js", "evil"}});
         return signature;
       },
       "invalid"},
      {"another key", false, [&](std::string) { return stranger.signature(zip); },
       "untrusted: " + stranger.keyId()},
      {"forged trusted comment", false,
       [](std::string signature) {
         const auto at = signature.find("\ntrusted comment: ") + 18;
         return signature.insert(at, "version 9 ");
       },
       "invalid"},
      {"none", false, [](std::string) { return std::nullopt; }, "missing"},
      {"truncated", false, [](std::string signature) { return signature.substr(0, 150); },
       "invalid"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    MakeGamePackage(v1, "{}", {{"main.js", "v1"}});
    signer.sign(v1);
    ASSERT_EQ(install("1.0", v1), "onInstallSuccess");
    EXPECT_FALSE(Exists(v1 + ".minisig")) << "the signature goes with the package";

    MakeGamePackage(zip, "{}", {{"main.js", "v2"}});
    const auto signature = c.tamper(signer.signature(zip, c.legacy));
    files.put("game.zip", ReadFile(zip));
    files.put("game.zip.minisig", signature);
    // Downloaded with the package's own MD5: only the signature can refuse it.
    const std::string saved = t.runtime->getAppPackageDownloadPath("g1", "2.0");
    const std::string downloaded = download(Md5(zip));
    if (c.refusal.empty()) {
      EXPECT_EQ(downloaded, "onDownloadSuccess:" + saved);
      EXPECT_EQ(ReadFile(saved + ".minisig"), *signature);
      EXPECT_EQ(install("2.0", saved), "onInstallSuccess");
      EXPECT_EQ(ReadFile(t.app() + "/g1/2.0/main.js"), "v2");
      EXPECT_EQ(ListDir(t.cache()), Events{}) << "package and signature are deleted";
      continue;
    }
    const std::string where = c.refusal.starts_with("untrusted") ? "" : ": " + sigUrl;
    EXPECT_EQ(downloaded, "onDownloadFailure:package signature " + c.refusal + where + "|0");
    EXPECT_EQ(ListDir(t.cache()), Events{}) << "nothing is kept";

    // The same package and signature beside it, installed from a file.
    const std::string local = t.root() + "/local.zip";
    std::filesystem::copy_file(zip, local, std::filesystem::copy_options::overwrite_existing);
    std::filesystem::remove(local + ".minisig");
    if (signature) WriteFile(local + ".minisig", *signature);
    const std::string localWhere =
        c.refusal.starts_with("untrusted") ? "" : ": " + local + ".minisig";
    EXPECT_EQ(install("2.0", local),
              "onInstallFailure:package signature " + c.refusal + localWhere + "|0");
    EXPECT_EQ(ReadFile(t.app() + "/g1/1.0/main.js"), "v1") << "the installed version stays";
    EXPECT_EQ(t.checkVersion("g1", "1.0"), "onCheckVersionSuccess");
    EXPECT_TRUE(Exists(local)) << "a refused package is the host's to delete";
  }

  // A download notes its package's digest beside the signature, so that the install need not
  // read it again; a package changed in place afterwards, its size and time kept, is read again
  // and refused.
  MakeGamePackage(zip, "{}", {{"main.js", "v2"}});
  signer.sign(zip);
  files.put("game.zip", ReadFile(zip));
  files.put("game.zip.minisig", ReadFile(zip + ".minisig"));
  const std::string saved = t.runtime->getAppPackageDownloadPath("g1", "2.0");
  ASSERT_EQ(download(Md5(zip)), "onDownloadSuccess:" + saved);
  struct stat before {};
  ::stat(saved.c_str(), &before);
  std::string bytes = ReadFile(saved);
  bytes[bytes.size() / 2] ^= 1;
  std::ofstream(saved, std::ios::in | std::ios::out | std::ios::binary) << bytes;
  const timespec times[2] = {before.st_atim, before.st_mtim};
  ::utimensat(AT_FDCWD, saved.c_str(), times, 0);
  EXPECT_EQ(install("2.0", saved),
            "onInstallFailure:package signature invalid: " + saved + ".minisig|0");

  // Without keys an unsigned package downloads and installs as it always has, and no signature
  // is asked for.
  t.extraOptions = ZMValue::object();
  t.switchUser("u1");
  MakeGamePackage(zip, "{}", {{"main.js", "unsigned"}});
  files.put("game.zip", ReadFile(zip));
  files.put("game.zip.minisig", std::nullopt);
  EXPECT_EQ(download(Md5(zip)), "onDownloadSuccess:" + saved);
  EXPECT_EQ(files.asked, Events{"game.zip"});
  EXPECT_EQ(install("2.0", saved), "onInstallSuccess");
  EXPECT_EQ(ReadFile(t.app() + "/g1/2.0/main.js"), "unsigned");
}

}  // namespace
