#include <future>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <kestrova/library_cache.h>

#include "support/test_folder.h"

namespace kestrova {
namespace {

namespace fs = std::filesystem;

// Three tabs whose notes are `note`: documents with different notes of one length have one size.
LibraryData libraryNoted(const std::string& note) {
  LibraryData data;
  for (const char* i : {"0", "1", "2"})
    data.tabs.push_back(
        makeSavedTab({.id = *Uuid::parse(std::string("00000000-0000-4000-8000-00000000000") + i),
                      .savedAt = Date(std::chrono::seconds(1'790'000'000)),
                      .note = note}));
  return data;
}

void saveNoted(const fs::path& file, const std::string& note) {
  LibraryStore(file).save(libraryNoted(note));
}

// Runs `work` in a child process, as another program sharing the file would, and waits for it.
void inAnotherProcess(const std::function<void()>& work) {
  int status = 0;
  if (const pid_t child = ::fork(); child == 0)
    work(), ::_exit(0);
  else
    ASSERT_TRUE(::waitpid(child, &status, 0) == child && WIFEXITED(status) && !WEXITSTATUS(status));
}

// A library of tabs noted "A" in a fresh folder, and an Env of the real file system with twists.
struct LibraryCacheTest : ::testing::Test, EnvWrapper, FileSystem {
  LibraryCacheTest() : EnvWrapper(Env::real()) { saveNoted(file, "A"); }
  FileSystem& fileSystem() override { return *this; }
  Date now() override { return clock.value_or(target().now()); }

  static FileSystem& real() { return Env::real().fileSystem(); }
  using P = const fs::path&;
  std::optional<std::string> readFile(P p) override { return real().readFile(p); }
  std::unique_ptr<AtomicFile> openAtomically(P p) override { return real().openAtomically(p); }
  void createDirectories(P p) override { real().createDirectories(p); }
  std::optional<Date> modificationDate(P p) override { return real().modificationDate(p); }
  bool copyFile(P from, P to) override { return real().copyFile(from, to); }
  // readIdentified() is left to the default, which reads between two identity() calls.
  std::optional<FileIdentity> identity(P p) override {
    std::optional<FileIdentity> id = real().identity(p);
    if (id && coarse)  // whole-second times and a reused inode, as some file systems give
      id->inode = 1, id->modifiedNs -= id->modifiedNs % 1'000'000'000,
      id->changedNs -= id->changedNs % 1'000'000'000;
    if (afterIdentity)
      std::exchange(afterIdentity, nullptr)();
    return id;
  }
  std::optional<Fingerprint> fingerprint(P p) override {
    std::optional<Fingerprint> out = (++fingerprints, real().fingerprint(p));
    if (out && coarse)
      out->identity = *identity(p);  // nothing writes the file meanwhile
    return out;
  }

  testing::TestFolder folder;
  const fs::path file = folder / "l";
  bool coarse = false;
  std::function<void()> afterIdentity;
  int fingerprints = 0;
  std::optional<Date> clock;
};

TEST_F(LibraryCacheTest, EveryChangeOfTheFileIsSeenAtTheNextCall) {
  // Each change runs in the library's folder; `note` of every tab then, "-" for no library.
  const std::tuple<const char*, std::function<void()>, std::string, bool> cases[] = {
      {"nothing", [] {}, "A", false},
      {"another process saves", [] { saveNoted("l", "B"); }, "B", true},
      {"a file renamed over it", [] { saveNoted("o", "C"), fs::rename("o", "l"); }, "C", true},
      {"touched", [] { fs::last_write_time("l", fs::file_time_type::clock::now()); }, "A", true},
      {"removed", [] { fs::remove("l"); }, "-", true},
      {"broken", [] { std::ofstream("l") << "{"; }, "-", true},
      {"the link now points elsewhere",
       [] { saveNoted("e", "D"), fs::remove("l"), fs::create_symlink("e", "l"); }, "D", true}};
  for (const auto& [change, apply, note, loads] : cases) {
    SCOPED_TRACE(change);
    fs::remove(file), saveNoted(file, "A");
    LibraryCache cache{LibraryStore(file)};
    EXPECT_EQ(cache.current(), libraryNoted("A"));
    const std::uint64_t generation = cache.generation() + (loads ? 1 : 0);
    inAnotherProcess([&] { fs::current_path(folder.path()), apply(); });
    const LibraryData& now = cache.current();
    EXPECT_EQ(now, note == "-" ? LibraryData() : libraryNoted(note));
    EXPECT_EQ(cache.generation(), generation);
    EXPECT_EQ(&cache.current(), &now);  // and it stays that document while nothing changes
    EXPECT_EQ(cache.generation(), generation);
  }
}

TEST_F(LibraryCacheTest, ItsOwnSaveIsKeptAndAFailedOneIsNot) {
  LibraryCache cache{LibraryStore(file)};
  cache.current().tabs[1].note = "x";
  cache.save();
  const std::uint64_t generation = cache.generation();
  EXPECT_EQ(cache.current().tabs[1].note, "x");
  EXPECT_EQ(cache.generation(), generation);
  EXPECT_EQ(LibraryStore(file).load().tabs[1].note, "x");
  // A write-protected file refuses the save: the change in memory must not outlive it.
  fs::permissions(file, fs::perms::owner_read);
  cache.current().tabs[1].note = "y";
  EXPECT_THROW(cache.save(), StoreError);
  EXPECT_EQ(cache.current().tabs[1].note, "x");
  EXPECT_EQ(cache.generation(), generation + 2);  // the permission change is a change too
}

TEST_F(LibraryCacheTest, CoarseTimesAndAReusedInodeStillShowASecondSaveOfTheSameSize) {
  coarse = true;
  LibraryCache cache{LibraryStore(file, *this)};
  ASSERT_EQ(cache.current(), libraryNoted("A"));
  // Another process writes a document of the same size in the same second: only content tells.
  inAnotherProcess([&] { saveNoted(file, "B"); });
  EXPECT_EQ(cache.current(), libraryNoted("B"));
  EXPECT_GT(fingerprints, 0);
  // Once the times lie well before the content's check, the identity alone settles it.
  clock = target().now() + std::chrono::seconds(10);
  EXPECT_EQ(cache.current(), libraryNoted("B"));
  const int settled = fingerprints;
  EXPECT_EQ(cache.current(), libraryNoted("B"));
  EXPECT_EQ(fingerprints, settled);
}

TEST_F(LibraryCacheTest, AFileReplacedBetweenTheCheckAndTheReadGivesWhatWasRead) {
  LibraryCache cache{LibraryStore(file, *this)};
  ASSERT_EQ(cache.current(), libraryNoted("A"));
  saveNoted(file, "B");
  saveNoted(folder / "next.json", "C");
  afterIdentity = [&] { fs::rename(folder / "next.json", file); };
  EXPECT_EQ(cache.current(), libraryNoted("C"));
  const std::uint64_t generation = cache.generation();
  EXPECT_EQ(cache.current(), libraryNoted("C"));
  EXPECT_EQ(cache.generation(), generation);
}

TEST_F(LibraryCacheTest, AFileRewrittenInPlaceWhileItIsReadEndsAsTheLastVersion) {
  LibraryData big = libraryNoted("A");
  for (int i = 0; i < 2000; ++i)
    big.tabs.push_back(makeSavedTab({.id = Uuid::random(), .text = std::string(2000, 'a')}));
  std::vector<std::string> versions;  // the file ends as the second
  for (const char* note : {"B", "A"})
    big.tabs[0].note = note, LibraryStore(file).save(big),
    versions.push_back(testing::readFile(file));
  LibraryCache cache{LibraryStore(file)};
  const auto writer = std::async(std::launch::async, [&] {
    // In place, as an editor that does not replace files writes: truncate, then write.
    for (int round = 0; round < 40; ++round) {
      const int fd = ::open(file.c_str(), O_WRONLY | O_TRUNC);
      const std::string& bytes = versions[round % 2];
      for (std::size_t at = 0; at < bytes.size(); at += 1 << 16)
        ASSERT_GT(::write(fd, &bytes[at], std::min<std::size_t>(1 << 16, bytes.size() - at)), 0);
      ::close(fd);
    }
  });
  while (writer.wait_for(std::chrono::seconds(0)) != std::future_status::ready)
    cache.current();
  // The last round wrote "A"; whatever was read meanwhile, it is the answer now.
  ASSERT_EQ(cache.current().tabs.size(), big.tabs.size());
  EXPECT_EQ(cache.current().tabs[0].note, "A");
}

}  // namespace
}  // namespace kestrova
