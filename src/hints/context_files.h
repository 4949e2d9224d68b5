// The file side of the context reader: the bounded walk over a project folder and the bounded
// reading of one project file. Private to the core; exposed here so that tests can reach the two
// steps directly.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <kestrova/env.h>

namespace kestrova::context_files {

// The most bytes read of one file: four times ContextReader::maxChars, enough for that many
// characters of UTF-8.
inline constexpr std::size_t maxBytes = 120000;

// True for a folder name the desktop platform shows as a single document or application (a
// "package") rather than as a folder, judged by its extension, compared without regard to case.
bool isPackageName(std::string_view name);

// The project files below `folder`, depth first, entries of each folder in byte order of their
// names. `depth` is the folder's level below the configured folder (0 for the folder itself);
// files are taken from levels 0 to 2 and nothing deeper is listed. Hidden entries and packages
// are skipped. A symbolic link is taken only when it leads to a regular file inside `root` (the
// configured folder, canonical); linked folders are never entered, so the walk cannot leave the
// configured folder or run in circles. A folder that cannot be listed contributes nothing.
std::vector<std::filesystem::path> files(const std::filesystem::path& folder, int depth,
                                         const std::filesystem::path& root);

// At most maxBytes of a regular file, decoded as UTF-8 with every invalid sequence replaced by
// U+FFFD (a multi-byte character cut at the byte limit becomes one U+FFFD), then cut to
// ContextReader::maxChars characters. No value when the file cannot be opened or read, is not a
// regular file, or is empty.
std::optional<std::string> readLimited(const std::filesystem::path& path);

}  // namespace kestrova::context_files
