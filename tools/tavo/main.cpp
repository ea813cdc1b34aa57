// tavo: a command-line host for libtavo, built on its public headers. One subcommand per host
// operation of the runtime, plus `demo`, which walks the whole game cycle on its own.

#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Demo.h"
#include "PluginService.h"
#include "Reporter.h"
#include "Session.h"
#include "merin/MerinGameHandle.h"
#include "tavo/tavo.h"

namespace {

// "42" is a number of minutes; anything else goes to the runtime as text, which judges it.
ZMValue KeepTime(const std::string& text) {
  char* end = nullptr;
  const long long minutes = std::strtoll(text.c_str(), &end, 10);
  if (!text.empty() && end && *end == '\0') return minutes;
  return text;
}

// --auth camera=1 becomes {"auth_camera": 1}.
std::optional<std::string> AddAuth(ZMValue& info, const std::string& assignment) {
  const auto equals = assignment.find('=');
  if (equals == std::string::npos || equals == 0) return "expected NAME=VALUE, got " + assignment;
  char* end = nullptr;
  const std::string value = assignment.substr(equals + 1);
  const long long number = std::strtoll(value.c_str(), &end, 10);
  if (value.empty() || *end != '\0') return "the value of " + assignment + " is not a number";
  info["auth_" + assignment.substr(0, equals)] = number;
  return std::nullopt;
}

// What `plugin check|install|remove` hands to the manager: --info as given, or the objects that
// --provider and --version make, paired in order.
std::optional<std::string> PluginArgument(const std::optional<std::string>& info,
                                          const std::vector<std::string>& providers,
                                          const std::vector<std::string>& versions, bool many,
                                          ZMValue& argument) {
  if (info) {
    argument = ZMValue::parse(*info, nullptr, false);
    if (argument.is_discarded()) return "--info is not JSON";
    return std::nullopt;
  }
  if (providers.size() != versions.size() || providers.empty()) {
    return "give --provider and --version (as many of each), or --info";
  }
  ZMValue list = ZMValue::array();
  for (std::size_t i = 0; i < providers.size(); ++i) {
    list.push_back({{"provider", providers[i]}, {"version", versions[i]}});
  }
  argument = many ? list : list[0];
  return std::nullopt;
}

// Raises the soft limit on open files to the hard one, and keeps the connection cap within it
// (room left for the files being sent and the process's own).
void FitConnectionsToFileLimit(HttpLimits& limits) {
  constexpr rlim_t kReserve = 64;
  rlimit files{};
  if (::getrlimit(RLIMIT_NOFILE, &files) != 0) return;
  files.rlim_cur = files.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &files);
  ::getrlimit(RLIMIT_NOFILE, &files);
  if (files.rlim_cur != RLIM_INFINITY && limits.maxConnections + kReserve > files.rlim_cur) {
    limits.maxConnections = files.rlim_cur > 2 * kReserve ? files.rlim_cur - kReserve : kReserve;
    std::cerr << "tavo serve: at most " << limits.maxConnections
              << " connections: the limit on open files is " << files.rlim_cur << std::endl;
  }
}

