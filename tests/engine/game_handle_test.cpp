#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>

#include "merin/MerinGameHandle.h"
#include "support/TestListeners.h"
#include "support/TestSupport.h"
#include "support/TestZip.h"
#include "tavo/ZMOptionKeys.h"

namespace fs = std::filesystem;

namespace {

// Notes the terminal callback as "succeed" or "failed: <message>"; keeps the progress and the
// threads it came on, to be read once the engine is joined.
struct UnzipRecorder : ZMUnzipGamePackageListener, EventLog {
  std::vector<float> progress;
  std::set<std::thread::id> progressThreads;
  void onUnzipSucceed() override { add("succeed"); }
  void onUnzipFailed(const std::string& message) override { add("failed: " + message); }
  void onUnzipProgress(float fraction) override {
    progress.push_back(fraction);
    progressThreads.insert(std::this_thread::get_id());
  }
};

struct RunListener : ZMCoreRunListener, ZMCoreExitListener, EventLog {
  std::shared_ptr<MerinGameView> view;  // written before the "view" event, read after it
  std::function<void()> duringSuccess;
  void onGameViewCreated(std::shared_ptr<void> v) override {
    view = std::static_pointer_cast<MerinGameView>(v);
    note("view");
  }
  void onRunSuccess() override {
    if (duringSuccess) duringSuccess();
    note("run success");
  }
  void onRunFailure(const ZMError& error) override { note("run failure", error); }
  void onCoreExitSuccess() override { note("exit success"); }
  void onCoreExitFailure(const ZMError& error) override { note("exit failure", error); }
};

// A permission store that notes each call in `calls` and answers from fixed values.
struct FakePermissions : ZMCorePermissionListener {
  std::shared_ptr<EventLog> calls = std::make_shared<EventLog>();
  void updatePermission(const std::string& appId, const std::vector<std::string>& granted,
                        const std::vector<std::string>& denied) override {
    calls->note("update", appId, std::optional(granted), std::optional(denied));
  }
  int64_t getSinglePermission(const std::string& appId, const std::string& permission) override {
    calls->note("single", appId, permission);
    if (permission == "bogus") throw std::invalid_argument("unknown permission");
    return 2;
  }
  ZMValue getAllPermission(const std::string& appId) override {
    calls->note("all", appId);
    return ZMValue{{"camera", 1}};
  }
};

// The reference engine in the handle slot for one test.
class MerinEngine : public ::testing::Test {
 protected:
  ~MerinEngine() override { ZMGameHandle::setInstance(nullptr); }
  // One unzip run to its end: done() joins the engine, so a second terminal callback would show.
  std::shared_ptr<UnzipRecorder> unzip(const std::string& zip, const std::string& dest) {
    auto report = std::make_shared<UnzipRecorder>();
    handle_->unzipFile(zip, dest, report);
    handle_->done();
    EXPECT_EQ(report->size(), 1u);
    return report;
  }

  // A version directory holding `config` as game.config.json (none when null).
  ZMValue packageOptions(const std::string& name, const std::optional<std::string>& config) {
    const std::string dir = dir_ / name;
    fs::create_directories(dir);
    if (config) WriteFile(dir + "/game.config.json", *config);
    return ZMValue{{ZM_SYSTEM_KEY_FILE_APP_PACKAGE_PATH, dir}, {ZM_KEY_RUN_OPT_VERSION, "1"}};
  }
  // Starts a game with `config` and waits for its view and run success.
  std::shared_ptr<RunListener> run(const std::string& appId, const std::string& config,
                                   std::shared_ptr<RunListener> listener = nullptr) {
    if (!listener) listener = std::make_shared<RunListener>();
    handle_->runGame({}, appId, packageOptions(appId, config), listener);
    EXPECT_TRUE(listener->waitFor(2));
    return listener;
  }
  std::vector<std::string> exitGame(const std::string& appId) {
    auto listener = std::make_shared<RunListener>();
    handle_->exitGame(appId, listener);
    EXPECT_TRUE(listener->waitFor(1));
    return listener->events();
  }

