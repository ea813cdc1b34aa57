#include <gtest/gtest.h>

#include <filesystem>

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

TEST_F(MerinUnzip, RefusesHostileArchivesBeforeWritingAnything) {
  // Every hostile name below lands in "box", next to the destination.
  const std::string box = dir_ / "box";
  const std::string dest = box + "/dest";
  fs::create_directories(box);
  const std::string absolute = box + "/abs-evil";
  for (const auto& [hostile, expected] : std::vector<std::pair<ZipEntry, std::string>>{
           {{"../evil", "x"}, "refusing unsafe entry name \"../evil\""},
           {{"a/../../evil", "x"}, "refusing unsafe entry name \"a/../../evil\""},
           {{absolute, "x"}, "refusing unsafe entry name \"" + absolute + "\""},
           {{"..", "", true}, "refusing unsafe entry name \"../\""},
           {{"link", box, false, true}, "refusing symbolic link entry \"link\""}}) {
    MakeZip(dir_ / "pkg.zip",
            {{"first.txt", "ok"}, {"dir/", "", true}, hostile, {"last.txt", "ok"}});
    const std::string message = unzip(dir_ / "pkg.zip", dest)->last();
    EXPECT_NE(message.find("failed: " + expected), std::string::npos) << message;
    EXPECT_TRUE(ListDir(box).empty()) << "not even the destination is made";
  }
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

TEST_F(MerinUnzip, ReportsUnreadableArchivesWithTheReason) {
  MakeZip(dir_ / "good.zip", {{"a.bin", RandomBytes(64 * 1024, 2)}, {"b.txt", "b"}});
  const std::string good = ReadFile(dir_ / "good.zip");
  WriteFile(dir_ / "truncated.zip", good.substr(0, good.size() / 2));
  // Archives that open, but whose first entry's data fails its check: stored and deflated
  // entries read whole, and one large enough to be streamed.
  std::string numbers;
  for (int i = 0; i < 20000; ++i) numbers += std::to_string(i * 7919 % 10007) + "\n";
  for (const auto& [zip, data] : std::vector<std::pair<std::string, std::string>>{
           {"corrupt.zip", RandomBytes(64 * 1024, 2)},
           {"corrupt-deflated.zip", numbers},
           {"corrupt-streamed.zip", RandomBytes(2 * 1024 * 1024, 4)}}) {
    MakeZip(dir_ / zip, {{"a.bin", data}, {"b.txt", "b"}});
    std::string bytes = ReadFile(dir_ / zip);
    bytes[1000] = static_cast<char>(bytes[1000] ^ 0x55);
    WriteFile(dir_ / zip, bytes);
  }

  for (const auto& [zip, expected] : std::vector<std::pair<std::string, std::string>>{
           {"missing.zip", "cannot open zip archive"},
           {"truncated.zip", "cannot open zip archive"},
           {"corrupt.zip", "cannot extract \"a.bin\" from zip archive"},
           {"corrupt-deflated.zip", "cannot extract \"a.bin\" from zip archive"},
           {"corrupt-streamed.zip", "cannot extract \"a.bin\" from zip archive"}}) {
    const std::string message = unzip(dir_ / zip, dir_ / "dest")->last();
    const std::string prefix = "failed: " + expected + " \"" + (dir_ / zip) + "\": ";
    EXPECT_TRUE(message.starts_with(prefix)) << message;
    EXPECT_GT(message.size(), prefix.size()) << "the libzip reason follows";
  }
  // A zero-byte file opens as an archive without entries: nothing to install is a failure.
  WriteFile(dir_ / "empty.zip", "");
  EXPECT_EQ(unzip(dir_ / "empty.zip", dir_ / "dest")->last(),
            "failed: no entries in zip archive \"" + (dir_ / "empty.zip") + "\"");
}

TEST_F(MerinUnzip, BoundsWhatAnArchiveCanMakeItWrite) {
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

  // Nesting: a chain as deep as allowed is made, one level more is refused before anything.
  auto chain = [](int depth) {
    std::vector<ZipEntry> entries;
    std::string path;
    for (int i = 0; i < depth; ++i) entries.push_back({path += "d/", "", true});
    entries.push_back({path + "leaf.txt", "leaf"});
    return entries;
  };
  MakeZip(dir_ / "deep.zip", chain(255));
  EXPECT_EQ(unzip(dir_ / "deep.zip", dir_ / "deep")->last(), "succeed");
  std::string leaf = dir_ / "deep";
  for (int i = 0; i < 255; ++i) leaf += "/d";
  EXPECT_EQ(ReadFile(leaf + "/leaf.txt"), "leaf");
  MakeZip(dir_ / "deeper.zip", chain(3000));
  const std::string message = unzip(dir_ / "deeper.zip", dir_ / "deeper")->last();
  EXPECT_TRUE(message.find("nested deeper than 256 directories") != std::string::npos) << message;
  EXPECT_FALSE(fs::exists(dir_ / "deeper"));
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
