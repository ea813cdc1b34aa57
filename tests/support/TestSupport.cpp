#include "support/TestSupport.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <latch>
#include <memory>
#include <random>
#include <thread>

#include "platform/ZMGlobalQueue.h"
#include "tavo/ZMLog.h"
#include "tavo/ZMMainQueue.h"
#include "tavo/ZMSystemDirectories.h"

namespace fs = std::filesystem;

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/tavo-test-XXXXXX";
  if (!::mkdtemp(pattern.data())) std::abort();
  path_ = fs::canonical(pattern).string();
}

TempDir::~TempDir() {
  std::error_code ec;
  // Tests make directories unwritable to force failures; give the permissions back first.
  for (auto it = fs::recursive_directory_iterator(path_, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (it->is_directory(ec) && !it->is_symlink(ec)) {
      fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
    }
  }
  fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ec);
  fs::remove_all(path_, ec);
}

ScopedSystemDirectories::ScopedSystemDirectories() {
  ZMSystemDirectories::setDocumentsDirectory(documents());
  ZMSystemDirectories::setCachesDirectory(caches());
  ZMSystemDirectories::setTemporaryDirectory(temporary());
}

ScopedSystemDirectories::~ScopedSystemDirectories() {
  ZMSystemDirectories::setDocumentsDirectory("");
  ZMSystemDirectories::setCachesDirectory("");
  ZMSystemDirectories::setTemporaryDirectory("");
}

LogCapture::LogCapture() {
  ZMLog::setSink([this](std::string_view line) {
    std::lock_guard lock(mutex_);
    lines_.emplace_back(line);
  });
}

LogCapture::~LogCapture() { ZMLog::setSink(nullptr); }

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

bool LogCapture::contains(const std::string& line) const {
  std::lock_guard lock(mutex_);
  return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
}

std::vector<std::string> LogCapture::startingWith(const std::string& prefix) const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> out;
  std::ranges::copy_if(lines_, std::back_inserter(out),
                       [&](auto& l) { return l.starts_with(prefix); });
  return out;
}

bool RunUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  return ZMMainQueue::runUntil(done, timeout);
}

void DrainMainQueue() {
  // Background blocks may still be posting; run until nothing arrived for a quiet period.
  for (int idle = 0; idle < 20;) {
    idle = ZMMainQueue::poll() == 0 ? idle + 1 : 0;
    if (idle > 0) ZMMainQueue::runUntil([] { return false; }, std::chrono::milliseconds(5));
  }
}

void WriteFile(const std::string& path, const std::string& data) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << data;
  ASSERT_TRUE(out.good()) << path;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

bool Exists(const std::string& path) {
  std::error_code ec;
  return fs::exists(fs::symlink_status(path, ec));
}

std::vector<std::string> ListDir(const std::string& path) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(path, ec))
    names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

void SetAgeSeconds(const std::string& path, double secondsAgo) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  const int64_t when = now.tv_sec * 1000000000LL + now.tv_nsec - int64_t(secondsAgo * 1e9);
  const timespec times[2] = {{when / 1000000000, when % 1000000000},
                             {when / 1000000000, when % 1000000000}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

std::string RandomBytes(size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string data(size, '\0');
  for (auto& c : data) c = static_cast<char>(random());
  return data;
}

std::promise<void> HoldGlobalQueue() {
  // The held blocks share what they wait on, as one may still be waking up when the test ends.
  auto held = std::make_shared<std::latch>(ZMGlobalQueue::kThreadCount);
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  for (std::size_t i = 0; i < ZMGlobalQueue::kThreadCount; ++i) {
    ZMGlobalQueue::post([held, released] {
      held->count_down();
      released.wait();
    });
  }
  held->wait();
  return release;
}
