#pragma once

// What the tool tests share: `tavo` run to completion (TavoCli), or as a child process that
// keeps running (TavoChild, ServedPlugins).

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

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

// Has the service host "s" list plug-in p 1.0 as the package `zip`, fetched from `url`.
inline void ListP(TestPluginService& service, const std::string& zip, const std::string& url) {
  service.lists(
      "s",
      ZMValue::array({{{"plugin_id", "p"}, {"version", "1.0"}, {"hash", Md5(zip)}, {"url", url}}}));
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
  // `tavo plugin install` of p 1.0 from the service host "s".
  static Names InstallP(TestPluginService& service) {
    return {"plugin",    "install", "--provider",       "p",
            "--version", "1.0",     "--plugin-service", service.host("s")};
  }
};

extern char** environ;

// A program (by default `tavo`) run as a child process: its stdout read line by line, its
// stderr into a file. Killed, if still running, when the object goes.
class TavoChild {
 public:
  TavoChild(std::vector<std::string> args, const std::string& errPath,
            const std::string& program = TAVO_BINARY) {
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errPath.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    args.insert(args.begin(), program);
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    if (posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ) != 0) pid_ = 0;
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    out_ = out[0];
  }
  ~TavoChild() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    if (out_ >= 0) ::close(out_);
  }
  TavoChild(const TavoChild&) = delete;
  TavoChild& operator=(const TavoChild&) = delete;

  // The next line on stdout; empty when none comes within 20 s.
  std::string line() {
    while (buffered_.find('\n') == std::string::npos) {
      if (!readSome()) return "";
    }
    const auto end = buffered_.find('\n');
    std::string line = buffered_.substr(0, end);
    buffered_.erase(0, end + 1);
    return line;
  }
  // Kills the child with SIGKILL and waits until it is gone, so that it writes nothing more.
  void kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = 0;
  }
  // Sends SIGINT and returns the exit status once stdout closes; -1 when it does not within
  // 20 s, or the child did not exit normally.
  int interrupt() {
    if (pid_ <= 0) return -1;
    ::kill(pid_, SIGINT);
    while (readSome()) {
    }
    int status = 0;
    if (!closed_) ::kill(pid_, SIGKILL);
    ::waitpid(pid_, &status, 0);
    pid_ = 0;
    return closed_ && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  bool readSome() {
    pollfd ready{out_, POLLIN, 0};
    char chunk[4096];
    if (closed_ || ::poll(&ready, 1, 20000) != 1) return false;
    const ssize_t got = ::read(out_, chunk, sizeof chunk);
    if (got <= 0) {
      closed_ = true;
      return false;
    }
    buffered_.append(chunk, static_cast<std::size_t>(got));
    return true;
  }

  pid_t pid_ = 0;
  int out_ = -1;
  bool closed_ = false;
  std::string buffered_;
};

// `tavo serve DIR ARGS`, its base URL read from its first line on stdout.
class ServedPlugins {
 public:
  ServedPlugins(const std::string& dir, const std::string& log, std::vector<std::string> args = {})
      : child_(WithServe(dir, std::move(args)), log), url(child_.line()) {
    const auto colon = url.rfind(':');
    if (colon != std::string::npos) port = std::atoi(url.c_str() + colon + 1);
  }
  // Interrupted, it stops: exits 0 within 20 s.
  bool stop() { return child_.interrupt() == 0; }

 private:
  static std::vector<std::string> WithServe(const std::string& dir, std::vector<std::string> args) {
    args.insert(args.begin(), {"serve", dir});
    return args;
  }
  TavoChild child_;

 public:
  const std::string url;  // "http://127.0.0.1:PORT/ced"
  int port = 0;
};
