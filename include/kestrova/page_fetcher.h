// PageFetcher: downloads the pages behind saved tabs and turns each into plain readable text, so
// that summaries, vectors and search have more than a title to work on.
//
// A small value type: a few settings, copied freely. It never throws and never reports an error: a
// page that cannot be had (bad address, other scheme, transport error, time-out, status outside
// 200-399, unsuitable content type) yields an empty text. Requests go out over HTTP(S) through
// libcurl as a desktop Safari would send them; nothing is kept between requests (no cookies, no
// cache). Every call may be made from any thread; calls share no state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova {

// Limits that hold for every request of a fetcher.
struct FetchSession {
  // Longest time one request may take as a whole, redirects and download included, in seconds.
  double resourceTimeout = 12.0;
  // A body larger than this many bytes (after decompression) is cut off there; the part received
  // is read like a whole page. Bounds memory on hostile servers.
  std::size_t maxBodyBytes = 8u << 20;
  // Redirects followed before a request is given up.
  long maxRedirects = 16;

  friend bool operator==(const FetchSession&, const FetchSession&) = default;
};

struct PageFetcher {
  // Sent as "User-Agent" with every request, so that sites send their normal desktop HTML.
  static constexpr std::string_view userAgent =
      "Mozilla/5.0 (Macintosh; Intel Mac OS X 10_15_7) AppleWebKit/605.1.15 (KHTML, like Gecko) "
      "Version/26.0 Safari/605.1.15";
  static constexpr std::string_view acceptLanguage = "de-CH,de;q=0.9,en;q=0.8";

  // Called with (done, total) after each page of fetchAll, always on the calling thread.
  using Progress = std::function<void(std::int64_t done, std::int64_t total)>;

  // Time limit of one request in seconds: connecting, and any pause in which no data arrives,
  // before the answer as well as in the middle of a body (measured to the millisecond).
  // A value that is not positive means the default of 8 seconds.
  double timeout = 8.0;
  // Most requests in flight at once in fetchAll; a negative value counts as 0 (nothing starts).
  std::int64_t maxConcurrent = 6;
  // Characters of text kept per page; a negative value counts as 0.
  std::int64_t limit = 20000;
  FetchSession session;

  // The readable text of one page, or "" when it cannot be had. Blocks until done.
  std::string fetchText(std::string_view url) const;

  // Fetches every distinct address of `urls` with at most `maxConcurrent` requests open at once,
  // starting them in ascending address order. After each page `progress` (when given) is called
  // on this thread with done rising by one. Once `stop` is requested no further request starts;
  // requests already running finish and are kept. Returns one entry per address that was started,
  // its text or "" (an empty map for an empty list, without any progress call).
  std::map<std::string, std::string> fetchAll(const std::vector<std::string>& urls,
                                              const Progress& progress = nullptr,
                                              std::stop_token stop = {}) const;

  friend bool operator==(const PageFetcher&, const PageFetcher&) = default;
};

}  // namespace kestrova
