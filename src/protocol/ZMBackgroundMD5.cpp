#include "protocol/ZMBackgroundMD5.h"

#include <utility>

ZMBackgroundMD5::ZMBackgroundMD5(bool alsoBLAKE2b512) : context_(EVP_MD_CTX_new()) {
  if (!context_ || EVP_DigestInit_ex(context_, EVP_md5(), nullptr) != 1) failed_ = true;
  if (alsoBLAKE2b512) {
    blake2b_ = EVP_MD_CTX_new();
    if (!blake2b_ || EVP_DigestInit_ex(blake2b_, EVP_blake2b512(), nullptr) != 1) failed_ = true;
  }
  thread_ = std::thread([this] { run(); });
}

ZMBackgroundMD5::~ZMBackgroundMD5() {
  {
    std::lock_guard lock(mutex_);
    closing_ = true;
    queued_.clear();  // not wanted any more
  }
  changed_.notify_all();
  if (thread_.joinable()) thread_.join();
  EVP_MD_CTX_free(context_);
  EVP_MD_CTX_free(blake2b_);
}

void ZMBackgroundMD5::update(std::string& chunk) {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return queued_.size() < kMaxQueued; });
  queued_.push_back(std::move(chunk));
  chunk.clear();
  if (!spare_.empty()) {
    chunk = std::move(spare_.back());
    spare_.pop_back();
    chunk.clear();
  }
  lock.unlock();
  changed_.notify_all();
}

std::string ZMBackgroundMD5::finish() {
  {
    std::lock_guard lock(mutex_);
    closing_ = true;
  }
  changed_.notify_all();
  if (thread_.joinable()) thread_.join();
  unsigned char digest[EVP_MAX_MD_SIZE], blake2bDigest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (failed_ || EVP_DigestFinal_ex(context_, digest, &length) != 1) return {};
  unsigned int blake2bLength = 0;
  if (blake2b_ && EVP_DigestFinal_ex(blake2b_, blake2bDigest, &blake2bLength) == 1) {
    blake2b512_.assign(reinterpret_cast<const char*>(blake2bDigest), blake2bLength);
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text;
  for (unsigned int i = 0; i < length; ++i) {
    text += kHex[digest[i] >> 4];
    text += kHex[digest[i] & 0x0f];
  }
  return text;
}

void ZMBackgroundMD5::run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return !queued_.empty() || closing_; });
    if (queued_.empty()) return;  // closing, and everything handed over is hashed
    std::string chunk = std::move(queued_.front());
    queued_.pop_front();
    const bool hash = !failed_;
    lock.unlock();
    changed_.notify_all();  // room for the next chunk
    const bool ok =
        !hash || (EVP_DigestUpdate(context_, chunk.data(), chunk.size()) == 1 &&
                  (!blake2b_ || EVP_DigestUpdate(blake2b_, chunk.data(), chunk.size()) == 1));
    lock.lock();
    if (!ok) failed_ = true;
    if (spare_.size() < kMaxQueued) spare_.push_back(std::move(chunk));
  }
}
