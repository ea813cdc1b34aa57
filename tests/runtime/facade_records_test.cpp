// What a host sees of records, of app ids that could leave the roots, of a game's configuration,
// of signed packages, and of downloads that replace or cancel one another.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <filesystem>

#include "storage/ZMDatabaseHelper.h"
#include "support/TestHttpServer.h"
#include "support/TestPluginService.h"
#include "support/TestRuntime.h"
#include "support/TestSigner.h"
#include "support/TestZip.h"

namespace {

namespace fs = std::filesystem;
using Events = std::vector<std::string>;
const Events kStored = {"onGameDataSetSuccess"};

// A listed game; without extend data the item holds the app id alone.
ZMValue item(const std::string& appId, const ZMValue& extend) {
  ZMValue item = {{ZM_KEY_GAME_ITEM_APP_ID, appId}};
  if (!extend.is_null()) item[ZM_KEY_GAME_ITEM_EXTEND] = extend;
  return item;
}

// Every entry under `root` by relative path: "dir", "link -> target" or the file's content.
// The record store's files change with every query; only their names are kept.
std::map<std::string, std::string> Snapshot(const std::string& root) {
  std::map<std::string, std::string> entries;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    const std::string relative = fs::relative(entry.path(), root).string();
    entries[relative] = entry.is_symlink() ? "link -> " + fs::read_symlink(entry.path()).string()
                        : entry.is_directory()               ? "dir"
                        : relative.starts_with("Documents/") ? ""
                                                             : ReadFile(entry.path());
  }
  return entries;
}

class ZMGameRuntimeRecords : public ::testing::Test {
 protected:
  TestRuntime t;

  ZMDatabaseHelper& store() { return ZMDatabaseHelper::getInstance(); }
  // listGame and setGameData answer before they return.
  ZMValue list() {
    auto listener = std::make_shared<ListRecorder>();
    t.runtime->listGame(listener);
    EXPECT_EQ(listener->events(), Events{"onListGameSuccess"});
    return listener->items;
  }
  Events setData(const std::string& appId, const ZMValue& info) {
    auto listener = std::make_shared<DataRecorder>();
    t.runtime->setGameData(appId, info, listener);
    return listener->events();
  }
  Events removeAll() {
    auto listener = std::make_shared<RemoveRecorder>();
    t.runtime->removeGameAll(listener);
    EXPECT_TRUE(RunUntil([&] { return listener->last().starts_with("onRemoveSuccess"); }));
    return listener->events();
  }
  bool installWithExtend(const std::string& appId, const std::string& extend) {
    MakeGamePackage(t.root() + "/ext.zip", "{}");
    return t.install(appId, "1.0", t.root() + "/ext.zip", extend);
  }
  void makeUserDirs(const std::string& userId, const std::string& appId) {
    WriteFile(t.cache() + "/" + userId + "_" + appId + "/tmp/t.bin", "t");
    WriteFile(t.user() + "/" + userId + "_" + appId + "/data/d.bin", "d");
  }
};

TEST_F(ZMGameRuntimeRecords, SetGameDataStoresHostFieldsButNeverThePlayCount) {
  // An app without a record gets one, even from an empty info.
  EXPECT_EQ(setData("g9", ZMValue::object()), kStored);
  EXPECT_EQ(list(), ZMValue::array({item("g9", nullptr)}));

  // A "played" in the info is no play: only launches count.
  store().insertOrUpdateExtraAndPlay("u1", "g9", std::nullopt);
  const ZMValue info = {{"played", 7},         {"extend", "level=3"},         {"reserve", "spare"},
                        {"auth_camera", 1},    {"auth_location", 0},          {"auth_record", 2},
                        {"auth_user_info", 3}, {"auth_write_photos_album", 4}};
  EXPECT_EQ(setData("g9", info), kStored);
  auto row = store().getAppRowByUserId("u1", "g9");
  EXPECT_EQ(std::tuple(row->played, row->reserve, row->auth_camera, row->auth_location,
                       row->auth_record, row->auth_user_info, row->auth_write_photos_album),
            std::tuple(1, "spare", 1, 0, 2, 3, 4));
  EXPECT_EQ(list(), ZMValue::array({item("g9", "level=3")}));

  // Keys left out, and values of the wrong kind, leave what is stored.
  EXPECT_EQ(setData("g9", {{"reserve", "next"}, {"auth_camera", "0"}, {"extend", 5}}), kStored);
  row = store().getAppRowByUserId("u1", "g9");
  EXPECT_EQ(std::tuple(row->reserve, row->auth_camera, row->extend, row->auth_location),
            std::tuple("next", 1, "level=3", 0));
  EXPECT_EQ(store().getPeopleCount("g9"), 1) << "updated in place, not inserted again";

  store().setSavesFailForTesting(true);
  EXPECT_EQ(setData("g10", {{"extend", "x"}}),
            Events{"onGameDataSetFailure:set game data update database fail|0"});
  store().setSavesFailForTesting(false);
}

