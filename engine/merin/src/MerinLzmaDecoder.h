#pragma once

#include <lzma.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Decodes the entry data that libzip hands over only as stored: LZMA (method 14, as Python's
// ZIP_LZMA and 7-Zip write it) and XZ (method 95, 7-Zip), with liblzma. One entry at a time,
// on the thread that calls it.
class MerinLzmaDecoder {
 public:
  static constexpr uint16_t kMethodLzma = 14;
  static constexpr uint16_t kMethodXz = 95;
  // What one entry may need to decode: the dictionary of an LZMA entry (never more than its own
  // size) or all an XZ stream needs. The largest presets (xz -9, 7-Zip -mx=9) use 64 MiB.
  static constexpr uint64_t kMemoryLimit = 128 << 20;

  static bool decodes(uint16_t method) { return method == kMethodLzma || method == kMethodXz; }

  // `size` is the entry's declared uncompressed size: an LZMA stream ends there.
  MerinLzmaDecoder(uint16_t method, uint64_t size);
  ~MerinLzmaDecoder();
  MerinLzmaDecoder(const MerinLzmaDecoder&) = delete;
  MerinLzmaDecoder& operator=(const MerinLzmaDecoder&) = delete;

  // Decodes the next stored bytes (none once they are all read), handing each piece of output
  // to `write`, which returns false to stop. Returns why the data does not decode, or nothing.
  std::optional<std::string> decode(std::string_view stored,
                                    const std::function<bool(std::string_view)>& write);

 private:
  std::optional<std::string> start();
  static std::optional<std::string> reasonOf(int zipErrorCode);
  static std::optional<std::string> reasonOf(lzma_ret result);

  const uint16_t method_;
  const uint64_t size_;
  lzma_stream stream_ = LZMA_STREAM_INIT;
  bool started_ = false;
  bool ended_ = false;
  std::string header_;  // an LZMA entry's version and properties, until they are complete
  std::vector<uint8_t> output_;
};
