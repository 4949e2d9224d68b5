// The file side of the library (LibraryStore) and the live library object of a long-running
// process (Library).
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include <kestrova/env.h>
#include <kestrova/file_system.h>
#include <kestrova/models.h>

namespace kestrova {

// The version of library.json that a document was read from or written as: the file's identity
// (no value when there was no file, or the file system could not tell) and the hash of its bytes.
struct FileVersion {
  std::optional<FileIdentity> identity;
  std::uint64_t contentHash = 0;
};

// Where library.json lives, and how it is read and written. A plain value: it keeps no state but
// the path and its Env, and concurrent processes are kept apart only by the atomic replacement of
// the file.
class LibraryStore {
 public:
  // Reads and writes through env.fileSystem(). `env` must outlive the store; tests pass one whose
  // file system injects faults.
  explicit LibraryStore(std::filesystem::path fileURL, Env& env = Env::real());

  // <application-support folder>/Kestrova/library.json. On Linux the folder is $XDG_DATA_HOME
  // when it is set and absolute, else ~/.local/share; on macOS ~/Library/Application Support.
  // The home folder is $HOME when it is set and not empty, else the user's entry in the password
  // database, else "/". Both variables are read from `env`.
  static std::filesystem::path defaultURL(Env& env = Env::real());
  // The store of defaultURL(env), over `env`.
  static LibraryStore standard(Env& env = Env::real());

  const std::filesystem::path& fileURL() const { return fileURL_; }
  Env& env() const { return *env_; }

  // Never fails. A missing or unreadable file gives an empty library and touches nothing. A file
  // that does not decode is copied beside itself as "<name>.defekt-<seconds>.json" (the file
  // itself stays until the next save) and an empty library is returned; no copy is made when a
  // "<name>.defekt-….json" beside it already holds exactly the same bytes.
  // With `version`, it is set to the version of the file the document came from (also for a
  // broken file, which gave the empty library): bytes and identity belong together even when
  // another process replaced the file meanwhile.
  LibraryData load(FileVersion* version = nullptr) const;

  // Creates the parent folders, encodes and replaces the file atomically (see
  // FileSystem::openAtomically: through symbolic links, keeping the file's permissions, and 0600
  // for a new file). Throws StoreError (with a German description) when a folder cannot be made,
  // the data cannot be encoded, the file cannot be written or is write-protected; the previous
  // file is then untouched. Returns the version written: its identity is taken from the new file
  // itself, not looked up by name afterwards.
  FileVersion save(const LibraryData& data) const;

  // The file's modification time; no value if it does not exist or cannot be examined.
  std::optional<Date> modificationDate() const;

 private:
  std::filesystem::path fileURL_;
  Env* env_;
};

// The live library: owns one LibraryData, tells observers before every change, writes the whole
// document after every mutation and picks up changes another process made to the file. Not
// thread-safe: its owner calls it from one thread. Observers are called synchronously.
class Library {
 public:
  explicit Library(LibraryStore store);

  const LibraryData& data() const { return data_; }
  const LibraryStore& store() const { return store_; }
  // The file's modification time after this object's own last write or load.
  std::optional<Date> lastWrite() const { return lastWrite_; }
  // "Speichern fehlgeschlagen: <reason>" after a failed write; no value after a good one.
  const std::optional<std::string>& lastError() const { return lastError_; }

  // Lets `body` change a copy of the data, publishes the copy and writes it, even when `body`
  // changed nothing. A failed write keeps the new data in memory and sets lastError.
  void mutate(const std::function<void(LibraryData&)>& body);
  // As mutate, applied to the first tab with `id`; with no such tab the data stays as it is (and
  // is still published and written).
  void updateTab(const Uuid& id, const std::function<void(SavedTab&)>& body);
  // Publishes `data` wholesale and writes it.
  void replace(LibraryData data);

  // Reloads when the file is newer than this object's last write by more than half a second
  // (anything closer is taken for its own write). A reload is not written back.
  void reloadIfChangedOnDisk();

  // Observers. Each registration returns a token for removeObserver.
  using Token = std::uint64_t;
  // Before every change of data or lastError.
  Token observeWillChange(std::function<void()> observer);
  // Before data changes, with the new value.
  Token observeData(std::function<void(const LibraryData&)> observer);
  // Before lastError changes, with the new value.
  Token observeLastError(std::function<void(const std::optional<std::string>&)> observer);
  void removeObserver(Token token);

 private:
  void setData(LibraryData data);
  void setLastError(std::optional<std::string> error);
  void persist();

  LibraryStore store_;
  LibraryData data_;
  std::optional<Date> lastWrite_;
  std::optional<std::string> lastError_;
  Token nextToken_ = 1;
  std::map<Token, std::function<void()>> willChange_;
  std::map<Token, std::function<void(const LibraryData&)>> dataObservers_;
  std::map<Token, std::function<void(const std::optional<std::string>&)>> errorObservers_;
};

}  // namespace kestrova
