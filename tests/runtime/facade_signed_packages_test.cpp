// Signed game packages as a host sees them: with a trusted key, a package downloads (its
// signature kept beside it) and installs only when a good signature by that key comes with it,
// and a refused one leaves the installed version as it was; without keys nothing asks for one.
// And the download front: onDownloadStart before the call returns, a second download that
// silently replaces the first, and a cancel after which nothing arrives.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "support/TestHttpServer.h"
#include "support/TestPluginService.h"
#include "support/TestRuntime.h"
#include "support/TestSigner.h"
#include "support/TestZip.h"

namespace {

using Events = std::vector<std::string>;

struct SignedPackages : ::testing::Test {
  TestRuntime t;
  TestSigner signer;
  TestPluginService files;  // serves /pkg/<file>
  const std::string zip = t.root() + "/game.zip";
  const std::string saved = t.runtime->getAppPackageDownloadPath("g1", "2.0");

  // Serves the package at `zip` and `signature` beside it (404 without).
  void serve(const std::optional<std::string>& signature) {
    files.serve("game.zip", ReadFile(zip));
    files.answer("GET game.zip.minisig", signature.value_or(""), signature ? 200 : 404);
  }
  std::string download() {
    auto listener = std::make_shared<DownloadRecorder>();
    t.runtime->downloadGamePackage({{ZM_KEY_GAME_PACKAGE_APP_ID, "g1"},
                                    {ZM_KEY_GAME_PACKAGE_VERSION, "2.0"},
                                    {ZM_KEY_GAME_PACKAGE_URL, files.package("game.zip")},
                                    {ZM_KEY_GAME_PACKAGE_HASH, *ZMFileUtils::getFileMD5(zip)}},
                                   listener);
    EXPECT_TRUE(RunUntil([&] {
      return listener->last().starts_with("onDownloadSuccess") ||
             listener->last().starts_with("onDownloadFailure");
    }));
    return listener->last();
  }
  std::string install(const std::string& version, const std::string& package) {
    auto listener = std::make_shared<InstallRecorder>();
    t.runtime->installGamePackage({{ZM_KEY_GAME_PACKAGE_APP_ID, "g1"},
                                   {ZM_KEY_GAME_PACKAGE_VERSION, version},
                                   {ZM_KEY_GAME_PACKAGE_PATH, package}},
                                  listener);
    EXPECT_TRUE(RunUntil([&] { return listener->size() >= 2; }));
    return listener->last();
  }
};

// `signature` with its key id (little-endian, as the file holds it) replaced by `id`, zero-filled.
static std::string WithKeyId(std::string signature, const std::string& id) {
  const auto begin = signature.find('\n') + 1;
  const auto end = signature.find('\n', begin);
  std::string bytes(end - begin, '\0');
  const auto* line = reinterpret_cast<const unsigned char*>(signature.data() + begin);
  const int decoded = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()), line,
                                      static_cast<int>(end - begin));
  // The algorithm, the id and the signature; the decoder counts the padding as a byte.
  if (decoded >= 74) bytes.resize(74);
  bytes.replace(2, 8, (id + std::string(8, '\0')).substr(0, 8));
  std::string encoded(bytes.size() * 2 + 4, '\0');
  encoded.resize(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()),
                                 reinterpret_cast<const unsigned char*>(bytes.data()),
                                 static_cast<int>(bytes.size())));
  return signature.replace(begin, end - begin, encoded);
}

