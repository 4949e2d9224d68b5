#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <random>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <kestrova/file_system.h>

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
    default:
      return "Systemfehler " + std::to_string(error) + " (" + std::strerror(error) + ")";
  }
}

[[noreturn]] void throwFileError(const fs::path& path, int error) {
  throw StoreError("Die Datei «" + path.filename().string() + "» konnte nicht gesichert werden (" +
                   reason(error) + ").");
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

class RealAtomicFile final : public AtomicFile {
 public:
  RealAtomicFile(fs::path target, fs::path folder, fs::path temporary, int fd)
      : target_(std::move(target)),
        folder_(std::move(folder)),
        temporary_(std::move(temporary)),
        fd_(fd) {}
  ~RealAtomicFile() override {
    if (fd_ >= 0) {
      ::close(fd_);
    }
    if (!committed_) {
      ::unlink(temporary_.c_str());
    }
  }

  void write(std::string_view bytes) override {
    if (fd_ < 0 || !writeAll(fd_, bytes)) {
      throwFileError(target_, fd_ < 0 ? EBADF : errno);
    }
  }

  void commit() override {
    int error = 0;
    if (::fsync(fd_) != 0) {
      error = errno;
    }
    if (::close(fd_) != 0 && error == 0) {
      error = errno;
    }
    fd_ = -1;
    if (error == 0 && ::rename(temporary_.c_str(), target_.c_str()) != 0) {
      error = errno;
    }
    if (error != 0) {
      throwFileError(target_, error);
    }
    committed_ = true;
    // Make the rename itself durable; a failure here leaves a complete file either way.
    const int dir = ::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
      ::fsync(dir);
      ::close(dir);
    }
    removeStaleTemporaries(folder_, target_);
  }

 private:
  fs::path target_;
  fs::path folder_;
  fs::path temporary_;
  int fd_;
  bool committed_ = false;
};

class RealFileSystem final : public FileSystem {
 public:
  std::optional<std::string> readFile(const fs::path& path) override {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      return std::nullopt;
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
      ::close(fd);
      return std::nullopt;
    }
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
      ::close(fd);
      return std::nullopt;
    }
    ::close(fd);
    if (bytes.capacity() - bytes.size() < 64) {
      bytes.reserve(bytes.size() + 64);
    }
    return bytes;
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
    const auto since =
        std::chrono::seconds(info.st_mtim.tv_sec) + std::chrono::nanoseconds(info.st_mtim.tv_nsec);
    return Date(std::chrono::duration_cast<Date::duration>(since));
  }

  bool copyFile(const fs::path& from, const fs::path& to) override {
    std::error_code ec;
    fs::copy_file(from, to, fs::copy_options::overwrite_existing, ec);
    return !ec;
  }
};

std::unique_ptr<AtomicFile> RealFileSystem::openAtomically(const fs::path& path) {
  const fs::path folder = path.has_parent_path() ? path.parent_path() : fs::path(".");
  const fs::path temporary = folder / temporaryName(path);
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) {
    throwFileError(path, errno);
  }
  return std::make_unique<RealAtomicFile>(path, folder, temporary, fd);
}

}  // namespace

void FileSystem::writeFileAtomically(const fs::path& path, std::string_view bytes) {
  std::unique_ptr<AtomicFile> file = openAtomically(path);
  file->write(bytes);
  file->commit();
}

FileSystem& FileSystem::real() {
  static RealFileSystem instance;
  return instance;
}

}  // namespace kestrova
