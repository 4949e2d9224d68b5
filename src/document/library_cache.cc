#include <algorithm>
#include <chrono>

#include <kestrova/library_cache.h>
#include <kestrova/memory.h>

namespace kestrova {
namespace {

// How far a file's times must lie before the moment its content was known, for a later change
// to be sure to show in them. Coarse times (no fraction of a second at all, as on FAT or some
// network shares) may be two seconds apart; fine ones lag the clock by a tick of the kernel.
constexpr std::chrono::milliseconds kCoarseMargin{2500};
constexpr std::chrono::milliseconds kFineMargin{50};
constexpr std::int64_t kNsPerSecond = 1'000'000'000;

Date dateOf(std::int64_t nanoseconds) {
  return Date(std::chrono::duration_cast<Date::duration>(std::chrono::nanoseconds(nanoseconds)));
}

}  // namespace

LibraryCache::LibraryCache(LibraryStore store) : store_(std::move(store)) {}

bool LibraryCache::settled(const FileIdentity& identity) const {
  const bool coarse =
      identity.modifiedNs % kNsPerSecond == 0 && identity.changedNs % kNsPerSecond == 0;
  const Date latest = dateOf(std::max(identity.modifiedNs, identity.changedNs));
  return latest + (coarse ? kCoarseMargin : kFineMargin) < matchedAt_;
}

LibraryData& LibraryCache::current(const std::function<void()>& dropped) {
  FileSystem& files = store_.env().fileSystem();
  if (kept_ && trusted_) {
    const std::optional<FileIdentity> identity = files.identity(store_.fileURL());
    if (identity == version_.identity) {
      if (!identity || settled(*identity)) {
        return *kept_;
      }
      const Date checkedAt = store_.env().now();
      const std::optional<Fingerprint> print = files.fingerprint(store_.fileURL());
      if (print && print->identity == *identity && print->hash == version_.contentHash) {
        matchedAt_ = checkedAt;
        return *kept_;
      }
    }
  }
  // The old document goes before the new one is read, so that two never sit side by side.
  forget();
  if (dropped) {
    dropped();
  }
  // What was freed goes back to the system before the file's text and parse tree are made, so
  // that the peak of a reload is that of a first load.
  giveBackFreedMemory(0);
  const Date readAt = store_.env().now();
  kept_ = store_.load(&version_);
  trusted_ = true;
  matchedAt_ = readAt;
  ++generation_;
  return *kept_;
}

void LibraryCache::save() {
  LibraryData& data = kept_ ? *kept_ : current();
  // Until the save is known to have gone through, the kept document is no longer the file's.
  trusted_ = false;
  version_ = store_.save(data);
  matchedAt_ = store_.env().now();
  // Without the new file's identity nothing can vouch for the kept copy.
  trusted_ = version_.identity.has_value();
}

void LibraryCache::forget() {
  kept_.reset();
  trusted_ = false;
  version_ = FileVersion();
}

}  // namespace kestrova
