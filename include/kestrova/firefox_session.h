// FirefoxSession: Firefox as a Browser, read from the session file Firefox keeps in its profile
// folder. Firefox offers no way to be asked for its tabs or told to close them from outside, but
// it writes its open windows every few seconds to sessionstore-backups/recovery.jsonlz4 (and at
// shutdown to sessionstore.jsonlz4): JSON compressed into Mozilla's own "mozlz4" wrapper. So a
// snapshot is as fresh as Firefox's last write, closing tabs is not possible, and reopening goes
// through the `firefox` command, which hands the addresses to the running Firefox.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <kestrova/browser.h>
#include <kestrova/env.h>

namespace kestrova {

// The content of a mozlz4 file: the 8 bytes "mozLz40\0", the decompressed size as a little-endian
// 32-bit number, then one LZ4 block. Throws BrowserError(Kind::unreadable) when the file is
// shorter than 12 bytes, has another beginning, states more than 512 MiB, or its block does not
// decompress to exactly the stated size (truncated or damaged).
std::string decodeMozLz4(std::string_view bytes);

// The open windows of a Firefox session document (the decompressed session file), in Firefox's
// order. Each tab is shown at its current history entry (Firefox's 1-based "index", clamped to
// the entries; the last entry when it is missing or not a number), with the entry's title, or its
// address when it has none, and the tab's "pinned". Window and tab positions count every window
// and tab of the document, so dropping some renumbers none of the others. Dropped: tabs without a
// usable entry (not an object, no address text), tabs at an empty or "about:" address (new tab
// and blank pages hold nothing to save), and windows left without tabs. Closed windows and closed
// tabs are not read. Throws BrowserError(Kind::unreadable) when the text is not JSON or has no
// "windows" list.
std::vector<SafariWindow> parseFirefoxSession(std::string_view json);

// The folder of the profile Firefox starts with, from $HOME/.mozilla/firefox/profiles.ini: the
// Default= of the first [Install…] section that has one, else the [Profile…] section with
// Default=1, else the only [Profile…] section. A path marked IsRelative=1 (and an [Install…]
// default of such a profile) is taken from the folder of profiles.ini. Throws
// BrowserError(Kind::unreadable) naming the file when it cannot be read or names no profile.
std::filesystem::path firefoxDefaultProfile(Env& env = Env::real());

class FirefoxSession : public Browser {
 public:
  // Reads the session of the profile in `profileFolder` (see firefoxDefaultProfile).
  explicit FirefoxSession(std::filesystem::path profileFolder, Env& env = Env::real());

  std::string name() const override { return "Firefox"; }

  // The windows of the newest (by modification time) of recovery.jsonlz4 and recovery.baklz4 in
  // sessionstore-backups/ and sessionstore.jsonlz4; the next newest when the newest vanished
  // before it could be read (Firefox renames them in turn). Throws BrowserError(Kind::unreadable)
  // when the profile holds none of them or the one read is damaged.
  std::vector<SafariWindow> snapshotWindows() override;

  // Firefox cannot be told from outside to close tabs: closes nothing and returns 0.
  bool canCloseTabs() const override { return false; }
  std::int64_t closeAllTabs(const std::vector<SafariWindow>& windows, bool keepPinned,
                            const std::vector<std::string>& pinnedDomains) override;

  // Runs `firefox --new-window <first> --new-tab <next> …` (only "--new-tab" when `newWindow` is
  // false); addresses beginning with "-" are left out, since Firefox would read them as options.
  // Throws BrowserError(Kind::notRunning) when `firefox` cannot be started or fails.
  void reopen(const std::vector<std::string>& urls, bool newWindow) override;

 private:
  std::filesystem::path profileFolder_;
  Env* env_;
};

}  // namespace kestrova
