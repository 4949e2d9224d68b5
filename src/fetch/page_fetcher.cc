// Page fetching with libcurl's multi interface, driven from the calling thread.
//
// Time limits. The platform's session has two limits: a request limit that fires when no data
// arrives for that long, and a resource limit for the whole load. They map onto curl as follows:
//   `timeout` (8 s)                  -> CURLOPT_CONNECTTIMEOUT_MS, and a limit on silence kept by
//                                       fetchAll itself: each transfer notes when it last heard
//                                       from its server (a connection made, a header line, a body
//                                       byte; Transfer::heard), and one that stays silent for
//                                       `timeout` at any point, also in the middle of a body, is
//                                       given up. curl's own low-speed check cannot do this: it
//                                       averages over several whole seconds, so a body that stalls
//                                       after its first bytes would run on some six seconds more;
//   `session.resourceTimeout` (12 s) -> CURLOPT_TIMEOUT_MS: the whole transfer, redirects included.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <deque>
#include <memory>
#include <mutex>

#include <curl/curl.h>

#include <kestrova/page_fetcher.h>
#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

#include "page_decoding.h"

namespace kestrova {
namespace {

void initCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

struct CurlUrlDeleter {
  void operator()(CURLU* u) const { curl_url_cleanup(u); }
};
struct CurlStringDeleter {
  void operator()(char* s) const { curl_free(s); }
};
using CurlString = std::unique_ptr<char, CurlStringDeleter>;

// The address as curl will request it, when it is an http or https URL with a host; else nothing.
std::optional<std::string> requestURL(const std::string& address) {
  std::unique_ptr<CURLU, CurlUrlDeleter> url(curl_url());
  if (!url || address.find('\0') != std::string::npos ||
      curl_url_set(url.get(), CURLUPART_URL, address.c_str(), CURLU_NON_SUPPORT_SCHEME) !=
          CURLUE_OK) {
    return std::nullopt;
  }
  char* raw = nullptr;
  if (curl_url_get(url.get(), CURLUPART_SCHEME, &raw, 0) != CURLUE_OK) {
    return std::nullopt;
  }
  std::string scheme = unicode::toLower(CurlString(raw).get());
  if (scheme != "http" && scheme != "https") {
    return std::nullopt;
  }
  raw = nullptr;
  if (curl_url_get(url.get(), CURLUPART_HOST, &raw, 0) != CURLUE_OK) {
    return std::nullopt;
  }
  CurlString host(raw);
  raw = nullptr;
  if (curl_url_get(url.get(), CURLUPART_URL, &raw, 0) != CURLUE_OK) {
    return std::nullopt;
  }
  return std::string(CurlString(raw).get());
}

using Clock = std::chrono::steady_clock;

// One page in flight.
struct Transfer {
  std::string address;
  CURL* easy = nullptr;
  curl_slist* headers = nullptr;
  std::string body;
  Clock::duration idle{};   // the longest silence allowed
  Clock::time_point heard;  // the last sign of life from the server, or the start
  curl_off_t received = 0;  // body bytes at the last progress call, to notice new ones
  std::size_t maxBody = 0;
  bool cutOff = false;    // the body reached maxBody and the rest was not read
  bool rejected = false;  // status or content type made the body worthless; not read
  bool checked = false;

  ~Transfer() {
    if (easy != nullptr) {
      curl_easy_cleanup(easy);
    }
    curl_slist_free_all(headers);
  }
};

std::string lowerContentType(CURL* easy) {
  char* type = nullptr;
  if (curl_easy_getinfo(easy, CURLINFO_CONTENT_TYPE, &type) != CURLE_OK || type == nullptr) {
    return {};
  }
  return unicode::toLower(type);
}

long responseCode(CURL* easy) {
  long code = 0;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &code);
  return code;
}

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user) {
  auto* t = static_cast<Transfer*>(user);
  std::size_t bytes = size * count;
  if (!t->checked) {
    // The first bytes of the final response: its status and type are known by now, and a body
    // that will not be read (a PDF, an error page) is not downloaded at all.
    t->checked = true;
    if (!page::isReadableStatus(responseCode(t->easy)) ||
        !page::isReadableContentType(lowerContentType(t->easy))) {
      t->rejected = true;
      return 0;
    }
  }
  std::size_t room = t->maxBody - std::min(t->maxBody, t->body.size());
  if (bytes > room) {
    t->body.append(data, room);
    t->cutOff = true;
    return 0;  // stops the transfer; what arrived is read as the page
  }
  t->body.append(data, bytes);
  return bytes;
}

// Notes body bytes as they come off the wire, before decompression: a compressed body may give
// onBody nothing for a while although bytes keep arriving.
int onProgress(void* user, curl_off_t, curl_off_t received, curl_off_t, curl_off_t) {
  auto* t = static_cast<Transfer*>(user);
  // The count starts again at zero with each request of a redirect chain, so any change is news.
  if (received != t->received) {
    t->received = received;
    t->heard = Clock::now();
  }
  return 0;
}

