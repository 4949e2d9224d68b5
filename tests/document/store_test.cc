#include <cmath>
#include <filesystem>
#include <random>
#include <regex>
#include <thread>

#include <fcntl.h>
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
  for (int i = 0; i < tabs; ++i) {
    data.tabs.push_back(makeSavedTab({.id = Uuid::random(),
                                      .url = "https://example.ch/" + std::to_string(i),
                                      .title = "Tab " + std::to_string(i),
                                      .savedAt = std::chrono::floor<std::chrono::seconds>(now()),
                                      .text = std::string(200, 'a' + static_cast<char>(i % 26))}));
  }
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
  const LibraryStore missing(folder / "sub/library.json");
  EXPECT_EQ(missing.load(), LibraryData());
  EXPECT_FALSE(missing.modificationDate());
  fs::create_directories(folder / "dir.json");  // a folder where the file should be
  EXPECT_EQ(LibraryStore(folder / "dir.json").load(), LibraryData());
  EXPECT_EQ(namesIn(folder.path()), Names{"dir.json"});
  // Longer than one piece of the comparison, so that a difference at the very end must count.
  const std::string broken(200000, '[');
  std::string lastByteDiffers = broken;
  lastByteDiffers.back() = '{';
  const LibraryStore store(folder / "library.json");
  writeFile(folder / "library.json", broken);
  // None of these is a copy of the broken bytes.
  for (const auto& [name, bytes] : std::initializer_list<std::pair<std::string, std::string>>{
           {"library.defekt-x.json", lastByteDiffers},
           {"library.defekt-y.json", broken + " "},
           {"library.defekt-3.txt", broken},
           {"other.defekt-4.json", broken},
           {"library.defekt-5.json.bak", broken},
           {"library.defekt-.json", broken}})
    writeFile(folder / name, bytes);
  const Names before = namesIn(folder.path());
  const auto copies = [&] {
    Names out;
    for (const std::string& name : namesIn(folder.path()))
      if (std::regex_match(name, std::regex(R"(library\.defekt-[0-9-]+\.json)")))
        out.push_back(name);
    return out;
  };
  EXPECT_EQ(store.load(), LibraryData());
  const Names first = copies();
  ASSERT_EQ(first.size(), 1u);
  EXPECT_EQ(readFile(folder / first[0]), broken);
  EXPECT_EQ(readFile(folder / "library.json"), broken);
  // The next load finds the copy; other broken bytes, most likely within the same second, get a
  // copy of their own and replace none.
  EXPECT_EQ(store.load(), LibraryData());
  EXPECT_EQ(copies(), first);
  writeFile(folder / "library.json", lastByteDiffers + "x");
  EXPECT_EQ(store.load(), LibraryData());
  EXPECT_EQ(copies().size(), 2u);
  EXPECT_EQ(readFile(folder / first[0]), broken);
  // Saving afterwards replaces library.json only.
  const Names all = namesIn(folder.path());
  store.save(libraryWith(1));
  EXPECT_EQ(namesIn(folder.path()), all);
  EXPECT_EQ(store.load().tabs.size(), 1u);
  EXPECT_EQ(all.size(), before.size() + 2);
}

// Missing folders are made; only temporary files that killed writers left long ago are removed;
// a failed save leaves the previous file and nothing of its own.
TEST(LibraryStoreSave, WritesAtomicallyAndCleansUpAfterKilledWritersOnly) {
  TestFolder folder;
  const fs::path file = folder / "a/library.json";
  const std::string dead = std::to_string(endedProcess());
  const std::string ours = std::to_string(::getpid());
  const struct {
    std::string name;
    bool old, stays;
  } left[] = {{".library.json.tmp-" + dead + "-00000000deadbeef", true, false},  // stale: goes
              {".library.json.tmp-" + dead + "-00000000cafecafe", false, true},  // dead but fresh
              {".library.json.tmp-1-0000000000000001", true, true},              // a live process
              {".library.json.tmp-" + ours + "-0000000000000002", true, true},   // ours
              {".other.json.tmp-" + dead + "-0000000000000003", true, true},     // another file's
              {".library.json.tmp-x-0000000000000004", true, true},              // not our naming
              {"library.defekt-1.json", true, true}};
  Names kept{"library.json"};
  for (const auto& l : left) {
    writeFile(folder / "a" / l.name, "{\"tabs\":[");
    if (l.old)
      makeOld(folder / "a" / l.name);
    if (l.stays)
      kept.push_back(l.name);
  }
  const LibraryData data = libraryWith(2);
  LibraryStore(file).save(data);
  EXPECT_EQ(LibraryStore(file).load(), data);
  EXPECT_TRUE(LibraryStore(file).modificationDate());
  std::sort(kept.begin(), kept.end());
  EXPECT_EQ(namesIn(folder / "a"), kept);

  // A value JSON cannot hold fails the save half way through.
  LibraryData unwritable = libraryWith(3000);
  unwritable.embeddings["x"] = {std::nanf("")};
  EXPECT_THROW(LibraryStore(file).save(unwritable), StoreError);
  EXPECT_EQ(LibraryStore(file).load(), data);
  EXPECT_EQ(namesIn(folder / "a"), kept);
  // A real failure: the target is a folder, so the rename fails after the data was written.
  fs::create_directories(folder / "blocked.json/inside");
  EXPECT_NE(saveError(folder / "blocked.json").find("«blocked.json»"), std::string::npos);
  EXPECT_EQ(namesIn(folder.path()), (Names{"a", "blocked.json"}));
}

