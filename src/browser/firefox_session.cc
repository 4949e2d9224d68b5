#include <algorithm>
#include <chrono>
#include <climits>
#include <cstring>
#include <map>
#include <optional>
#include <utility>

#include <lz4.h>
#include <nlohmann/json.hpp>

#include <kestrova/firefox_session.h>

namespace kestrova {
namespace {

using nlohmann::json;
using Kind = BrowserError::Kind;

constexpr std::string_view kMozLz4Magic{"mozLz40\0", 8};
constexpr std::size_t kMozLz4Header = 12;  // the magic and the stated size
// A session with thousands of tabs is a few MiB of JSON; far more than this is a damaged size
// field, and trusting it would have us allocate gigabytes.
constexpr std::uint32_t kMaxSessionBytes = 512u * 1024 * 1024;

std::string quoted(const std::filesystem::path& path) {
  return "«" + path.string() + "»";
}

bool startsWithAbout(std::string_view url) {
  constexpr std::string_view about = "about:";
  if (url.size() < about.size()) {
    return false;
  }
  // A scheme is case-insensitive; Firefox writes it in lower case, but nothing forbids "ABOUT:".
  return std::equal(about.begin(), about.end(), url.begin(), [](char a, char b) {
    return a == (b >= 'A' && b <= 'Z' ? static_cast<char>(b - 'A' + 'a') : b);
  });
}

// The tab as shown at its current history entry, or nothing when it holds no usable entry.
std::optional<SafariTab> readTab(const json& tab, std::int64_t position) {
  if (!tab.is_object()) {
    return std::nullopt;
  }
  const auto entries = tab.find("entries");
  if (entries == tab.end() || !entries->is_array() || entries->empty()) {
    return std::nullopt;
  }
  const auto count = static_cast<std::int64_t>(entries->size());
  std::int64_t current = count;
  const auto index = tab.find("index");
  if (index != tab.end() && index->is_number_unsigned()) {  // the JSON reader's type for n >= 0
    current = static_cast<std::int64_t>(
        std::clamp<std::uint64_t>(index->get<std::uint64_t>(), 1, entries->size()));
  } else if (index != tab.end() && index->is_number_integer()) {
    current = 1;  // negative
  }
  const json& entry = (*entries)[static_cast<std::size_t>(current - 1)];
  if (!entry.is_object()) {
    return std::nullopt;
  }
  const auto url = entry.find("url");
  if (url == entry.end() || !url->is_string()) {
    return std::nullopt;
  }
  SafariTab result;
  result.url = url->get<std::string>();
  if (result.url.empty() || startsWithAbout(result.url)) {
    return std::nullopt;
  }
  const auto title = entry.find("title");
  const bool hasTitle = title != entry.end() && title->is_string() && !title->empty();
  result.title = hasTitle ? title->get<std::string>() : result.url;
  result.index = position;
  const auto pinned = tab.find("pinned");
  result.pinned = pinned != tab.end() && pinned->is_boolean() && pinned->get<bool>();
  return result;
}

// profiles.ini as sections of key=value lines, in the file's order.
using IniSection = std::pair<std::string, std::map<std::string, std::string>>;

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

std::vector<IniSection> parseIni(std::string_view text) {
  std::vector<IniSection> sections;
  while (!text.empty()) {
    const auto end = std::min(text.find('\n'), text.size());
    const std::string_view line = trimmed(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    if (line.empty() || line.front() == ';' || line.front() == '#') {
      continue;
    }
    if (line.front() == '[' && line.back() == ']') {
      sections.emplace_back(std::string(line.substr(1, line.size() - 2)),
                            IniSection::second_type{});
    } else if (const auto equals = line.find('=');
               equals != std::string_view::npos && !sections.empty()) {
      sections.back().second[std::string(trimmed(line.substr(0, equals)))] =
          std::string(trimmed(line.substr(equals + 1)));
    }
  }
  return sections;
}

std::string valueOf(const IniSection& section, const std::string& key) {
  const auto found = section.second.find(key);
  return found == section.second.end() ? std::string() : found->second;
}

bool isProfile(const IniSection& section) {
  return section.first.starts_with("Profile") && !valueOf(section, "Path").empty();
}

}  // namespace

std::string decodeMozLz4(std::string_view bytes) {
  if (bytes.size() < kMozLz4Header || bytes.substr(0, kMozLz4Magic.size()) != kMozLz4Magic) {
    throw BrowserError(Kind::unreadable,
                       "Die Datei ist keine Sitzungsdatei von Firefox (mozlz4) oder zu kurz.");
  }
  std::uint32_t size = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    size |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[8 + i])) << (8 * i);
  }
  const std::string_view block = bytes.substr(kMozLz4Header);
  if (size > kMaxSessionBytes || block.size() > static_cast<std::size_t>(INT_MAX)) {
    throw BrowserError(Kind::unreadable,
                       "Die Sitzungsdatei von Firefox gibt eine unmögliche Grösse an.");
  }
  std::string out(size, '\0');
  // LZ4_decompress_safe never writes beyond `size` nor reads beyond the block; a block that would
  // need more room gives a negative result, one that ends early a smaller count.
  const int written = LZ4_decompress_safe(block.data(), out.data(), static_cast<int>(block.size()),
                                          static_cast<int>(size));
  if (written < 0 || static_cast<std::uint32_t>(written) != size) {
    throw BrowserError(Kind::unreadable,
                       "Die Sitzungsdatei von Firefox ist abgeschnitten oder beschädigt.");
  }
  return out;
}