// Each bad id with every operation that takes an app id: the host hears the operation's own
// failure (a check reads as not installed; getGameConfig quietly gives nothing), and nothing under
// the root changes: the game, files that "..", "." or "../x" would reach, the directory "a/b"
// names.
TEST_F(ZMGameRuntimeRecords, AppIdsThatCouldLeaveTheRootsAreRefusedEverywhere) {
  ASSERT_TRUE(installWithExtend("g1", "kept"));
  makeUserDirs("u1", "g1");
  const std::string package = t.root() + "/p.zip";
  MakeGamePackage(package, "{}");
  WriteFile(t.root() + "/x", "what ../x names from a root");
  WriteFile(t.root() + "/x.1.0.zgp", "where ../x would be downloaded");
  WriteFile(t.app() + "/a/b/keep", "inside a root");
  WriteFile(t.cache() + "/u1_a/b/keep", "inside a root");
  DrainMainQueue();
  const auto before = Snapshot(t.root());

  auto refusal = [](const std::string& bad) { return "invalid app id: " + bad + "|-1"; };
  const std::string noId = "missing install option: ZM_KEY_GAME_PACKAGE_APP_ID|-1";
  auto options = [&](const std::string& bad) {
    return ZMValue{{ZM_KEY_GAME_PACKAGE_APP_ID, bad},
                   {ZM_KEY_GAME_PACKAGE_VERSION, "1.0"},
                   {ZM_KEY_GAME_PACKAGE_PATH, package},
                   {ZM_KEY_GAME_PACKAGE_URL, "http://127.0.0.1:9/p.zip"}};
  };
  std::vector<std::pair<std::shared_ptr<EventLog>, Events>> heard;
  // Waits for what the host should hear from one operation, then looks under the root.
  auto hear = [&](std::shared_ptr<EventLog> log, const Events& expected) {
    EXPECT_TRUE(RunUntil([&] { return log->size() >= expected.size(); }));
    EXPECT_EQ(log->events(), expected);
    EXPECT_EQ(Snapshot(t.root()), before);
    heard.emplace_back(log, expected);
  };
  for (const std::string& bad : Events{"", ".", "..", "a/b", "../x", std::string("g1\0x", 4)}) {
    SCOPED_TRACE("\"" + bad + "\" (" + std::to_string(bad.size()) + " bytes)");
    auto check = std::make_shared<CheckRecorder>();
    t.runtime->checkGameVersion(options(bad), check);
    hear(check, {"onCheckVersionStart", kVersionMismatch});

    // Only a separator could take the package file out of the cache; other names are fetched,
    // and fail like any other address that refuses (nothing listens on port 9).
    auto download = std::make_shared<DownloadRecorder>();
    t.runtime->downloadGamePackage(options(bad), download);
    const bool separator = bad.find_first_of(std::string("/\0", 2)) != std::string::npos;
    hear(download, {"onDownloadStart",
                    "onDownloadFailure:" + (separator ? refusal(bad) : "NSURLErrorDomain|-1004")});

    auto install = std::make_shared<InstallRecorder>();
    t.runtime->installGamePackage(options(bad), install);
    hear(install, {"onInstallStart", "onInstallFailure:" + (bad.empty() ? noId : refusal(bad))});

    LogCapture log;
    EXPECT_EQ(t.runtime->getGameConfig(options(bad)), nullptr);
    EXPECT_EQ(log.lines(), Events{});

    auto data = std::make_shared<DataRecorder>();
    t.runtime->setGameData(bad, {{"extend", "x"}, {"auth_camera", 1}}, data);
    hear(data, {"onGameDataSetFailure:" + refusal(bad)});

    auto remove = std::make_shared<RemoveRecorder>();
    t.runtime->removeGameList({"never", bad}, remove);
    EXPECT_EQ(remove->size(), 0u) << "a removal answers on the main queue";
    hear(remove, {"onRemoveSuccess:[]"});

    auto run = std::make_shared<RunRecorder>();
    t.runtime->runGame(std::make_shared<int>(1), bad, {{ZM_KEY_RUN_OPT_VERSION, "1.0"}}, run);
    hear(run, {"onRunFailure:" + refusal(bad)});
  }
  // Nothing was left running to call back or write later, and no record was made.
  DrainMainQueue();
  for (const auto& [log, expected] : heard) EXPECT_EQ(log->events(), expected);
  EXPECT_EQ(Snapshot(t.root()), before);
  EXPECT_EQ(list(), ZMValue::array({item("g1", "kept")}));
}

