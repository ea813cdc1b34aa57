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
#include <utility>
#include <vector>

#include "support/TestPluginService.h"
#include "support/TestSupport.h"
#include "tavo/tavo.h"

using Names = std::vector<std::string>;

inline std::string Md5(const std::string& path) {
  return ZMFileUtils::getFileMD5(path).value_or("");
}

// Has the service host "s" list plug-in p 1.0 as the package `zip`, fetched from `url`.
inline void ListP(TestPluginService& service, const std::string& zip, const std::string& url) {
  service.lists(
      "s",
      ZMValue::array({{{"plugin_id", "p"}, {"version", "1.0"}, {"hash", Md5(zip)}, {"url", url}}}));
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
  Result trace(Names args) {
    args.push_back("--trace");
    Result r = tavo(args);
    EXPECT_EQ(r.status, 0) << args[0] << ": " << r.err;
    return r;
  }
  // `tavo plugin install` of p 1.0 from the service host "s".
  static Names InstallP(TestPluginService& service) {
    return {"plugin",    "install", "--provider",       "p",
            "--version", "1.0",     "--plugin-service", service.host("s")};
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
  ~TavoChild() { kill(); }

  // The next line on stdout; empty when none comes within 20 s.
  std::string line() {
    std::string text;
    if (!RunUntil([&] { return (text = ReadFile(out_)).find('\n', read_) != std::string::npos; })) {
      return "";
    }
    const auto begin = std::exchange(read_, text.find('\n', read_) + 1);
    return text.substr(begin, read_ - 1 - begin);
  }
  // Kills the child with SIGKILL and waits until it is gone, so that it writes nothing more.
  void kill() { end(SIGKILL); }
  // Sends SIGINT and returns the exit status once it has ended; -1 when it does not within 20 s.
  int interrupt() { return end(SIGINT) ? std::atoi(ReadFile(status_).c_str()) : -1; }

 private:
  bool end(int number) {
    if (pid_ <= 0) return false;
    ::kill(pid_, number);
    const bool ended = RunUntil([&] { return ReadFile(status_).ends_with("\n"); });
    if (!ended) ::kill(pid_, SIGKILL);
    pid_ = 0;
    return ended;
  }

  std::string out_, status_;
  std::size_t read_ = 0;
  pid_t pid_ = 0;
};

// `tavo serve DIR ARGS`, its base URL read from its first line on stdout.
class ServedPlugins {
 public:
  ServedPlugins(const std::string& dir, const std::string& log, Names args = {})
      : child_(WithServe(dir, std::move(args)), log), url(child_.line()) {
    const auto colon = url.rfind(':');
    if (colon != std::string::npos) port = std::atoi(url.c_str() + colon + 1);
  }
  // Interrupted, it stops: exits 0 within 20 s.
  bool stop() { return child_.interrupt() == 0; }

 private:
  static Names WithServe(const std::string& dir, Names args) {
    args.insert(args.begin(), {"serve", dir});
    return args;
  }
  TavoChild child_;

 public:
  const std::string url;  // "http://127.0.0.1:PORT/ced"
  int port = 0;
};
