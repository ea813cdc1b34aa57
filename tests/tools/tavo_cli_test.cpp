#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/TestHttpServer.h"
#include "support/TestSupport.h"
#include "support/TestZip.h"
#include "tavo/tavo.h"

namespace {

struct Result {
  int status = -1;
  std::string out, err;

  // stdout's lines parsed as JSON; a line that is not JSON fails the test.
  std::vector<ZMValue> json() const {
    std::vector<ZMValue> lines;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
      lines.push_back(ZMValue::parse(line, nullptr, false));
      EXPECT_FALSE(lines.back().is_discarded()) << "not JSON: " << line;
    }
    return lines;
  }
  std::vector<std::string> events() const {
    std::vector<std::string> names;
    for (const auto& line : json()) names.push_back(line.value("event", ""));
    return names;
  }
};

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
    const int raw = std::system(command.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, ReadFile(dir / "out"), ReadFile(dir / "err")};
  }
  // Runs with --trace, expecting success.
  Result trace(std::vector<std::string> args) {
    args.push_back("--trace");
    Result r = tavo(args);
    EXPECT_EQ(r.status, 0) << args[0] << ": " << r.err;
    return r;
  }
};

TEST_F(TavoCli, GameCycleAcrossInvocationsWithTrace) {
  MakeGamePackage(dir / "g.zip", R"({"deviceOrientation":"portrait"})",
                  {{"big.bin", PatternBody(3 << 20)}});
  const std::string body = ReadFile(dir / "g.zip");
  const std::unique_ptr<char, decltype(&std::free)> hash(
      FileMD5HashCreateWithPath((dir / "g.zip").c_str(), 0), &std::free);
  TestHttpServer server;
  server.Get("/g.zip", [&](const auto&, auto& res) { res.set_content(body, "application/zip"); });
  server.start();

  // Each invocation starts from what the previous ones left under the root.
  const auto lines = trace({"download", "--app", "g", "--version", "1", "--url",
                            server.url("/g.zip"), "--hash", hash.get()})
                         .json();
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(lines[0], (ZMValue{{"event", "onInitializeSuccess"}, {"args", {"ZMZimoGameRuntime"}}}));
  EXPECT_EQ(lines[1], (ZMValue{{"event", "onDownloadStart"}, {"args", ZMValue::array()}}));
  int64_t previous = 0;
  for (std::size_t i = 2; i + 1 < lines.size(); ++i) {
    ASSERT_EQ(lines[i]["event"], "onDownloadProgress");
    EXPECT_GE(lines[i]["args"][0], previous);
    EXPECT_EQ(lines[i]["args"][1], static_cast<int64_t>(body.size()));
    previous = lines[i]["args"][0];
  }
  EXPECT_EQ(previous, static_cast<int64_t>(body.size()));
  const std::string package = root + "/tmp/g.1.zgp";
  EXPECT_EQ(lines.back(), (ZMValue{{"event", "onDownloadSuccess"}, {"args", {package}}}));

  EXPECT_EQ(
      trace({"install", "--app", "g", "--version", "1", "--package", package}).events(),
      (std::vector<std::string>{"onInitializeSuccess", "onInstallStart", "onInstallSuccess"}));
  EXPECT_EQ(tavo({"check", "--app", "g", "--version", "1"}).status, 0);

  EXPECT_EQ(trace({"run", "--app", "g", "--version", "1"}).events(),
            (std::vector<std::string>{"onInitializeSuccess", "onGameHandleCreate", "onRunSuccess",
                                      "onGameExitSuccess"}));
  EXPECT_EQ(trace({"config", "--app", "g"}).json().back()["result"]["deviceOrientation"],
            "portrait");

  ASSERT_EQ(tavo({"set-data", "--app", "g", "--extend", "x", "--auth", "camera=1"}).status, 0);
  EXPECT_EQ(trace({"list"}).json().back()["args"][0],
            (ZMValue::array({{{ZM_KEY_GAME_ITEM_APP_ID, "g"}, {ZM_KEY_GAME_ITEM_EXTEND, "x"}}})));

  EXPECT_EQ(trace({"remove", "--app", "g"}).json().back(),
            (ZMValue{{"event", "onRemoveSuccess"}, {"args", {{"g"}}}}));
  EXPECT_EQ(trace({"list"}).json().back()["args"][0], ZMValue::array());
  EXPECT_EQ(tavo({"check", "--app", "g", "--version", "1"}).status, 1);

  // The sweep deletes only expired files of the given extensions.
  for (const char* name : {"old.zgp", "new.zgp", "old.tmp"}) WriteFile(root + "/tmp/" + name, "x");
  SetAgeSeconds(root + "/tmp/old.zgp", 7200);
  SetAgeSeconds(root + "/tmp/old.tmp", 7200);
  const Result r = trace({"sweep", "--ext", "zgp", "--keep-minutes", "60"});
  EXPECT_EQ(r.events(), (std::vector<std::string>{"onInitializeSuccess", "onCheckStart",
                                                  "onCheckProgress", "onCheckSuccess"}));
  EXPECT_EQ(r.json()[2]["args"][0], root + "/tmp/old.zgp");
  EXPECT_EQ(ListDir(root + "/tmp"), (std::vector<std::string>{"new.zgp", "old.tmp"}));
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

  // Failures exit with 1 and the error on stderr.
  struct Case {
    std::vector<std::string> args;
    std::string stderrHas;
  };
  for (const Case& c : std::vector<Case>{
           {{"check", "--app", "g", "--version", "1"},
            "(domain Error: version is not the same as local version, code -1)"},
           {{"download", "--app", "h", "--version", "1", "--url", server.url("/g.zgp"), "--hash",
             "00000000000000000000000000000000"},
            "(domain package hash check failure, code 0)"},
           {{"install", "--app", "g", "--version", "1", "--package", dir / "none.zip"},
            "tavo: install failed: "},
           {{"run", "--app", "g", "--version", "1"}, "game not installed"},
           {{"remove", "--app", "../x"}, "invalid app id: ../x"},
           {{"sweep", "--keep-minutes", "0"}, "ZM_KEY_CHECK_FILE_KEEP_TIME"},
           {{"config", "--app", "g"}, "no installed configuration for g"},
           {{"set-data", "--app", "g", "--auth", "camera"}, "expected NAME=VALUE"},
       }) {
    const Result r = tavo(c.args);
    EXPECT_EQ(r.status, 1) << c.args[0] << ": " << r.err;
    EXPECT_NE(r.err.find(c.stderrHas), std::string::npos) << c.args[0] << ": " << r.err;
  }
  // A usage error is neither success nor an operation's failure.
  const Result usage = tavo({"check", "--app", "g"});
  EXPECT_NE(usage.status, 0);
  EXPECT_NE(usage.status, 1);
  for (const char* command : {"check", "download", "install", "run", "list", "set-data", "remove",
                              "remove-all", "sweep", "config", "info", "demo"}) {
    const Result help = tavo({command, "--help"});
    EXPECT_EQ(help.status, 0) << command;
    EXPECT_NE(help.out.find("Usage:"), std::string::npos) << command;
  }
  // A root the runtime cannot use.
  WriteFile(dir / "file", "x");
  root = dir / "file";
  EXPECT_EQ(tavo({"list"}).status, 2);
}

}  // namespace
