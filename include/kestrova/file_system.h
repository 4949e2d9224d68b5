// FileSystem: the few file operations the library store needs, behind an interface so that tests
// can inject faults (a full disk, a failing rename) without touching the real disk's state.
// FileSystem::real() is the operating system's; it keeps no state and is thread-safe.
#pragma once

#include <filesystem>
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

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // The operating system's file system.
  static FileSystem& real();

  // The whole file, in a string with at least 64 bytes of spare capacity; no value if the file
  // cannot be read (missing, no permission, a folder).
  virtual std::optional<std::string> readFile(const std::filesystem::path& path) = 0;

  // Replaces `path` with `bytes` so that a reader sees the old or the new content, never a mix:
  // a temporary file in the same folder is written, flushed to disk and renamed over `path`.
  // On failure the temporary file is removed, `path` is untouched and StoreError is thrown.
  virtual void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes) = 0;

  // Creates the folder and all missing parents; no error if it exists. Throws StoreError.
  virtual void createDirectories(const std::filesystem::path& path) = 0;

  // The modification time, or no value if the file does not exist or cannot be examined.
  virtual std::optional<Date> modificationDate(const std::filesystem::path& path) = 0;

  // Copies a file (replacing `to`); false on any failure.
  virtual bool copyFile(const std::filesystem::path& from, const std::filesystem::path& to) = 0;
};

}  // namespace kestrova
