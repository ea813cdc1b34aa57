#include "MerinLzmaDecoder.h"

#include <zip.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <new>

namespace {

constexpr size_t kOutputChunk = 256 * 1024;
// An LZMA entry opens with the encoder's version (2 bytes) and the length of the properties
// (2 bytes) that follow; LZMA's are 5 bytes.
constexpr size_t kLzmaHeader = 4;
constexpr size_t kLzmaProperties = 5;

}  // namespace

MerinLzmaDecoder::MerinLzmaDecoder(uint16_t method, uint64_t size) : method_(method), size_(size) {}

MerinLzmaDecoder::~MerinLzmaDecoder() { lzma_end(&stream_); }

std::optional<std::string> MerinLzmaDecoder::reasonOf(int zipErrorCode) {
  zip_error_t error;
  zip_error_init_with_code(&error, zipErrorCode);
  std::string text = zip_error_strerror(&error);
  zip_error_fini(&error);
  return text;
}

std::optional<std::string> MerinLzmaDecoder::reasonOf(lzma_ret result) {
  switch (result) {
    case LZMA_OK:
    case LZMA_STREAM_END:
      return std::nullopt;
    case LZMA_MEM_ERROR:
      throw std::bad_alloc();
    case LZMA_MEMLIMIT_ERROR:
      return "decoding it needs more than " + std::to_string(kMemoryLimit >> 20) + " MiB of memory";
    case LZMA_BUF_ERROR:
      return reasonOf(ZIP_ER_EOF);
    default:
      return reasonOf(ZIP_ER_COMPRESSED_DATA);
  }
}

std::optional<std::string> MerinLzmaDecoder::start() {
  started_ = true;
  if (method_ == kMethodXz) return reasonOf(lzma_stream_decoder(&stream_, kMemoryLimit, 0));
  const auto byte = [this](size_t i) { return static_cast<uint8_t>(header_[i]); };
  if (byte(2) + (byte(3) << 8) != kLzmaProperties) return reasonOf(ZIP_ER_COMPRESSED_DATA);
  lzma_filter filters[2] = {{LZMA_FILTER_LZMA1, nullptr}, {LZMA_VLI_UNKNOWN, nullptr}};
  if (lzma_properties_decode(&filters[0], nullptr,
                             reinterpret_cast<const uint8_t*>(header_.data()) + kLzmaHeader,
                             kLzmaProperties) != LZMA_OK) {
    return reasonOf(ZIP_ER_COMPRESSED_DATA);
  }
  // The stream ends at the declared size, with or without an end marker (7-Zip writes none
  // unless asked). No match reaches further back than the entry is long, so a dictionary larger
  // than that is never needed, however large the properties declare it.
  const std::unique_ptr<void, void (*)(void*)> owned(filters[0].options, std::free);
  auto* options = static_cast<lzma_options_lzma*>(filters[0].options);
  filters[0].id = LZMA_FILTER_LZMA1EXT;
  options->ext_flags = LZMA_LZMA1EXT_ALLOW_EOPM;
  options->ext_size_low = static_cast<uint32_t>(size_);
  options->ext_size_high = static_cast<uint32_t>(size_ >> 32);
  options->dict_size = static_cast<uint32_t>(std::clamp<uint64_t>(
      size_, LZMA_DICT_SIZE_MIN, std::max(options->dict_size, LZMA_DICT_SIZE_MIN)));
  if (options->dict_size > kMemoryLimit) return reasonOf(LZMA_MEMLIMIT_ERROR);
  return reasonOf(lzma_raw_decoder(&stream_, filters));
}

std::optional<std::string> MerinLzmaDecoder::decode(
    std::string_view stored, const std::function<bool(std::string_view)>& write) {
  if (ended_) return std::nullopt;  // what follows the end of the stream is not read
  const bool finishing = stored.empty();
  if (!started_ && method_ == kMethodLzma) {
    const size_t wanted = kLzmaHeader + kLzmaProperties - header_.size();
    header_.append(stored.substr(0, wanted));
    stored.remove_prefix(std::min(wanted, stored.size()));
    if (header_.size() < kLzmaHeader + kLzmaProperties)
      return finishing ? reasonOf(ZIP_ER_EOF) : std::nullopt;
  }
  if (!started_) {
    if (auto reason = start()) return reason;
  }
  if (output_.empty()) output_.resize(kOutputChunk);
  stream_.next_in = reinterpret_cast<const uint8_t*>(stored.data());
  stream_.avail_in = stored.size();
  const lzma_action action = finishing ? LZMA_FINISH : LZMA_RUN;
  for (;;) {
    stream_.next_out = output_.data();
    stream_.avail_out = output_.size();
    const lzma_ret result = lzma_code(&stream_, action);
    const size_t produced = output_.size() - stream_.avail_out;
    if (produced > 0 && !write({reinterpret_cast<const char*>(output_.data()), produced})) {
      return std::nullopt;
    }
    if (result == LZMA_STREAM_END) {
      ended_ = true;
      return std::nullopt;
    }
    if (result != LZMA_OK) return reasonOf(result);
    if (stream_.avail_in == 0 && stream_.avail_out != 0 && action == LZMA_RUN) {
      return std::nullopt;
    }
  }
}
