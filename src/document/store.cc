#include <algorithm>

#include <kestrova/store.h>

#include "library_codec.h"

namespace kestrova {
namespace {

namespace fs = std::filesystem;

fs::path applicationSupportFolder(Env& env) {
#ifdef __APPLE__
  return fs::path(homeFolder(env).value_or("/")) / "Library" / "Application Support";
#else
  if (std::optional<std::string> data = env.variable("XDG_DATA_HOME");
      data && !data->empty() && data->front() == '/') {
    return *data;
  }
  return fs::path(homeFolder(env).value_or("/")) / ".local" / "share";
#endif
}

std::int64_t secondsSince1970(Date date) {
  return std::chrono::floor<std::chrono::seconds>(date.time_since_epoch()).count();
}

}  // namespace

LibraryStore::LibraryStore(fs::path fileURL, Env& env) : fileURL_(std::move(fileURL)), env_(&env) {}

fs::path LibraryStore::defaultURL(Env& env) {
  return applicationSupportFolder(env) / "Kestrova" / "library.json";
}

LibraryStore LibraryStore::standard(Env& env) {
  return LibraryStore(defaultURL(env), env);
}

LibraryData LibraryStore::load(FileVersion* version) const {
  std::optional<std::string> bytes;
  if (version != nullptr) {
    *version = FileVersion();
    if (std::optional<IdentifiedContent> content = env_->fileSystem().readIdentified(fileURL_)) {
      ContentHash hash;
      hash.add(content->bytes);
      *version = FileVersion{content->identity, hash.value()};
      bytes = std::move(content->bytes);
    }
  } else {
    bytes = env_->fileSystem().readFile(fileURL_);
  }
  if (!bytes) {
    return LibraryData();
  }
  // The text is handed over and freed once parsed, which keeps the peak memory of a load lower.
  if (auto data = codec::decodeLibrary(std::move(*bytes))) {
    return std::move(*data);
  }
  // Keep the broken file for the user: a copy beside it, named with the time in seconds. One copy
  // of the same bytes is enough: a server loads the file for every request, and a copy each time
  // would fill the disk with a large library.
  const std::string prefix = fileURL_.stem().string() + ".defekt-";
  const fs::path folder = fileURL_.has_parent_path() ? fileURL_.parent_path() : fs::path(".");
  const std::vector<std::string> names = env_->fileSystem().namesIn(folder);
  for (const std::string& name : names) {
    if (name.size() > prefix.size() + 5 && name.compare(0, prefix.size(), prefix) == 0 &&
        name.compare(name.size() - 5, 5, ".json") == 0 &&
        env_->fileSystem().sameContent(fileURL_, folder / name)) {
      return LibraryData();
    }
  }
  // Other broken content within the same second must not replace the copy made before it.
  const std::string stamp = prefix + std::to_string(secondsSince1970(env_->now()));
  std::string name = stamp + ".json";
  for (int n = 2; std::find(names.begin(), names.end(), name) != names.end(); ++n) {
    name = stamp + "-" + std::to_string(n) + ".json";
  }
  env_->fileSystem().copyFile(fileURL_, folder / name);
  return LibraryData();
}

FileVersion LibraryStore::save(const LibraryData& data) const {
  if (fileURL_.has_parent_path()) {
    env_->fileSystem().createDirectories(fileURL_.parent_path());
  }
  // The document is streamed into the temporary file; the old file stays in place until the new
  // one is complete and on disk.
  std::unique_ptr<AtomicFile> file = env_->fileSystem().openAtomically(fileURL_);
  ContentHash hash;
  try {
    codec::encodeLibrary(data, [&](std::string_view piece) {
      hash.add(piece);
      file->write(piece);
    });
  } catch (const codec::EncodeError& error) {
    throw StoreError(std::string("Die Bibliothek konnte nicht geschrieben werden: ") +
                     error.what() + ".");
  }
  file->commit();
  return FileVersion{file->identity(), hash.value()};
}

std::optional<Date> LibraryStore::modificationDate() const {
  return env_->fileSystem().modificationDate(fileURL_);
}

Library::Library(LibraryStore store)
    : store_(std::move(store)), data_(store_.load()), lastWrite_(store_.modificationDate()) {}

void Library::mutate(const std::function<void(LibraryData&)>& body) {
  LibraryData copy = data_;
  body(copy);
  setData(std::move(copy));
  persist();
}

void Library::updateTab(const Uuid& id, const std::function<void(SavedTab&)>& body) {
  mutate([&](LibraryData& data) {
    if (SavedTab* tab = data.tab(id)) {
      body(*tab);
    }
  });
}

void Library::replace(LibraryData data) {
  setData(std::move(data));
  persist();
}

void Library::reloadIfChangedOnDisk() {
  const std::optional<Date> fileDate = store_.modificationDate();
  if (!fileDate) {
    return;
  }
  if (lastWrite_ && *fileDate <= *lastWrite_ + std::chrono::milliseconds(500)) {
    return;
  }
  setData(store_.load());
  lastWrite_ = fileDate;
}

void Library::persist() {
  try {
    store_.save(data_);
    lastWrite_ = store_.modificationDate().value_or(store_.env().now());
    setLastError(std::nullopt);
  } catch (const StoreError& error) {
    setLastError(std::string("Speichern fehlgeschlagen: ") + error.what());
  }
}

void Library::setData(LibraryData data) {
  for (auto& [token, observer] : willChange_) {
    observer();
  }
  for (auto& [token, observer] : dataObservers_) {
    observer(data);
  }
  data_ = std::move(data);
}

void Library::setLastError(std::optional<std::string> error) {
  for (auto& [token, observer] : willChange_) {
    observer();
  }
  for (auto& [token, observer] : errorObservers_) {
    observer(error);
  }
  lastError_ = std::move(error);
}

Library::Token Library::observeWillChange(std::function<void()> observer) {
  willChange_.emplace(nextToken_, std::move(observer));
  return nextToken_++;
}

Library::Token Library::observeData(std::function<void(const LibraryData&)> observer) {
  dataObservers_.emplace(nextToken_, std::move(observer));
  return nextToken_++;
}

Library::Token Library::observeLastError(
    std::function<void(const std::optional<std::string>&)> observer) {
  errorObservers_.emplace(nextToken_, std::move(observer));
  return nextToken_++;
}

void Library::removeObserver(Token token) {
  willChange_.erase(token);
  dataObservers_.erase(token);
  errorObservers_.erase(token);
}

}  // namespace kestrova