  TempDir dir_;
  std::shared_ptr<MerinGameHandle> handle_ = MerinGameHandle::install();
};
using MerinUnzip = MerinEngine;
using MerinHeadlessRun = MerinEngine;

TEST_F(MerinUnzip, ExtractsEveryEntryByteExactWithProgress) {
  std::vector<ZipEntry> entries{{"assets/empty/", "", true},
                                {"assets/img/big.bin", RandomBytes(3 * 1024 * 1024 + 17, 1)},
                                {"src/deep/er/main.js", std::string(2 * 1024 * 1024, 'j')},
                                {"./src/./dotted.txt", "dotted"},
                                {"zero.txt", ""}};
  // More directories than the extractor keeps open, so the workers also walk from the top.
  for (int i = 0; i < 300; ++i) {
    entries.push_back({"many/d" + std::to_string(i) + "/f.dat", RandomBytes(100 + i * 97, 10 + i)});
  }
  MakeZip(dir_ / "pkg.zip", entries);
  const std::string dest = dir_ / "missing/parents/dest";
  auto report = unzip(dir_ / "pkg.zip", dest);
  EXPECT_EQ(report->last(), "succeed");
  EXPECT_EQ(report.use_count(), 1) << "the engine lets go with the terminal callback";
  for (const auto& entry : entries) {
    const std::string path = dest + "/" + entry.name;
    EXPECT_TRUE(entry.isDirectory ? fs::is_directory(path) : ReadFile(path) == entry.data) << path;
  }
  EXPECT_LE(report->progress.size(), 102u);
  EXPECT_TRUE(std::is_sorted(report->progress.begin(), report->progress.end()));
  ASSERT_FALSE(report->progress.empty());
  EXPECT_EQ(report->progress.back(), 1.0f);
  EXPECT_EQ(report->progressThreads, report->distinctThreads());
  EXPECT_EQ(report->distinctThreads().count(std::this_thread::get_id()), 0u);
}

TEST_F(MerinUnzip, NeverFollowsSymbolicLinksFoundInTheDestination) {
  const std::string dest = dir_ / "dest", outside = dir_ / "outside";
  WriteFile(outside + "/target.txt", "precious");
  fs::create_directories(dest);
  fs::create_directory_symlink(outside, dest + "/sub");
  fs::create_symlink(outside + "/target.txt", dest + "/file.txt");
  for (const std::string name : {"sub/planted.txt", "file.txt"}) {
    MakeZip(dir_ / "pkg.zip", {{name, "overwritten"}});
    const std::string link = dest + "/" + name.substr(0, name.find('/'));
    EXPECT_EQ(unzip(dir_ / "pkg.zip", dest)->last(),
              "failed: refusing to follow symbolic link \"" + link + "\"");
  }
  EXPECT_EQ(ListDir(outside), std::vector<std::string>{"target.txt"});
  EXPECT_EQ(ReadFile(outside + "/target.txt"), "precious");
}

TEST_F(MerinUnzip, ReportsWhyAnArchiveCannotBeOpenedOrAnEntryExtracted) {
  const std::string prefix = "failed: cannot open zip archive \"" + (dir_ / "missing.zip") + "\": ";
  const std::string message = unzip(dir_ / "missing.zip", dir_ / "dest")->last();
  // The libzip reason follows the prefix.
  EXPECT_TRUE(message.starts_with(prefix) && message.size() > prefix.size()) << message;

  // An entry holding more (or less) than it declares never gets past its declared size, read
  // whole or streamed.
  for (const auto& [bytes, declared, expected] :
       std::vector<std::tuple<size_t, uint32_t, std::string>>{
           {512 * 1024, 1024, "it holds more than the 1024 bytes it declares"},
           {1000, 4096, "1000 bytes instead of 4096"},
           {3 * 1024 * 1024, 2 * 1024 * 1024,
            "it holds more than the 2097152 bytes it declares"}}) {
    MakeZip(dir_ / "liar.zip", {{"big.bin", std::string(bytes, 'z')}});
    DeclareEntrySize(dir_ / "liar.zip", declared);
    fs::remove_all(dir_ / "liar");
    EXPECT_EQ(unzip(dir_ / "liar.zip", dir_ / "liar")->last(),
              "failed: cannot extract \"big.bin\" from zip archive \"" + (dir_ / "liar.zip") +
                  "\": " + expected);
    const std::string written = dir_ / "liar/big.bin";
    EXPECT_TRUE(!fs::exists(written) || fs::file_size(written) <= declared) << bytes;
  }
}

// A tree as a host sees it: each path's kind, and a file's bytes and whether its owner may run it.
std::map<std::string, std::string> Tree(const fs::path& root) {
  std::map<std::string, std::string> tree;
  if (!fs::exists(root)) return tree;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    const auto status = entry.symlink_status();
    const bool runs = (status.permissions() & fs::perms::owner_exec) != fs::perms::none;
    tree[fs::relative(entry.path(), root)] =
        fs::is_directory(status)      ? "directory"
        : fs::is_regular_file(status) ? (runs ? "executable: " : "file: ") + ReadFile(entry.path())
                                      : "something else";
  }
  return tree;
}

