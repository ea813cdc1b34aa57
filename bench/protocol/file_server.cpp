// tavo_bench_file_server FILE [SIGNATURE] — serves FILE over HTTP on 127.0.0.1 at an ephemeral
// port, at every path (SIGNATURE, when given, at every path ending in ".minisig"), and prints
// "port N" once it listens; runs until killed. The file is mapped once and each
// response streams from the mapping, so the server costs a client no more than the copy into its
// socket. (cpp-httplib's mount points read the whole file into memory on every request.)
#include <fcntl.h>
#include <httplib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

int main(int argc, char** argv) {
  if (argc != 2 && argc != 3) {
    std::fprintf(stderr, "usage: %s FILE [SIGNATURE]\n", argv[0]);
    return 2;
  }
  std::string signature;
  if (argc == 3) {
    std::ifstream in(argv[2], std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    signature = text.str();
  }
  const int fd = ::open(argv[1], O_RDONLY | O_CLOEXEC);
  struct stat info {};
  if (fd < 0 || ::fstat(fd, &info) != 0 || info.st_size <= 0) {
    std::perror(argv[1]);
    return 1;
  }
  const auto size = static_cast<size_t>(info.st_size);
  void* mapped = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
  if (mapped == MAP_FAILED) {
    std::perror("mmap");
    return 1;
  }
  const char* data = static_cast<const char*>(mapped);

  httplib::Server server;
  if (!signature.empty()) {
    server.Get(R"(/.*\.minisig)", [&](const httplib::Request&, httplib::Response& res) {
      res.set_content(signature, "text/plain");
    });
  }
  server.Get(R"(/.*)", [&](const httplib::Request&, httplib::Response& res) {
    res.set_content_provider(size, "application/octet-stream",
                             [data](size_t offset, size_t length, httplib::DataSink& sink) {
                               return sink.write(data + offset, std::min<size_t>(length, 4 << 20));
                             });
  });
  const int port = server.bind_to_any_port("127.0.0.1");
  if (port <= 0) {
    std::fprintf(stderr, "cannot listen on 127.0.0.1\n");
    return 1;
  }
  std::printf("port %d\n", port);
  std::fflush(stdout);
  return server.listen_after_bind() ? 0 : 1;
}
