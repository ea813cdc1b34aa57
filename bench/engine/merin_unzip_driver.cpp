// Extracts one zip archive through the engine in ZMGameHandle's slot (libmerin fills it when it
// is loaded) and exits: 0 on success, 1 on failure with the engine's message on stderr.
//   merin_unzip_driver <archive.zip> <destination directory>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>

#include "merin/MerinGameHandle.h"

namespace {

class WaitingListener : public ZMUnzipGamePackageListener {
 public:
  void onUnzipSucceed() override { finish(""); }
  void onUnzipProgress(float) override {}
  void onUnzipFailed(const std::string& message) override {
    finish(message.empty() ? "?" : message);
  }

  std::string wait() {
    std::unique_lock lock(mutex_);
    done_.wait(lock, [this] { return finished_; });
    return failure_;
  }

 private:
  void finish(const std::string& failure) {
    {
      std::lock_guard lock(mutex_);
      failure_ = failure;
      finished_ = true;
    }
    done_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable done_;
  bool finished_ = false;
  std::string failure_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s <archive.zip> <destination directory>\n", argv[0]);
    return 2;
  }
  auto handle = std::dynamic_pointer_cast<MerinGameHandle>(ZMGameHandle::getInstance());
  if (!handle) {
    std::fprintf(stderr, "libmerin did not fill the game handle slot\n");
    return 2;
  }
  auto listener = std::make_shared<WaitingListener>();
  handle->unzipFile(argv[1], argv[2], listener);
  const std::string failure = listener->wait();
  handle->done();
  if (!failure.empty()) {
    std::fprintf(stderr, "%s\n", failure.c_str());
    return 1;
  }
  return 0;
}