int Shell(const std::string& command) {
  const int status = std::system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Archives as Info-ZIP zip, 7-Zip, bsdtar, Python and jar write them, and hand-built ones for
// what they write only elsewhere or never on request: hostile names, corrupt data, nesting past
// the bound (tests/engine/make_zip_corpus.py). Each installs as the other extractor named for it
// unpacks it, or is refused with the text named for it.
TEST_F(MerinUnzip, InstallsWhatRealArchiversWriteAsOtherExtractorsDo) {
  const fs::path corpus = dir_ / "corpus";
  const int made =
      Shell("python3 " TAVO_ZIP_CORPUS_SCRIPT " " + corpus.string() + " > " + (dir_ / "make.log"));
  if (made == 77 || Shell("command -v python3 bsdtar unzip > /dev/null") != 0) {
    GTEST_SKIP() << "an archiver or extractor is not installed (scripts/setup.sh installs them): "
                 << ReadFile(dir_ / "make.log");
  }
  ASSERT_EQ(made, 0) << ReadFile(dir_ / "make.log");
  std::ifstream manifest(corpus / "manifest.tsv");
  std::string archive, reference, expected;
  int archives = 0;
  while (std::getline(std::getline(std::getline(manifest, archive, '\t'), reference, '\t'),
                      expected)) {
    ++archives;
    SCOPED_TRACE(archive);
    const fs::path ours = dir_ / "ours" / fs::path(archive);
    const fs::path theirs = dir_ / "theirs" / fs::path(archive);
    const std::string outcome = unzip(corpus / archive, ours)->last();
    if (expected != "installed") {
      const std::string refusal = expected.substr(expected.find(' ') + 1);
      EXPECT_TRUE(outcome.starts_with("failed: ") && outcome.find(refusal) != std::string::npos)
          << outcome;
      // A refusal comes before the destination is made, but data is checked as it is written,
      // and a failure there may leave part of it.
      EXPECT_TRUE(refusal.starts_with("cannot extract") || !fs::exists(ours)) << "nothing is made";
      continue;
    }
    EXPECT_EQ(outcome, "succeed");
    fs::create_directories(theirs);
    Shell((reference == "unzip" ? "unzip -qq -o " + (corpus / archive).string() + " -d "
                                : "bsdtar -xf " + (corpus / archive).string() + " -C ") +
          theirs.string() + " 2> /dev/null");
    const auto expectedTree = Tree(theirs);
    EXPECT_GT(expectedTree.size(), 0u);
    EXPECT_EQ(Tree(ours), expectedTree);
  }
  EXPECT_GT(archives, 30);
}

TEST_F(MerinUnzip, QueuedUnzipsFinishWhenTheHandleIsDroppedOverwritingWhatIsThere) {
  MakeZip(dir_ / "pkg.zip", {{"big.bin", RandomBytes(2 * 1024 * 1024, 3)}, {"x/y.txt", "y"}});
  WriteFile(dir_ / "0/x/y.txt", "previous content that is longer");
  WriteFile(dir_ / "0/x/old.txt", "old");
  std::vector<std::shared_ptr<UnzipRecorder>> reports;
  for (const char* dest : {"0", "1", "2"}) {
    handle_->unzipFile(dir_ / "pkg.zip", dir_ / dest,
                       reports.emplace_back(std::make_shared<UnzipRecorder>()));
  }
  // The slot and the fixture hold the only references: dropping them joins the engine, which
  // first finishes every queued request.
  ZMGameHandle::setInstance(nullptr);
  handle_.reset();
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(reports[i]->events(), std::vector<std::string>{"succeed"});
    EXPECT_EQ(ReadFile(dir_ / std::to_string(i) + "/x/y.txt"), "y");
  }
  EXPECT_EQ(ListDir(dir_ / "0/x"), (std::vector<std::string>{"old.txt", "y.txt"}));
}

