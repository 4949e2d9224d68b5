#include <algorithm>
#include <array>
#include <cerrno>
#include <unordered_map>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <kestrova/context_reader.h>
#include <kestrova/unicode.h>

#include "context_files.h"

namespace kestrova {
namespace fs = std::filesystem;

namespace context_files {
namespace {

// Folder extensions that the desktop platform presents as one item (applications, plug-ins,
// frameworks, document bundles and media libraries). Such a folder is a document or a program,
// not part of a project's notes, and may hold many thousands of files, so the walk never enters
// it. Linux has no package notion of its own; using the same extensions keeps a project folder
// that is shared with a Mac (or copied from one) read the same way on both.
constexpr std::array<std::string_view, 30> kPackageExtensions = {
    "app",         "appex",     "bundle",        "component",
    "docarchive",  "fcpbundle", "framework",     "imovielibrary",
    "kext",        "key",       "logicx",        "mdimporter",
    "numbers",     "pages",     "photoslibrary", "playground",
    "plugin",      "prefpane",  "qlgenerator",   "rtfd",
    "saver",       "scptd",     "sparsebundle",  "systemextension",
    "theater",     "wdgt",      "xcarchive",     "xcodeproj",
    "xcworkspace", "xpc"};

bool equalsIgnoringAsciiCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) {
    return false;
  }
  for (std::size_t i = 0; i < a.size(); ++i) {
    char x = a[i];
    char y = b[i];
    if (x >= 'A' && x <= 'Z') {
      x = static_cast<char>(x - 'A' + 'a');
    }
    if (x != y) {
      return false;
    }
  }
  return true;
}

bool isHidden(std::string_view name) {
  return !name.empty() && name.front() == '.';
}

// Whether `path` (canonical) is `root` (canonical) or lies below it, compared by components so
// that "/a/bc" does not count as inside "/a/b".
bool isInside(const fs::path& path, const fs::path& root) {
  auto p = path.begin();
  for (auto r = root.begin(); r != root.end(); ++r, ++p) {
    if (r->empty()) {
      continue;  // the empty last component of a root given with a trailing separator
    }
    if (p == path.end() || *p != *r) {
      return false;
    }
  }
  return true;
}

// The length of the multi-byte sequence that lead byte `c` starts, or 0 when `c` cannot lead one.
std::size_t sequenceLength(unsigned char c) {
  if (c >= 0xC2 && c <= 0xDF) {
    return 2;
  }
  if (c >= 0xE0 && c <= 0xEF) {
    return 3;
  }
  if (c >= 0xF0 && c <= 0xF4) {
    return 4;
  }
  return 0;
}

bool isValidSecondByte(unsigned char lead, unsigned char c) {
  switch (lead) {
    case 0xE0:
      return c >= 0xA0 && c <= 0xBF;
    case 0xED:
      return c >= 0x80 && c <= 0x9F;
    case 0xF0:
      return c >= 0x90 && c <= 0xBF;
    case 0xF4:
      return c >= 0x80 && c <= 0x8F;
    default:
      return c >= 0x80 && c <= 0xBF;
  }
}

// Where a character that the byte limit cut in two begins: the start of a trailing, valid but
// unfinished multi-byte sequence, or bytes.size() when the text ends cleanly.
std::size_t unfinishedTail(std::string_view bytes) {
  const std::size_t n = bytes.size();
  for (std::size_t back = 1; back <= 3 && back <= n; ++back) {
    const std::size_t start = n - back;
    const auto lead = static_cast<unsigned char>(bytes[start]);
    if ((lead & 0xC0) == 0x80) {
      continue;
    }
    const std::size_t length = sequenceLength(lead);
    if (length <= back) {
      return n;
    }
    for (std::size_t i = start + 1; i < n; ++i) {
      const auto c = static_cast<unsigned char>(bytes[i]);
      const bool ok = i == start + 1 ? isValidSecondByte(lead, c) : (c & 0xC0) == 0x80;
      if (!ok) {
        return n;
      }
    }
    return start;
  }
  return n;
}

}  // namespace

bool isPackageName(std::string_view name) {
  const std::size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0 || dot + 1 == name.size()) {
    return false;
  }
  const std::string_view extension = name.substr(dot + 1);
  return std::any_of(
      kPackageExtensions.begin(), kPackageExtensions.end(),
      [&](std::string_view known) { return equalsIgnoringAsciiCase(extension, known); });
}