// A new file is private (0600) whatever the umask; an existing one keeps its mode. A file without
// any write bit is not replaced: a rename needs only the folder's permission and would silently
// undo what the user protected.
TEST(LibraryStoreSave, KeepsTheModeAndRefusesToReplaceAWriteProtectedFile) {
  const struct {
    int before;  // -1: no file yet
    mode_t umask;
    bool throughLink, writeProtected;
  } cases[] = {{-1, 022, false, false},  {-1, 0277, false, false},  {0640, 077, false, false},
               {0666, 0, false, false},  {0604, 022, false, false}, {0444, 022, false, true},
               {0400, 022, false, true}, {0550, 022, false, true},  {0, 022, false, true},
               {0444, 022, true, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << std::oct << c.before << " umask " << c.umask);
    TestFolder folder;
    const fs::path file = folder / (c.throughLink ? "real.json" : "library.json");
    if (c.before >= 0) {
      LibraryStore(file).save(libraryWith(1));
      ASSERT_EQ(::chmod(file.c_str(), static_cast<mode_t>(c.before)), 0);
    }
    if (c.throughLink)
      fs::create_symlink("real.json", folder / "library.json");
    const Names names = namesIn(folder.path());
    const std::string before = readFile(file);
    const mode_t saved = ::umask(c.umask);
    EXPECT_EQ(saveError(folder / "library.json"), c.writeProtected ? kWriteProtected : "");
    ::umask(saved);
    EXPECT_EQ(modeOf(file), c.before < 0 ? 0600 : c.before);
    ::chmod(file.c_str(), 0600);
    if (c.writeProtected) {
      EXPECT_EQ(readFile(file), before);
      EXPECT_EQ(namesIn(folder.path()), names);
    }
  }
}

