#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <climits>
#include <cstring>
#include <random>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <kestrova/file_system.h>

#include "real_services.h"

namespace kestrova {
namespace {

namespace fs = std::filesystem;

// The reason of a failed file operation, in the user's language.
std::string reason(int error) {
  switch (error) {
    case EACCES:
    case EPERM:
      return "keine Schreibberechtigung";
    case ENOSPC:
    case EDQUOT:
      return "kein freier Speicherplatz";
    case EROFS:
      return "das Laufwerk ist schreibgeschützt";
    case ENOENT:
      return "der Ordner existiert nicht";
    case ENOTDIR:
      return "ein Teil des Pfads ist kein Ordner";
    case EISDIR:
      return "am Ziel liegt ein Ordner";
    case ENAMETOOLONG:
      return "der Name ist zu lang";
    case EIO:
      return "Ein-/Ausgabefehler des Laufwerks";
    case ELOOP:
      return "die symbolischen Links bilden eine Schleife";
    default:
      return "Systemfehler " + std::to_string(error) + " (" + std::strerror(error) + ")";
  }
}

[[noreturn]] void throwFileError(const fs::path& path, const std::string& why) {
  throw StoreError("Die Datei «" + path.filename().string() + "» konnte nicht gesichert werden (" +
                   why + ").");
}

[[noreturn]] void throwFileError(const fs::path& path, int error) {
  throwFileError(path, reason(error));
}

// The start of every temporary name for `path`; the writer's process id and a random suffix follow.
std::string temporaryPrefix(const fs::path& path) {
  // Appended step by step: g++ 12 at -O3 wrongly warns about the one-expression form.
  std::string prefix = ".";
  prefix += path.filename().string();
  prefix += ".tmp-";
  return prefix;
}

// A temporary file that a writer left behind when it was killed before its rename. It belongs to
// no running process, and nobody has written to it for a while: the age guards against a writer
// whose process id means something else here (another container sharing the folder).
constexpr auto kStaleAfter = std::chrono::minutes(5);

bool isStale(const fs::directory_entry& entry, std::string_view prefix) {
  const std::string name = entry.path().filename().string();
  if (name.size() <= prefix.size() || name.compare(0, prefix.size(), prefix) != 0) {
    return false;
  }
  const char* first = name.data() + prefix.size();
  const char* last = name.data() + name.size();
  long long pid = 0;
  const auto [end, error] = std::from_chars(first, last, pid);
  if (error != std::errc() || end == last || *end != '-' || pid <= 0 || pid == ::getpid()) {
    return false;
  }
  // ESRCH: no such process. EPERM means it exists under another user.
  if (::kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH) {
    return false;
  }
  std::error_code ec;
  if (!entry.is_regular_file(ec) || ec) {
    return false;
  }
  const auto written = entry.last_write_time(ec);
  return !ec && fs::file_time_type::clock::now() - written > kStaleAfter;
}

// Removes the stale temporary files of `path` in `folder`. Best effort: every failure is ignored,
// since the document itself has already been written.
void removeStaleTemporaries(const fs::path& folder, const fs::path& path) {
  const std::string prefix = temporaryPrefix(path);
  std::error_code ec;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    if (isStale(*it, prefix)) {
      std::error_code ignored;
      fs::remove(it->path(), ignored);
    }
  }
}

std::string temporaryName(const fs::path& path) {
  thread_local std::mt19937_64 engine{std::random_device{}()};
  char suffix[24];
  std::snprintf(suffix, sizeof suffix, "%016llx", static_cast<unsigned long long>(engine()));
  return temporaryPrefix(path) + std::to_string(::getpid()) + "-" + suffix;
}

// The temporary files of the writes under way, for the SIGTERM and SIGINT handler. A handler may
// neither allocate nor lock, so this is a fixed table of paths, each slot guarded by its state:
// kClaimed while its writer fills it in, kLive while the handler may remove the file, kRemoving
// once the handler has taken it. A writer that finds no free slot still writes; only its
// temporary file is then left to the stale-file cleanup of a later save.
enum SlotState : int { kFree, kClaimed, kLive, kRemoving };

struct TemporarySlot {
  std::atomic<int> state{kFree};
  // A forked child inherits the table; its handler must leave its parent's files alone.
  pid_t owner = 0;
  char path[PATH_MAX];
};
static_assert(std::atomic<int>::is_always_lock_free, "the signal handler needs lock-free atomics");

constexpr int kSlots = 32;
TemporarySlot temporarySlots[kSlots];

// The slot now holding `path`, or -1 if none is free or the path does not fit.
int registerTemporary(const fs::path& path) {
  std::error_code ec;
  // Absolute, since the handler may run after the program changed its working folder.
  fs::path absolute = fs::absolute(path, ec);
  if (ec) {
    absolute = path;
  }
  const std::string& text = absolute.native();
  if (text.size() >= PATH_MAX) {
    return -1;
  }
  for (int i = 0; i < kSlots; ++i) {
    TemporarySlot& slot = temporarySlots[i];
    int expected = kFree;
    if (slot.state.compare_exchange_strong(expected, kClaimed, std::memory_order_acquire)) {
      std::memcpy(slot.path, text.c_str(), text.size() + 1);
      slot.owner = ::getpid();
      slot.state.store(kLive, std::memory_order_release);
      return i;
    }
  }
  return -1;
}

void unregisterTemporary(int index) {
  if (index < 0) {
    return;
  }
  // Fails only while the handler is removing the file, and the process is ending then.
  int expected = kLive;
  temporarySlots[index].state.compare_exchange_strong(expected, kFree, std::memory_order_release);
}

void removeTemporariesAndEnd(int number) {
  const int savedErrno = errno;
  const pid_t self = ::getpid();
  for (TemporarySlot& slot : temporarySlots) {
    int expected = kLive;
    if (slot.state.compare_exchange_strong(expected, kRemoving, std::memory_order_acquire)) {
      if (slot.owner == self) {
        ::unlink(slot.path);
      } else {
        slot.state.store(kLive, std::memory_order_release);
      }
    }
  }
  // Die by the signal, as the default action would have: whoever waits for this process sees
  // the same status. The signal stays blocked until the handler returns.
  struct sigaction byDefault {};
  byDefault.sa_handler = SIG_DFL;
  sigemptyset(&byDefault.sa_mask);
  ::sigaction(number, &byDefault, nullptr);
  ::raise(number);
  errno = savedErrno;
}

// Once per process, on the first atomic write. A signal whose action is not the default belongs
// to the program: it handles or ignores it on purpose, and a temporary file it leaves behind is
// cleaned up by a later save.
void installSignalCleanup() {
  static const bool installed = [] {
    for (const int number : {SIGTERM, SIGINT}) {
      struct sigaction current {};
      if (::sigaction(number, nullptr, &current) != 0 || (current.sa_flags & SA_SIGINFO) != 0 ||
          current.sa_handler != SIG_DFL) {
        continue;
      }
      struct sigaction action {};
      action.sa_handler = removeTemporariesAndEnd;
      sigemptyset(&action.sa_mask);
      // The other signal waits, so that one handler finishes the removal before the end.
      sigaddset(&action.sa_mask, SIGTERM);
      sigaddset(&action.sa_mask, SIGINT);
      ::sigaction(number, &action, nullptr);
    }
    return true;
  }();
  static_cast<void>(installed);
}

// The file a write to `path` replaces: `path` itself, or the final target of the symbolic links
// it leads through. A relative link is read against the folder of the link; it is not normalised,
// so that ".." after a linked folder means what the kernel makes of it.
fs::path finalTarget(const fs::path& path) {
  fs::path current = path;
  // The kernel gives up after 40 links as well: they form a loop.
  for (int links = 0; links < 40; ++links) {
    struct stat info {};
    if (::lstat(current.c_str(), &info) != 0 || !S_ISLNK(info.st_mode)) {
      return current;
    }
    std::error_code ec;
    const fs::path target = fs::read_symlink(current, ec);
    if (ec) {
      throwFileError(path, ec.value());
    }
    current = target.is_absolute() ? target : current.parent_path() / target;
  }
  throwFileError(path, ELOOP);
}

// Reads exactly `size` bytes; false at an error or an early end.
bool readExactly(int fd, char* buffer, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::read(fd, buffer, size);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    buffer += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) {
      ::close(fd_);
    }
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

bool writeAll(int fd, std::string_view bytes) {
  const char* p = bytes.data();
  std::size_t left = bytes.size();
  while (left > 0) {
    const ssize_t n = ::write(fd, p, left);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return false;
    }
    p += n;
    left -= static_cast<std::size_t>(n);
  }
  return true;
}