namespace {

// The value of four hex digits at `at`, or -1.
int hex4(std::string_view text, std::size_t at) {
  if (at + 4 > text.size()) {
    return -1;
  }
  int value = 0;
  for (std::size_t i = at; i < at + 4; ++i) {
    const char c = text[i];
    const int digit = c >= '0' && c <= '9'   ? c - '0'
                      : c >= 'a' && c <= 'f' ? c - 'a' + 10
                      : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                             : -1;
    if (digit < 0) {
      return -1;
    }
    value = value * 16 + digit;
  }
  return value;
}

// Firefox writes a page title cut in the middle of an emoji as a lone surrogate escape, which
// JSON parsers refuse; such an escape becomes U+FFFD, so that one odd title does not make the
// whole session unreadable.
std::string withoutLoneSurrogates(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 >= text.size()) {
      out += text[i];
      continue;
    }
    const int unit = text[i + 1] == 'u' ? hex4(text, i + 2) : -1;
    if (unit >= 0xD800 && unit <= 0xDBFF && text.substr(i + 6, 2) == "\\u" &&
        hex4(text, i + 8) >= 0xDC00 && hex4(text, i + 8) <= 0xDFFF) {
      out.append(text.substr(i, 12));
      i += 11;
    } else if (unit >= 0xD800 && unit <= 0xDFFF) {
      out += "\\ufffd";
      i += 5;
    } else {
      out.append(text.substr(i, 2));  // any other escape, kept whole
      ++i;
    }
  }
  return out;
}

}  // namespace

std::vector<SafariWindow> parseFirefoxSession(std::string_view text) {
  const json document = json::parse(withoutLoneSurrogates(text), nullptr, false);
  if (document.is_discarded()) {
    throw BrowserError(Kind::unreadable, "Die Sitzung von Firefox ist kein gültiges JSON.");
  }
  const auto windows = document.is_object() ? document.find("windows") : document.end();
  if (!document.is_object() || windows == document.end() || !windows->is_array()) {
    throw BrowserError(Kind::unreadable, "Die Sitzung von Firefox enthält keine Fensterliste.");
  }
  std::vector<SafariWindow> result;
  std::int64_t windowPosition = 0;
  for (const json& window : *windows) {
    ++windowPosition;
    const auto tabs = window.is_object() ? window.find("tabs") : window.end();
    if (!window.is_object() || tabs == window.end() || !tabs->is_array()) {
      continue;
    }
    SafariWindow kept{windowPosition, {}};
    std::int64_t tabPosition = 0;
    for (const json& tab : *tabs) {
      if (auto read = readTab(tab, ++tabPosition)) {
        kept.tabs.push_back(std::move(*read));
      }
    }
    if (!kept.tabs.empty()) {
      result.push_back(std::move(kept));
    }
  }
  return result;
}

