#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "merin/MerinGameHandle.h"
#include "support/TestListeners.h"
#include "support/TestSupport.h"
#include "support/TestZip.h"

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

class MerinUnzip : public ::testing::Test {
 protected:
  ~MerinUnzip() override { ZMGameHandle::setInstance(nullptr); }
  // One unzip run to its end: done() finishes it and joins the engine, so a second terminal
  // callback would show.
  std::shared_ptr<UnzipRecorder> unzip(const std::string& zip, const std::string& dest) {
    auto report = std::make_shared<UnzipRecorder>();
    handle_->unzipFile(zip, dest, report);
    handle_->done();
    EXPECT_EQ(report->size(), 1u);
    return report;
  }

  TempDir dir_;
  std::shared_ptr<MerinGameHandle> handle_ = MerinGameHandle::install();
};

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
    EXPECT_TRUE(entry.isDirectory ? fs::is_directory(path) : ReadFile(path) == entry.data)
        << entry.name;
  }
  EXPECT_LE(report->progress.size(), 102u);
  EXPECT_TRUE(std::is_sorted(report->progress.begin(), report->progress.end()));
  ASSERT_FALSE(report->progress.empty());
  EXPECT_EQ(report->progress.back(), 1.0f);
  EXPECT_EQ(report->progressThreads, report->distinctThreads());
  EXPECT_EQ(report->distinctThreads().count(std::this_thread::get_id()), 0u);
}

TEST_F(MerinUnzip, NeverFollowsSymbolicLinksFoundInTheDestination) {
  const std::string dest = dir_ / "dest";
  const std::string outside = dir_ / "outside";
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

TEST_F(MerinUnzip, ReportsAnArchiveThatCannotBeOpenedWithTheReason) {
  const std::string prefix = "failed: cannot open zip archive \"" + (dir_ / "missing.zip") + "\": ";
  const std::string message = unzip(dir_ / "missing.zip", dir_ / "dest")->last();
  EXPECT_TRUE(message.starts_with(prefix)) << message;
  EXPECT_GT(message.size(), prefix.size()) << "the libzip reason follows";
}

TEST_F(MerinUnzip, AnEntryNeverGetsPastTheSizeItDeclares) {
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

// A tree as a host sees it: each path with its kind, and for a file its bytes and whether its
// owner may run it.
std::map<std::string, std::string> Tree(const fs::path& root) {
  std::map<std::string, std::string> tree;
  if (!fs::exists(root)) return tree;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    const std::string path = fs::relative(entry.path(), root);
    const auto status = entry.symlink_status();
    if (fs::is_directory(status)) {
      tree[path] = "directory";
    } else if (fs::is_regular_file(status)) {
      const bool runs = (status.permissions() & fs::perms::owner_exec) != fs::perms::none;
      tree[path] = (runs ? "executable: " : "file: ") + ReadFile(entry.path());
    } else {
      tree[path] = "something else";
    }
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
  const std::string make =
      "python3 " TAVO_ZIP_CORPUS_SCRIPT " " + corpus.string() + " > " + (dir_ / "make.log");
  const int made = Shell(make);
  if (made == 77 || Shell("command -v python3 bsdtar unzip > /dev/null") != 0) {
    GTEST_SKIP() << "an archiver or extractor is not installed (scripts/setup.sh installs them): "
                 << ReadFile(dir_ / "make.log");
  }
  ASSERT_EQ(made, 0) << ReadFile(dir_ / "make.log");
  std::ifstream manifest(corpus / "manifest.tsv");
  std::string line;
  int archives = 0;
  while (std::getline(manifest, line)) {
    ++archives;
    std::istringstream fields(line);
    std::string archive, reference, expected;
    std::getline(fields, archive, '\t');
    std::getline(fields, reference, '\t');
    std::getline(fields, expected);
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
    const std::string extract = reference == "unzip"
                                    ? "unzip -qq -o " + (corpus / archive).string() + " -d "
                                    : "bsdtar -xf " + (corpus / archive).string() + " -C ";
    Shell(extract + theirs.string() + " 2> /dev/null");
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

}  // namespace
