// Throughput of FileMD5HashCreateWithPath on a 256 MiB file.
//
//   tavo_md5_bench [benchmark flags]     Google Benchmark run. The file is made in /dev/shm (so the
//                                        disk is not what is measured), else in $TMPDIR, and
//                                        removed at the end; TAVO_MD5_BENCH_FILE names an existing
//                                        file to hash instead.
//   tavo_md5_bench --hash FILE [CHUNK]   Hashes FILE once (8192-byte chunks unless CHUNK is given),
//                                        prints "<digest>  FILE" and, on stderr, the peak RSS.
//                                        bench/util/md5_vs_openssl.sh times this against openssl.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tavo/ZMFileMD5.h"

namespace {

constexpr std::size_t kFileSize = std::size_t{256} << 20;

std::string ScratchDirectory() {
  struct stat st {};
  if (::stat("/dev/shm", &st) == 0 && S_ISDIR(st.st_mode) && ::access("/dev/shm", W_OK) == 0) {
    return "/dev/shm";
  }
  const char* tmp = std::getenv("TMPDIR");
  return tmp && *tmp ? tmp : "/tmp";
}

// The file every benchmark hashes: made on first use, removed at exit unless the caller named it.
class BenchFile {
 public:
  BenchFile() {
    if (const char* given = std::getenv("TAVO_MD5_BENCH_FILE"); given && *given) {
      path_ = given;
      return;
    }
    path_ = ScratchDirectory() + "/tavo-md5-bench-" + std::to_string(::getpid()) + ".bin";
    owned_ = true;
    const int fd = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
      std::perror(path_.c_str());
      std::exit(1);
    }
    // Incompressible, reproducible content (xorshift64).
    std::vector<uint64_t> block((std::size_t{1} << 20) / sizeof(uint64_t));
    uint64_t x = 0x9e3779b97f4a7c15ull;
    for (std::size_t written = 0; written < kFileSize; written += block.size() * sizeof(uint64_t)) {
      for (auto& word : block) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        word = x;
      }
      const auto bytes = static_cast<ssize_t>(block.size() * sizeof(uint64_t));
      if (::write(fd, block.data(), static_cast<std::size_t>(bytes)) != bytes) {
        std::perror(path_.c_str());
        ::close(fd);
        ::unlink(path_.c_str());
        std::exit(1);
      }
    }
    ::close(fd);
  }
  ~BenchFile() {
    if (owned_) ::unlink(path_.c_str());
  }
  const std::string& path() const { return path_; }
  std::size_t size() const {
    struct stat st {};
    return ::stat(path_.c_str(), &st) == 0 ? static_cast<std::size_t>(st.st_size) : 0;
  }

 private:
  std::string path_;
  bool owned_ = false;
};

BenchFile& File() {
  static BenchFile file;
  return file;
}

void BM_FileMD5HashCreateWithPath(benchmark::State& state) {
  const std::string& path = File().path();
  const auto chunk = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    char* hash = FileMD5HashCreateWithPath(path.c_str(), chunk);
    if (!hash) {
      state.SkipWithError("digest failed");
      break;
    }
    benchmark::DoNotOptimize(hash);
    std::free(hash);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(File().size()));
}
// 8192 is what the download check uses; 65536 shows what larger reads would buy.
BENCHMARK(BM_FileMD5HashCreateWithPath)
    ->ArgName("chunk")
    ->Arg(8192)
    ->Arg(65536)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

int HashOnce(const char* path, const char* chunkText) {
  const std::size_t chunk = chunkText ? std::strtoull(chunkText, nullptr, 10) : 8192;
  char* hash = FileMD5HashCreateWithPath(path, chunk);
  if (!hash) {
    std::fprintf(stderr, "cannot hash %s\n", path);
    return 1;
  }
  std::printf("%s  %s\n", hash, path);
  std::free(hash);
  struct rusage usage {};
  ::getrusage(RUSAGE_SELF, &usage);
  std::fprintf(stderr, "peak RSS %ld KiB\n", usage.ru_maxrss);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 3 && std::string(argv[1]) == "--hash") {
    return HashOnce(argv[2], argc >= 4 ? argv[3] : nullptr);
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