// Header lines are not counted by onProgress; a server sending them is not silent.
std::size_t onHeader(char*, std::size_t size, std::size_t count, void* user) {
  static_cast<Transfer*>(user)->heard = Clock::now();
  return size * count;
}

// A connection made or reused, right before each request: the wait for the answer starts here,
// not at the start of a connect that took most of its own limit.
int onConnected(void* user, char*, char*, int, int) {
  static_cast<Transfer*>(user)->heard = Clock::now();
  return CURL_PREREQFUNC_OK;
}

class Fetch {
 public:
  explicit Fetch(const PageFetcher& fetcher) : f_(fetcher) {}

  std::string textOf(Transfer& t, CURLcode result) const {
    if (t.rejected) {
      return {};
    }
    if (result != CURLE_OK && !(result == CURLE_WRITE_ERROR && t.cutOff)) {
      return {};
    }
    if (!page::isReadableStatus(responseCode(t.easy))) {
      return {};
    }
    std::string type = lowerContentType(t.easy);
    if (!page::isReadableContentType(type)) {
      return {};
    }
    std::string html = page::decodeBody(t.body, type, t.cutOff);
    std::int64_t limit = std::max<std::int64_t>(0, f_.limit);
    return TextTools::readableText(html, limit).text;
  }

  // A transfer ready to be added to the multi handle, or nullptr when the address is not one to
  // request (then its text is "").
  std::unique_ptr<Transfer> prepare(const std::string& address) const {
    std::optional<std::string> url = requestURL(address);
    if (!url) {
      return nullptr;
    }
    auto t = std::make_unique<Transfer>();
    t->address = address;
    t->maxBody = f_.session.maxBodyBytes;
    t->easy = curl_easy_init();
    if (t->easy == nullptr) {
      return nullptr;
    }
    double idle = f_.timeout > 0 && std::isfinite(f_.timeout) ? f_.timeout : 8.0;
    double total = f_.session.resourceTimeout > 0 && std::isfinite(f_.session.resourceTimeout)
                       ? f_.session.resourceTimeout
                       : 12.0;
    idle = std::min(idle, 1e6);
    total = std::min(total, 1e6);
    t->idle = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(idle));
    std::string language = "Accept-Language: " + std::string(PageFetcher::acceptLanguage);
    t->headers = curl_slist_append(nullptr, language.c_str());
    CURL* e = t->easy;
    std::string agent(PageFetcher::userAgent);
    bool ok = curl_easy_setopt(e, CURLOPT_URL, url->c_str()) == CURLE_OK &&
              curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https") == CURLE_OK &&
              curl_easy_setopt(e, CURLOPT_REDIR_PROTOCOLS_STR, "http,https") == CURLE_OK &&
              curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 1L) == CURLE_OK &&
              curl_easy_setopt(e, CURLOPT_MAXREDIRS, f_.session.maxRedirects) == CURLE_OK &&
              curl_easy_setopt(e, CURLOPT_AUTOREFERER, 1L) == CURLE_OK &&
              curl_easy_setopt(e, CURLOPT_ACCEPT_ENCODING, "") == CURLE_OK &&
              curl_easy_setopt(e, CURLOPT_USERAGENT, agent.c_str()) == CURLE_OK &&
              curl_easy_setopt(e, CURLOPT_HTTPHEADER, t->headers) == CURLE_OK &&
              // Cookies live only for this page's redirect chain and are dropped with the handle.
              curl_easy_setopt(e, CURLOPT_COOKIEFILE, "") == CURLE_OK &&
              curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L) == CURLE_OK &&
              curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS,
                               static_cast<long>(std::ceil(idle * 1000))) == CURLE_OK &&
              curl_easy_setopt(e, CURLOPT_NOPROGRESS, 0L) == CURLE_OK &&
              curl_easy_setopt(e, CURLOPT_XFERINFOFUNCTION, &onProgress) == CURLE_OK &&
              curl_easy_setopt(e, CURLOPT_XFERINFODATA, t.get()) == CURLE_OK &&
              curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, &onHeader) == CURLE_OK &&
              curl_easy_setopt(e, CURLOPT_HEADERDATA, t.get()) == CURLE_OK &&
              curl_easy_setopt(e, CURLOPT_PREREQFUNCTION, &onConnected) == CURLE_OK &&
              curl_easy_setopt(e, CURLOPT_PREREQDATA, t.get()) == CURLE_OK &&
              curl_easy_setopt(e, CURLOPT_TIMEOUT_MS, static_cast<long>(std::ceil(total * 1000))) ==
                  CURLE_OK &&
              curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &onBody) == CURLE_OK &&
              curl_easy_setopt(e, CURLOPT_WRITEDATA, t.get()) == CURLE_OK &&
              curl_easy_setopt(e, CURLOPT_PRIVATE, t.get()) == CURLE_OK;
    return ok ? std::move(t) : nullptr;
  }

 private:
  const PageFetcher& f_;
};

