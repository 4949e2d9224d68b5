// The page fetcher against a real HTTP server on loopback, and the decoding of page bodies.
#include <atomic>
#include <future>
#include <mutex>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>
#include <httplib.h>

#include <kestrova/page_fetcher.h>

#include "page_decoding.h"

namespace kestrova {
namespace {

using namespace std::chrono_literals;
using Texts = std::map<std::string, std::string>;

// Latin-1 when labelled so, else UTF-8 when valid, else Latin-1; a cut body loses its broken end.
TEST(PageDecoding, TakesLabelledLatin1ElseUtf8ElseLatin1) {
  const std::tuple<std::string_view, std::string_view, bool, std::string_view> cases[] = {
      {"\xC3\xA4", "text/html; charset=iso-8859-1", false, "Ã¤"},
      {"\xC3\xA4", "text/html;charset=latin1", false, "Ã¤"},
      {"\xC3\xA4\xC2\x80", "text/html; charset=windows-1252", false, "Ã¤Â\xC2\x80"},
      {"\xEF\xBB\xBFHallo", "text/html", false, "Hallo"},
      {"Gr\xC3\xBC\xC3", "text/html", true, "Grü"},
      {"Gr\xC3\xBC\xC3", "text/html", false, "GrÃ¼Ã"},
      {"a\xF0\x9F\x98", "text/html", true, "a"},
      {"a\xF0\x9F\x98\x80", "text/html", true, "a😀"},
      {"\xFC\xC3", "text/html", true, "üÃ"}};  // broken before its end: still Latin-1
  for (const auto& [body, type, cutOff, text] : cases)
    EXPECT_EQ(page::decodeBody(body, type, cutOff), text) << body << " " << type;
}

const std::string kPage = "<html><title>Seite</title><body><p>Grüezi aus Zürich</p></body></html>";

std::string times(const std::string& piece, int n) {
  return n > 0 ? piece + times(piece, n - 1) : std::string();
}

// One server with every page the tests ask for; it notes the paths requested.
struct PageFetcherTest : ::testing::Test {
  PageFetcherTest() {
    server_.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response&) {
      std::lock_guard lock(mutex_);
      paths_.push_back(req.path);
      return httplib::Server::HandlerResponse::Unhandled;
    });
    // Status and type as the query asks; without "type" there is no Content-Type at all.
    server_.Get("/r", [](const httplib::Request& req, httplib::Response& res) {
      res.status = req.has_param("status") ? std::stoi(req.get_param_value("status")) : 200;
      res.body = req.has_param("latin1") ? "<p>Gr\xFCsse Caf\xE9 \xC4rger</p>" : "<p>Inhalt</p>";
      res.body = req.has_param("big") ? "<p>" + times("ä", 2000) : res.body;
      res.body += "<p>" + req.get_header_value("Cookie");
      if (req.has_param("headers"))
        res.body += "<p>" + req.get_header_value("User-Agent") + "<p>" +
                    req.get_header_value("Accept-Language");
      if (req.has_param("type"))
        res.set_header("Content-Type", req.get_param_value("type"));
    });
    server_.Get("/go", [](const httplib::Request& req, httplib::Response& res) {
      res.set_header("Set-Cookie", "session=abc; Path=/");
      res.set_redirect(req.get_param_value("to"));
    });
    // Pieces after 150 ms each, of a declared length (chunked ones wait for the compressor).
    server_.Get("/pieces", [this](const httplib::Request& req, httplib::Response& res) {
      const std::string mode = req.get_param_value("mode");
      const std::string body = mode == "trickle" ? std::string(3 << 20, ' ') : kPage;
      res.set_content_provider(
          body.size(), "text/html",
          [this, mode, body](size_t offset, size_t length, httplib::DataSink& sink) {
            if (mode == "stall" && offset > 0)
              return released_.wait_for(10s), false;
            std::this_thread::sleep_for(150ms);
            return sink.write(body.data() + offset, std::min<size_t>(16, length));
          });
    });
    server_.Get(R"(/n/(\d+))", [this](const httplib::Request& req, httplib::Response& res) {
      const int now = ++open_;
      for (int most = most_; now > most && !most_.compare_exchange_weak(most, now);) {
      }
      std::this_thread::sleep_for(80ms);
      res.set_content("<p>Seite " + req.matches[1].str(), "text/html");
      --open_;
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running())  // stop() only reaches a running server
      std::this_thread::sleep_for(1ms);
  }
  ~PageFetcherTest() override { release_.set_value(), server_.stop(), thread_.join(); }