TEST_F(ZMGameRuntimeRecords, TwoUsersShareAppFilesButEachSeesAndRemovesOnlyTheirRecords) {
  ASSERT_TRUE(installWithExtend("g1", "u1-ext"));
  ASSERT_TRUE(t.installGame("solo", "1.0"));
  makeUserDirs("u1", "g1");
  t.switchUser("u2");
  ASSERT_TRUE(t.installGame("g1", "1.0"));
  makeUserDirs("u2", "g1");

  EXPECT_EQ(list(), ZMValue::array({item("g1", nullptr)}));
  EXPECT_EQ(setData("g1", {{"extend", "u2-ext"}}), kStored);
  EXPECT_EQ(store().getPeopleCount("g1"), 2);

  t.switchUser("u1");
  EXPECT_EQ(list(), ZMValue::array({item("g1", "u1-ext"), item("solo", nullptr)}));
  EXPECT_EQ(removeAll(), (Events{"onRemoveStart:g1|u1-ext", "onRemoveFinish:g1|u1-ext",
                                 "onRemoveStart:solo|(null)", "onRemoveFinish:solo|(null)",
                                 "onRemoveSuccess:[g1,solo]"}));
  EXPECT_EQ(list(), ZMValue::array());
  EXPECT_EQ(ListDir(t.app()), Events{"g1"}) << "u2 still has g1";
  EXPECT_FALSE(Exists(t.cache() + "/u1_g1"));
  EXPECT_FALSE(Exists(t.user() + "/u1_g1"));
  EXPECT_EQ(ReadFile(t.user() + "/u2_g1/data/d.bin"), "d");

  t.switchUser("u2");
  EXPECT_EQ(list(), ZMValue::array({item("g1", "u2-ext")}));
  EXPECT_EQ(removeAll().back(), "onRemoveSuccess:[g1]");
  EXPECT_FALSE(Exists(t.user() + "/u2_g1"));
  EXPECT_EQ(store().getPeopleCount("g1"), 0);
  EXPECT_EQ(ListDir(t.app()), Events{});
}

