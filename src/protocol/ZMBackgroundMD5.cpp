#include "protocol/ZMBackgroundMD5.h"

#include <algorithm>
#include <utility>

ZMBackgroundMD5::ZMBackgroundMD5(bool alsoBLAKE2b512) {
  std::vector<const EVP_MD*> kinds{EVP_md5()};
  if (alsoBLAKE2b512) kinds.push_back(EVP_blake2b512());
  for (const EVP_MD* kind : kinds) {
    auto digest = std::make_unique<Digest>();
    digest->context = EVP_MD_CTX_new();
    digest->failed = !digest->context || EVP_DigestInit_ex(digest->context, kind, nullptr) != 1;
    digests_.push_back(std::move(digest));
  }
  try {
    for (auto& digest : digests_) {
      Digest& one = *digest;
      one.thread = std::thread([this, &one] { run(one); });
    }
  } catch (...) {
    // A thread that could not start leaves none behind: the owner goes without a digest.
    {
      std::lock_guard lock(mutex_);
      closing_ = abandoned_ = true;
    }
    stop();
    for (auto& digest : digests_) EVP_MD_CTX_free(digest->context);
    throw;
  }
}

ZMBackgroundMD5::~ZMBackgroundMD5() {
  {
    std::lock_guard lock(mutex_);
    closing_ = abandoned_ = true;  // what is left is not wanted any more
  }
  stop();
  for (auto& digest : digests_) EVP_MD_CTX_free(digest->context);
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
  stop();
  if (digests_.size() > 1) blake2b512_ = final(*digests_[1]);
  const std::string md5 = final(*digests_[0]);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : md5) {
    text += kHex[byte >> 4];
    text += kHex[byte & 0x0f];
  }
  return text;
}

void ZMBackgroundMD5::stop() {
  changed_.notify_all();
  for (auto& digest : digests_) {
    if (digest->thread.joinable()) digest->thread.join();
  }
}

std::string ZMBackgroundMD5::final(Digest& digest) {
  unsigned char bytes[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (digest.failed || EVP_DigestFinal_ex(digest.context, bytes, &length) != 1) return {};
  return std::string(reinterpret_cast<const char*>(bytes), length);
}

void ZMBackgroundMD5::run(Digest& digest) {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [&] { return digest.next < first_ + queued_.size() || closing_; });
    if (abandoned_ || digest.next == first_ + queued_.size()) return;  // nothing more to hash
    // Stays in place while this digest reads it: only chunks every digest passed are removed,
    // and adding chunks at the back of a deque moves none.
    const std::string& chunk = queued_[digest.next - first_];
    const bool hash = !digest.failed;
    lock.unlock();
    const bool ok = !hash || EVP_DigestUpdate(digest.context, chunk.data(), chunk.size()) == 1;
    lock.lock();
    if (!ok) digest.failed = true;
    ++digest.next;
    const auto passed = [this](const auto& d) { return d->next > first_; };
    while (!queued_.empty() && std::all_of(digests_.begin(), digests_.end(), passed)) {
      if (spare_.size() < kMaxQueued) spare_.push_back(std::move(queued_.front()));
      queued_.pop_front();
      ++first_;
    }
    changed_.notify_all();  // room for the next chunk, or the next chunk for the other digest
  }
}