// Only root can give a file away: owner and group are kept, and the set-group-id bit shows that
// the mode is set after the owner, whose change clears it. A file of another user, who alone may
// write it, in a folder where anyone may rename, has write bits: only the access check stops the
// save, made by a child process that plays the other user.
TEST(LibraryStoreSave, KeepsOwnerAndGroupAndRefusesAnotherUsersFile) {
  if (::geteuid() != 0)
    GTEST_SKIP() << "needs root";
  TestFolder folder;
  ASSERT_EQ(::chmod(folder.path().c_str(), 0777), 0);
  const fs::path file = folder / "library.json";
  LibraryStore(file).save(libraryWith(1));
  ASSERT_EQ(::chown(file.c_str(), 4242, 4343), 0);
  ASSERT_EQ(::chmod(file.c_str(), 02750), 0);
  LibraryStore(file).save(libraryWith(2));
  struct stat info {};
  ASSERT_EQ(::stat(file.c_str(), &info), 0);
  EXPECT_EQ(std::pair(info.st_uid, info.st_gid), std::pair(4242u, 4343u));
  EXPECT_EQ(modeOf(file), 02750);

  ASSERT_EQ(::chown(file.c_str(), 0, 0), 0);
  ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
  const std::string before = readFile(file);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const bool other = ::setgid(65534) == 0 && ::setuid(65534) == 0;
    ::_exit(other && saveError(file) == kWriteProtected ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  EXPECT_EQ(readFile(file), before);
  EXPECT_EQ(namesIn(folder.path()), Names{"library.json"});
}

TEST(LibraryStoreSave, WritesThroughSymbolicLinksToTheirFinalTarget) {
  const struct {
    const char* what;
    std::vector<std::pair<std::string, std::string>> links;  // path, text; "@" is the folder
    bool targetExists;
  } cases[] = {
      {"absolute", {{"library.json", "@/sync/real.json"}}, true},
      {"relative", {{"library.json", "sync/real.json"}}, true},
      {"chain, each relative to its own folder",
       {{"library.json", "links/hop.json"}, {"links/hop.json", "../sync/real.json"}},
       true},
      {"target not there yet", {{"library.json", "sync/real.json"}}, false},
  };
  const std::string dead = std::to_string(endedProcess());
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    TestFolder folder;
    const fs::path target = folder / "sync/real.json";
    fs::create_directories(folder / "sync");
    fs::create_directories(folder / "links");
    if (c.targetExists) {
      LibraryStore(target).save(libraryWith(1));
      ASSERT_EQ(::chmod(target.c_str(), 0640), 0);
    }
    const auto textOf = [&](const std::string& text) {
      return text[0] == '@' ? folder.path().string() + text.substr(1) : text;
    };
    for (const auto& [path, text] : c.links)
      fs::create_symlink(textOf(text), folder / path);
    // A killed writer's temporary file beside the target: the cleanup looks there.
    const fs::path stale = folder / ("sync/.real.json.tmp-" + dead + "-00000000deadbeef");
    writeFile(stale, "{");
    makeOld(stale);

    const LibraryData data = libraryWith(2);
    LibraryStore(folder / "library.json").save(data);
    EXPECT_EQ(LibraryStore(target).load(), data);
    EXPECT_EQ(modeOf(target), c.targetExists ? 0640 : 0600);
    EXPECT_EQ(namesIn(folder / "sync"), Names{"real.json"});
    for (const auto& [path, text] : c.links)
      EXPECT_EQ(fs::read_symlink(folder / path), textOf(text)) << path;
    EXPECT_EQ(namesIn(folder.path()), (Names{"library.json", "links", "sync"}));
  }

  // Links in a loop lead nowhere: the save fails and the links stay.
  TestFolder folder;
  fs::create_symlink("b.json", folder / "library.json");
  fs::create_symlink("library.json", folder / "b.json");
  EXPECT_EQ(saveError(folder / "library.json"),
            "Die Datei «library.json» konnte nicht gesichert werden (die symbolischen Links "
            "bilden eine Schleife).");
  EXPECT_EQ(fs::read_symlink(folder / "library.json"), "b.json");
  EXPECT_EQ(namesIn(folder.path()), (Names{"b.json", "library.json"}));
}

TEST(LibraryStoreConcurrency, WriterEndedBySigtermOrSigintLeavesNoTemporaryFile) {
  for (const int number : {SIGTERM, SIGINT}) {
    struct sigaction current {};
    ASSERT_EQ(::sigaction(number, nullptr, &current), 0);
    if (current.sa_handler == SIG_IGN)
      GTEST_SKIP() << "this test process ignores signal " << number << ", and so would its child";
  }
  TestFolder folder;
  const LibraryStore store(folder / "library.json");
  const LibraryData small = libraryWith(3);
  const LibraryData large = libraryWith(8000);
  const auto started = std::chrono::steady_clock::now();
  store.save(large);  // in pieces of about a megabyte
  const auto oneSave = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now() - started);
  EXPECT_EQ(store.load(), large);
  store.save(small);

  std::mt19937 random(20261009);
  std::uniform_int_distribution<long> delay(oneSave.count() / 10, oneSave.count() * 9 / 10);
  for (const int number : {SIGTERM, SIGTERM, SIGINT, SIGINT}) {
    SCOPED_TRACE("signal " + std::to_string(number));
    int begins[2];
    ASSERT_EQ(::pipe(begins), 0);
    const pid_t writer = ::fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
      // Tells the parent that a save begins, so that the signal lands inside one.
      while (::write(begins[1], "s", 1) == 1)
        store.save(large);
      ::_exit(1);
    }
    ::close(begins[1]);
    char byte = 0;
    EXPECT_EQ(::read(begins[0], &byte, 1), 1);
    std::this_thread::sleep_for(std::chrono::microseconds(delay(random)));
    ::kill(writer, number);
    int status = 0;
    for (int waited = 0; ::waitpid(writer, &status, WNOHANG) == 0; ++waited) {
      if (waited == 1000)
        ::kill(writer, SIGKILL);
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ::close(begins[0]);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == number) << "status " << status;
    EXPECT_EQ(namesIn(folder.path()), Names{"library.json"});
    const LibraryData loaded = store.load();
    EXPECT_TRUE(loaded == small || loaded == large) << loaded.tabs.size() << " tabs";
  }
}