std::vector<fs::path> files(const fs::path& folder, int depth, const fs::path& root) {
  std::vector<fs::path> found;
  if (depth > 2) {
    return found;
  }
  struct Entry {
    std::string name;
    fs::file_type type;
  };
  std::vector<Entry> entries;
  std::error_code ec;
  fs::directory_iterator it(folder, ec);
  if (ec) {
    return found;
  }
  for (; it != fs::directory_iterator(); it.increment(ec)) {
    if (ec) {
      return found;
    }
    std::string name = it->path().filename().string();
    if (isHidden(name)) {
      continue;
    }
    std::error_code statusError;
    const fs::file_type type = it->symlink_status(statusError).type();
    if (statusError) {
      continue;
    }
    entries.push_back({std::move(name), type});
  }
  if (ec) {
    return found;
  }
  std::sort(entries.begin(), entries.end(),
            [](const Entry& a, const Entry& b) { return a.name < b.name; });

  for (const Entry& entry : entries) {
    const fs::path path = folder / entry.name;
    if (entry.type == fs::file_type::directory) {
      if (depth == 2 || isPackageName(entry.name)) {
        continue;
      }
      std::vector<fs::path> below = files(path, depth + 1, root);
      found.insert(found.end(), std::make_move_iterator(below.begin()),
                   std::make_move_iterator(below.end()));
      continue;
    }
    if (ContextReader::allowedNames.contains(entry.name)) {
      if (entry.type == fs::file_type::regular) {
        found.push_back(path);
      } else if (entry.type == fs::file_type::symlink) {
        std::error_code linkError;
        const fs::path target = fs::canonical(path, linkError);
        if (!linkError && isInside(target, root) && fs::is_regular_file(target, linkError) &&
            !linkError) {
          found.push_back(path);
        }
      }
    }
  }
  return found;
}

std::optional<std::string> readLimited(const fs::path& path) {
  // Non-blocking, so that a named pipe that slipped in cannot stall the reader.
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) {
    return std::nullopt;
  }
  struct FdCloser {
    int fd;
    ~FdCloser() { ::close(fd); }  // a failure to close changes nothing for a reader
  } closer{fd};

  struct stat info {};
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    return std::nullopt;
  }
  std::string bytes(maxBytes, '\0');
  std::size_t filled = 0;
  while (filled < maxBytes) {
    const ssize_t got = ::read(fd, bytes.data() + filled, maxBytes - filled);
    if (got < 0) {
      if (errno == EINTR) {
        continue;
      }
      return std::nullopt;
    }
    if (got == 0) {
      break;
    }
    filled += static_cast<std::size_t>(got);
  }
  if (filled == 0) {
    return std::nullopt;
  }
  bytes.resize(filled);

  const std::size_t tail = unfinishedTail(bytes);
  std::string text = unicode::repairUtf8(std::string_view(bytes).substr(0, tail));
  if (tail < bytes.size()) {
    text += "\xEF\xBF\xBD";
  }
  const std::string_view kept = unicode::graphemePrefix(text, ContextReader::maxChars);
  if (kept.size() < text.size()) {
    text.resize(kept.size());
  }
  return text;
}

}  // namespace context_files

namespace ContextReader {
namespace {

// A configured folder as an absolute path without "." and ".." parts or a trailing separator,
// so that one folder always gives the same key whichever way it was written.
fs::path normalizedFolder(const std::string& configured) {
  std::error_code ec;
  fs::path path = fs::absolute(fs::path(configured), ec);
  if (ec) {
    path = fs::path(configured);
  }
  path = path.lexically_normal();
  if (!path.has_filename() && path.has_relative_path()) {
    path = path.parent_path();
  }
  return path;
}

}  // namespace

std::vector<ProjectText> projects(const UserContext& context, Env& env) {
  struct Folder {
    std::string name;
    std::string path;
    std::vector<std::string> texts;
  };
  std::vector<Folder> folders;
  std::unordered_map<std::string, std::size_t> indexByPath;

  for (const std::string& configured : context.folderPaths) {
    if (configured.empty()) {
      continue;  // an empty entry names no folder
    }
    const fs::path folder = normalizedFolder(expandTilde(configured, env));
    std::error_code ec;
    const fs::path root = fs::canonical(folder, ec);
    if (ec) {
      continue;
    }
    // Every find counts, also of a file that an earlier configured folder already found (a
    // folder and one of its subfolders, or one folder given twice): its text is appended again.
    // Within one configured folder the walk lists each file once, as it never enters a linked
    // folder.
    for (const fs::path& file : context_files::files(folder, 0, root)) {
      std::optional<std::string> text = context_files::readLimited(file);
      if (!text) {
        continue;
      }
      const fs::path parent = file.parent_path();
      const std::string key = parent.string();
      auto [slot, inserted] = indexByPath.try_emplace(key, folders.size());
      if (inserted) {
        std::string name = parent.filename().string();
        folders.push_back({name.empty() ? key : std::move(name), key, {}});
      }
      folders[slot->second].texts.push_back(std::move(*text));
    }
  }

  std::vector<ProjectText> result;
  result.reserve(folders.size() + 1);
  for (Folder& folder : folders) {
    std::string joined;
    for (std::size_t i = 0; i < folder.texts.size(); ++i) {
      if (i > 0) {
        joined += "\n\n";
      }
      joined += folder.texts[i];
    }
    result.push_back({std::move(folder.name), std::move(folder.path), std::move(joined)});
  }
  std::string freeText(unicode::trim(context.freeText));
  if (!freeText.empty()) {
    result.push_back({std::string(freeTextName), "", std::move(freeText)});
  }
  return result;
}

std::int64_t projectCount(std::string_view folder, Env& env) {
  UserContext context;
  context.folderPaths.emplace_back(folder);
  return static_cast<std::int64_t>(projects(context, env).size());
}

}  // namespace ContextReader
}  // namespace kestrova