std::filesystem::path firefoxDefaultProfile(Env& env) {
  const std::optional<std::string> home = homeFolder(env);
  const std::filesystem::path folder =
      std::filesystem::path(home.value_or("~")) / ".mozilla" / "firefox";
  const std::filesystem::path ini = folder / "profiles.ini";
  const std::optional<std::string> text = home ? env.fileSystem().readFile(ini) : std::nullopt;
  if (!text) {
    throw BrowserError(Kind::unreadable, "Die Profilliste " + quoted(ini) +
                                             " von Firefox lässt sich nicht lesen. Ist Firefox "
                                             "installiert und wurde es schon einmal gestartet?");
  }
  const std::vector<IniSection> sections = parseIni(*text);
  // IsRelative belongs to the [Profile…] sections; an [Install…] default borrows it from the
  // profile of the same path, else its own form tells.
  const auto resolve = [&](const std::string& path, std::optional<bool> relative) {
    for (const IniSection& section : sections) {
      if (!relative && isProfile(section) && valueOf(section, "Path") == path) {
        relative = valueOf(section, "IsRelative") == "1";
      }
    }
    const bool fromFolder = relative.value_or(std::filesystem::path(path).is_relative());
    return fromFolder ? folder / path : std::filesystem::path(path);
  };
  for (const IniSection& section : sections) {
    if (section.first.starts_with("Install") && !valueOf(section, "Default").empty()) {
      return resolve(valueOf(section, "Default"), std::nullopt);
    }
  }
  std::vector<const IniSection*> profiles;
  for (const IniSection& section : sections) {
    if (isProfile(section)) {
      profiles.push_back(&section);
    }
  }
  for (const IniSection* profile : profiles) {
    if (valueOf(*profile, "Default") == "1") {
      return resolve(valueOf(*profile, "Path"), valueOf(*profile, "IsRelative") == "1");
    }
  }
  if (profiles.size() == 1) {
    return resolve(valueOf(*profiles.front(), "Path"),
                   valueOf(*profiles.front(), "IsRelative") == "1");
  }
  throw BrowserError(Kind::unreadable,
                     "Die Profilliste " + quoted(ini) + " von Firefox nennt kein Standardprofil.");
}

FirefoxSession::FirefoxSession(std::filesystem::path profileFolder, Env& env)
    : profileFolder_(std::move(profileFolder)), env_(&env) {}

std::vector<SafariWindow> FirefoxSession::snapshotWindows() {
  FileSystem& files = env_->fileSystem();
  std::vector<std::pair<Date, std::filesystem::path>> candidates;
  for (const std::filesystem::path& path :
       {profileFolder_ / "sessionstore-backups" / "recovery.jsonlz4",
        profileFolder_ / "sessionstore-backups" / "recovery.baklz4",
        profileFolder_ / "sessionstore.jsonlz4"}) {
    if (const std::optional<Date> modified = files.modificationDate(path)) {
      candidates.emplace_back(*modified, path);
    }
  }
  // Newest first; on equal times the order above, which is Firefox's order of writing.
  std::stable_sort(candidates.begin(), candidates.end(),
                   [](const auto& a, const auto& b) { return a.first > b.first; });
  for (const auto& [modified, path] : candidates) {
    const std::optional<std::string> bytes = files.readFile(path);
    if (!bytes) {
      continue;  // renamed away by Firefox between the look and the read
    }
    try {
      return parseFirefoxSession(decodeMozLz4(*bytes));
    } catch (const BrowserError& error) {
      throw BrowserError(error.kind(), "Die Sitzungsdatei " + quoted(path) +
                                           " von Firefox lässt sich nicht lesen. " + error.what());
    }
  }
  throw BrowserError(Kind::unreadable,
                     "Firefox hat im Profil " + quoted(profileFolder_) +
                         " keine Sitzung gespeichert. Ist es das Profil, mit dem Firefox läuft?");
}

std::int64_t FirefoxSession::closeAllTabs(const std::vector<SafariWindow>&, bool,
                                          const std::vector<std::string>&) {
  return 0;
}

void FirefoxSession::reopen(const std::vector<std::string>& urls, bool newWindow) {
  std::vector<std::string> argv = {"firefox"};
  for (const std::string& url : urls) {
    if (url.empty() || url.front() == '-') {
      continue;
    }
    argv.push_back(argv.size() == 1 && newWindow ? "--new-window" : "--new-tab");
    argv.push_back(url);
  }
  if (argv.size() == 1) {
    return;
  }
  // A running Firefox takes the addresses and the command ends at once; a Firefox started by it
  // keeps running, and the launcher lets it after the wait.
  const std::optional<int> status = env_->processLauncher().run(argv, std::chrono::seconds(5));
  if (!status || *status != 0) {
    throw BrowserError(Kind::notRunning,
                       "Firefox liess sich nicht starten, um die Tabs wieder zu öffnen. Ist der "
                       "Befehl «firefox» installiert?");
  }
}

}  // namespace kestrova
