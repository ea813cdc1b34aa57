#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "TavoCli.h"
#include "support/TestHttpServer.h"
#include "support/TestRangeServer.h"
#include "support/TestZip.h"

namespace {

TEST_F(TavoCli, GameCycleAcrossInvocationsWithTrace) {
  MakeGamePackage(dir / "g.zip", R"({"deviceOrientation":"portrait"})",
                  {{"big.bin", PatternBody(3 << 20)}});
  const std::string body = ReadFile(dir / "g.zip");
  TestHttpServer server;
  server.Get("/g.zip", [&](const auto&, auto& res) { res.set_content(body, "application/zip"); });
  server.start();

  // Each invocation starts from what the previous ones left under the root.
  const auto lines = trace({"download", "--app", "g", "--version", "1", "--url",
                            server.url("/g.zip"), "--hash", Md5(dir / "g.zip")})
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
  EXPECT_EQ(tavo({"check", "--app", "g", "--version", "1"}).status, 0);

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
  const std::string body = PatternBody(2 << 20);
  TestHttpServer server;
  server.Get("/g.zgp", [&](const auto&, auto& res) { res.set_content(body, "application/zip"); });
  server.start();
  const Result r =
      tavo({"download", "--app", "g", "--version", "1", "--url", server.url("/g.zgp")});
  ASSERT_EQ(r.status, 0) << r.err;
  // Not a terminal: progress comes as plain lines, never as a redrawn bar.
  EXPECT_EQ(r.out.find('\r'), std::string::npos);
  EXPECT_NE(r.out.find("  download 100% (2.0 MiB of 2.0 MiB)\n"), std::string::npos) << r.out;
  EXPECT_LE(std::count(r.out.begin(), r.out.end(), '%'), 11) << "at most one line per tenth";
  EXPECT_NE(r.out.find("  downloaded to " + root + "/tmp/g.1.zgp\n"), std::string::npos);
  EXPECT_TRUE(r.err.empty()) << r.err;

  // Failures exit with 1 and the error on stderr (a failed check: the demo and the game cycle).
  struct Case {
    Names args;
    std::string stderrHas;
  };
  for (const Case& c : std::vector<Case>{
           {{"download", "--app", "h", "--version", "1", "--url", server.url("/g.zgp"), "--hash",
             "00000000000000000000000000000000"},
            "(domain package hash check failure, code 0)"},
           {{"install", "--app", "g", "--version", "1", "--package", dir / "none.zip"},
            "tavo: install failed: "},
           {{"run", "--app", "g", "--version", "1"}, "game not installed"},
           {{"sweep", "--keep-minutes", "0"}, "ZM_KEY_CHECK_FILE_KEEP_TIME"},
           {{"config", "--app", "g"}, "no installed configuration for g"},
           {{"set-data", "--app", "g", "--auth", "camera"}, "expected NAME=VALUE"},
       }) {
    const Result r = tavo(c.args);
    EXPECT_EQ(r.status, 1) << c.args[0] << ": " << r.err;
    EXPECT_NE(r.err.find(c.stderrHas), std::string::npos) << c.args[0] << ": " << r.err;
  }
  // The runtime is silent for a user without games: remove-all still ends, at once.
  const Result none = tavo({"remove-all", "--timeout", "30"});
  EXPECT_EQ(none.status, 0) << none.err;
  EXPECT_NE(none.out.find("No games of tavo-user to remove"), std::string::npos) << none.out;
  // Ten processes writing to one record store at once: each waits for the file's lock.
  ASSERT_EQ(tavo({"list"}).status, 0);
  std::string many = "pids=; for i in $(seq 10); do " + Quote(TAVO_BINARY) + " --root " +
                     Quote(root) + " set-data --app g$i --extend x >/dev/null 2>&1 & " +
                     "pids=\"$pids $!\"; done; for p in $pids; do wait $p || exit 1; done";
  EXPECT_EQ(std::system(("bash -c " + Quote(many)).c_str()), 0);
  EXPECT_EQ(trace({"list"}).last()["args"][0].size(), 10u);
  // A usage error is neither success nor an operation's failure.
  const Result usage = tavo({"check", "--app", "g"});
  EXPECT_NE(usage.status, 0);
  EXPECT_NE(usage.status, 1);
  EXPECT_NE(tavo({"check", "--help"}).out.find("Usage:"), std::string::npos);
  EXPECT_NE(tavo({"info", "--user", "u2"}).out.find("\nuser           u2\n"), std::string::npos);
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
  service.serve("p.zip", ReadFile(dir / "p.zip"));
  ListP(service, dir / "p.zip", service.package("p.zip"));
  std::string script;
  for (int i = 0; i < 4; ++i) {
    for (const auto& [kind, args] : std::vector<std::pair<std::string, std::string>>{
             // Resumable: one of them writes the partial download, the others files of their own.
             {"d", "download --app g --version 1 --url " + service.package("g.zip") + " --hash " +
                       Md5(dir / "g.zip") + " --resume 2"},
             {"p",
              "plugin install --provider p --version 1.0 --plugin-service " + service.host("s")}}) {
      script += "(" + Quote(TAVO_BINARY) + " " + args + " --root " + Quote(root) +
                " >/dev/null 2>>" + Quote(dir / "err") + "; echo $? >" +
                Quote(dir / (kind + std::to_string(i))) + ") & ";
    }
  }
  ASSERT_EQ(std::system((script + "wait").c_str()), 0);
  for (const char* kind : {"d", "p"}) {
    for (int i = 0; i < 4; ++i) {
      EXPECT_EQ(ReadFile(dir / (kind + std::to_string(i))), "0\n") << kind << i;
    }
  }
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
  const auto offer = [&](const std::string& file) {
    service.serve(file, ReadFile(dir / file));
    ListP(service, dir / file, service.package(file));
  };
  const Names install = InstallP(service);
  offer("old.zip");
  ASSERT_EQ(tavo(install).status, 0);
  const std::string plugins = root + "/Caches/plugin", config = plugins + "/p_1.0.detail.json";
  const std::string installed = ReadFile(config);

  offer("new.zip");
  Names args = install;
  args.insert(args.end(), {"--root", root});
  TavoChild child(args, dir / "install.err");
  // Killed once the staged unpack holds some of the new files.
  bool midway = false;
  RunUntil(
      [&] {
        for (const auto& name : ListDir(plugins)) {
          if (name.starts_with(".p_1.0.staging-")) {
            midway = Exists(plugins + "/" + name + "/f/100");
          }
        }
        return midway;
      },
      std::chrono::seconds(60));
  child.kill();
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
  {
    std::string chunk = PatternBody(1 << 20);
    std::ofstream out(file, std::ios::binary);
    for (int i = 0; i < 200; ++i) {
      chunk[0] = static_cast<char>(i);
      out.write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    }
  }
  const int64_t size = int64_t{200} << 20;
  TestRangeServer server("");
  server.serveFile(file, std::chrono::milliseconds(5));
  const Names download = {"download",   "--app",  "g",       "--version", "1", "--url",
                          server.url(), "--hash", Md5(file), "--resume",  "3"};
  Names args = download;
  args.insert(args.end(), {"--root", root});
  TavoChild child(args, dir / "download.err");
  const std::string partial = root + "/tmp/g.1.zgp.partial";
  RunUntil([&] { return Exists(partial) && std::filesystem::file_size(partial) > (50u << 20); },
           std::chrono::seconds(60));
  child.kill();
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
  EXPECT_NE(r.out.find("download resumes at " + std::to_string(kept) + " bytes"), std::string::npos)
      << r.out;

  // A plug-in package's download is continued the same way.
  MakeZip(dir / "p.zip", {{"main.js", RandomBytes(4096, 3)}});
  TestRangeServer cutting(ReadFile(dir / "p.zip"), [](int i) {
    return TestRangeServer::Reply{.cutAt = i == 0 ? 1000 : -1};
  });
  TestPluginService service;
  ListP(service, dir / "p.zip", cutting.url());
  Names resume = InstallP(service);
  resume.insert(resume.end(), {"--resume", "1"});
  EXPECT_EQ(tavo(resume).status, 0);
  EXPECT_EQ(cutting.requests(), (Names{"|", "bytes=1000-|\"v1\""}));
}

}  // namespace