// Brings the data of `fd` onto the disk; 0 on success, else -1 with errno set.
int flushToDisk(int fd) {
#if defined(__APPLE__)
  // There fsync only hands the data to the drive, whose cache may still lose it at a power cut;
  // F_FULLFSYNC has the drive write it out. File systems that refuse it (some network shares)
  // get the plain fsync, the best they offer.
  if (::fcntl(fd, F_FULLFSYNC) == 0) {
    return 0;
  }
#endif
  return ::fsync(fd);
}

// The rest of the open regular file `fd` of which fstat gave `info`, with at least 64 bytes of
// spare capacity; no value on a read error.
std::optional<std::string> readOpen(int fd, const struct stat& info) {
  const auto expected = static_cast<std::size_t>(info.st_size);
  std::string bytes;
  bytes.reserve(expected + 64);
  bytes.resize(expected);
  std::size_t got = 0;
  bool failed = false;
  while (got < expected) {
    const ssize_t n = ::read(fd, bytes.data() + got, expected - got);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      failed = n < 0;
      break;
    }
    got += static_cast<std::size_t>(n);
  }
  bytes.resize(got);
  // A file that grew since fstat (no atomic writer would do that) is read to its end.
  char buffer[1 << 14];
  while (!failed && got == expected) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      failed = n < 0;
      break;
    }
    bytes.append(buffer, static_cast<std::size_t>(n));
  }
  if (failed) {
    return std::nullopt;
  }
  if (bytes.capacity() - bytes.size() < 64) {
    bytes.reserve(bytes.size() + 64);
  }
  return bytes;
}

