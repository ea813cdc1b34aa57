#pragma once

// What the tool tests share: `tavo` run to completion (TavoCli), or in the background while a
// test works with it (TavoChild, ServedPlugins).

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "support/TestPluginService.h"
#include "support/TestSupport.h"
#include "tavo/tavo.h"

using Names = std::vector<std::string>;

inline std::string Md5(const std::string& path) {
  return ZMFileUtils::getFileMD5(path).value_or("");
}

// Has the service host "s" list plug-in p 1.0 as the package `zip`, fetched from `url` (by
// default from the service, which then serves it as "p.zip").
inline void ListP(TestPluginService& service, const std::string& zip, std::string url = "") {
  if (url.empty()) {
    service.serve("p.zip", ReadFile(zip));
    url = service.package("p.zip");
  }
  service.lists(
      "s",
      ZMValue::array({{{"plugin_id", "p"}, {"version", "1.0"}, {"hash", Md5(zip)}, {"url", url}}}));
}

inline bool Has(std::string_view s, std::string_view part) { return s.find(part) != s.npos; }

// `a` followed by `b`.
inline Names With(Names a, const Names& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// `program ARGS` as one shell command.
inline std::string Command(const std::string& program, const Names& args) {
  std::string command = Quote(program);
  for (const auto& arg : args) command += " " + Quote(arg);
  return command;
}

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
  // The last line (null without one).
  ZMValue last() const {
    const auto lines = json();
    return lines.empty() ? ZMValue() : lines.back();
  }
  Names events() const {
    Names names;
    for (const auto& line : json()) names.push_back(line.value("event", ""));
    return names;
  }
};

// A program (by default `tavo`) run in the background by the shell, its stdout into "ERR.out",
// its stderr into ERR, and its exit status into "ERR.status" once it has ended. Killed, if still
// running, when the object goes.
class TavoChild {
 public:
  TavoChild(const Names& args, const std::string& err, const std::string& program = TAVO_BINARY)
      : out_(err + ".out"), status_(err + ".status") {
    const std::string pid = err + ".pid";
    const std::string run = "echo $$ >" + Quote(pid) + "; exec " + Command(program, args) + " >" +
                            Quote(out_) + " 2>" + Quote(err);
    std::system(("(sh -c " + Quote(run) + "; echo $? >" + Quote(status_) + ") &").c_str());
    EXPECT_TRUE(RunUntil([&] { return ReadFile(pid).ends_with("\n"); }));
    pid_ = std::atoi(ReadFile(pid).c_str());
  }
  ~TavoChild() { end(); }

  // The first line on stdout (what there is of it when none comes within 20 s).
  std::string firstLine() {
    std::string text;
    RunUntil([&] { return Has(text = ReadFile(out_), "\n"); });
    return text.substr(0, text.find('\n'));
  }
  // Sends signal `number` and waits until the child is gone, so that it writes nothing more;
  // returns its exit status, or -1 when it has not ended within 20 s (then it is killed).
  int end(int number = SIGKILL) {
    if (pid_ > 0) ::kill(pid_, number);
    const bool ended = pid_ > 0 && RunUntil([&] { return ReadFile(status_).ends_with("\n"); });
    if (pid_ > 0 && !ended) ::kill(pid_, SIGKILL);
    pid_ = 0;
    return ended ? std::atoi(ReadFile(status_).c_str()) : -1;
  }

 private:
  std::string out_, status_;
  pid_t pid_ = 0;
};

class TavoCli : public ::testing::Test {
 protected:
  TempDir dir;
  std::string root = dir / "root";

  // Runs `tavo ARGS --root ROOT` with stdout and stderr captured (stdout is not a terminal).
  Result tavo(const Names& args) {
    const int raw = std::system((Command(TAVO_BINARY, args) + " --root " + Quote(root) + " >" +
                                 Quote(dir / "out") + " 2>" + Quote(dir / "err"))
                                    .c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, ReadFile(dir / "out"), ReadFile(dir / "err")};
  }
  // Runs with --trace, expecting success.
  Result trace(const Names& args) {
    Result r = tavo(With(args, {"--trace"}));
    EXPECT_EQ(r.status, 0) << args[0] << ": " << r.err;
    return r;
  }
  // `tavo ARGS --root ROOT` in the background, its stderr into ERR under the test's directory.
  TavoChild background(const Names& args, const std::string& err) {
    return TavoChild(With(args, {"--root", root}), dir / err);
  }
  // `tavo plugin install` of p 1.0 from the service host "s".
  static Names InstallP(TestPluginService& service) {
    return {"plugin",    "install", "--provider",       "p",
            "--version", "1.0",     "--plugin-service", service.host("s")};
  }
};

// `tavo serve DIR ARGS`, its base URL ("http://127.0.0.1:PORT/ced") read from its first line.
struct ServedPlugins : TavoChild {
  ServedPlugins(const std::string& dir, const std::string& log, const Names& args = {})
      : TavoChild(With({"serve", dir}, args), log) {}

  const std::string url = firstLine();
  const int port = std::atoi(url.c_str() + url.rfind(':') + 1);
};
