#pragma once

#include <openssl/evp.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// ZMBackgroundMD5 computes the MD5 of a stream of chunks on a thread of its own, so that the
// thread receiving a download never waits for the digest: receiving and hashing overlap, and
// the digest is ready soon after the last byte. Asked to, it computes the BLAKE2b-512 of the same
// bytes as well (what a prehashed package signature signs) on a second thread, so that neither
// digest waits for the other. Chunks are hashed in the order they are given; at most kMaxQueued
// wait at a time (update() waits beyond that), which bounds the memory.
//
// Thread rules: update() and finish() are called by one thread, the owner; the hashing threads
// are private. The destructor stops hashing and joins the threads, whether or not finish() ran.
class ZMBackgroundMD5 {
 public:
  static constexpr std::size_t kMaxQueued = 3;

  explicit ZMBackgroundMD5(bool alsoBLAKE2b512 = false);
  ~ZMBackgroundMD5();
  ZMBackgroundMD5(const ZMBackgroundMD5&) = delete;
  ZMBackgroundMD5& operator=(const ZMBackgroundMD5&) = delete;

  // Takes the bytes of `chunk` for hashing and leaves in it an empty buffer to fill next (one
  // already hashed, when there is one, so buffers are reused rather than allocated).
  void update(std::string& chunk);
  // Waits until every chunk is hashed: the lower-case hex digest, or "" when hashing failed.
  std::string finish();
  // After finish(): the BLAKE2b-512 (64 bytes) when it was asked for and computed, else "".
  const std::string& blake2b512() const { return blake2b512_; }

 private:
  // One digest and the thread that computes it.
  struct Digest {
    EVP_MD_CTX* context = nullptr;  // used by `thread` until it ends
    uint64_t next = 0;              // the number of the chunk it hashes next; guarded by mutex_
    bool failed = false;            // guarded by mutex_
    std::thread thread;
  };

  void run(Digest& digest);
  // Joins the threads; then the digests are theirs no more.
  void stop();
  // The bytes of `digest`, or "" when it failed.
  static std::string final(Digest& digest);

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::unique_ptr<Digest>> digests_;  // the MD5 first
  // Chunks not yet hashed by every digest, numbered from `first_`; a digest reads its chunk in
  // place, unlocked, and only a chunk that every digest has passed leaves the queue.
  std::deque<std::string> queued_;  // guarded by mutex_
  uint64_t first_ = 0;              // guarded by mutex_
  std::vector<std::string> spare_;  // guarded by mutex_
  bool closing_ = false;            // guarded by mutex_: no more chunks come
  bool abandoned_ = false;          // guarded by mutex_: the chunks left are not wanted
  std::string blake2b512_;
};