// getGameConfig reads the version's game.config.json; without a version, that named by detail.json.
TEST(ZMGameRuntimeGetGameConfig, ReadsTheInstalledConfigurationOrGivesNothing) {
  TestRuntime t;
  const auto config = [&](const std::string& version = "") {
    ZMValue options = {{ZM_KEY_GAME_PACKAGE_APP_ID, "g1"}};
    if (!version.empty()) options[ZM_KEY_GAME_PACKAGE_VERSION] = version;
    return t.runtime->getGameConfig(options);
  };
  EXPECT_EQ(config(), nullptr) << "no version and no detail file: nothing is installed";
  ASSERT_TRUE(t.installGame("g1", "1.0", R"({"deviceOrientation":"portrait"})"));
  ASSERT_TRUE(config());
  EXPECT_EQ(config()->deviceOrientation(), "portrait");

  // A version directory without "game.config.json" reads as all defaults (and is created).
  const auto defaults = config("9");
  ASSERT_TRUE(defaults);
  EXPECT_EQ(std::tuple(defaults->deviceOrientation(), defaults->showStatusBar(),
                       defaults->runtimeVersion(), defaults->subpackages(), defaults->plugins()),
            std::tuple("landscape", false, "", ZMValue::array(), ZMValue::array()));
  EXPECT_TRUE(Exists(t.app() + "/g1/9"));

  // Stored values; plug-ins in the object's own order, not sorted: zeta before alpha.
  const std::string file = t.app() + "/g1/1.0/game.config.json";
  WriteFile(file, R"({"runtimeVersion":"2.1","subpackages":["a"],"showStatusBar":"YES",)"
                  R"("plugins":{"zeta":{"version":"2"},"alpha":{"version":"1"}}})");
  EXPECT_TRUE(config()->showStatusBar());
  EXPECT_EQ(config()->runtimeVersion(), "2.1");
  EXPECT_EQ(config()->subpackages(), ZMValue::array({"a"}));
  EXPECT_EQ(config()->plugins(), (ZMValue{{{"version", "2"}}, {{"version", "1"}}}));

  // A broken configuration gives none. Found by fuzzing: the parser's message quotes bytes that
  // are not UTF-8, and logging the failure threw out of the read.
  LogCapture log;
  for (const std::string broken : {"{", "[1\xd0\x8e,\x16"}) {
    WriteFile(file, broken);
    EXPECT_EQ(config(), nullptr) << broken;
  }
  EXPECT_TRUE(std::ranges::any_of(log.lines(), [](const std::string& line) {
    return line.find("\xEF\xBF\xBD") != std::string::npos;
  })) << "the stray bytes are logged as U+FFFD";

  // Neither does a broken detail, nor one whose version is no text, nor an unsafe version.
  WriteFile(file, "{}");
  for (const std::string detail : {"[1,", R"({"rt_game_package_version":1})"}) {
    WriteFile(t.app() + "/g1/detail.json", detail);
    EXPECT_EQ(config(), nullptr) << detail;
  }
  EXPECT_EQ(config("../x"), nullptr);
  EXPECT_FALSE(Exists(t.app() + "/x"));
}

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
std::string WithKeyId(std::string signature, const std::string& id) {
  const auto begin = signature.find('\n') + 1;
  const auto end = signature.find('\n', begin);
  const auto u = [](std::string& s) { return reinterpret_cast<unsigned char*>(s.data()); };
  std::string bytes(end - begin, '\0');
  // The algorithm, the id and the signature; the decoder counts the padding as a byte.
  if (EVP_DecodeBlock(u(bytes), u(signature) + begin, static_cast<int>(end - begin)) >= 74) {
    bytes.resize(74);
  }
  bytes.replace(2, 8, (id + std::string(8, '\0')).substr(0, 8));
  std::string encoded(bytes.size() * 2 + 4, '\0');
  encoded.resize(EVP_EncodeBlock(u(encoded), u(bytes), static_cast<int>(bytes.size())));
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
  // Each case's name, what becomes of the signature (nullopt: there is none), and the refusal
  // ("" for none; the location of the signature follows it, not a key id).
  const std::tuple<std::string, Tamper, std::string> cases[] = {
      {"prehashed", same, ""},
      {"legacy", [&](std::string) { return signer.signature(zip, true); }, ""},
      {"changed after signing",
       [&](std::string signature) {
         MakeGamePackage(zip, "{}", {{"main.js", "evil"}});
         return signature;
       },
       "invalid"},
      {"another key", [&](std::string) { return stranger.signature(zip); },
       "untrusted: " + stranger.keyId()},
      {"an id minisign prints without leading zeros",
       [](std::string signature) { return WithKeyId(signature, "\x21\x43\x65\x87\xa9\xcb\x0d"); },
       "untrusted: DCBA987654321"},
      {"forged trusted comment",
       [](std::string signature) {
         return signature.insert(signature.find("\ntrusted comment: ") + 18, "version 9 ");
       },
       "invalid"},
      {"none", [](std::string) { return std::nullopt; }, "missing"},
      {"truncated", [](std::string signature) { return signature.substr(0, 150); }, "invalid"},
  };
  for (const auto& [name, tamper, refusal] : cases) {
    SCOPED_TRACE(name);
    const std::string v1 = t.root() + "/v1.zip";
    MakeGamePackage(v1, "{}", {{"main.js", "v1"}});
    signer.sign(v1);
    ASSERT_EQ(install("1.0", v1), "onInstallSuccess");
    EXPECT_FALSE(Exists(v1 + ".minisig")) << "the signature goes with the package";

    // Downloaded with the package's own MD5: only the signature can refuse it.
    MakeGamePackage(zip, "{}", {{"main.js", "v2"}});
    const auto signature = tamper(signer.signature(zip));
    serve(signature);
    const std::string downloaded = download();
    if (refusal.empty()) {
      EXPECT_EQ(downloaded, "onDownloadSuccess:" + saved);
      EXPECT_EQ(ReadFile(saved + ".minisig"), *signature);
      EXPECT_EQ(install("2.0", saved), "onInstallSuccess");
      EXPECT_EQ(ReadFile(t.app() + "/g1/2.0/main.js"), "v2");
      EXPECT_EQ(ListDir(t.cache()), Events{}) << "both deleted";
      continue;
    }
    const auto refused = [&](const std::string& signatureAt) {
      return "package signature " + refusal +
             (refusal.starts_with("untrusted") ? "" : ": " + signatureAt) + "|0";
    };
    EXPECT_EQ(downloaded, "onDownloadFailure:" + refused(files.package("game.zip.minisig")));
    EXPECT_EQ(ListDir(t.cache()), Events{}) << "nothing is kept";

    // The same package with the same signature beside it, installed from a file.
    std::filesystem::remove(zip + ".minisig");
    if (signature) WriteFile(zip + ".minisig", *signature);
    EXPECT_EQ(install("2.0", zip), "onInstallFailure:" + refused(zip + ".minisig"));
    EXPECT_EQ(ReadFile(t.app() + "/g1/1.0/main.js"), "v1") << "the installed version stays";
    EXPECT_EQ(t.checkVersion("g1", "1.0"), "onCheckVersionSuccess");
  }

  // A download notes the package's digest beside its signature for the install; a package changed
  // in place afterwards, its size and time kept, is read again and refused.
  MakeGamePackage(zip, "{}", {{"main.js", "v2"}});
  serve(signer.signature(zip));
  ASSERT_EQ(download(), "onDownloadSuccess:" + saved);
  const auto modified = std::filesystem::last_write_time(saved);
  std::string bytes = ReadFile(saved);
  bytes[bytes.size() / 2] ^= 1;
  WriteFile(saved, bytes);  // the same file, rewritten
  std::filesystem::last_write_time(saved, modified);
  EXPECT_EQ(install("2.0", saved),
            "onInstallFailure:package signature invalid: " + saved + ".minisig|0");

  // Without keys an unsigned package downloads and installs, and no signature is asked for.
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
  // The network thread ends a cancelled transfer before it begins a later one, and the main
  // queue runs in order: once a later download has succeeded, every earlier transfer has ended
  // (its temporary file is gone) and its end has been delivered.
  const auto succeeds = [&](const std::shared_ptr<DownloadRecorder>& listener,
                            const std::string& appId) {
    EXPECT_TRUE(RunUntil([&] { return listener->last().starts_with("onDownloadSuccess"); }));
    DrainMainQueue();
    const std::string path = t.runtime->getAppPackageDownloadPath(appId, "1.0");
    EXPECT_EQ(listener->runs(),
              (Events{"onDownloadStart", "onDownloadProgress", "onDownloadSuccess:" + path}));
    EXPECT_TRUE(ReadFile(path) == body) << appId;
    EXPECT_EQ(ListDir(t.dirs.temporary()), Events{}) << appId;
  };

  // A second download cancels the first, whose listener hears nothing more.
  auto first = download("a", "/stall");
  ASSERT_TRUE(RunUntil([&] { return first->size() > 1; }));  // under way
  succeeds(download("b", "/pkg"), "b");
  EXPECT_EQ(first->runs(), (Events{"onDownloadStart", "onDownloadProgress"}));
  EXPECT_EQ(ListDir(t.cache()), Events{"b.1.0.zgp"});  // the package cache

  // cancelGamePackageRequest during a download: nothing, ever.
  auto cancelled = download("c", "/stall");
  ASSERT_TRUE(RunUntil([&] { return cancelled->size() > 1; }));
  t.runtime->cancelGamePackageRequest();
  DrainMainQueue();
  EXPECT_EQ(cancelled->runs(), (Events{"onDownloadStart", "onDownloadProgress"}));
  succeeds(download("d", "/pkg"), "d");
  EXPECT_EQ(cancelled->runs(), (Events{"onDownloadStart", "onDownloadProgress"}));
  EXPECT_EQ(ListDir(t.cache()), (Events{"b.1.0.zgp", "d.1.0.zgp"}));
  EXPECT_EQ(server.requestCount(), 4u);
}

}  // namespace
