#include <algorithm>
#include <unordered_set>

#include <kestrova/fmt.h>
#include <kestrova/models.h>
#include <kestrova/unicode.h>

namespace kestrova {
namespace {

bool isSchemeChar(char c, bool first) {
  const bool alpha = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  if (first) {
    return alpha;
  }
  return alpha || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
}

// Characters that make a text unparsable as a URL: blanks, controls and the few ASCII signs that
// never stand unescaped in an address.
bool isForbiddenInUrl(unsigned char c) {
  return c <= 0x20 || c == 0x7F || c == '"' || c == '<' || c == '>' || c == '\\' || c == '^' ||
         c == '`' || c == '{' || c == '|' || c == '}';
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

std::string percentDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      int hi = hexDigit(text[i + 1]);
      int lo = hexDigit(text[i + 2]);
      if (hi >= 0 && lo >= 0) {
        out.push_back(static_cast<char>(hi * 16 + lo));
        i += 2;
        continue;
      }
    }
    out.push_back(text[i]);
  }
  return unicode::repairUtf8(out);
}

template <typename Container>
std::vector<SavedTab> tabsOf(const std::vector<SavedTab>& all, const Container& container) {
  std::unordered_set<Uuid> ids(container.tabIds.begin(), container.tabIds.end());
  std::vector<SavedTab> out;
  for (const SavedTab& tab : all) {
    if (ids.count(tab.id) != 0) {
      out.push_back(tab);
    }
  }
  return out;
}

}  // namespace

std::string SavedTab::domainOf(std::string_view url) {
  for (unsigned char c : url) {
    if (isForbiddenInUrl(c)) {
      return "";
    }
  }
  std::size_t colon = 0;
  while (colon < url.size() && isSchemeChar(url[colon], colon == 0)) {
    ++colon;
  }
  if (colon == 0 || colon >= url.size() || url[colon] != ':') {
    return "";  // no scheme: a relative reference has no host
  }
  std::string_view rest = url.substr(colon + 1);
  if (rest.substr(0, 2) != "//") {
    return "";
  }
  rest.remove_prefix(2);
  std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
  if (auto at = authority.rfind('@'); at != std::string_view::npos) {
    authority.remove_prefix(at + 1);
  }
  std::string_view host;
  if (!authority.empty() && authority.front() == '[') {
    auto close = authority.find(']');
    if (close == std::string_view::npos) {
      return "";
    }
    host = authority.substr(1, close - 1);
  } else {
    host = authority.substr(0, authority.find(':'));
  }
  if (host.empty()) {
    return "";
  }
  std::string lower = unicode::toLower(percentDecode(host));
  if (lower.rfind("www.", 0) == 0) {
    lower.erase(0, 4);
  }
  return lower;
}

std::string SavedTab::searchableText() const {
  std::string joinedTags;
  for (std::size_t i = 0; i < tags.size(); ++i) {
    if (i > 0) {
      joinedTags.push_back(' ');
    }
    joinedTags += tags[i];
  }
  const std::string_view parts[] = {title,      domain, summary,
                                    joinedTags, note,   unicode::graphemePrefix(text, 1500)};
  std::string out;
  for (std::string_view part : parts) {
    if (part.empty()) {
      continue;
    }
    if (!out.empty()) {
      out += ". ";
    }
    out += part;
  }
  return out;
}

SavedTab makeSavedTab(NewTab fields) {
  SavedTab tab;
  tab.id = fields.id;
  tab.domain = fields.domain ? std::move(*fields.domain) : SavedTab::domainOf(fields.url);
  tab.url = std::move(fields.url);
  tab.title = std::move(fields.title);
  tab.savedAt = fields.savedAt;
  tab.windowId = fields.windowId;
  tab.windowIndex = fields.windowIndex;
  tab.tabIndex = fields.tabIndex;
  tab.text = std::move(fields.text);
  tab.summary = std::move(fields.summary);
  tab.note = std::move(fields.note);
  tab.projectTags = std::move(fields.projectTags);
  tab.tags = std::move(fields.tags);
  tab.readAt = fields.readAt;
  tab.isDemo = fields.isDemo;
  return tab;
}

std::string SavedWindow::makeTitle(std::int64_t index, Date date) {
  return "Fenster " + std::to_string(index) + " \u00B7 " + Fmt::dayMonthTime(date);
}

const SavedTab* LibraryData::tab(const Uuid& id) const {
  auto it = std::find_if(tabs.begin(), tabs.end(), [&](const SavedTab& t) { return t.id == id; });
  return it == tabs.end() ? nullptr : &*it;
}

SavedTab* LibraryData::tab(const Uuid& id) {
  auto it = std::find_if(tabs.begin(), tabs.end(), [&](const SavedTab& t) { return t.id == id; });
  return it == tabs.end() ? nullptr : &*it;
}

std::vector<SavedTab> LibraryData::tabsIn(const Topic& topic) const {
  return tabsOf(tabs, topic);
}

std::vector<SavedTab> LibraryData::tabsIn(const SavedWindow& window) const {
  return tabsOf(tabs, window);
}

const Topic* LibraryData::topic(const SavedTab& tab) const {
  if (!tab.topicId) {
    return nullptr;
  }
  auto it = std::find_if(topics.begin(), topics.end(),
                         [&](const Topic& t) { return t.id == *tab.topicId; });
  return it == topics.end() ? nullptr : &*it;
}

const SavedWindow* LibraryData::window(const SavedTab& tab) const {
  auto it = std::find_if(windows.begin(), windows.end(),
                         [&](const SavedWindow& w) { return w.id == tab.windowId; });
  return it == windows.end() ? nullptr : &*it;
}

std::vector<Hint> LibraryData::openHints() const {
  std::vector<Hint> out;
  std::copy_if(hints.begin(), hints.end(), std::back_inserter(out),
               [](const Hint& h) { return !h.dismissed; });
  return out;
}

std::vector<SavedTab> LibraryData::dueReminders(Date at) const {
  std::vector<SavedTab> out;
  std::copy_if(tabs.begin(), tabs.end(), std::back_inserter(out),
               [&](const SavedTab& t) { return t.reminderAt && *t.reminderAt <= at; });
  return out;
}

}  // namespace kestrova
