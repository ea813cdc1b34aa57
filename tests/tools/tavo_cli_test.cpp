#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "support/TestHttpServer.h"
#include "support/TestSupport.h"
#include "support/TestZip.h"
#include "tavo/tavo.h"

namespace {

struct Result {
  int status = -1;
  std::string out;
  std::string err;
  // stdout's lines parsed as JSON; a line that is not JSON fails the test.
  std::vector<ZMValue> json() const;
  std::vector<std::string> events() const;
};

std::vector<ZMValue> Result::json() const {
  std::vector<ZMValue> lines;
  std::size_t start = 0;
  while (start < out.size()) {
    const std::size_t end = out.find('\n', start);
    const std::string line = out.substr(start, end - start);
    ZMValue value = ZMValue::parse(line, nullptr, false);
    EXPECT_FALSE(value.is_discarded()) << "not JSON: " << line;
    lines.push_back(value);
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return lines;
}

std::vector<std::string> Result::events() const {
  std::vector<std::string> names;
  for (const auto& line : json()) {
    EXPECT_TRUE(line.contains("event") && line["args"].is_array()) << line.dump();
    names.push_back(line.value("event", ""));
  }
  return names;
}

std::string Quote(const std::string& arg) {
  std::string quoted = "'";
  for (char c : arg) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

class TavoCli : public ::testing::Test {
 protected:
  TempDir dir;
  std::string root = dir / "root";

  // Runs `tavo ARGS --root ROOT` with stdout and stderr captured (stdout is not a terminal).
  Result tavo(const std::vector<std::string>& args) {
    std::string command = Quote(TAVO_BINARY);
    for (const auto& arg : args) command += " " + Quote(arg);
    command += " --root " + Quote(root) + " >" + Quote(dir / "out") + " 2>" + Quote(dir / "err");
    Result result;
    const int raw = std::system(command.c_str());
    result.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    result.out = ReadFile(dir / "out");
    result.err = ReadFile(dir / "err");
    return result;
  }

  std::string md5(const std::string& path) {
    char* digest = FileMD5HashCreateWithPath(path.c_str(), 0);
    std::string text = digest;
    std::free(digest);
    return text;
  }
};

TEST_F(TavoCli, GameCycleAcrossInvocationsWithTrace) {
  MakeGamePackage(dir / "g.zip", R"({"deviceOrientation":"portrait"})",
                  {{"big.bin", PatternBody(3 << 20)}});
  const std::string body = ReadFile(dir / "g.zip");
  TestHttpServer server;
  server.Get("/g.zip", [&](const auto&, auto& res) { res.set_content(body, "application/zip"); });
  server.start();

  Result r = tavo({"download", "--trace", "--app", "g", "--version", "1", "--url",
                   server.url("/g.zip"), "--hash", md5(dir / "g.zip")});
  ASSERT_EQ(r.status, 0) << r.err;
  const auto lines = r.json();
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(lines.front(), (ZMValue{{"event", "onInitializeSuccess"}, {"args", {"ZMZimoGameRuntime"}}}));
  EXPECT_EQ(lines[1], (ZMValue{{"event", "onDownloadStart"}, {"args", ZMValue::array()}}));
  int64_t previous = 0;
  for (std::size_t i = 2; i + 1 < lines.size(); ++i) {
    ASSERT_EQ(lines[i]["event"], "onDownloadProgress");
    const int64_t done = lines[i]["args"][0];
    EXPECT_GE(done, previous);
    EXPECT_EQ(lines[i]["args"][1], static_cast<int64_t>(body.size()));
    previous = done;
  }
  EXPECT_EQ(previous, static_cast<int64_t>(body.size()));
  EXPECT_EQ(lines.back()["event"], "onDownloadSuccess");
  const std::string package = lines.back()["args"][0];
  EXPECT_EQ(package, root + "/tmp/g.1.zgp");
  EXPECT_EQ(ReadFile(package), body);

  // Each invocation starts from what the previous ones left under the root.
  r = tavo({"install", "--trace", "--app", "g", "--version", "1", "--package", package});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.events(), (std::vector<std::string>{"onInitializeSuccess", "onInstallStart",
                                                  "onInstallSuccess"}));
  EXPECT_FALSE(Exists(package));
  EXPECT_EQ(tavo({"check", "--app", "g", "--version", "1"}).status, 0);

  r = tavo({"run", "--trace", "--app", "g", "--version", "1"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.events(), (std::vector<std::string>{"onInitializeSuccess", "onGameHandleCreate",
                                                  "onRunSuccess", "onGameExitSuccess"}));
  r = tavo({"config", "--trace", "--app", "g"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.json().back()["result"]["deviceOrientation"], "portrait");

  ASSERT_EQ(tavo({"set-data", "--app", "g", "--extend", "x", "--auth", "camera=1"}).status, 0);
  r = tavo({"list", "--trace"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.json().back()["args"][0],
            (ZMValue::array({{{ZM_KEY_GAME_ITEM_APP_ID, "g"}, {ZM_KEY_GAME_ITEM_EXTEND, "x"}}})));

  r = tavo({"remove", "--trace", "--app", "g"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.json().back(), (ZMValue{{"event", "onRemoveSuccess"}, {"args", {{"g"}}}}));
  EXPECT_EQ(tavo({"list", "--trace"}).json().back()["args"][0], ZMValue::array());
  EXPECT_EQ(tavo({"check", "--app", "g", "--version", "1"}).status, 1);
}

TEST_F(TavoCli, FailuresExitNonZeroWithTheErrorOnStderr) {
  TestHttpServer server;
  server.Get("/g.zip", [&](const auto&, auto& res) { res.set_content("not a zip", "application/zip"); });
  server.start();
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string stderrHas;
  };
  for (const Case& c : std::vector<Case>{
           {{"check", "--app", "g", "--version", "1"},
            1, "(domain Error: version is not the same as local version, code -1)"},
           {{"download", "--app", "g", "--version", "1", "--url", server.url("/missing")},
            1, "code 404)"},
           {{"download", "--app", "g", "--version", "1", "--url", server.url("/g.zip"), "--hash",
             "00000000000000000000000000000000"},
            1, "(domain package hash check failure, code 0)"},
           {{"install", "--app", "g", "--version", "1", "--package", dir / "none.zip"}, 1,
            "tavo: install failed: "},
           {{"run", "--app", "g", "--version", "1"}, 1, "game not installed"},
           {{"remove", "--app", "../x"}, 1, "invalid app id: ../x"},
           {{"sweep", "--keep-minutes", "0"}, 1, "ZM_KEY_CHECK_FILE_KEEP_TIME"},
           {{"config", "--app", "g"}, 1, "no installed configuration for g"},
           {{"set-data", "--app", "g", "--auth", "camera"}, 1, "expected NAME=VALUE"},
       }) {
    const Result r = tavo(c.args);
    EXPECT_EQ(r.status, c.status) << c.args[0] << ": " << r.err;
    EXPECT_NE(r.err.find(c.stderrHas), std::string::npos) << c.args[0] << ": " << r.err;
  }
  // A usage error is neither success nor an operation's failure.
  const Result usage = tavo({"check", "--app", "g"});
  EXPECT_NE(usage.status, 0);
  EXPECT_NE(usage.status, 1);
  // A root the runtime cannot use.
  WriteFile(dir / "file", "x");
  root = dir / "file";
  EXPECT_EQ(tavo({"list"}).status, 2);
}

TEST_F(TavoCli, SweepDeletesOnlyExpiredPackagesOfTheGivenExtensions) {
  ASSERT_EQ(tavo({"info"}).status, 0);  // creates the roots
  for (const char* name : {"old.zgp", "new.zgp", "old.tmp"}) WriteFile(root + "/tmp/" + name, "x");
  SetAgeSeconds(root + "/tmp/old.zgp", 7200);
  SetAgeSeconds(root + "/tmp/old.tmp", 7200);
  const Result r = tavo({"sweep", "--trace", "--ext", "zgp", "--keep-minutes", "60"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.events(), (std::vector<std::string>{"onInitializeSuccess", "onCheckStart",
                                                  "onCheckProgress", "onCheckSuccess"}));
  EXPECT_EQ(r.json()[2]["args"][0], root + "/tmp/old.zgp");
  EXPECT_EQ(ListDir(root + "/tmp"), (std::vector<std::string>{"new.zgp", "old.tmp"}));
}

TEST_F(TavoCli, PlainOutputAndHelp) {
  std::mt19937 random(7);
  std::string noise(2 << 20, '\0');
  for (char& c : noise) c = static_cast<char>(random());
  MakeGamePackage(dir / "g.zip", "{}", {{"noise.bin", noise}});
  const std::string body = ReadFile(dir / "g.zip");
  TestHttpServer server;
  server.Get("/g.zip", [&](const auto&, auto& res) { res.set_content(body, "application/zip"); });
  server.start();
  const Result r = tavo({"download", "--app", "g", "--version", "1", "--url", server.url("/g.zip")});
  ASSERT_EQ(r.status, 0) << r.err;
  // Not a terminal: progress comes as plain lines, never as a redrawn bar.
  EXPECT_EQ(r.out.find('\r'), std::string::npos);
  EXPECT_NE(r.out.find("  download 100% (2.0 MiB of 2.0 MiB)\n"), std::string::npos) << r.out;
  EXPECT_LE(std::count(r.out.begin(), r.out.end(), '%'), 11) << "at most one line per tenth";
  EXPECT_NE(r.out.find("  downloaded to " + root + "/tmp/g.1.zgp\n"), std::string::npos);
  EXPECT_TRUE(r.err.empty()) << r.err;

  for (const char* command : {"check", "download", "install", "run", "list", "set-data", "remove",
                              "remove-all", "sweep", "config", "info", "demo"}) {
    const Result help = tavo({command, "--help"});
    EXPECT_EQ(help.status, 0) << command;
    EXPECT_NE(help.out.find("Usage:"), std::string::npos) << command;
  }
}

}  // namespace
