#include <atomic>
#include <filesystem>
#include <functional>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <kestrova/library_cache.h>

#include "support/test_folder.h"

namespace kestrova {
namespace {

namespace fs = std::filesystem;
using testing::TestFolder;
using testing::writeFile;

// Three tabs whose notes are `note`: documents with different notes of one length have one size.
LibraryData libraryNoted(const std::string& note) {
  LibraryData data;
  for (int i = 0; i < 3; ++i) {
    data.tabs.push_back(makeSavedTab(
        {.id = Uuid::parse("00000000-0000-4000-8000-00000000000" + std::to_string(i)).value(),
         .url = "https://example.ch/" + std::to_string(i),
         .savedAt = Date(std::chrono::seconds(1'790'000'000)),
         .note = note}));
  }
  return data;
}

// Runs `work` in a child process, as another program sharing the file would, and waits for it.
void inAnotherProcess(const std::function<void()>& work) {
  const pid_t child = ::fork();
  if (child == 0) {
    work();
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

// The real file system, with two twists a test may switch on: identities as a file system with
// whole-second times and reused inodes gives them, and a hook run right after identity().
class TwistedFiles : public FileSystem {
 public:
  bool coarse = false;
  std::function<void()> afterIdentity;
  int fingerprints = 0;

  std::optional<std::string> readFile(const fs::path& path) override {
    return real().readFile(path);
  }
  std::unique_ptr<AtomicFile> openAtomically(const fs::path& path) override {
    return real().openAtomically(path);
  }
  void createDirectories(const fs::path& path) override { real().createDirectories(path); }
  std::optional<Date> modificationDate(const fs::path& path) override {
    return real().modificationDate(path);
  }
  bool copyFile(const fs::path& from, const fs::path& to) override {
    return real().copyFile(from, to);
  }
  std::optional<FileIdentity> identity(const fs::path& path) override {
    std::optional<FileIdentity> out = twist(real().identity(path));
    if (afterIdentity) {
      std::exchange(afterIdentity, nullptr)();
    }
    return out;
  }
  std::optional<IdentifiedContent> readIdentified(const fs::path& path) override {
    std::optional<IdentifiedContent> out = real().readIdentified(path);
    if (out) {
      out->identity = *twist(out->identity);
    }
    return out;
  }
  std::optional<Fingerprint> fingerprint(const fs::path& path) override {
    ++fingerprints;
    std::optional<Fingerprint> out = real().fingerprint(path);
    if (out) {
      out->identity = *twist(out->identity);
    }
    return out;
  }

 private:
  static FileSystem& real() { return Env::real().fileSystem(); }
  std::optional<FileIdentity> twist(std::optional<FileIdentity> identity) const {
    if (identity && coarse) {
      identity->inode = 1;
      identity->modifiedNs -= identity->modifiedNs % 1'000'000'000;
      identity->changedNs -= identity->changedNs % 1'000'000'000;
    }
    return identity;
  }
};

class TwistedEnv : public EnvWrapper {
 public:
  TwistedEnv() : EnvWrapper(Env::real()) {}
  FileSystem& fileSystem() override { return files; }
  Date now() override { return clock.value_or(target().now()); }

  TwistedFiles files;
  std::optional<Date> clock;
};

TEST(LibraryCache, EveryChangeOfTheFileIsSeenAtTheNextCall) {
  struct Case {
    const char* change;
    std::function<void(const fs::path& file, const fs::path& folder)> apply;
    std::string note;  // of every tab of the document then; "-" for the empty library
    bool loads;
  };
  const auto saveB = [](const fs::path& file, const fs::path&) {
    LibraryStore(file).save(libraryNoted("B"));
  };
  const std::vector<Case> cases = {
      {"nothing", [](const fs::path&, const fs::path&) {}, "A", false},
      {"another process saves", saveB, "B", true},
      {"a file renamed over it",
       [](const fs::path& file, const fs::path& folder) {
         LibraryStore(folder / "other.json").save(libraryNoted("C"));
         fs::rename(folder / "other.json", file);
       },
       "C", true},
      {"touched, same bytes",
       [](const fs::path& file, const fs::path&) {
         const struct timespec times[2] = {{0, UTIME_NOW}, {0, UTIME_NOW}};
         ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
       },
       "A", true},
      {"removed", [](const fs::path& file, const fs::path&) { fs::remove(file); }, "-", true},
      {"broken", [](const fs::path& file, const fs::path&) { writeFile(file, "{"); }, "-", true},
      {"the link now points elsewhere",
       [](const fs::path& file, const fs::path& folder) {
         LibraryStore(folder / "elsewhere.json").save(libraryNoted("D"));
         fs::remove(file);
         fs::create_symlink("elsewhere.json", file);
       },
       "D", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.change);
    TestFolder folder;
    const fs::path file = folder / "library.json";
    LibraryStore(file).save(libraryNoted("A"));
    LibraryCache cache{LibraryStore(file)};
    EXPECT_EQ(cache.current(), libraryNoted("A"));
    const std::uint64_t generation = cache.generation();
    inAnotherProcess([&] { c.apply(file, folder.path()); });
    const LibraryData& now = cache.current();
    EXPECT_EQ(now, c.note == "-" ? LibraryData() : libraryNoted(c.note));
    EXPECT_EQ(cache.generation(), generation + (c.loads ? 1 : 0));
    // And it stays that document while nothing changes.
    EXPECT_EQ(&cache.current(), &now);
    EXPECT_EQ(cache.generation(), generation + (c.loads ? 1 : 0));
  }
}

TEST(LibraryCache, ItsOwnSaveIsKeptAndAFailedOneIsNot) {
  TestFolder folder;
  const fs::path file = folder / "library.json";
  LibraryStore(file).save(libraryNoted("A"));
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
  const std::uint64_t beforeFailure = cache.generation();
  EXPECT_THROW(cache.save(), StoreError);
  EXPECT_EQ(cache.current().tabs[1].note, "x");
  EXPECT_EQ(cache.generation(), beforeFailure + 1);
}

TEST(LibraryCache, CoarseTimesAndAReusedInodeStillShowASecondSaveOfTheSameSize) {
  TestFolder folder;
  const fs::path file = folder / "library.json";
  TwistedEnv env;
  env.files.coarse = true;
  LibraryStore(file).save(libraryNoted("A"));
  LibraryCache cache{LibraryStore(file, env)};
  ASSERT_EQ(cache.current(), libraryNoted("A"));
  // Within the same second, another process writes a document of the same size: the identity
  // is the same, only the content tells.
  inAnotherProcess([&] { LibraryStore(file).save(libraryNoted("B")); });
  EXPECT_EQ(cache.current(), libraryNoted("B"));
  EXPECT_EQ(cache.current(), libraryNoted("B"));
  EXPECT_GT(env.files.fingerprints, 0);

  // Once the times lie well before the moment the content was checked, the identity settles it
  // alone and nothing is read.
  env.clock = env.target().now() + std::chrono::seconds(10);
  EXPECT_EQ(cache.current(), libraryNoted("B"));
  const int settled = env.files.fingerprints;
  EXPECT_EQ(cache.current(), libraryNoted("B"));
  EXPECT_EQ(env.files.fingerprints, settled);
}

TEST(LibraryCache, AFileReplacedBetweenTheCheckAndTheReadGivesWhatWasRead) {
  TestFolder folder;
  const fs::path file = folder / "library.json";
  TwistedEnv env;
  LibraryStore(file).save(libraryNoted("A"));
  LibraryCache cache{LibraryStore(file, env)};
  ASSERT_EQ(cache.current(), libraryNoted("A"));
  LibraryStore(file).save(libraryNoted("B"));
  LibraryStore(folder / "next.json").save(libraryNoted("C"));
  env.files.afterIdentity = [&] { fs::rename(folder / "next.json", file); };
  EXPECT_EQ(cache.current(), libraryNoted("C"));
  const std::uint64_t generation = cache.generation();
  EXPECT_EQ(cache.current(), libraryNoted("C"));
  EXPECT_EQ(cache.generation(), generation);
}

TEST(LibraryCache, AFileRewrittenInPlaceWhileItIsReadEndsAsTheLastVersion) {
  TestFolder folder;
  const fs::path file = folder / "library.json";
  LibraryData big = libraryNoted("A");
  for (int i = 0; i < 2000; ++i) {
    big.tabs.push_back(makeSavedTab({.id = Uuid::random(),
                                     .url = "https://example.ch/x" + std::to_string(i),
                                     .text = std::string(2000, 'a')}));
  }
  LibraryStore(file).save(big);
  const std::string first = testing::readFile(file);
  big.tabs[0].note = "B";
  LibraryStore(folder / "b.json").save(big);
  const std::string second = testing::readFile(folder / "b.json");

  LibraryCache cache{LibraryStore(file)};
  std::atomic<bool> done{false};
  std::thread writer([&] {
    // In place, as an editor that does not replace files writes: truncate, then write.
    for (int round = 0; round < 40; ++round) {
      const int fd = ::open(file.c_str(), O_WRONLY | O_TRUNC);
      const std::string& bytes = round % 2 == 0 ? second : first;
      for (std::size_t at = 0; at < bytes.size(); at += 1 << 16) {
        const std::size_t size = std::min<std::size_t>(1 << 16, bytes.size() - at);
        ASSERT_EQ(::write(fd, bytes.data() + at, size), static_cast<ssize_t>(size));
      }
      ::close(fd);
    }
    done = true;
  });
  while (!done) {
    cache.current();
  }
  writer.join();
  // The last round wrote the first version; whatever was read meanwhile, it is the answer now.
  EXPECT_EQ(cache.current().tabs[0].note, "A");
  EXPECT_EQ(cache.current().tabs.size(), big.tabs.size());
}

}  // namespace
}  // namespace kestrova