std::int64_t nanoseconds(const struct timespec& time) {
  return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

FileIdentity identityOf(const struct stat& info) {
#if defined(__APPLE__)
  const struct timespec& modified = info.st_mtimespec;
  const struct timespec& changed = info.st_ctimespec;
#else
  const struct timespec& modified = info.st_mtim;
  const struct timespec& changed = info.st_ctim;
#endif
  return FileIdentity{
      static_cast<std::uint64_t>(info.st_dev), static_cast<std::uint64_t>(info.st_ino),
      static_cast<std::int64_t>(info.st_size), nanoseconds(modified), nanoseconds(changed)};
}

// How often a file that changes while it is read is read again.
constexpr int kReadAttempts = 4;

class RealAtomicFile final : public AtomicFile {
 public:
  // `shown` names the file in messages: the path the user gave, even when it is a link.
  RealAtomicFile(fs::path shown, fs::path target, fs::path folder, fs::path temporary, int fd,
                 int slot)
      : shown_(std::move(shown)),
        target_(std::move(target)),
        folder_(std::move(folder)),
        temporary_(std::move(temporary)),
        fd_(fd),
        slot_(slot) {}
  ~RealAtomicFile() override {
    if (fd_ >= 0) {
      ::close(fd_);
    }
    if (!committed_) {
      ::unlink(temporary_.c_str());
    }
    unregisterTemporary(slot_);
  }

  void write(std::string_view bytes) override {
    if (fd_ < 0 || !writeAll(fd_, bytes)) {
      throwFileError(shown_, fd_ < 0 ? EBADF : errno);
    }
  }

  void commit() override {
    int error = 0;
    if (flushToDisk(fd_) != 0) {
      error = errno;
    }
    // A second descriptor of the same file outlives the close, which must come before the rename
    // (a network file system reports late write errors there): the file's identity after the
    // rename is taken from it, not from the name, which another writer may have taken over.
    const Descriptor probe(::fcntl(fd_, F_DUPFD_CLOEXEC, 0));
    if (::close(fd_) != 0 && error == 0) {
      error = errno;
    }
    fd_ = -1;
    if (error == 0 && ::rename(temporary_.c_str(), target_.c_str()) != 0) {
      error = errno;
    }
    if (error != 0) {
      throwFileError(shown_, error);
    }
    committed_ = true;
    struct stat info {};
    if (probe.get() >= 0 && ::fstat(probe.get(), &info) == 0) {
      identity_ = identityOf(info);
    }
    // Only after the rename: a signal in between finds the name gone, which does no harm.
    unregisterTemporary(slot_);
    slot_ = -1;
    // Make the rename itself durable; a failure here leaves a complete file either way.
    const int dir = ::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
      ::fsync(dir);
      ::close(dir);
    }
    removeStaleTemporaries(folder_, target_);
  }

  std::optional<FileIdentity> identity() const override { return identity_; }

 private:
  fs::path shown_;
  fs::path target_;
  fs::path folder_;
  fs::path temporary_;
  int fd_;
  int slot_;
  bool committed_ = false;
  std::optional<FileIdentity> identity_;
};