// `tavo serve`: the base URL on stdout first, one line per request on stderr, until SIGINT or
// SIGTERM.
int ServePlugins(PluginService::Settings settings, const std::string& address, int port) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // before any thread starts: sigwait gets them
  FitConnectionsToFileLimit(settings.limits);
  // Lines come from the server's loop threads, several at once.
  std::mutex logging;
  PluginService service(std::move(settings), [&logging](const std::string& line) {
    std::lock_guard lock(logging);
    std::cerr << line << std::endl;
  });
  if (const auto problem = service.bind(address, port)) {
    std::cerr << "tavo serve: cannot listen on " << address << " port " << port << ": " << *problem
              << std::endl;
    return kExitFailure;
  }
  std::cout << service.baseUrl() << std::endl;
  service.start();
  int received = 0;
  sigwait(&signals, &received);
  service.stop();
  return kExitSuccess;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "tavo: try libtavo's game runtime from a terminal.\n"
      "Exit status: 0 on the operation's success callback, 1 on its failure callback\n"
      "(the error's domain and code on stderr), 2 when the runtime cannot start,\n"
      "3 when no last callback comes within --timeout."};
  app.require_subcommand(1);
  app.fallthrough();  // the global options may follow the subcommand

  Session::Settings settings;
  bool trace = false;
  int timeoutSeconds = 600;
  app.add_option("--user", settings.user, "User id of the runtime")->capture_default_str();
  app.add_option("--root", settings.root,
                 "Put every storage root under this directory (default: the XDG directories)");
  app.add_flag("--trace", trace,
               "Print every listener callback as one JSON object per line on stdout, and "
               "nothing else");
  app.add_flag("--verbose", settings.verbose, "Print the library's log lines on stderr");
  app.add_option("--timeout", timeoutSeconds, "Seconds to wait for an operation's last callback")
      ->capture_default_str();
  app.add_option("--plugin-service", settings.pluginServices,
                 "Plug-in service base URL, e.g. http://127.0.0.1:8080/ced (repeatable: primary, "
                 "then fallback); replaces the built-in ones");
  app.add_option("--trust-key", settings.trustedKeys,
                 "Minisign public key (the RW... line of its .pub file) that every game and "
                 "plug-in package must be signed by, its signature at the package URL + "
                 "\".minisig\" (repeatable: any of them)");

  std::string appId, version, url, package;
  std::optional<std::string> hash, extend, subpackageRoot, reserve, data;
  double holdSeconds = 0;
  bool loadingTimes = false, keep = false;
  std::vector<std::string> appIds, extensions{"zgp"}, auths;
  std::string keepMinutes;

  auto* check = app.add_subcommand("check", "Check whether a game version is installed");
  check->add_option("--app", appId, "App id")->required();
  check->add_option("--version", version, "Version")->required();

  auto* download = app.add_subcommand("download", "Download a game package (MD5-checked)");
  download->add_option("--app", appId, "App id")->required();
  download->add_option("--version", version, "Version")->required();
  download->add_option("--url", url, "Package URL")->required();
  download->add_option("--hash", hash, "Lower-case MD5 of the package");
  const std::string resumeHelp =
      "Continue a download that fails midway up to N times, and continue what an interrupted "
      "one left (default 0: never)";
  download->add_option("--resume", settings.resumeAttempts, resumeHelp);

  auto* install = app.add_subcommand("install", "Install (unzip) a downloaded game package");
  install->add_option("--app", appId, "App id")->required();
  install->add_option("--version", version, "Version")->required();
  install->add_option("--package", package, "Path of the package zip")->required();
  install->add_option("--subpackage-root", subpackageRoot,
                      "Install as this subpackage of the installed version");
  install->add_option("--extend", extend, "Host data kept with the game's record");

  auto* run = app.add_subcommand("run", "Run an installed game, then exit it");
  run->add_option("--app", appId, "App id")->required();
  run->add_option("--version", version, "Version")->required();
  run->add_option("--extend", extend, "Host data kept with the game's record");
  run->add_option("--hold", holdSeconds,
                  "Seconds the game keeps running before it exits (SIGINT or SIGTERM ends the "
                  "hold sooner)");
  run->add_flag("--loading-times", loadingTimes, "Log the launch's timings");

  auto* list = app.add_subcommand("list", "List the user's games");

  auto* setData = app.add_subcommand("set-data", "Store host data in a game's record");
  setData->add_option("--app", appId, "App id")->required();
  setData->add_option("--extend", extend, "The record's extend text");
  setData->add_option("--reserve", reserve, "The record's reserve text");
  setData->add_option("--auth", auths, "A permission as NAME=VALUE, e.g. camera=1 (repeatable)");
  setData->add_option("--data", data, "Further fields as a JSON object");

  auto* remove = app.add_subcommand("remove", "Remove games of the user");
  remove->add_option("--app", appIds, "App id (repeatable)")->required();

  auto* removeAll = app.add_subcommand("remove-all", "Remove every game of the user");

  auto* sweep = app.add_subcommand("sweep", "Delete expired files from the package cache");
  sweep->add_option("--ext", extensions, "Extension of the files to sweep (repeatable)")
      ->capture_default_str();
  sweep->add_option("--keep-minutes", keepMinutes, "Keep files younger than this")->required();

  auto* config = app.add_subcommand("config", "Print an installed game's configuration as JSON");
  config->add_option("--app", appId, "App id")->required();
  std::optional<std::string> configVersion;
  config->add_option("--version", configVersion, "Version (default: the installed one)");

  auto* info = app.add_subcommand("info", "Print the runtime's version and storage layout");

  auto* demo = app.add_subcommand(
      "demo", "Walk the whole game cycle against a local server and a temporary root");
  demo->add_flag("--keep", keep, "Keep the temporary root and package");

  PluginService::Settings serveSettings;
  std::string serveAddress = "127.0.0.1";
  int servePort = 0;
  int64_t requestSeconds = serveSettings.limits.requestTimeout.count();
  auto* serve = app.add_subcommand(
      "serve",
      "Serve the plug-in packages of DIR (named <provider>_<version>.zip) as a plug-in "
      "service: answers the runtime's queries and serves the files, a package's signature "
      "(<provider>_<version>.zip.minisig, made with minisign -Sm) beside it; prints its base "
      "URL first, logs one line per request on stderr and runs until interrupted");
  serve->add_option("DIR", serveSettings.directory, "Directory of plug-in packages")->required();
  serve->add_option("--bind", serveAddress, "Address to listen on (an IP address)")
      ->capture_default_str();
  serve->add_option("--port", servePort, "Port (default: a free one)");
  serve
      ->add_option("--package-url", serveSettings.packageUrl,
                   "Base URL the packages are served from elsewhere (nginx, a CDN): answers "
                   "name BASE/<file name> (default: this service's own /ced/packages)")
      ->check([](const std::string& url) {
        return url.starts_with("http://") || url.starts_with("https://")
                   ? std::string()
                   : "--package-url must start with http:// or https://";
      });
  serve
      ->add_option("--max-connections", serveSettings.limits.maxConnections,
                   "Connections held at once; beyond, a new client replaces the idlest")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  serve
      ->add_option("--request-timeout", requestSeconds,
                   "Seconds a client has to send a request's head, and then its body")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);

  std::vector<std::string> providers, versions;
  std::optional<std::string> pluginInfo;
  auto* plugin = app.add_subcommand("plugin", "Check, install, list and remove plug-ins");
  plugin->require_subcommand(1);
  auto* pluginCheck = plugin->add_subcommand("check",
                                             "Check that a plug-in is installed (installing a "
                                             "prefetched update first)");
  auto* pluginInstall =
      plugin->add_subcommand("install", "Install a plug-in from the plug-in service");
  pluginInstall->add_option("--resume", settings.resumeAttempts, resumeHelp);
  auto* pluginList = plugin->add_subcommand("list", "List the installed plug-ins");
  auto* pluginRemove = plugin->add_subcommand("remove", "Remove plug-ins");
  for (auto* command : {pluginCheck, pluginInstall, pluginRemove}) {
    const bool many = command == pluginRemove;
    auto* byName = many ? command->add_option("--provider", providers, "Provider (repeatable)")
                        : command->add_option("--provider", providers, "Provider")->expected(1);
    auto* byVersion =
        many ? command->add_option("--version", versions, "Version (repeatable, paired in order)")
             : command->add_option("--version", versions, "Version")->expected(1);
    command
        ->add_option("--info", pluginInfo,
                     many ? "The list of plug-in info objects, as JSON, handed over as given"
                          : "The plug-in info object, as JSON, handed over as given")
        ->excludes(byName)
        ->excludes(byVersion);
  }

  CLI11_PARSE(app, argc, argv);
  settings.timeout = std::chrono::seconds(timeoutSeconds);

  if (serve->parsed()) {
    serveSettings.limits.requestTimeout = std::chrono::seconds(requestSeconds);
    return ServePlugins(std::move(serveSettings), serveAddress, servePort);
  }

  MerinGameHandle::install();  // the reference headless engine runs the games
  Reporter reporter(trace, isatty(STDOUT_FILENO) == 1);

  if (demo->parsed()) {
    if (trace) {
      reporter.failure("demo", "--trace does not apply to the demo");
      return kExitFailure;
    }
    return RunDemo(reporter, settings, keep);
  }

  ZMValue dataInfo = ZMValue::object();
  if (setData->parsed()) {
    if (extend) dataInfo["extend"] = *extend;
    if (reserve) dataInfo["reserve"] = *reserve;
    for (const auto& auth : auths) {
      if (auto problem = AddAuth(dataInfo, auth)) {
        reporter.failure("set-data", *problem);
        return kExitFailure;
      }
    }
    if (data) {
      ZMValue extra = ZMValue::parse(*data, nullptr, false);
      if (!extra.is_object()) {
        reporter.failure("set-data", "--data is not a JSON object");
        return kExitFailure;
      }
      dataInfo.update(extra);
    }
  }

  ZMValue pluginArgument;
  if (plugin->parsed() && !pluginList->parsed()) {
    const bool many = pluginRemove->parsed();
    if (auto problem = PluginArgument(pluginInfo, providers, versions, many, pluginArgument)) {
      reporter.failure("plugin", *problem);
      return kExitFailure;
    }
  }

  Session session(reporter, settings);
  if (!session.start()) return kExitNoRuntime;
  if (pluginCheck->parsed()) return session.pluginCheck(pluginArgument);
  if (pluginInstall->parsed()) return session.pluginInstall(pluginArgument);
  if (pluginList->parsed()) return session.pluginList();
  if (pluginRemove->parsed()) return session.pluginRemove(pluginArgument);
  if (check->parsed()) return session.check(appId, version);
  if (download->parsed()) return session.download(appId, version, url, hash);
  if (install->parsed()) return session.install(appId, version, package, subpackageRoot, extend);
  if (run->parsed()) {
    return session.run(appId, version, extend,
                       std::chrono::milliseconds(static_cast<int64_t>(holdSeconds * 1000)),
                       loadingTimes);
  }
  if (list->parsed()) return session.list();
  if (setData->parsed()) return session.setData(appId, dataInfo);
  if (remove->parsed()) return session.remove(appIds);
  if (removeAll->parsed()) return session.removeAll();
  if (sweep->parsed()) return session.sweep(extensions, KeepTime(keepMinutes));
  if (config->parsed()) return session.config(appId, configVersion);
  if (info->parsed()) return session.info();
  return kExitSuccess;
}
