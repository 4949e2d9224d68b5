// LibraryCache: the last document a long-running reader of library.json loaded or saved, kept in
// memory for as long as the file stays exactly that version. A server that answers many small
// questions then pays for a load only when the file changed, and never answers from a stale one.
//
// Each current() asks the file system for the file's identity (FileIdentity: device, inode, size,
// modification and change times). Unchanged, the kept document is the answer; changed in any way
// (another process saved, the file was replaced, touched, removed, broken, or a symbolic link on
// the way now points elsewhere), the kept document is dropped and the file loaded afresh exactly
// as LibraryStore::load() does, missing and broken files included.
//
// Identities alone are not enough where times are coarse: two saves within one tick of the file
// system's clock, of the same size and into a reused inode, look alike. So an identity counts as
// settled only once its times lie clearly before the moment the content was last known to match
// (by reading or writing it); until then each current() also compares the file's content hash
// (FileSystem::fingerprint, read in pieces) with the kept document's.
//
// Not thread-safe; one owner calls it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include <kestrova/models.h>
#include <kestrova/store.h>

namespace kestrova {

class LibraryCache {
 public:
  explicit LibraryCache(LibraryStore store);

  const LibraryStore& store() const { return store_; }

  // The document the file holds now (see above). The reference stays valid until the next call
  // of current() or forget(); the caller may change the document and then save() it. When the
  // file must be read, `dropped` is called after the kept document was dropped and before the
  // file is read, so that what the caller derived from it can go first and the memory of the two
  // never adds up.
  LibraryData& current(const std::function<void()>& dropped = {});

  // Counts the documents taken from the file: it grows each time current() loads, and stays
  // after save(). Whatever a caller derived from the document may be kept while it is unchanged.
  std::uint64_t generation() const { return generation_; }

  // Writes the kept document (as LibraryStore::save) and keeps it as the file's new version.
  // Throws StoreError; the document stays readable until the next current(), which reads the
  // file again, since the changed document no longer matches it.
  void save();

  // Drops the kept document and gives its memory back.
  void forget();

 private:
  bool settled(const FileIdentity& identity) const;

  LibraryStore store_;
  std::optional<LibraryData> kept_;
  // False while the kept document may differ from the file: a save failed or its result is unknown.
  bool trusted_ = false;
  FileVersion version_;
  // The moment the kept document was last known to match the file's content.
  Date matchedAt_{};
  std::uint64_t generation_ = 0;
};

}  // namespace kestrova