  std::string url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  std::vector<std::string> paths() { return std::lock_guard(mutex_), paths_; }

  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
  std::mutex mutex_;
  std::promise<void> release_;  // ends the pages that never answer
  std::shared_future<void> released_ = release_.get_future().share();
  std::vector<std::string> paths_;
  std::atomic<int> open_{0}, most_{0};
};

TEST_F(PageFetcherTest, ReadsPagesAsADesktopBrowserWouldAndOtherSchemesNotAtAll) {
  for (const std::string& bad :
       {"ftp" + url("/r").substr(4), std::string("file:///etc/hostname"),
        std::string("keine Adresse"), std::string("http://"), url("/r").substr(7), url("/r\n")})
    EXPECT_EQ(PageFetcher{}.fetchText(bad), "") << bad;
  EXPECT_EQ(paths(), std::vector<std::string>{});
  PageFetcher fetcher;
  fetcher.session.maxBodyBytes = 1000;  // "<p>", 498 "ä" and half of one
  fetcher.session.maxRedirects = 1;
  const std::pair<std::string, std::string> cases[] = {
      // A cookie lives only as long as the redirects of its page.
      {url("/go?to=/r"), "Inhalt\nsession=abc"},
      {url("/r?type=text/html"), "Inhalt"},
      // Sites send their normal pages to what looks like the desktop browser.
      {url("/r?headers"),
       "Inhalt\nMozilla/5.0 (Macintosh; Intel Mac OS X 10_15_7) AppleWebKit/605.1.15 (KHTML, like "
       "Gecko) Version/26.0 Safari/605.1.15\nde-CH,de;q=0.9,en;q=0.8"},
      {"HTTP://127.0.0.1:" + std::to_string(port_) + "/r", "Inhalt"},
      {url("/r?status=399&type=text/html"), "Inhalt"},
      {url("/r?status=400&type=text/html"), ""},
      {url("/r?type=application/xhtml%2Bxml"), "Inhalt"},
      {url("/r?type=TEXT/PLAIN"), "Inhalt"},
      {url("/r?type=application/pdf"), ""},
      {url("/r?latin1&type=text/html%3B%20charset%3DISO-8859-1"), "Grüsse Café Ärger"},
      {url("/r?latin1&type=text/html"), "Grüsse Café Ärger"},
      {url("/r?big&type=text/html"), times("ä", 498)},
      {url("/go?to=file:///etc/hostname"), ""},
      {url("/go?to=/go%3Fto%3D/r"), ""}};
  for (const auto& [address, text] : cases)
    EXPECT_EQ(fetcher.fetchText(address), text) << address;
  fetcher.limit = 10;
  EXPECT_EQ(fetcher.fetchText(url("/r?big&type=text/html")), times("ä", 10));
}

// Silence for the request limit, also mid-body, or trickling past the whole load's limit ends it.
TEST_F(PageFetcherTest, SilenceAndTricklingAreCutAtTheirLimits) {
  PageFetcher fetcher;
  fetcher.timeout = 0.5;
  fetcher.session.resourceTimeout = 3;
  const std::tuple<std::string, std::string, std::chrono::milliseconds> cases[] = {
      {"/pieces?mode=stall", "", 2500ms},
      {"/pieces", "Seite\nGrüezi aus Zürich", 2500ms},
      {"/pieces?mode=trickle", "", 6000ms}};
  for (const auto& [path, text, ceiling] : cases) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(fetcher.fetchText(url(path)), text) << path;
    EXPECT_LT(std::chrono::steady_clock::now() - start, ceiling) << path;
  }
}

TEST_F(PageFetcherTest, FetchAllStartsEachAddressOnceInOrderAndReportsOnThisThread) {
  PageFetcher fetcher;
  fetcher.maxConcurrent = 1;
  std::vector<std::int64_t> done;
  const auto progress = [&, caller = std::this_thread::get_id()](std::int64_t d, std::int64_t n) {
    EXPECT_EQ(std::this_thread::get_id(), caller);
    EXPECT_EQ(n, 4);
    done.push_back(d);
  };
  EXPECT_EQ(fetcher.fetchAll({url("/n/3"), url("/n/1"), "ftp:", url("/n/2"), url("/n/3")}, progress)
                .size(),
            4u);
  EXPECT_EQ(fetcher.fetchAll({}, progress), Texts{});
  fetcher.maxConcurrent = -1;
  EXPECT_EQ(fetcher.fetchAll({url("/n/4")}, progress), Texts{});
  EXPECT_EQ(done, (std::vector<std::int64_t>{1, 2, 3, 4}));
  EXPECT_EQ(paths(), (std::vector<std::string>{"/n/1", "/n/2", "/n/3"}));
}

// Six at first, one more after each of the first nine that finish: fifteen started, all kept.
TEST_F(PageFetcherTest, FetchAllKeepsAtMostMaxConcurrentInFlightAndStopsStartingWhenAsked) {
  std::vector<std::string> urls;
  for (int i = 10; i < 30; ++i)
    urls.push_back(url("/n/" + std::to_string(i)));
  std::stop_source stop;
  const auto stopAfterTen = [&](std::int64_t done, std::int64_t) {
    if (done == 10)
      stop.request_stop();
  };
  const Texts texts = PageFetcher{}.fetchAll(urls, stopAfterTen, stop.get_token());
  EXPECT_EQ(texts.size(), 15u);
  EXPECT_EQ(texts.at(url("/n/24")), "Seite 24");
  EXPECT_LE(most_.load(), 6);
}

}  // namespace
}  // namespace kestrova