TEST_F(MerinHeadlessRun, RunShowsAViewSizedByOrientationAndExitEndsOnlyThatGame) {
  const std::vector<std::string> noGame{"exit failure:no game running|-1"};
  EXPECT_EQ(exitGame("app-landscape"), noGame);
  for (const auto& [config, orientation, width, height] :
       {std::tuple<std::string, std::string, int, int>{"{}", "landscape", 1280, 720},
        {R"({"deviceOrientation": "portrait"})", "portrait", 720, 1280}}) {
    const std::string appId = "app-" + orientation;
    auto listener = run(appId, config);
    EXPECT_EQ(listener->events(), (std::vector<std::string>{"view", "run success"}));
    EXPECT_EQ(listener->distinctThreads().count(std::this_thread::get_id()), 0u);
    ASSERT_TRUE(listener->view);
    const MerinGameView& v = *listener->view;
    EXPECT_EQ(std::tie(v.appId, v.orientation, v.width, v.height),
              std::tie(appId, orientation, width, height));
    EXPECT_EQ(handle_->getView(), listener->view);
    EXPECT_EQ(handle_->getAppId(), appId);

    EXPECT_EQ(exitGame("other"), noGame);
    EXPECT_TRUE(handle_->isRunning());
    EXPECT_EQ(exitGame(appId), std::vector<std::string>{"exit success"});
    EXPECT_FALSE(handle_->isRunning());
    EXPECT_EQ(handle_->getView(), nullptr);
  }
}

TEST_F(MerinHeadlessRun, RunNeedsAReadableConfigurationAndDoneFinishesTheQueue) {
  const ZMValue fifo = packageOptions("fifo", std::nullopt);
  ASSERT_EQ(::mkfifo((dir_ / "fifo/game.config.json").c_str(), 0600), 0);
  for (const auto& [options, expected] : std::vector<std::pair<ZMValue, std::string>>{
           // Without a configuration, the defaults, as the runtime has them.
           {packageOptions("none", std::nullopt), "run success"},
           {fifo, "run failure:game.config.json is unreadable|-1"},
           {packageOptions("bad", "{\"deviceOrientation\": "),
            "run failure:game.config.json is invalid|-1"},
           {packageOptions("array", "[1, 2]"), "run failure:game.config.json is invalid|-1"},
           {ZMValue{{ZM_KEY_RUN_OPT_VERSION, "1"}},
            "run failure:missing run option: _rt_file_app_package_path|-1"},
           {packageOptions("fine", "{}"), "run success"}}) {
    auto listener = std::make_shared<RunListener>();
    handle_->runGame({}, "app", options, listener);
    // Finishes the queued run and joins the engine (it starts again for the next one), so
    // anything after the outcome would be there now; the game is forgotten.
    handle_->done();
    EXPECT_EQ(listener->last(), expected);
    EXPECT_EQ(listener->size(), expected == "run success" ? 2u : 1u);
    EXPECT_FALSE(handle_->isRunning());
  }
}

TEST_F(MerinHeadlessRun, PermissionCallsReachTheStoreOnTheEngineThreadWhileAGameRuns) {
  auto permissions = std::make_shared<FakePermissions>();
  const auto calls = permissions->calls;
  handle_->setOnGamePermissionListener(std::move(permissions));  // the handle holds it strongly
  EXPECT_FALSE(handle_->grantPermissions({"camera"}, {}));
  EXPECT_EQ(handle_->queryPermission("camera"), std::nullopt);
  EXPECT_TRUE(handle_->queryAllPermissions().is_null());

  auto listener = std::make_shared<RunListener>();
  std::optional<int64_t> answeredDuringLaunch;
  listener->duringSuccess = [&] { answeredDuringLaunch = handle_->queryPermission("location"); };
  run("app", "{}", listener);
  EXPECT_EQ(answeredDuringLaunch, 2) << "a call made on the engine thread runs inline";

  EXPECT_TRUE(handle_->grantPermissions({"camera"}, {"location"}));
  EXPECT_EQ(handle_->queryAllPermissions(), (ZMValue{{"camera", 1}}));
  EXPECT_THROW(handle_->queryPermission("bogus"), std::invalid_argument);
  EXPECT_EQ(calls->events(),
            (std::vector<std::string>{"single:app|location", "update:app|[camera]|[location]",
                                      "all:app", "single:app|bogus"}));
  EXPECT_EQ(calls->distinctThreads(), listener->distinctThreads());
}

}  // namespace
