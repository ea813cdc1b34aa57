#include "Demo.h"

#include <fcntl.h>
#include <httplib.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <sstream>
#include <thread>
#include <vector>

#include "PluginService.h"
#include "SamplePackage.h"
#include "tavo/ZMFileUtils.h"

namespace {

constexpr const char* kAppId = "tap-tap";
constexpr const char* kVersion = "1.0.0";
constexpr const char* kPlugin = "tavo-physics";
constexpr const char* kPluginVersion = "1.0";

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::string Md5Of(const std::string& path) {
  char* digest = FileMD5HashCreateWithPath(path.c_str(), 0);
  std::string text = digest ? digest : "";
  std::free(digest);
  return text;
}

// Runs a program found on PATH with `arguments`, its input and output on /dev/null; true when
// it exits 0.
bool RunQuietly(std::vector<std::string> arguments) {
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", fd == 0 ? O_RDONLY : O_WRONLY, 0);
  }
  pid_t pid = 0;
  const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  if (spawned != 0 || ::waitpid(pid, &status, 0) != pid) return false;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// A throw-away minisign key pair in `directory`, when minisign is installed: it signs the
// sample packages, and the runtime trusts it alone.
class Signer {
 public:
  explicit Signer(const std::string& directory)
      : publicFile_(directory + "/demo.pub"), secretFile_(directory + "/demo.key") {
    if (!RunQuietly({"minisign", "-G", "-W", "-p", publicFile_, "-s", secretFile_})) return;
    const std::string file = ReadAll(publicFile_);
    const auto start = file.find('\n') + 1;
    publicKey_ = file.substr(start, file.find('\n', start) - start);
  }
  bool ok() const { return !publicKey_.empty(); }
  const std::string& publicKey() const { return publicKey_; }
  // Writes "<file>.minisig"; true without a key pair, when nothing is signed.
  bool sign(const std::string& file) const {
    return !ok() || RunQuietly({"minisign", "-S", "-s", secretFile_, "-m", file});
  }

 private:
  std::string publicFile_, secretFile_, publicKey_;
};

// Serves one file at /games/<name> on 127.0.0.1 from a thread of its own, and its signature at
// /games/<name>.minisig when it has one.
class PackageServer {
 public:
  PackageServer(std::string body, std::string signature)
      : body_(std::move(body)), signature_(std::move(signature)) {
    server_.Get("/games/tap-tap-1.0.0.zip",
                [this](const httplib::Request&, httplib::Response& res) {
                  res.set_content(body_, "application/zip");
                });
    server_.Get("/games/tap-tap-1.0.0.zip.minisig",
                [this](const httplib::Request&, httplib::Response& res) {
                  if (signature_.empty()) {
                    res.status = 404;
                    return;
                  }
                  res.set_content(signature_, "text/plain");
                });
    port_ = server_.bind_to_any_port("127.0.0.1");
    if (port_ > 0) {
      thread_ = std::thread([this] {
        server_.listen_after_bind();
        finished_ = true;
      });
    }
  }
  ~PackageServer() {
    if (!thread_.joinable()) return;
    // stop() acts only on a listening server; the thread gets there at once.
    while (!server_.is_running() && !finished_) std::this_thread::yield();
    server_.stop();
    thread_.join();
  }
  bool ok() const { return port_ > 0; }
  std::string url() const {
    return "http://127.0.0.1:" + std::to_string(port_) + "/games/tap-tap-1.0.0.zip";
  }

 private:
  std::string body_, signature_;
  httplib::Server server_;
  int port_ = -1;
  std::atomic<bool> finished_{false};
  std::thread thread_;
};

struct StepResult {
  std::string name;
  bool ok;
  double seconds;
};

}  // namespace

