#include <chrono>
#include <cmath>
#include <filesystem>
#include <functional>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <vector>

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
using testing::TestFolder;

LibraryData libraryWith(int tabs, const std::string& title = "Tab") {
  LibraryData data;
  for (int i = 0; i < tabs; ++i) {
    SavedTab tab;
    tab.id = Uuid::random();
    tab.url = "https://example.ch/" + std::to_string(i);
    tab.title = title + " " + std::to_string(i);
    tab.text = std::string(200, 'a' + static_cast<char>(i % 26));
    tab.savedAt = std::chrono::floor<std::chrono::seconds>(now());
    data.tabs.push_back(tab);
  }
  return data;
}

std::vector<std::string> namesIn(const fs::path& folder) {
  std::vector<std::string> names;
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

constexpr const char* kWriteProtected =
    "Die Datei «library.json» konnte nicht gesichert werden (die Datei ist schreibgeschützt).";

TEST(LibraryStoreDefault, FollowsXdgDataHomeOrLocalShare) {
  const struct {
    std::optional<std::string> data;
    fs::path expected;
  } cases[] = {
      {"/data/anna", "/data/anna/Kestrova/library.json"},
      {"relative/path", "/home/anna/.local/share/Kestrova/library.json"},  // not absolute: ignored
      {std::nullopt, "/home/anna/.local/share/Kestrova/library.json"}};
  for (const auto& c : cases) {
    testing::FakeEnv env({.variables = {{"HOME", "/home/anna"}, {"XDG_DATA_HOME", c.data}}});
    EXPECT_EQ(LibraryStore::defaultURL(env), c.expected) << c.data.value_or("-");
  }
}

TEST(LibraryStoreLoad, CorruptFileIsKeptAsDefektCopy) {
  TestFolder folder;
  const fs::path file = folder / "library.json";
  testing::writeFile(file, "{");
  const LibraryStore store(file);
  EXPECT_EQ(store.load(), LibraryData());
  const auto names = namesIn(folder.path());
  ASSERT_EQ(names.size(), 2u);
  EXPECT_EQ(names[1], "library.json");
  EXPECT_TRUE(std::regex_match(names[0], std::regex(R"(library\.defekt-[0-9]+\.json)")))
      << names[0];
  EXPECT_EQ(testing::readFile(folder.path() / names[0]), "{");
  EXPECT_EQ(testing::readFile(file), "{");

  // Saving afterwards replaces library.json only.
  store.save(libraryWith(1));
  EXPECT_EQ(namesIn(folder.path()), names);
  EXPECT_EQ(store.load().tabs.size(), 1u);
}

TEST(LibraryStoreLoad, TheSameBrokenBytesAreCopiedOnlyOnce) {
  TestFolder folder;
  const fs::path file = folder / "library.json";
  // Longer than one piece of the comparison, so that a difference at the very end must count.
  const std::string broken(200000, '[');
  std::string lastByteDiffers = broken;
  lastByteDiffers.back() = '{';
  testing::writeFile(file, broken);
  const std::pair<std::string, std::string> neighbours[] = {
      {"library.defekt-1.json", lastByteDiffers},
      {"library.defekt-2.json", broken + " "},
      {"library.defekt-3.txt", broken},
      {"other.defekt-4.json", broken},
      {"library.defekt-5.json.bak", broken},
      {"library.defekt-6.json", broken}};  // the copy of an earlier load
  for (const auto& [name, bytes] : neighbours)
    testing::writeFile(folder / name, bytes);
  const LibraryStore store(file);
  const std::vector<std::string> before = namesIn(folder.path());
  EXPECT_EQ(store.load(), LibraryData());
  EXPECT_EQ(namesIn(folder.path()), before);

  // Without it none of the others is a copy of these bytes: one new copy takes its place, and the
  // next load finds that one.
  fs::remove(folder / "library.defekt-6.json");
  EXPECT_EQ(store.load(), LibraryData());
  const std::vector<std::string> after = namesIn(folder.path());
  ASSERT_EQ(after.size(), before.size());
  EXPECT_EQ(store.load(), LibraryData());
  EXPECT_EQ(namesIn(folder.path()), after);
  // Other broken bytes, most likely within the same second: a copy of their own, none replaced.
  testing::writeFile(file, lastByteDiffers + "x");
  EXPECT_EQ(store.load(), LibraryData());
  EXPECT_EQ(namesIn(folder.path()).size(), after.size() + 1);
}

TEST(LibraryStoreLoad, MissingUnreadableOrHostileFilesGiveEmptyLibrary) {
  TestFolder folder;
  const LibraryStore missing(folder / "sub/library.json");
  EXPECT_EQ(missing.load(), LibraryData());
  EXPECT_FALSE(fs::exists(folder / "sub"));
  EXPECT_FALSE(missing.modificationDate());
  // A folder where the file should be cannot be read either.
  fs::create_directories(folder / "dir.json");
  EXPECT_EQ(LibraryStore(folder / "dir.json").load(), LibraryData());
  const fs::path file = folder / "library.json";
  const std::string cases[] = {"nicht json",
                               "[1,2]",
                               R"({"tabs":"x"})",
                               std::string("{\"embedderKind\":\"\xFF\"}"),
                               R"({"version":123456789012345678901234567890})",
                               std::string(100000, '[') + std::string(100000, ']'),
                               std::string("\0\0\0", 3)};
  for (const std::string& text : cases) {
    testing::writeFile(file, text);
    EXPECT_EQ(LibraryStore(file).load(), LibraryData()) << text.substr(0, 30);
  }
}

TEST(LibraryStoreSave, WritesAtomicallyAndAFailureLeavesThePreviousFile) {
  TestFolder folder;
  // Missing folders are made; no temporary files are left beside the file.
  const LibraryStore deep(folder / "a/b/c/library.json");
  const LibraryData data = libraryWith(3);
  deep.save(data);
  EXPECT_EQ(deep.load(), data);
  EXPECT_TRUE(deep.modificationDate());
  EXPECT_EQ(namesIn(folder / "a/b/c"), std::vector<std::string>{"library.json"});
  fs::remove_all(folder / "a");

  const fs::path file = folder / "library.json";
  LibraryStore(file).save(libraryWith(2));
  const std::string before = testing::readFile(file);

  // A value JSON cannot hold fails the save half way through; nothing of it stays behind.
  LibraryData unwritable = libraryWith(3000);
  unwritable.embeddings["x"] = {std::nanf("")};
  EXPECT_THROW(LibraryStore(file).save(unwritable), StoreError);
  EXPECT_EQ(testing::readFile(file), before);
  EXPECT_EQ(namesIn(folder.path()), std::vector<std::string>{"library.json"});

  // A real failure: the target is a folder, so the rename fails after the data was written.
  const fs::path blocked = folder / "blocked.json";
  fs::create_directories(blocked / "inside");
  try {
    LibraryStore(blocked).save(libraryWith(1));
    FAIL() << "saving over a folder must fail";
  } catch (const StoreError& error) {
    EXPECT_NE(std::string(error.what()).find("«blocked.json»"), std::string::npos) << error.what();
  }
  EXPECT_EQ(namesIn(folder.path()), (std::vector<std::string>{"blocked.json", "library.json"}));
}

// The id of a process that has ended (and was reaped).
pid_t endedProcess() {
  const pid_t child = ::fork();
  if (child == 0)
    ::_exit(0);
  int status = 0;
  ::waitpid(child, &status, 0);
  return child;
}

TEST(LibraryStoreSave, RemovesOnlyTemporaryFilesThatKilledWritersLeftLongAgo) {
  TestFolder folder;
  const fs::path file = folder / "library.json";
  const std::string dead = std::to_string(endedProcess());
  const auto longAgo = fs::file_time_type::clock::now() - std::chrono::hours(1);
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
  std::vector<std::string> kept{"library.json"};
  for (const auto& l : left) {
    testing::writeFile(folder / l.name, "{\"tabs\":[");
    if (l.old)
      fs::last_write_time(folder / l.name, longAgo);
    if (l.stays)
      kept.push_back(l.name);
  }
  const LibraryData data = libraryWith(2);
  LibraryStore(file).save(data);
  EXPECT_EQ(LibraryStore(file).load(), data);
  std::sort(kept.begin(), kept.end());
  EXPECT_EQ(namesIn(folder.path()), kept);
}

TEST(LibraryStoreSave, KeepsTheModeOwnerAndGroupOfTheFile) {
  struct Case {
    int before;  // -1: no file yet
    mode_t umask;
    int after;
  };
  const Case cases[] = {{-1, 022, 0600},   {-1, 0277, 0600}, {0600, 022, 0600},
                        {0640, 077, 0640}, {0666, 0, 0666},  {0604, 022, 0604}};
  for (const Case& c : cases) {
    TestFolder folder;
    const fs::path file = folder / "library.json";
    if (c.before >= 0) {
      LibraryStore(file).save(libraryWith(1));
      ASSERT_EQ(::chmod(file.c_str(), static_cast<mode_t>(c.before)), 0);
    }
    const mode_t saved = ::umask(c.umask);
    LibraryStore(file).save(libraryWith(2));
    ::umask(saved);
    EXPECT_EQ(modeOf(file), c.after) << std::oct << c.before << " with umask " << c.umask;
  }
  // Only root may give a file away, so only root can see that owner and group are kept. The
  // set-group-id bit also shows that the mode is set after the owner, whose change clears it.
  if (::geteuid() == 0) {
    TestFolder folder;
    const fs::path file = folder / "library.json";
    LibraryStore(file).save(libraryWith(1));
    ASSERT_EQ(::chown(file.c_str(), 4242, 4343), 0);
    ASSERT_EQ(::chmod(file.c_str(), 02750), 0);
    LibraryStore(file).save(libraryWith(2));
    struct stat info {};
    ASSERT_EQ(::stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, 4242u);
    EXPECT_EQ(info.st_gid, 4343u);
    EXPECT_EQ(modeOf(file), 02750);
  }
}

TEST(LibraryStoreSave, WritesThroughSymbolicLinksToTheirFinalTarget) {
  struct Case {
    const char* what;
    std::vector<std::pair<std::string, std::string>> links;  // path, text; "@" is the folder
    bool targetExists;
  };
  const Case cases[] = {
      {"absolute", {{"library.json", "@/sync/real.json"}}, true},
      {"relative", {{"library.json", "sync/real.json"}}, true},
      {"chain, each relative to its own folder",
       {{"library.json", "links/hop.json"}, {"links/hop.json", "../sync/real.json"}},
       true},
      {"target not there yet", {{"library.json", "sync/real.json"}}, false},
  };
  const std::string dead = std::to_string(endedProcess());
  for (const Case& c : cases) {
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
    testing::writeFile(stale, "{");
    fs::last_write_time(stale, fs::file_time_type::clock::now() - std::chrono::hours(1));

    const LibraryData data = libraryWith(2);
    LibraryStore(folder / "library.json").save(data);
    EXPECT_EQ(LibraryStore(target).load(), data);
    EXPECT_EQ(modeOf(target), c.targetExists ? 0640 : 0600);
    EXPECT_EQ(namesIn(folder / "sync"), std::vector<std::string>{"real.json"});
    for (const auto& [path, text] : c.links) {
      EXPECT_TRUE(fs::is_symlink(folder / path)) << path;
      EXPECT_EQ(fs::read_symlink(folder / path), textOf(text));
    }
    EXPECT_EQ(namesIn(folder.path()), (std::vector<std::string>{"library.json", "links", "sync"}));
  }

  // Links in a loop lead nowhere: the save fails and the links stay.
  TestFolder folder;
  fs::create_symlink("b.json", folder / "library.json");
  fs::create_symlink("library.json", folder / "b.json");
  EXPECT_EQ(saveError(folder / "library.json"),
            "Die Datei «library.json» konnte nicht gesichert werden (die symbolischen Links "
            "bilden eine Schleife).");
  EXPECT_EQ(fs::read_symlink(folder / "library.json"), "b.json");
  EXPECT_EQ(namesIn(folder.path()), (std::vector<std::string>{"b.json", "library.json"}));
}

TEST(LibraryStoreSave, RefusesToReplaceAWriteProtectedFile) {
  struct Case {
    mode_t mode;
    bool throughLink;
  };
  const Case cases[] = {{0444, false}, {0400, false}, {0550, false}, {0, false}, {0444, true}};
  for (const Case& c : cases) {
    TestFolder folder;
    const fs::path file = folder / (c.throughLink ? "real.json" : "library.json");
    LibraryStore(file).save(libraryWith(1));
    if (c.throughLink)
      fs::create_symlink("real.json", folder / "library.json");
    const std::vector<std::string> names = namesIn(folder.path());
    const std::string before = testing::readFile(file);
    ASSERT_EQ(::chmod(file.c_str(), c.mode), 0);
    EXPECT_EQ(saveError(folder / "library.json"), kWriteProtected) << std::oct << c.mode;
    EXPECT_EQ(modeOf(file), static_cast<int>(c.mode));
    ::chmod(file.c_str(), 0600);
    EXPECT_EQ(testing::readFile(file), before);
    EXPECT_EQ(namesIn(folder.path()), names);
  }

  // A file of another user, who alone may write it, in a folder where anyone may rename: the
  // mode has write bits, so only the access check stops the save. Only root can set this up;
  // a child process then plays the other user.
  if (::geteuid() == 0) {
    TestFolder folder;
    ASSERT_EQ(::chmod(folder.path().c_str(), 0777), 0);
    const fs::path file = folder / "library.json";
    LibraryStore(file).save(libraryWith(1));
    ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
    const std::string before = testing::readFile(file);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      const bool other = ::setgid(65534) == 0 && ::setuid(65534) == 0;
      ::_exit(other && saveError(file) == kWriteProtected ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    EXPECT_EQ(testing::readFile(file), before);
    EXPECT_EQ(namesIn(folder.path()), std::vector<std::string>{"library.json"});
  }
}

TEST(LibraryStoreConcurrency, WriterEndedBySigtermOrSigintLeavesNoTemporaryFile) {
  for (const int number : {SIGTERM, SIGINT}) {
    struct sigaction current {};
    ASSERT_EQ(::sigaction(number, nullptr, &current), 0);
    if (current.sa_handler == SIG_IGN)
      GTEST_SKIP() << "this test process ignores signal " << number << ", and so would its child";
  }
  TestFolder folder;
  const fs::path file = folder / "library.json";
  const LibraryStore store(file);
  const LibraryData small = libraryWith(3, "Klein");
  const LibraryData large = libraryWith(8000, "Gross");
  const auto started = std::chrono::steady_clock::now();
  store.save(large);
  const auto oneSave = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now() - started);
  store.save(small);

  std::mt19937 random(20261009);
  for (const int number : {SIGTERM, SIGINT}) {
    for (int round = 0; round < 2; ++round) {
      SCOPED_TRACE("signal " + std::to_string(number) + ", round " + std::to_string(round));
      int begins[2];
      ASSERT_EQ(::pipe(begins), 0);
      const pid_t writer = ::fork();
      ASSERT_GE(writer, 0);
      if (writer == 0) {
        for (;;) {
          // Tells the parent that a save begins, so that the signal lands inside one.
          if (::write(begins[1], "s", 1) != 1)
            ::_exit(1);
          store.save(large);
        }
      }
      ::close(begins[1]);
      char byte = 0;
      const bool saving = ::read(begins[0], &byte, 1) == 1;
      std::uniform_int_distribution<long> delay(oneSave.count() / 10, oneSave.count() * 9 / 10);
      std::this_thread::sleep_for(std::chrono::microseconds(delay(random)));
      ::kill(writer, number);
      int status = 0;
      for (int waited = 0; ::waitpid(writer, &status, WNOHANG) == 0; ++waited) {
        if (waited == 1000)
          ::kill(writer, SIGKILL);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      ::close(begins[0]);
      EXPECT_TRUE(saving);
      EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == number) << "status " << status;
      EXPECT_EQ(namesIn(folder.path()), std::vector<std::string>{"library.json"});
      const LibraryData loaded = store.load();
      EXPECT_TRUE(loaded == small || loaded == large) << loaded.tabs.size() << " tabs";
    }
  }
}

class LibraryTest : public ::testing::Test {
 protected:
  fs::path file() const { return folder_ / "Kestrova/library.json"; }
  TestFolder folder_;
};

TEST_F(LibraryTest, StartsFromTheFileAndEveryChangeWrites) {
  LibraryStore(file()).save(libraryWith(3));
  Library library{LibraryStore(file())};
  EXPECT_EQ(library.data().tabs.size(), 3u);
  EXPECT_EQ(library.lastWrite(), LibraryStore(file()).modificationDate());
  EXPECT_FALSE(library.lastError());
  const Uuid second = library.data().tabs[1].id;
  library.updateTab(second, [](SavedTab& tab) { tab.note = "Lesen!"; });
  EXPECT_EQ(LibraryStore(file()).load().tab(second)->note, "Lesen!");
  EXPECT_EQ(library.data().tabs[0].note, "");
  // Without a change, or for an unknown tab, it still writes.
  const LibraryData before = library.data();
  for (const auto& change : std::vector<std::function<void()>>{
           [&] { library.mutate([](LibraryData&) {}); },
           [&] { library.updateTab(Uuid::random(), [](SavedTab& tab) { tab.note = "nie"; }); }}) {
    fs::remove(file());
    change();
    EXPECT_EQ(library.data(), before);
    EXPECT_TRUE(fs::exists(file()));
    EXPECT_EQ(library.lastWrite(), LibraryStore(file()).modificationDate());
  }
}

TEST_F(LibraryTest, ObserversHearBeforeEveryChange) {
  Library library{LibraryStore(file())};
  std::vector<std::string> events;
  library.observeWillChange(
      [&] { events.push_back("will:" + std::to_string(library.data().tabs.size())); });
  const auto token = library.observeData([&](const LibraryData& next) {
    events.push_back("data:" + std::to_string(library.data().tabs.size()) + "->" +
                     std::to_string(next.tabs.size()));
  });
  library.mutate([](LibraryData& data) { data.tabs = libraryWith(2).tabs; });
  ASSERT_GE(events.size(), 2u);
  EXPECT_EQ(events[0], "will:0");
  EXPECT_EQ(events[1], "data:0->2");
  library.removeObserver(token);
  events.clear();
  library.replace(LibraryData());
  EXPECT_EQ(std::count(events.begin(), events.end(), "data:2->0"), 0);
  EXPECT_FALSE(events.empty());
}

TEST_F(LibraryTest, FailedWriteSetsLastErrorKeepsDataAndNextGoodWriteClearsIt) {
  testing::writeFile(folder_ / "plain", "x");
  // A file where the folder should be: the first save fails.
  Library library{LibraryStore(folder_ / "plain/library.json")};
  std::vector<std::optional<std::string>> errors;
  library.observeLastError([&](const std::optional<std::string>& e) { errors.push_back(e); });
  library.mutate([](LibraryData& data) { data.tabs = libraryWith(1).tabs; });
  ASSERT_TRUE(library.lastError());
  EXPECT_EQ(library.lastError()->rfind("Speichern fehlgeschlagen: ", 0), 0u);
  EXPECT_EQ(library.data().tabs.size(), 1u);
  EXPECT_FALSE(library.lastWrite());
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0], library.lastError());
  fs::remove(folder_ / "plain");
  library.mutate([](LibraryData&) {});
  EXPECT_FALSE(library.lastError());
  EXPECT_EQ(LibraryStore(folder_ / "plain/library.json").load().tabs.size(), 1u);
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
    const auto ns =
        std::chrono::duration_cast<std::chrono::nanoseconds>((ownWrite + after).time_since_epoch())
            .count();
    const timespec times[2] = {{ns / 1000000000, ns % 1000000000},
                               {ns / 1000000000, ns % 1000000000}};
    ASSERT_EQ(::utimensat(AT_FDCWD, file().c_str(), times, 0), 0);
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
