#include <cmath>
#include <filesystem>
#include <regex>
#include <thread>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <kestrova/store.h>

#include "support/fake_env.h"
#include "support/test_folder.h"

namespace kestrova {
namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;
using testing::readFile;
using testing::TestFolder;
using testing::writeFile;

LibraryData libraryWith(int tabs) {
  LibraryData data;
  for (int i = 0; i < tabs; ++i)
    data.tabs.push_back(
        makeSavedTab({.id = Uuid::random(), .url = "u", .text = std::string(200, 'a')}));
  return data;
}

Names namesIn(const fs::path& folder) {
  Names names;
  for (const auto& entry : fs::directory_iterator(folder))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

// The permission bits of `path`, or -1 if it does not exist.
int modeOf(const fs::path& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? static_cast<int>(info.st_mode & 07777) : -1;
}

// The message of the StoreError that a save to `path` throws; empty if the save succeeds.
std::string saveError(const fs::path& path) {
  try {
    LibraryStore(path).save(libraryWith(3));
    return "";
  } catch (const StoreError& error) {
    return error.what();
  }
}

// The id of a process that has ended (and was reaped).
pid_t endedProcess() {
  const pid_t child = ::fork();
  if (child == 0)
    ::_exit(0);
  ::waitpid(child, nullptr, 0);
  return child;
}

void makeOld(const fs::path& path) {
  fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::hours(1));
}

constexpr const char* kWriteProtected =
    "Die Datei «library.json» konnte nicht gesichert werden (die Datei ist schreibgeschützt).";

TEST(LibraryStoreDefault, FollowsXdgDataHomeOrLocalShare) {
  const std::pair<std::optional<std::string>, fs::path> cases[] = {
      {"/data/anna", "/data/anna/Kestrova/library.json"},
      {"relative/path", "/home/anna/.local/share/Kestrova/library.json"},  // not absolute
      {std::nullopt, "/home/anna/.local/share/Kestrova/library.json"}};
  for (const auto& [data, expected] : cases) {
    testing::FakeEnv env({.variables = {{"HOME", "/home/anna"}, {"XDG_DATA_HOME", data}}});
    EXPECT_EQ(LibraryStore::defaultURL(env), expected) << data.value_or("-");
  }
}

TEST(LibraryStoreLoad, MissingOrBrokenFilesGiveAnEmptyLibraryAndBrokenBytesAreCopiedOnce) {
  TestFolder folder;
  testing::FakeEnv env({.clock = Date{std::chrono::seconds(1'800'000'000)}});
  const LibraryStore store(folder / "library.json", env);
  EXPECT_EQ(store.load(), LibraryData());
  EXPECT_FALSE(store.modificationDate());
  EXPECT_TRUE(fs::is_empty(folder.path()));
  // Longer than one piece of the comparison, so that a difference at the very end must count.
  const std::string broken(200000, '[');
  const std::string lastByteDiffers = broken.substr(1) + "{";
  // None of these is a copy of the broken bytes.
  for (const auto& [name, bytes] : std::initializer_list<std::pair<std::string, std::string>>{
           {"library.defekt-x.json", lastByteDiffers},
           {"library.defekt-y.json", broken + " "},
           {"other.defekt-4.json", broken},
           {"library.defekt-5.json.bak", broken},
           {"library.defekt-.json", broken}})
    writeFile(folder / name, bytes);
  writeFile(folder / "library.json", broken);
  EXPECT_EQ(store.load(), LibraryData());
  EXPECT_EQ(store.load(), LibraryData());  // finds the copy it made
  // Other broken bytes within the same second get a copy of their own.
  writeFile(folder / "library.json", lastByteDiffers + "x");
  EXPECT_EQ(store.load(), LibraryData());
  EXPECT_EQ(readFile(folder / "library.defekt-1800000000.json"), broken);
  EXPECT_EQ(readFile(folder / "library.defekt-1800000000-2.json"), lastByteDiffers + "x");
  EXPECT_EQ(readFile(folder / "library.json"), lastByteDiffers + "x");
  EXPECT_EQ(namesIn(folder.path()).size(), 8u);
}

// Missing folders are made; only temporary files that killed writers left long ago are removed;
// a failed save leaves the previous file and nothing of its own.
TEST(LibraryStoreSave, WritesAtomicallyAndCleansUpAfterKilledWritersOnly) {
  TestFolder folder;
  const fs::path file = folder / "a/library.json";
  const std::string dead = std::to_string(endedProcess());
  // Left by: an ended writer long ago (the only one to go), an ended writer just now, a live
  // process, this one, another file's writer, and none of our naming.
  Names kept{".library.json.tmp-" + dead + "-00000000deadbeef",
             ".library.json.tmp-" + dead + "-00000000cafecafe",
             ".library.json.tmp-1-0000000000000001",
             ".library.json.tmp-" + std::to_string(::getpid()) + "-0000000000000002",
             ".other.json.tmp-" + dead + "-0000000000000003",
             ".library.json.tmp-x-0000000000000004"};
  for (const std::string& name : kept) {
    writeFile(folder / "a" / name, "{");
    if (name != kept[1])
      makeOld(folder / "a" / name);
  }
  kept[0] = "library.json";
  std::sort(kept.begin(), kept.end());
  const LibraryData data = libraryWith(2);
  LibraryStore(file).save(data);
  EXPECT_EQ(namesIn(folder / "a"), kept);
  // A value JSON cannot hold fails the save half way through.
  LibraryData unwritable = libraryWith(3000);
  unwritable.embeddings["x"] = {std::nanf("")};
  EXPECT_THROW(LibraryStore(file).save(unwritable), StoreError);
  EXPECT_EQ(LibraryStore(file).load(), data);
  EXPECT_EQ(namesIn(folder / "a"), kept);
  // The target is a folder, so the rename fails after the data was written.
  fs::create_directories(folder / "blocked.json/inside");
  EXPECT_NE(saveError(folder / "blocked.json").find("«blocked.json»"), std::string::npos);
  EXPECT_EQ(namesIn(folder.path()), (Names{"a", "blocked.json"}));
}

// A file without any write bit, also behind a link, is not replaced: a rename needs only the
// folder's permission and would silently undo what the user protected.
TEST(LibraryStoreSave, RefusesToReplaceAWriteProtectedFile) {
  for (const auto& [mode, name] : {std::pair{0, "library.json"}, std::pair{0444, "real.json"}}) {
    TestFolder folder;
    writeFile(folder / name, "{}");
    ASSERT_EQ(::chmod((folder / name).c_str(), mode), 0);
    if (name != std::string("library.json"))
      fs::create_symlink(name, folder / "library.json");
    EXPECT_EQ(saveError(folder / "library.json"), kWriteProtected);
    EXPECT_EQ(modeOf(folder / name), mode);
    ::chmod((folder / name).c_str(), 0600);
    EXPECT_EQ(readFile(folder / name), "{}");
    EXPECT_EQ(namesIn(folder.path()).size(), mode == 0 ? 1u : 2u);
  }
}

// Owner and group are kept (only root can give a file away); the set-group-id bit shows the mode is
// set after the owner. Another user's file with write bits is refused by the access check alone.
TEST(LibraryStoreSave, KeepsOwnerAndGroupAndRefusesAnotherUsersFile) {
  if (::geteuid() != 0)
    GTEST_SKIP() << "needs root";
  TestFolder folder;
  ASSERT_EQ(::chmod(folder.path().c_str(), 0777), 0);
  const fs::path file = folder / "library.json";
  writeFile(file, "{}");
  ASSERT_EQ(::chown(file.c_str(), 4242, 4343), 0);
  ASSERT_EQ(::chmod(file.c_str(), 02750), 0);
  LibraryStore(file).save(libraryWith(2));
  struct stat info {};
  ASSERT_EQ(::stat(file.c_str(), &info), 0);
  EXPECT_EQ(std::tuple(info.st_uid, info.st_gid, info.st_mode & 07777),
            std::tuple(4242u, 4343u, 02750u));
  ASSERT_EQ(::chown(file.c_str(), 0, 0), 0);
  ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    const bool other = ::setgid(65534) == 0 && ::setuid(65534) == 0;
    ::_exit(other && saveError(file) == kWriteProtected ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << "the child's save was not refused as write-protected";
  EXPECT_EQ(namesIn(folder.path()), Names{"library.json"});
}

// Through a chain of relative links (each read against its own folder) to an existing target, whose
// mode is kept, or a new one, made private whatever the umask. A loop fails; the links stay.
TEST(LibraryStoreSave, WritesThroughSymbolicLinksToTheirFinalTargetAndKeepsItsMode) {
  const std::string dead = std::to_string(endedProcess());
  for (const bool targetExists : {true, false}) {
    TestFolder folder;
    const fs::path target = folder / "sync/real.json";
    fs::create_directories(folder / "links");
    if (targetExists) {
      LibraryStore(target).save(libraryWith(1));
      ASSERT_EQ(::chmod(target.c_str(), 0640), 0);
    }
    fs::create_symlink("links/hop.json", folder / "library.json");
    fs::create_symlink("../sync/real.json", folder / "links/hop.json");
    const fs::path stale = folder / ("sync/.real.json.tmp-" + dead + "-00000000deadbeef");
    writeFile(stale, "{");
    makeOld(stale);
    const LibraryData data = libraryWith(2);
    const mode_t saved = ::umask(0277);
    LibraryStore(folder / "library.json").save(data);
    ::umask(saved);
    EXPECT_EQ(LibraryStore(target).load(), data);
    EXPECT_EQ(modeOf(target), targetExists ? 0640 : 0600);
    EXPECT_EQ(namesIn(folder / "sync"), Names{"real.json"});
    EXPECT_EQ(fs::read_symlink(folder / "library.json"), "links/hop.json");
    EXPECT_EQ(namesIn(folder.path()), (Names{"library.json", "links", "sync"}));
  }
  TestFolder folder;
  fs::create_symlink("b.json", folder / "library.json");
  fs::create_symlink("library.json", folder / "b.json");
  EXPECT_EQ(saveError(folder / "library.json"),
            "Die Datei «library.json» konnte nicht gesichert werden (die symbolischen Links "
            "bilden eine Schleife).");
  EXPECT_EQ(namesIn(folder.path()), (Names{"b.json", "library.json"}));
}

// The writer is ended inside a save (a third or half of one in): only its temporary file goes.
TEST(LibraryStoreConcurrency, WriterEndedBySigtermOrSigintLeavesNoTemporaryFile) {
  TestFolder folder;
  const LibraryStore store(folder / "library.json");
  const LibraryData small = libraryWith(3), large = libraryWith(8000);
  const auto started = std::chrono::steady_clock::now();
  store.save(large);  // in pieces of about a megabyte
  const auto oneSave = std::chrono::steady_clock::now() - started;
  EXPECT_EQ(store.load(), large);
  store.save(small);
  for (const int number : {SIGTERM, SIGINT}) {
    struct sigaction current {};
    ASSERT_EQ(::sigaction(number, nullptr, &current), 0);
    if (current.sa_handler == SIG_IGN)
      GTEST_SKIP() << "this test process ignores signal " << number << ", and so would its child";
    int begins[2];
    ASSERT_EQ(::pipe(begins), 0);
    const pid_t writer = ::fork();
    if (writer == 0) {
      ::close(begins[0]);
      // Tells the parent that a save begins, so that the signal lands inside one.
      while (::write(begins[1], "s", 1) == 1)
        store.save(large);
      ::_exit(1);
    }
    ::close(begins[1]);
    char byte = 0;
    EXPECT_EQ(::read(begins[0], &byte, 1), 1);
    std::this_thread::sleep_for(oneSave / (number == SIGTERM ? 3 : 2));
    ::kill(writer, number);
    ::close(begins[0]);  // a writer that survives ends at its next write (SIGPIPE)
    int status = 0;
    ASSERT_EQ(::waitpid(writer, &status, 0), writer);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == number) << "status " << status;
    EXPECT_EQ(namesIn(folder.path()), Names{"library.json"});
    const LibraryData loaded = store.load();
    EXPECT_TRUE(loaded == small || loaded == large) << loaded.tabs.size() << " tabs";
  }
}

TEST(Library, EveryChangeIsObservedAndWrittenAndAFailedWriteKeepsItInMemory) {
  TestFolder folder;
  const fs::path file = folder / "Kestrova/library.json";
  LibraryStore(file).save(libraryWith(3));
  Library library{LibraryStore(file)};
  Names events;
  library.observeWillChange([&] { events.push_back("will:" + library.data().tabs[1].note); });
  const auto token = library.observeData([&](const LibraryData& next) {
    events.push_back("data:" + library.data().tabs[1].note + "->" + next.tabs[1].note);
  });
  library.observeLastError([&](const std::optional<std::string>& error) {
    events.push_back("error:" + error.value_or("-").substr(0, 26));
  });
  library.updateTab(library.data().tabs[1].id, [](SavedTab& tab) { tab.note = "Lesen!"; });
  EXPECT_EQ(events, (Names{"will:", "data:->Lesen!", "will:Lesen!", "error:-"}));
  EXPECT_EQ(LibraryStore(file).load(), library.data());
  library.removeObserver(token);
  events.clear();
  // An unknown tab changes nothing, and the data is still written.
  fs::remove(file);
  library.updateTab(Uuid::random(), [](SavedTab& tab) { tab.note = "nie"; });
  EXPECT_EQ(LibraryStore(file).load(), library.data());
  EXPECT_EQ(library.lastWrite(), LibraryStore(file).modificationDate());
  // A file where the folder should be: the save fails, the change stays in memory.
  const auto lastWrite = library.lastWrite();
  fs::remove_all(folder / "Kestrova");
  writeFile(folder / "Kestrova", "x");
  library.mutate([](LibraryData& data) { data.tabs.pop_back(); });
  EXPECT_EQ(events, (Names{"will:Lesen!", "will:Lesen!", "error:-", "will:Lesen!", "will:Lesen!",
                           "error:Speichern fehlgeschlagen: "}));
  EXPECT_EQ(library.data().tabs.size(), 2u);
  EXPECT_EQ(library.lastWrite(), lastWrite);
  fs::remove(folder / "Kestrova");
  library.mutate([](LibraryData&) {});
  EXPECT_FALSE(library.lastError());
  EXPECT_EQ(LibraryStore(file).load(), library.data());
}

// Another process's write within half a second of its own last write is taken for that write.
TEST(Library, ReloadIgnoresOwnWritesAndPicksUpLaterOnes) {
  TestFolder folder;
  const fs::path file = folder / "library.json";
  Library library{LibraryStore(file)};
  int reloads = 0;
  library.observeData([&](const LibraryData&) { ++reloads; });
  library.reloadIfChangedOnDisk();  // no file: nothing
  library.mutate([](LibraryData& data) { data.tabs = libraryWith(1).tabs; });
  LibraryStore(file).save(libraryWith(4));
  const auto ownWrite = *library.lastWrite();
  for (const auto& [after, tabs] : {std::pair{500, 1u}, std::pair{501, 4u}}) {
    fs::last_write_time(
        file, std::chrono::file_clock::from_sys(ownWrite + std::chrono::milliseconds(after)));
    library.reloadIfChangedOnDisk();
    EXPECT_EQ(library.data().tabs.size(), tabs) << after;
  }
  // The file's date becomes the new reference.
  library.reloadIfChangedOnDisk();
  EXPECT_EQ(reloads, 2);  // the mutation and the one reload
}

}  // namespace
}  // namespace kestrova