class RealFileSystem final : public FileSystem {
 public:
  std::optional<std::string> readFile(const fs::path& path) override {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat info {};
    if (file.get() < 0 || ::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
      return std::nullopt;
    }
    return readOpen(file.get(), info);
  }

  std::optional<IdentifiedContent> readIdentified(const fs::path& path) override {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat before {};
    if (file.get() < 0 || ::fstat(file.get(), &before) != 0 || !S_ISREG(before.st_mode)) {
      return std::nullopt;
    }
    // A writer that rewrites the file in place may be caught half-way; the file's times or size
    // then differ after the read, and the whole file is read again.
    std::optional<IdentifiedContent> out;
    for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
      if (attempt > 0 && ::lseek(file.get(), 0, SEEK_SET) != 0) {
        return std::nullopt;
      }
      std::optional<std::string> bytes = readOpen(file.get(), before);
      struct stat after {};
      if (!bytes || ::fstat(file.get(), &after) != 0) {
        return std::nullopt;
      }
      out = IdentifiedContent{std::move(*bytes), identityOf(before)};
      if (identityOf(after) == out->identity) {
        break;
      }
      before = after;
    }
    return out;
  }

  std::optional<FileIdentity> identity(const fs::path& path) override {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
      return std::nullopt;
    }
    return identityOf(info);
  }

  std::optional<Fingerprint> fingerprint(const fs::path& path) override {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat before {};
    if (file.get() < 0 || ::fstat(file.get(), &before) != 0 || !S_ISREG(before.st_mode)) {
      return std::nullopt;
    }
    ContentHash hash;
    constexpr std::size_t kPiece = 1 << 16;
    const auto piece = std::make_unique<char[]>(kPiece);
    for (;;) {
      const ssize_t n = ::read(file.get(), piece.get(), kPiece);
      if (n < 0 && errno == EINTR) {
        continue;
      }
      if (n < 0) {
        return std::nullopt;
      }
      if (n == 0) {
        break;
      }
      hash.add(std::string_view(piece.get(), static_cast<std::size_t>(n)));
    }
    struct stat after {};
    if (::fstat(file.get(), &after) != 0 || identityOf(after) != identityOf(before)) {
      return std::nullopt;
    }
    return Fingerprint{identityOf(before), hash.value()};
  }

  std::unique_ptr<AtomicFile> openAtomically(const fs::path& path) override;

  void createDirectories(const fs::path& path) override {
    std::error_code ec;
    fs::create_directories(path, ec);
    if (ec) {
      throw StoreError("Der Ordner «" + path.string() + "» konnte nicht erstellt werden (" +
                       reason(ec.value()) + ").");
    }
  }

  std::optional<Date> modificationDate(const fs::path& path) override {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
      return std::nullopt;
    }
#if defined(__APPLE__)
    const struct timespec& modified = info.st_mtimespec;
#else
    const struct timespec& modified = info.st_mtim;
