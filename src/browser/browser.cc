#include <kestrova/browser.h>
#include <kestrova/unicode.h>

namespace kestrova {

bool keepsOpen(const SafariTab& tab, bool keepPinned,
               const std::vector<std::string>& pinnedDomains) {
  if (!keepPinned) {
    return false;
  }
  if (tab.pinned) {
    return true;
  }
  const std::string url = unicode::toLower(tab.url);
  for (const std::string& domain : pinnedDomains) {
    if (!domain.empty() && url.find(unicode::toLower(domain)) != std::string::npos) {
      return true;
    }
  }
  return false;
}

}  // namespace kestrova
