// FileSystem: the few file operations the library store needs, behind an interface so that tests
// can inject faults (a full disk, a failing rename) without touching the real disk's state.
// FileSystem::real() is the operating system's; it keeps no state and is thread-safe.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <kestrova/models.h>

namespace kestrova {

// A failed file operation. what() is a German sentence for the user, for example
// "Die Datei «library.json» konnte nicht gesichert werden (kein freier Speicherplatz)."
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A new version of a file, written piece by piece into a temporary file in the same folder and
// made visible all at once by commit(). Destroying it without commit() removes the temporary
// file and leaves the target as it was. Not thread-safe.
class AtomicFile {
 public:
  virtual ~AtomicFile() = default;
  // Appends bytes to the temporary file. Throws StoreError (for example when the disk is full).
  virtual void write(std::string_view bytes) = 0;
  // Flushes the data to disk and renames the temporary file over the target. Throws StoreError;
  // the target is then untouched.
  virtual void commit() = 0;
};

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // The operating system's file system. After each successful commit it also removes the
  // temporary files of the same target that killed writers left behind (their process is gone
  // and they were last written more than five minutes ago); failures there are ignored.
  static FileSystem& real();

  // The whole file, in a string with at least 64 bytes of spare capacity; no value if the file
  // cannot be read (missing, no permission, a folder).
  virtual std::optional<std::string> readFile(const std::filesystem::path& path) = 0;

  // Starts a new version of `path` (see AtomicFile). Throws StoreError if the temporary file
  // cannot be created.
  virtual std::unique_ptr<AtomicFile> openAtomically(const std::filesystem::path& path) = 0;

  // Replaces `path` with `bytes` so that a reader sees the old or the new content, never a mix.
  // On failure the temporary file is removed, `path` is untouched and StoreError is thrown.
  void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes);

  // Creates the folder and all missing parents; no error if it exists. Throws StoreError.
  virtual void createDirectories(const std::filesystem::path& path) = 0;

  // The modification time, or no value if the file does not exist or cannot be examined.
  virtual std::optional<Date> modificationDate(const std::filesystem::path& path) = 0;

  // Copies a file (replacing `to`); false on any failure.
  virtual bool copyFile(const std::filesystem::path& from, const std::filesystem::path& to) = 0;
};

}  // namespace kestrova