#endif
    const auto since =
        std::chrono::seconds(modified.tv_sec) + std::chrono::nanoseconds(modified.tv_nsec);
    return Date(std::chrono::duration_cast<Date::duration>(since));
  }

  bool copyFile(const fs::path& from, const fs::path& to) override {
    std::error_code ec;
    fs::copy_file(from, to, fs::copy_options::overwrite_existing, ec);
    return !ec;
  }

  std::vector<std::string> namesIn(const fs::path& folder) override {
    std::vector<std::string> names;
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
      names.push_back(it->path().filename().string());
    }
    return names;
  }

  bool sameContent(const fs::path& a, const fs::path& b) override {
    const Descriptor first(::open(a.c_str(), O_RDONLY | O_CLOEXEC));
    const Descriptor second(::open(b.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat firstInfo {};
    struct stat secondInfo {};
    if (first.get() < 0 || second.get() < 0 || ::fstat(first.get(), &firstInfo) != 0 ||
        ::fstat(second.get(), &secondInfo) != 0 || !S_ISREG(firstInfo.st_mode) ||
        !S_ISREG(secondInfo.st_mode) || firstInfo.st_size != secondInfo.st_size) {
      return false;
    }
    constexpr std::size_t kPiece = 1 << 16;
    const auto firstPiece = std::make_unique<char[]>(kPiece);
    const auto secondPiece = std::make_unique<char[]>(kPiece);
    for (auto left = static_cast<std::size_t>(firstInfo.st_size); left > 0;) {
      const std::size_t size = std::min(left, kPiece);
      if (!readExactly(first.get(), firstPiece.get(), size) ||
          !readExactly(second.get(), secondPiece.get(), size) ||
          std::memcmp(firstPiece.get(), secondPiece.get(), size) != 0) {
        return false;
      }
      left -= size;
    }
    return true;
  }
};

std::unique_ptr<AtomicFile> RealFileSystem::openAtomically(const fs::path& path) {
  const fs::path target = finalTarget(path);
  // A new file holds private browsing history: for its owner's eyes only.
  mode_t mode = 0600;
  std::optional<struct stat> existing;
  struct stat info {};
  if (::stat(target.c_str(), &info) == 0 && S_ISREG(info.st_mode)) {
    // The mode bits decide for root too, who may write anything. EACCES alone means a file of
    // another user; other failures (a read-only drive) are left to the rename to report.
    if ((info.st_mode & 0222) == 0 || (::access(target.c_str(), W_OK) != 0 && errno == EACCES)) {
      throwFileError(path, "die Datei ist schreibgeschützt");
    }
    mode = info.st_mode & 07777;
    existing = info;
  }
  const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
  const fs::path temporary = folder / temporaryName(target);
  installSignalCleanup();
  // Registered before it exists: a signal in between finds no file, which does no harm, while a
  // registration after the open would leave a moment in which a signal leaves the file behind.
  const int slot = registerTemporary(temporary);
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) {
    const int error = errno;
    unregisterTemporary(slot);
    throwFileError(path, error);
  }
  // Keeping the owner and group is a courtesy: only a privileged process may give a file away
  // (EPERM otherwise), and an id unknown in this user namespace is refused (EINVAL). The data
  // matters more than either. The owner first, since a change of owner clears the set-id bits.
  if (existing && ::fchown(fd, existing->st_uid, existing->st_gid) != 0) {
    // Kept as this process's.
  }
  // Set on the open file, so that the umask cannot take bits away. A file system without modes
  // (FAT, some network shares) refuses; the file then keeps the 0600 it was created with.
  if (::fchmod(fd, mode) != 0) {
    // Kept private.
  }
  return std::make_unique<RealAtomicFile>(path, target, folder, temporary, fd, slot);
}

}  // namespace

void FileSystem::writeFileAtomically(const fs::path& path, std::string_view bytes) {
  std::unique_ptr<AtomicFile> file = openAtomically(path);
  file->write(bytes);
  file->commit();
}

std::vector<std::string> FileSystem::namesIn(const fs::path& folder) {
  return platform::realFileSystem().namesIn(folder);
}

bool FileSystem::sameContent(const fs::path& a, const fs::path& b) {
  return platform::realFileSystem().sameContent(a, b);
}

std::optional<FileIdentity> FileSystem::identity(const fs::path& path) {
  return platform::realFileSystem().identity(path);
}

std::optional<Fingerprint> FileSystem::fingerprint(const fs::path& path) {
  return platform::realFileSystem().fingerprint(path);
}

std::optional<IdentifiedContent> FileSystem::readIdentified(const fs::path& path) {
  for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
    const std::optional<FileIdentity> before = identity(path);
    std::optional<std::string> bytes = readFile(path);
    if (!before || !bytes) {
      return std::nullopt;
    }
    if (identity(path) == before || attempt + 1 == kReadAttempts) {
      return IdentifiedContent{std::move(*bytes), *before};
    }
  }
  return std::nullopt;
}

FileSystem& platform::realFileSystem() {
  static RealFileSystem instance;
  return instance;
}

}  // namespace kestrova