int RunDemo(Reporter& reporter, Session::Settings settings, bool keep) {
  // temp_directory_path honours TMPDIR.
  std::string base = std::filesystem::temp_directory_path().string() + "/tavo-demo-XXXXXX";
  std::vector<char> writable(base.begin(), base.end());
  writable.push_back('\0');
  if (!mkdtemp(writable.data())) {
    reporter.failure("demo", "cannot create a temporary directory under " +
                                 std::filesystem::temp_directory_path().string());
    return kExitFailure;
  }
  const std::string work = writable.data();
  settings.root = work + "/root";

  std::cout << "libtavo demo: the whole game cycle for user \"" << settings.user << "\" under "
            << settings.root << "\n\n";

  const std::string packagePath = work + "/tap-tap-1.0.0.zip";
  if (!WriteSamplePackage(packagePath)) {
    reporter.failure("demo", "cannot write the sample package " + packagePath);
    std::filesystem::remove_all(work);
    return kExitFailure;
  }
  const std::string md5 = Md5Of(packagePath);
  const Signer signer(work);
  if (!signer.sign(packagePath)) {
    reporter.failure("demo", "minisign cannot sign " + packagePath);
    std::filesystem::remove_all(work);
    return kExitFailure;
  }
  if (signer.ok()) settings.trustedKeys = {signer.publicKey()};
  PackageServer server(ReadAll(packagePath), signer.ok() ? ReadAll(packagePath + ".minisig") : "");
  if (!server.ok()) {
    reporter.failure("demo", "cannot listen on 127.0.0.1");
    std::filesystem::remove_all(work);
    return kExitFailure;
  }
  std::cout << "Made a sample game package (" << std::filesystem::file_size(packagePath)
            << " bytes, MD5 " << md5 << ")\nand serves it at " << server.url() << "\n";
  if (signer.ok()) {
    std::cout << "Signed every sample package with a throw-away minisign key, the one key the\n"
                 "runtime trusts: "
              << signer.publicKey() << "\n";
  } else {
    std::cout << "minisign is not installed: the sample packages go unsigned, and the runtime\n"
                 "asks for no signature.\n";
  }

  // The game declares one plug-in; a plug-in service in this process serves its packages.
  const std::string pluginDir = work + "/plugins";
  const std::string pluginPackage = pluginDir + "/" + kPlugin + "_" + kPluginVersion + ".zip";
  std::filesystem::create_directories(pluginDir);
  PluginService::Settings pluginSettings;
  pluginSettings.directory = pluginDir;
  PluginService plugins(pluginSettings, [](const std::string&) {});
  if (!WriteSamplePlugin(pluginPackage, 1) || !signer.sign(pluginPackage) ||
      plugins.bind("127.0.0.1", 0)) {
    reporter.failure("demo", "cannot set up the plug-in service");
    std::filesystem::remove_all(work);
    return kExitFailure;
  }
  plugins.start();
  settings.pluginServices = {plugins.baseUrl()};
  std::cout << "The game declares the plug-in " << kPlugin << " " << kPluginVersion
            << ", which a plug-in service\nserves at " << plugins.baseUrl() << "\n\n";
  const ZMValue pluginInfo = {{"provider", kPlugin}, {"version", kPluginVersion}};
  const std::string installedPlugin =
      settings.root + "/Caches/plugin/" + kPlugin + "_" + kPluginVersion + "/plugin.js";

  std::vector<StepResult> results;
  int failures = 0;
  {
    Session session(reporter, settings);
    if (!session.start()) {
      std::filesystem::remove_all(work);
      return kExitNoRuntime;
    }
    // Runs one step; `expected` is the status the step should end with.
    auto step = [&](const std::string& title, const std::string& explanation, int expected,
                    const std::function<int()>& body) {
      std::cout << results.size() + 1 << ". " << title << "\n   " << explanation << "\n";
      const auto began = std::chrono::steady_clock::now();
      const int status = body();
      const double seconds =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
      const bool ok = status == expected;
      if (!ok) ++failures;
      results.push_back({title, ok, seconds});
      std::cout << (ok ? "   ok" : "   UNEXPECTED") << "\n\n";
    };

    step("Check before installing",
         "The game is not installed yet, so the version check must fail.", kExitFailure, [&] {
           session.setReportFailures(false);
           const int status = session.check(kAppId, kVersion);
           session.setReportFailures(true);
           if (auto error = session.lastError()) {
             std::cout << "  not installed: " << error->domain << " (code " << error->code << ")\n";
           }
           return status;
         });
    std::string downloaded;
    step("Download",
         signer.ok() ? "The package comes over HTTP with progress; its MD5 and its signature are\n"
                       "   verified, and the signature is kept beside it."
                     : "The package comes over HTTP with progress, and its MD5 is verified.",
         kExitSuccess,
         [&] { return session.download(kAppId, kVersion, server.url(), md5, &downloaded); });
    step("Install",
         "The engine unzips the package into the app directory; the download is deleted.",
         kExitSuccess, [&] {
           return session.install(kAppId, kVersion, downloaded, std::nullopt,
                                  std::string(R"({"source":"demo"})"));
         });
    step("Check after installing", "Now the same check succeeds.", kExitSuccess,
         [&] { return session.check(kAppId, kVersion); });
    step("Read the configuration", "game.config.json as the runtime reads it, defaults filled in.",
         kExitSuccess, [&] { return session.config(kAppId, std::nullopt); });
    step("Install the game's plug-in",
         "The plug-in service says where the package is and what its MD5 is; it is downloaded,\n"
         "   checked and unpacked under the plug-in root.",
         kExitSuccess, [&] { return session.pluginInstall(pluginInfo); });
    step("Run and exit",
         "The reference engine runs the game headless; the play is counted, and the\n"
         "   record's extend is replaced by the run's (none here). Meanwhile the service has a\n"
         "   newer package of the same plug-in version: the running game's plug-ins are asked\n"
         "   about, and the newer package is prefetched into the package cache.",
         kExitSuccess, [&] {
           if (!WriteSamplePlugin(pluginPackage, 2) || !signer.sign(pluginPackage)) {
             return kExitFailure;
           }
           // Until the newer package is in the package cache (at most ten seconds, however
           // slow the machine), then the game exits. A signature is put in place before its
           // package, so the package's presence says both are there.
           const std::string prefetched = settings.root + "/tmp/" +
                                          ZMFileUtils::getFileMD5(pluginPackage).value_or("") +
                                          "_" + kPlugin + "_" + kPluginVersion + ".zip";
           return session.run(kAppId, kVersion, std::nullopt, std::chrono::seconds(10), true,
                              [&] { return ZMFileUtils::isExist(prefetched); });
         });
    step("Check the plug-in",
         "The check first installs the prefetched package, then finds the plug-in in place.",
         kExitSuccess, [&] {
           const int status = session.pluginCheck(pluginInfo);
           const std::string text = ReadAll(installedPlugin);
           std::cout << "  plugin.js now reads: " << text;
           return text.find("revision 2") == std::string::npos ? kExitFailure : status;
         });
    step("List plug-ins", "Every installed plug-in with its directory.", kExitSuccess,
         [&] { return session.pluginList(); });
    step("Store host data", "The host keeps its own text with the game's record.", kExitSuccess,
         [&] {
           return session.setData(kAppId, {{"extend", R"({"stars":3})"}});
         });
    step("List", "The user's games with the data the host keeps for each.", kExitSuccess,
         [&] { return session.list(); });
    step("Sweep the package cache",
         "Packages older than a day are deleted; the download was consumed by the install.",
         kExitSuccess, [&] { return session.sweep({"zgp"}, 1440); });
    step("Remove", "The record goes first, then the game's files.", kExitSuccess,
         [&] { return session.remove({kAppId}); });
    step("Remove the plug-in", "Its directory and the config beside it go.", kExitSuccess,
         [&] { return session.pluginRemove(ZMValue::array({pluginInfo})); });
    step("List again", "Nothing is left for this user.", kExitSuccess,
         [&] { return session.list(); });
  }

  std::cout << "Summary\n";
  for (std::size_t i = 0; i < results.size(); ++i) {
    char line[160];
    std::snprintf(line, sizeof line, "  %2zu. %-28s %-10s %7.3f s\n", i + 1,
                  results[i].name.c_str(), results[i].ok ? "ok" : "UNEXPECTED", results[i].seconds);
    std::cout << line;
  }
  std::cout << (failures == 0 ? "Every step did what it should.\n"
                              : std::to_string(failures) + " step(s) went wrong.\n");
  if (keep) {
    std::cout << "Kept " << work << " (the storage root is " << settings.root << ")\n";
  } else {
    std::filesystem::remove_all(work);
  }
  return failures == 0 ? kExitSuccess : kExitFailure;
}