struct MultiDeleter {
  void operator()(CURLM* m) const { curl_multi_cleanup(m); }
};

}  // namespace

std::map<std::string, std::string> PageFetcher::fetchAll(const std::vector<std::string>& urls,
                                                         const Progress& progress,
                                                         std::stop_token stop) const {
  std::map<std::string, std::string> results;
  std::vector<std::string> addresses = urls;
  std::sort(addresses.begin(), addresses.end());
  addresses.erase(std::unique(addresses.begin(), addresses.end()), addresses.end());
  const auto total = static_cast<std::int64_t>(addresses.size());
  const std::size_t slots = static_cast<std::size_t>(std::max<std::int64_t>(0, maxConcurrent));
  if (addresses.empty() || slots == 0) {
    return results;
  }
  initCurlOnce();
  std::unique_ptr<CURLM, MultiDeleter> multi(curl_multi_init());
  Fetch fetch(*this);
  // Woken from another thread when a stop is requested, so a long poll ends at once.
  std::stop_callback wake(stop, [m = multi.get()] {
    if (m != nullptr) {
      curl_multi_wakeup(m);
    }
  });

  std::map<CURL*, std::unique_ptr<Transfer>> running;
  std::deque<std::string> finishedEarly;  // addresses that needed no request
  std::size_t next = 0;
  std::int64_t done = 0;

  auto startNext = [&] {
    const std::string& address = addresses[next++];
    std::unique_ptr<Transfer> t = multi ? fetch.prepare(address) : nullptr;
    if (t) {
      t->heard = Clock::now();  // the connect counts as silence too; it has the same limit
    }
    if (t && curl_multi_add_handle(multi.get(), t->easy) == CURLM_OK) {
      CURL* easy = t->easy;
      running.emplace(easy, std::move(t));
    } else {
      finishedEarly.push_back(address);
    }
  };
  auto finish = [&](const std::string& address, std::string text) {
    results[address] = std::move(text);
    ++done;
    if (progress) {
      progress(done, total);
    }
    if (!stop.stop_requested() && next < addresses.size()) {
      startNext();
    }
  };

  while (next < addresses.size() && running.size() + finishedEarly.size() < slots) {
    startNext();
  }
  while (!running.empty() || !finishedEarly.empty()) {
    while (!finishedEarly.empty()) {
      std::string address = std::move(finishedEarly.front());
      finishedEarly.pop_front();
      finish(address, {});
    }
    if (running.empty()) {
      continue;
    }
    int stillRunning = 0;
    curl_multi_perform(multi.get(), &stillRunning);
    int queued = 0;
    while (CURLMsg* msg = curl_multi_info_read(multi.get(), &queued)) {
      if (msg->msg != CURLMSG_DONE) {
        continue;
      }
      auto it = running.find(msg->easy_handle);
      if (it == running.end()) {
        continue;
      }
      CURLcode result = msg->data.result;
      std::unique_ptr<Transfer> t = std::move(it->second);
      running.erase(it);
      curl_multi_remove_handle(multi.get(), t->easy);
      std::string text = fetch.textOf(*t, result);
      std::string address = t->address;
      t.reset();
      finish(address, std::move(text));
    }
    // The limit on silence is checked here and not in onProgress: curl calls that only when it
    // works on the transfer, for a silent one about once a second, which is too coarse.
    Clock::time_point now = Clock::now();
    std::vector<CURL*> silent;
    for (const auto& [easy, t] : running) {
      if (now - t->heard >= t->idle) {
        silent.push_back(easy);
      }
    }
    for (CURL* easy : silent) {
      auto it = running.find(easy);
      std::string address = it->second->address;
      curl_multi_remove_handle(multi.get(), easy);
      running.erase(it);
      finish(address, {});
    }
    if (!running.empty() && finishedEarly.empty()) {
      // Wakes by the first moment a transfer may have been silent for too long, so it is given up
      // on time; curl shortens the wait further for its own timers.
      Clock::duration wait = std::chrono::seconds(1);
      for (const auto& [easy, t] : running) {
        wait = std::min(wait, t->heard + t->idle - now);
      }
      auto waitMs = std::chrono::ceil<std::chrono::milliseconds>(wait).count();
      curl_multi_poll(multi.get(), nullptr, 0,
                      static_cast<int>(std::max<decltype(waitMs)>(0, waitMs)), nullptr);
    }
  }
  return results;
}

std::string PageFetcher::fetchText(std::string_view url) const {
  PageFetcher single = *this;
  single.maxConcurrent = 1;
  std::string address(url);
  std::map<std::string, std::string> result = single.fetchAll({address});
  auto it = result.find(address);
  return it != result.end() ? it->second : std::string();
}

}  // namespace kestrova