class LibraryTest : public ::testing::Test {
 protected:
  fs::path file() const { return folder_ / "Kestrova/library.json"; }
  TestFolder folder_;
};

TEST_F(LibraryTest, EveryChangeWritesAndIsObservedAndAFailedWriteSetsLastError) {
  LibraryStore(file()).save(libraryWith(3));
  Library library{LibraryStore(file())};
  EXPECT_EQ(library.data().tabs.size(), 3u);
  EXPECT_EQ(library.lastWrite(), LibraryStore(file()).modificationDate());
  EXPECT_FALSE(library.lastError());
  Names events;
  library.observeWillChange([&] { events.push_back("will:" + library.data().tabs[1].note); });
  const auto token = library.observeData([&](const LibraryData& next) {
    events.push_back("data:" + library.data().tabs[1].note + "->" + next.tabs[1].note);
  });
  std::vector<std::optional<std::string>> errors;
  library.observeLastError([&](const std::optional<std::string>& e) { errors.push_back(e); });
  const Uuid second = library.data().tabs[1].id;
  library.updateTab(second, [](SavedTab& tab) { tab.note = "Lesen!"; });
  EXPECT_EQ(events, (Names{"will:", "data:->Lesen!", "will:Lesen!"}));
  EXPECT_EQ(LibraryStore(file()).load().tab(second)->note, "Lesen!");
  EXPECT_EQ(library.data().tabs[0].note, "");
  library.removeObserver(token);
  events.clear();
  // Without a change, or for an unknown tab, it still writes.
  const LibraryData before = library.data();
  for (const auto& change : std::vector<std::function<void()>>{
           [&] { library.mutate([](LibraryData&) {}); },
           [&] { library.updateTab(Uuid::random(), [](SavedTab& tab) { tab.note = "nie"; }); }}) {
    fs::remove(file());
    change();
    EXPECT_EQ(library.data(), before);
    EXPECT_EQ(library.lastWrite(), LibraryStore(file()).modificationDate());
  }
  EXPECT_EQ(events, Names(4, "will:Lesen!"));

  // A file where the folder should be: the save fails, the change stays in memory.
  const auto lastWrite = library.lastWrite();
  fs::remove_all(folder_ / "Kestrova");
  writeFile(folder_ / "Kestrova", "x");
  library.mutate([](LibraryData& data) { data.tabs.pop_back(); });
  ASSERT_TRUE(library.lastError());
  EXPECT_EQ(library.lastError()->rfind("Speichern fehlgeschlagen: ", 0), 0u);
  EXPECT_EQ(library.data().tabs.size(), 2u);
  EXPECT_EQ(library.lastWrite(), lastWrite);
  ASSERT_EQ(errors.size(), 4u);
  EXPECT_EQ(errors[3], library.lastError());
  fs::remove(folder_ / "Kestrova");
  library.mutate([](LibraryData&) {});
  EXPECT_FALSE(library.lastError());
  EXPECT_EQ(errors.size(), 5u);
  EXPECT_EQ(LibraryStore(file()).load().tabs.size(), 2u);
}

TEST_F(LibraryTest, ReloadIgnoresOwnWritesAndPicksUpLaterOnes) {
  Library library{LibraryStore(file())};
  int reloads = 0;
  library.observeData([&](const LibraryData&) { ++reloads; });
  library.reloadIfChangedOnDisk();  // no file: nothing
  library.mutate([](LibraryData& data) { data.tabs = libraryWith(1).tabs; });
  reloads = 0;
  library.reloadIfChangedOnDisk();
  EXPECT_EQ(reloads, 0);

  // Another process writes within the tolerance of 0.5 s: still taken for our own write.
  LibraryStore(file()).save(libraryWith(4));
  const auto ownWrite = *library.lastWrite();
  const auto setTime = [&](std::chrono::milliseconds after) {
    fs::last_write_time(file(), std::chrono::file_clock::from_sys(ownWrite + after));
  };
  setTime(std::chrono::milliseconds(500));
  library.reloadIfChangedOnDisk();
  EXPECT_EQ(reloads, 0);
  EXPECT_EQ(library.data().tabs.size(), 1u);

  setTime(std::chrono::milliseconds(501));
  library.reloadIfChangedOnDisk();
  EXPECT_EQ(reloads, 1);
  EXPECT_EQ(library.data().tabs.size(), 4u);
  // The reload is not written back, and the file's date becomes the new reference.
  EXPECT_EQ(library.lastWrite(), LibraryStore(file()).modificationDate());
  library.reloadIfChangedOnDisk();
  EXPECT_EQ(reloads, 1);
}

}  // namespace
}  // namespace kestrova
