#pragma once

#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "tavo/ZMException.h"

// A fresh directory under $TMPDIR, removed with its contents (permissions restored first).
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Points Documents, Caches and the temporary directory under a fresh TempDir for one test, and
// restores the defaults afterwards.
class ScopedSystemDirectories {
 public:
  ScopedSystemDirectories();
  ~ScopedSystemDirectories();
  const TempDir& root() const { return root_; }
  std::string documents() const { return root_ / "Documents"; }
  std::string caches() const { return root_ / "Caches"; }
  std::string temporary() const { return root_ / "tmp"; }

 private:
  TempDir root_;
};

// Collects every log line while alive.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  std::vector<std::string> lines() const;
  bool contains(const std::string& line) const;
  // Lines that begin with `prefix`.
  std::vector<std::string> startingWith(const std::string& prefix) const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

// Drains the main queue until `done` holds; false after `timeout`.
bool RunUntil(const std::function<bool()>& done,
              std::chrono::milliseconds timeout = std::chrono::seconds(20));
// Drains whatever the main queue holds now and whatever background work posts within a short
// quiet period; for asserting that nothing (more) arrives.
void DrainMainQueue();

// Occupies every thread of the global queue until the returned promise is kept (or dropped), so
// that work posted meanwhile cannot start.
std::promise<void> HoldGlobalQueue();

// `arg` as one word of a shell command.
inline std::string Quote(const std::string& arg) {
  std::string quoted = "'";
  for (char c : arg) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// Sets or clears the immutable flag, which even root cannot get past; false where unsupported.
inline bool SetImmutable(const std::string& path, bool on) {
  return std::system(
             ((on ? "chattr +i " : "chattr -i ") + Quote(path) + " 2> /dev/null").c_str()) == 0;
}

// File helpers.
void WriteFile(const std::string& path, const std::string& data);
std::string ReadFile(const std::string& path);
bool Exists(const std::string& path);
// Immediate entry names, sorted.
std::vector<std::string> ListDir(const std::string& path);
// `size` bytes that do not compress, the same for the same seed.
std::string RandomBytes(size_t size, unsigned seed);
// Sets the modification time to `secondsAgo` before now.
void SetAgeSeconds(const std::string& path, double secondsAgo);

// What `body` threw, as "name: reason", or "nothing".
template <typename Body>
std::string Raised(Body body) {
  try {
    body();
  } catch (const ZMException& e) {
    return e.name() + ": " + e.reason().value_or("(null)");
  }
  return "nothing";
}