TEST_F(SignedPackages, OnlyAGoodSignatureByATrustedKeyGetsAPackageDownloadedOrInstalled) {
  TestSigner stranger;
  // A whole .pub file serves as well as its key line.
  t.extraOptions[ZM_KEY_PACKAGE_TRUSTED_KEYS] =
      ZMValue::array({"untrusted comment: minisign public key\n" + signer.publicKey() + "\n"});
  t.switchUser("u1");

  using Tamper = std::function<std::optional<std::string>(std::string)>;
  const Tamper same = [](std::string signature) { return signature; };
  const struct Case {
    std::string name;
    bool legacy;
    Tamper tamper;        // what becomes of the signature; null: there is none
    std::string refusal;  // "" for none; the location of the signature follows, not a key id
  } cases[] = {
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
      {"an id minisign prints without leading zeros", false,
       [](std::string signature) { return WithKeyId(signature, "\x21\x43\x65\x87\xa9\xcb\x0d"); },
       "untrusted: DCBA987654321"},
      {"forged trusted comment", false,
       [](std::string signature) {
         return signature.insert(signature.find("\ntrusted comment: ") + 18, "version 9 ");
       },
       "invalid"},
      {"none", false, [](std::string) { return std::nullopt; }, "missing"},
      {"truncated", false, [](std::string signature) { return signature.substr(0, 150); },
       "invalid"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string v1 = t.root() + "/v1.zip";
    MakeGamePackage(v1, "{}", {{"main.js", "v1"}});
    signer.sign(v1);
    ASSERT_EQ(install("1.0", v1), "onInstallSuccess");
    EXPECT_FALSE(Exists(v1 + ".minisig")) << "the signature goes with the package";

    // Downloaded with the package's own MD5: only the signature can refuse it.
    MakeGamePackage(zip, "{}", {{"main.js", "v2"}});
    const auto signature = c.tamper(signer.signature(zip, c.legacy));
    serve(signature);
    const std::string downloaded = download();
    if (c.refusal.empty()) {
      EXPECT_EQ(downloaded, "onDownloadSuccess:" + saved);
      EXPECT_EQ(ReadFile(saved + ".minisig"), *signature);
      EXPECT_EQ(install("2.0", saved), "onInstallSuccess");
      EXPECT_EQ(ReadFile(t.app() + "/g1/2.0/main.js"), "v2");
      EXPECT_EQ(ListDir(t.cache()), std::vector<std::string>{}) << "both deleted";
      continue;
    }
    const auto refusal = [&](const std::string& signatureAt) {
      return "package signature " + c.refusal +
             (c.refusal.starts_with("untrusted") ? "" : ": " + signatureAt) + "|0";
    };
    EXPECT_EQ(downloaded, "onDownloadFailure:" + refusal(files.package("game.zip.minisig")));
    EXPECT_EQ(ListDir(t.cache()), std::vector<std::string>{}) << "nothing is kept";

    // The same package with the same signature beside it, installed from a file.
    std::filesystem::remove(zip + ".minisig");
    if (signature) WriteFile(zip + ".minisig", *signature);
    EXPECT_EQ(install("2.0", zip), "onInstallFailure:" + refusal(zip + ".minisig"));
    EXPECT_EQ(ReadFile(t.app() + "/g1/1.0/main.js"), "v1") << "the installed version stays";
    EXPECT_EQ(t.checkVersion("g1", "1.0"), "onCheckVersionSuccess");
  }

  // A download notes its package's digest beside the signature, so that the install need not
  // read it again; a package changed in place afterwards, its size and time kept, is read again
  // and refused.
  MakeGamePackage(zip, "{}", {{"main.js", "v2"}});
  serve(signer.signature(zip));
  ASSERT_EQ(download(), "onDownloadSuccess:" + saved);
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
  serve(std::nullopt);
  const auto asked = files.log().size();
  EXPECT_EQ(download(), "onDownloadSuccess:" + saved);
  EXPECT_EQ(files.log().size(), asked + 1);
  EXPECT_EQ(install("2.0", saved), "onInstallSuccess");
  EXPECT_EQ(ReadFile(t.app() + "/g1/2.0/main.js"), "unsigned");
}

TEST(ZMGameRuntimeDownload, OnlyTheLatestDownloadIsHeardAndCancelIsSilent) {
  TestRuntime t;
  const std::string body = PatternBody(300000);
  TestHttpServer server;
  server.Get("/stall", PartialBody(server, 1 << 20, 64 << 10, true));
  server.Get("/pkg", [&](const auto&, auto& res) { res.set_content(body, "application/zip"); });
  server.start();
  const auto path = [&](const std::string& appId) {
    return t.runtime->getAppPackageDownloadPath(appId, "1.0");
  };
  // Starts a download of `appId` from `route`; the start is heard before the call returns.
  const auto download = [&](const std::string& appId, const std::string& route) {
    auto listener = std::make_shared<DownloadRecorder>();
    t.runtime->downloadGamePackage(ZMValue{{ZM_KEY_GAME_PACKAGE_APP_ID, appId},
                                           {ZM_KEY_GAME_PACKAGE_VERSION, "1.0"},
                                           {ZM_KEY_GAME_PACKAGE_URL, server.url(route)}},
                                   listener);
    EXPECT_EQ(listener->events(), Events{"onDownloadStart"}) << appId;
    return listener;
  };
  const auto underWay = [](const std::shared_ptr<DownloadRecorder>& listener) {
    return RunUntil([&] { return listener->size() > 1; });  // progress
  };
  // The network thread ends a cancelled transfer before it begins a later one, and the main
  // queue runs in order: once a later download has succeeded, every earlier transfer has ended
  // (its temporary file is gone) and its end has been delivered.
  const auto succeeds = [&](const std::shared_ptr<DownloadRecorder>& listener,
                            const std::string& appId) {
    EXPECT_TRUE(RunUntil([&] { return listener->last().starts_with("onDownloadSuccess"); }));
    DrainMainQueue();
    EXPECT_EQ(listener->runs(), (Events{"onDownloadStart", "onDownloadProgress",
                                        "onDownloadSuccess:" + path(appId)}));
    EXPECT_TRUE(ReadFile(path(appId)) == body) << appId;
    EXPECT_EQ(ListDir(t.dirs.temporary()), Events{}) << appId;
  };

  // A second download cancels the first, whose listener hears nothing more.
  auto first = download("a", "/stall");
  ASSERT_TRUE(underWay(first));
  auto second = download("b", "/pkg");
  succeeds(second, "b");
  EXPECT_EQ(first->runs(), (Events{"onDownloadStart", "onDownloadProgress"}));
  EXPECT_EQ(ListDir(t.cache()), Events{"b.1.0.zgp"});  // the package cache

  // cancelGamePackageRequest during a download: nothing, ever.
  auto cancelled = download("c", "/stall");
  ASSERT_TRUE(underWay(cancelled));
  t.runtime->cancelGamePackageRequest();
  DrainMainQueue();
  EXPECT_EQ(cancelled->runs(), (Events{"onDownloadStart", "onDownloadProgress"}));
  succeeds(download("d", "/pkg"), "d");
  EXPECT_EQ(cancelled->runs(), (Events{"onDownloadStart", "onDownloadProgress"}));
  EXPECT_EQ(ListDir(t.cache()), (Events{"b.1.0.zgp", "d.1.0.zgp"}));
  EXPECT_EQ(server.requestCount(), 4u);
}

}  // namespace
