// ContextReader: turns the user's project settings (UserContext: folders and free text) into
// project texts that the hint engine compares with the saved tabs.
//
// It reads only three kinds of small project files (CLAUDE.md, TODO.yaml, README.md), never
// anything else, and bounds every call: at most two folder levels below each configured folder,
// hidden entries (names beginning with a dot) and packages are never entered, symbolic links
// never lead the walk out of the configured folder, and each file contributes at most maxChars
// characters. Nothing is reported: unreadable folders and files are skipped silently.
//
// Stateless; safe to call from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <kestrova/env.h>
#include <kestrova/models.h>

namespace kestrova {

// One project as the hint engine sees it.
struct ProjectText {
  std::string name;  // the folder's last path component, or "Eigener Text" for the free text
  std::string path;  // the folder's path; empty for the free text
  std::string text;  // the texts of the folder's project files, joined by a blank line

  friend bool operator==(const ProjectText&, const ProjectText&) = default;
};

namespace ContextReader {

// The only file names read, compared exactly (case-sensitive).
inline const std::set<std::string, std::less<>> allowedNames = {"CLAUDE.md", "TODO.yaml",
                                                                "README.md"};

// The most characters (grapheme clusters) kept of one file.
inline constexpr std::size_t maxChars = 30000;

// The name of the project made of UserContext::freeText.
inline constexpr std::string_view freeTextName = "Eigener Text";

// One project per folder that holds at least one readable, non-empty project file, found in each
// configured folder and up to two levels of subfolders below it (a leading "~" means the home
// folder: env's HOME when it is set and not empty, else the password database's). A folder reached
// from several configured folders is listed once, and its files are appended once per configured
// folder that reaches them. The projects come in the order their folders were first found; callers
// should not rely on it. When the trimmed free text is not empty it follows as the last project,
// named "Eigener Text" with an empty path. Never fails: missing or unreadable folders give nothing.
std::vector<ProjectText> projects(const UserContext& context, Env& env = Env::real());

// The number of projects that projects() yields for this one folder and no free text.
std::int64_t projectCount(std::string_view folder, Env& env = Env::real());

}  // namespace ContextReader
}  // namespace kestrova

template <>
struct std::hash<kestrova::ProjectText> {
  std::size_t operator()(const kestrova::ProjectText& project) const noexcept {
    std::hash<std::string> h;
    std::size_t seed = h(project.name);
    seed ^= h(project.path) + 0x9E3779B97F4A7C15ULL + (seed << 6) + (seed >> 2);
    seed ^= h(project.text) + 0x9E3779B97F4A7C15ULL + (seed << 6) + (seed >> 2);
    return seed;
  }
};
