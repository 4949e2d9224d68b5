// FileSystem: the few file operations the library store needs, behind an interface so that tests
// can inject faults (a full disk, a failing rename) without touching the real disk's state.
// Env::fileSystem() gives it (env.h); the real one is the operating system's, described below. It
// is thread-safe, and its only state is the list of temporary files that a SIGTERM or SIGINT must
// remove.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <kestrova/models.h>

namespace kestrova {

// A failed file operation. what() is a German sentence for the user, for example
// "Die Datei «library.json» konnte nicht gesichert werden (kein freier Speicherplatz)."
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// What tells one version of a file from another without reading it: the file (device and inode),
// its size, and its modification and change times to the nanosecond. A file replaced by a rename
// is another inode; one written in place has new times. Where the file system keeps coarse times,
// two versions written within one tick may look alike; FileSystem::fingerprint settles that.
struct FileIdentity {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::int64_t size = 0;
  std::int64_t modifiedNs = 0;  // since 1970
  std::int64_t changedNs = 0;   // since 1970

  friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

// A 64-bit hash of a file's bytes, fed in pieces: the value depends only on the bytes and not on
// how they were split. Fast (several GB/s), not cryptographic: it tells a changed file from an
// unchanged one, it does not defend against someone crafting collisions.
class ContentHash {
 public:
  void add(std::string_view bytes);
  std::uint64_t value() const;

 private:
  void block(const unsigned char* p);

  std::uint64_t lanes_[4] = {0x243f6a8885a308d3u, 0x13198a2e03707344u, 0xa4093822299f31d0u,
                             0x082efa98ec4e6c89u};
  unsigned char pending_[32] = {};
  std::size_t pendingSize_ = 0;
  std::uint64_t total_ = 0;
};

// The bytes of a file together with the identity it had while they were read.
struct IdentifiedContent {
  std::string bytes;
  FileIdentity identity;
};

// The identity and content hash of a file, read in pieces.
struct Fingerprint {
  FileIdentity identity;
  std::uint64_t hash = 0;
};

// A new version of a file, written piece by piece into a temporary file in the folder of the file
// it replaces and made visible all at once by commit(). Destroying it without commit() removes the
// temporary file and leaves the target as it was. Not thread-safe.
class AtomicFile {
 public:
  virtual ~AtomicFile() = default;
  // Appends bytes to the temporary file. Throws StoreError (for example when the disk is full).
  virtual void write(std::string_view bytes) = 0;
  // Flushes the data to disk and renames the temporary file over the target. Throws StoreError;
  // the target is then untouched.
  virtual void commit() = 0;
  // After commit(): the identity of the file written, taken from the file itself, so that a
  // writer that replaced it again at once cannot be mistaken for it. No value where it is not
  // known (the default).
  virtual std::optional<FileIdentity> identity() const { return std::nullopt; }
};

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // The operating system's file system (Env::real().fileSystem()): after each successful commit
  // it also removes the temporary files of the same target that killed writers left behind (their
  // process is gone and they were last written more than five minutes ago); failures there are
  // ignored. Before it first creates a temporary file it installs handlers for SIGTERM and SIGINT,
  // but only for those signals whose action is still the default: the handler removes the
  // temporary files of the writes under way in this process, then ends the process by the same
  // signal, as the default would have. A program with its own handler, or one that ignores the
  // signal, keeps that. Its commit flushes the data to the disk itself (on macOS with
  // F_FULLFSYNC, since fsync there stops at the drive's cache).

  // The whole file, in a string with at least 64 bytes of spare capacity; no value if the file
  // cannot be read (missing, no permission, a folder).
  virtual std::optional<std::string> readFile(const std::filesystem::path& path) = 0;

  // Starts a new version of `path` (see AtomicFile). A symbolic link is followed through to its
  // final target, which is replaced in its own folder (even a target that does not exist yet is
  // written there); the link itself stays as it is. The new version gets the permission bits of
  // the file it replaces, and its owner and group where this process may set them; a file that
  // did not exist is created readable and writable by its owner only (0600).
  // Throws StoreError if the temporary file cannot be created, and also, "(die Datei ist
  // schreibgeschützt)", if the existing file has no write permission bit at all or this process
  // may not write it: the rename would replace it all the same, since that needs only the
  // folder's permission, and the user protected it for a reason. The file is then untouched.
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

  // The names of the entries in `folder`, without the folder, in no particular order; empty if
  // the folder cannot be listed. Unless overridden it is the operating system's, so that a test
  // double needs to override only the operations it fakes.
  virtual std::vector<std::string> namesIn(const std::filesystem::path& folder);

  // The identity of the regular file at `path`, symbolic links followed; no value if there is no
  // such file or it cannot be examined. Unless overridden it is the operating system's.
  virtual std::optional<FileIdentity> identity(const std::filesystem::path& path);
  // As readFile(), with the identity the file had while it was read: taken before and after the
  // read, and the file read again (a few times at most) when the two differ, so that a file
  // truncated or rewritten in place while it was read is not taken for what was read. Unless
  // overridden it is readFile() between two identity() calls.
  virtual std::optional<IdentifiedContent> readIdentified(const std::filesystem::path& path);
  // The identity and the ContentHash of the bytes of the regular file at `path`, read in pieces so
  // that a large file is never held in memory; no value if it cannot be read or changed while it
  // was read. Unless overridden it is the operating system's.
  virtual std::optional<Fingerprint> fingerprint(const std::filesystem::path& path);
  // True if both are readable regular files holding the same bytes; false if they differ or
  // either cannot be read. The sizes are compared first, then the bytes in pieces, so that two
  // large files are never held in memory. Unless overridden it is the operating system's.
  virtual bool sameContent(const std::filesystem::path& a, const std::filesystem::path& b);
};

}  // namespace kestrova
