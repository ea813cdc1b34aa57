#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "TavoCli.h"
#include "support/TestRangeServer.h"
#include "support/TestZip.h"

namespace {

TEST_F(TavoCli, GameCycleAcrossInvocationsWithTrace) {
  MakeGamePackage(dir / "g.zip", R"({"deviceOrientation":"portrait"})",
                  {{"big.bin", PatternBody(3 << 20)}});
  const std::string body = ReadFile(dir / "g.zip");
  TestPluginService server;
  server.serve("g.zip", body);

  // Each invocation starts from what the previous ones left under the root.
  const auto lines = trace({"download", "--app", "g", "--version", "1", "--url",
                            server.package("g.zip"), "--hash", Md5(dir / "g.zip")})
                         .json();
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(lines[0], (ZMValue{{"event", "onInitializeSuccess"}, {"args", {"ZMZimoGameRuntime"}}}));
  EXPECT_EQ(lines[1], (ZMValue{{"event", "onDownloadStart"}, {"args", ZMValue::array()}}));
  for (std::size_t i = 2; i + 1 < lines.size(); ++i) {
    ASSERT_EQ(lines[i]["event"], "onDownloadProgress");
    EXPECT_EQ(lines[i]["args"][1], body.size());  // bytes so far, of all
  }
  EXPECT_EQ(lines[lines.size() - 2]["args"][0], body.size());
  const std::string package = root + "/tmp/g.1.zgp";
  EXPECT_EQ(lines.back(), (ZMValue{{"event", "onDownloadSuccess"}, {"args", {package}}}));

  EXPECT_EQ(trace({"install", "--app", "g", "--version", "1", "--package", package}).events(),
            (Names{"onInitializeSuccess", "onInstallStart", "onInstallSuccess"}));
  EXPECT_EQ(trace({"check", "--app", "g", "--version", "1"}).events(),
            (Names{"onInitializeSuccess", "onCheckVersionStart", "onCheckVersionSuccess"}));

  EXPECT_EQ(
      trace({"run", "--app", "g", "--version", "1"}).events(),
      (Names{"onInitializeSuccess", "onGameHandleCreate", "onRunSuccess", "onGameExitSuccess"}));
  EXPECT_EQ(trace({"config", "--app", "g"}).last()["result"]["deviceOrientation"], "portrait");

  EXPECT_EQ(tavo({"set-data", "--app", "g", "--extend", "x", "--auth", "camera=1"}).out,
            "Storing {\"extend\":\"x\",\"auth_camera\":1} for g\n  stored\n");
  EXPECT_EQ(trace({"list"}).last()["args"][0],
            (ZMValue::array({{{ZM_KEY_GAME_ITEM_APP_ID, "g"}, {ZM_KEY_GAME_ITEM_EXTEND, "x"}}})));
  EXPECT_EQ(trace({"list", "--user", "u2"}).last()["args"][0], ZMValue::array());

  EXPECT_EQ(trace({"remove", "--app", "g"}).last(),
            (ZMValue{{"event", "onRemoveSuccess"}, {"args", {{"g"}}}}));
  EXPECT_EQ(trace({"list"}).last()["args"][0], ZMValue::array());
  EXPECT_EQ(tavo({"check", "--app", "g", "--version", "1"}).status, 1);

  // The sweep deletes only expired files of the given extensions.
  for (const char* name : {"old.zgp", "new.zgp", "old.tmp"}) WriteFile(root + "/tmp/" + name, "x");
  SetAgeSeconds(root + "/tmp/old.zgp", 7200);
  SetAgeSeconds(root + "/tmp/old.tmp", 7200);
  const Result r = trace({"sweep", "--ext", "zgp", "--keep-minutes", "60"});
  EXPECT_EQ(r.events(),
            (Names{"onInitializeSuccess", "onCheckStart", "onCheckProgress", "onCheckSuccess"}));
  EXPECT_EQ(r.json()[2]["args"][0], root + "/tmp/old.zgp");
  EXPECT_EQ(ListDir(root + "/tmp"), (Names{"new.zgp", "old.tmp"}));
}

TEST_F(TavoCli, PlainOutputFailuresAndUsage) {
  TestPluginService server;
  server.serve("g.zgp", PatternBody(2 << 20));
  const Result r =
      tavo({"download", "--app", "g", "--version", "1", "--url", server.package("g.zgp")});
  ASSERT_EQ(r.status, 0) << r.err;
  // Not a terminal: progress comes as plain lines, never as a redrawn bar.
  EXPECT_FALSE(Has(r.out, "\r"));
  EXPECT_TRUE(Has(r.out, "  download 100% (2.0 MiB of 2.0 MiB)\n")) << r.out;
  EXPECT_LE(std::count(r.out.begin(), r.out.end(), '%'), 11) << "at most one line per tenth";
  EXPECT_TRUE(Has(r.out, "  downloaded to " + root + "/tmp/g.1.zgp\n"));
  EXPECT_TRUE(r.err.empty()) << r.err;

  // Failures exit with 1 and the error on stderr (a failed check: the demo and the game cycle).
  for (const auto& [args, stderrHas] : std::vector<std::pair<Names, std::string>>{
           {{"download", "--app", "h", "--version", "1", "--url", server.package("g.zgp"), "--hash",
             "00000000000000000000000000000000"},
            "(domain package hash check failure, code 0)"},
           {{"install", "--app", "g", "--version", "1", "--package", dir / "none.zip"},
            "tavo: install failed: "},
           {{"run", "--app", "g", "--version", "1"}, "game not installed"},
           {{"sweep", "--keep-minutes", "0"}, "ZM_KEY_CHECK_FILE_KEEP_TIME"},
           {{"config", "--app", "g"}, "no installed configuration for g"},
           {{"set-data", "--app", "g", "--auth", "camera"}, "expected NAME=VALUE"},
           {{"set-data", "--app", "g", "--auth", "camera=on"}, "camera=on is not a number"},
           {{"plugin", "check", "--provider", "p", "--version", "1.0"}, "plugin config no exist"},
           {{"plugin", "remove", "--provider", "p"}, "give --provider and --version"},
       }) {
    const Result r = tavo(args);
    EXPECT_EQ(r.status, 1) << args[0] << ": " << r.err;
    EXPECT_TRUE(Has(r.err, stderrHas)) << args[0] << ": " << r.err;
  }
  // The runtime is silent for a user without games: remove-all still ends, at once.
  const Result none = tavo({"remove-all", "--timeout", "30"});
  EXPECT_EQ(none.status, 0) << none.err;
  EXPECT_TRUE(Has(none.out, "No games of tavo-user to remove")) << none.out;
  // Ten processes writing to one record store at once: each waits for the file's lock.
  ASSERT_EQ(tavo({"list"}).status, 0);
  const Names setData = {"--root", root, "set-data", "--app", "g@", "--extend", "x"};
  const std::string many = Command(TAVO_BINARY, setData) + " >/dev/null 2>&1";
  EXPECT_EQ(std::system(("seq 10 | xargs -P 10 -I @ " + many).c_str()), 0);
  EXPECT_EQ(trace({"list"}).last()["args"][0].size(), 10u);
  // A usage error is neither success nor an operation's failure.
  const int usage = tavo({"check", "--app", "g"}).status;
  EXPECT_TRUE(usage != 0 && usage != 1) << usage;
  EXPECT_TRUE(Has(tavo({"check", "--help"}).out, "Usage:"));
  EXPECT_TRUE(Has(tavo({"info", "--user", "u2"}).out, "\nuser           u2\n"));
  // A root the runtime cannot use.
  WriteFile(dir / "file", "x");
  root = dir / "file";
  EXPECT_EQ(tavo({"list"}).status, 2);
}

// Several processes on one root: four downloads of one game and four installs of one plug-in,
// started together, all succeed and leave one complete copy of each.
TEST_F(TavoCli, ProcessesSharingOneRootAllSucceed) {
  const std::string game = RandomBytes(4 << 20, 7);
  WriteFile(dir / "g.zip", game);
  MakeZip(dir / "p.zip", {{"main.js", "new"}, {"lib/x.so", RandomBytes(1 << 20, 8)}});
  TestPluginService service;
  service.serve("g.zip", game);
  ListP(service, dir / "p.zip");
  // Resumable: one of the downloads writes the partial download, the others files of their own.
  const Names download = With({"download", "--app", "g", "--version", "1", "--resume", "2"},
                              {"--url", service.package("g.zip"), "--hash", Md5(dir / "g.zip")});
  std::string script;
  for (int i = 0; i < 8; ++i) {  // even: a download, odd: an install; each exit status into a file
    script += "(" +
              Command(TAVO_BINARY, With(i % 2 ? InstallP(service) : download, {"--root", root})) +
              " >/dev/null 2>>" + Quote(dir / "err") + "; echo $? >" +
              Quote(dir / std::to_string(i)) + ") & ";
  }
  ASSERT_EQ(std::system((script + "wait").c_str()), 0);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(ReadFile(dir / std::to_string(i)), "0\n") << i;
  EXPECT_EQ(ReadFile(dir / "err"), "");
  EXPECT_EQ(ListDir(root + "/tmp"), Names{"g.1.zgp"});
  EXPECT_TRUE(ReadFile(root + "/tmp/g.1.zgp") == game);
  EXPECT_EQ(ListDir(root + "/Caches/plugin"), (Names{"p_1.0", "p_1.0.detail.json"}));
  EXPECT_EQ(ReadFile(root + "/Caches/plugin/p_1.0/main.js"), "new");
}

// An install killed while it unpacks a new package over an installed plug-in leaves the old one
// whole, as the check and the listing see it.
TEST_F(TavoCli, AnInstallKilledMidUnpackLeavesTheInstalledPlugin) {
  MakeZip(dir / "old.zip", {{"main.js", "old"}, {"old_only.js", "x"}});
  std::vector<ZipEntry> many;
  for (int i = 0; i < 30000; ++i) many.push_back({"f/" + std::to_string(i), "n"});
  MakeZip(dir / "new.zip", many);
  TestPluginService service;
  const Names install = InstallP(service);
  ListP(service, dir / "old.zip");
  ASSERT_EQ(tavo(install).status, 0);
  const std::string plugins = root + "/Caches/plugin", config = plugins + "/p_1.0.detail.json";
  const std::string installed = ReadFile(config);

  ListP(service, dir / "new.zip");
  TavoChild child = background(install, "install.err");
  // Killed once the staged unpack holds some of the new files.
  const bool midway = RunUntil(
      [&] {
        return std::ranges::any_of(ListDir(plugins), [&](const std::string& name) {
          return name.starts_with(".p_1.0.staging-") && Exists(plugins + "/" + name + "/f/100");
        });
      },
      std::chrono::seconds(60));
  child.end();
  ASSERT_TRUE(midway) << "the unpack was never seen under way";
  ASSERT_FALSE(Exists(plugins + "/p_1.0/f")) << "killed too late";

  EXPECT_EQ(ListDir(plugins + "/p_1.0"), (Names{"main.js", "old_only.js"}));
  EXPECT_EQ(ReadFile(plugins + "/p_1.0/main.js"), "old");
  EXPECT_EQ(ReadFile(config), installed);
  EXPECT_EQ(tavo({"plugin", "check", "--provider", "p", "--version", "1.0"}).status, 0);
  EXPECT_EQ(trace({"plugin", "list"}).last()["args"][0].size(), 1u)
      << "the leftover staged directory is no plug-in";
}

// A download killed halfway leaves its bytes; the next one continues them, and the server sends
// only the rest.
TEST_F(TavoCli, AKilledDownloadIsContinuedByTheNextProcess) {
  const std::string file = dir / "big.zgp";
  std::string chunk = PatternBody(1 << 20);  // 200 MiB, each MiB with its own first byte
  std::ofstream out(file, std::ios::binary);
  for (int i = 0; i < 200; ++i) out << chunk.replace(0, 1, 1, static_cast<char>(i));
  out.close();
  const int64_t size = int64_t{200} << 20;
  TestRangeServer server("");
  server.serveFile(file, std::chrono::milliseconds(5));
  const Names download = {"download",   "--app",  "g",       "--version", "1", "--url",
                          server.url(), "--hash", Md5(file), "--resume",  "3"};
  TavoChild child = background(download, "download.err");
  const std::string partial = root + "/tmp/g.1.zgp.partial";
  RunUntil([&] { return Exists(partial) && std::filesystem::file_size(partial) > (50u << 20); },
           std::chrono::seconds(60));
  child.end();
  ASSERT_TRUE(Exists(partial) && Exists(partial + ".json"));
  const int64_t kept = static_cast<int64_t>(std::filesystem::file_size(partial));
  ASSERT_LT(kept, size) << "killed too late";

  ASSERT_TRUE(RunUntil([&] { return server.finished() == 1; })) << "the first answer is over";
  const int64_t before = server.sent();
  const Result r = tavo(download);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(server.sent() - before, size - kept) << "only the rest is sent again";
  EXPECT_EQ(server.requests().back(), "bytes=" + std::to_string(kept) + "-|\"v1\"");
  EXPECT_EQ(ListDir(root + "/tmp"), Names{"g.1.zgp"});
  EXPECT_TRUE(Has(r.out, "download resumes at " + std::to_string(kept) + " bytes")) << r.out;

  // A plug-in package's download is continued the same way.
  MakeZip(dir / "p.zip", {{"main.js", RandomBytes(4096, 3)}});
  TestRangeServer cutting(ReadFile(dir / "p.zip"), [](int i) {
    return TestRangeServer::Reply{.cutAt = i == 0 ? 1000 : -1};
  });
  TestPluginService service;
  ListP(service, dir / "p.zip", cutting.url());
  EXPECT_EQ(tavo(With(InstallP(service), {"--resume", "1"})).status, 0);
  EXPECT_EQ(cutting.requests(), (Names{"|", "bytes=1000-|\"v1\""}));
}

}  // namespace
