// The page fetcher against a real HTTP server on loopback, started by each test.

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>
#include <httplib.h>
#include <zlib.h>

#include <kestrova/page_fetcher.h>

namespace kestrova {
namespace {

// An HTTP server on 127.0.0.1 at a port the system picks. Routes are added before start().
class LoopbackServer {
 public:
  LoopbackServer() {
    server.new_task_queue = [] { return new httplib::ThreadPool(32); };
    // Recorded before the handler runs, so a finished fetch has always been counted.
    server.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response&) {
      std::lock_guard lock(mutex_);
      paths_.push_back(req.path);
      return httplib::Server::HandlerResponse::Unhandled;
    });
  }
  ~LoopbackServer() {
    release();
    server.stop();
    if (thread_.joinable()) {
      thread_.join();
    }
  }

  void start() {
    port_ = server.bind_to_any_port("127.0.0.1");
    ASSERT_GT(port_, 0);
    thread_ = std::thread([this] { server.listen_after_bind(); });
    // stop() only reaches a server that is already running.
    while (!server.is_running()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  std::string url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  int port() const { return port_; }

  // Paths of the requests received so far, in the order they arrived.
  std::vector<std::string> paths() {
    std::lock_guard lock(mutex_);
    return paths_;
  }

  // Blocks a handler until the test ends (or `limit` passes), for pages that never answer.
  void holdUntilReleased(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    released_.wait_for(lock, limit, [this] { return releasedFlag_; });
  }
  void release() {
    {
      std::lock_guard lock(mutex_);
      releasedFlag_ = true;
    }
    released_.notify_all();
  }

  httplib::Server server;

 private:
  int port_ = 0;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable released_;
  bool releasedFlag_ = false;
  std::vector<std::string> paths_;
};

std::string gzip(const std::string& data) {
  z_stream zs{};
  deflateInit2(&zs, Z_BEST_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
  zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  zs.avail_in = static_cast<uInt>(data.size());
  std::string out(deflateBound(&zs, zs.avail_in), '\0');
  zs.next_out = reinterpret_cast<Bytef*>(out.data());
  zs.avail_out = static_cast<uInt>(out.size());
  deflate(&zs, Z_FINISH);
  out.resize(zs.total_out);
  deflateEnd(&zs);
  return out;
}

const std::string kPage =
    "<html><head><title>Seite</title></head><body><p>Grüezi aus Zürich</p></body></html>";
// The title text stays part of a page without `article` or `main`.
const std::string kPageText = "Seite\nGrüezi aus Zürich";

TEST(PageFetcherText, ReadsHtmlAndSendsBrowserHeaders) {
  LoopbackServer s;
  std::string agent;
  std::string language;
  s.server.Get("/page", [&](const httplib::Request& req, httplib::Response& res) {
    agent = req.get_header_value("User-Agent");
    language = req.get_header_value("Accept-Language");
    res.set_content(kPage, "text/html; charset=utf-8");
  });
  s.start();
  PageFetcher fetcher;
  EXPECT_EQ(fetcher.fetchText(s.url("/page")), kPageText);
  EXPECT_EQ(agent,
            "Mozilla/5.0 (Macintosh; Intel Mac OS X 10_15_7) AppleWebKit/605.1.15 (KHTML, like "
            "Gecko) Version/26.0 Safari/605.1.15");
  EXPECT_EQ(language, "de-CH,de;q=0.9,en;q=0.8");
  // An upper-case scheme is still http.
  EXPECT_EQ(fetcher.fetchText("HTTP://127.0.0.1:" + std::to_string(s.port()) + "/page"), kPageText);
}

TEST(PageFetcherText, StatusDecidesWhetherThePageIsRead) {
  LoopbackServer s;
  s.server.Get("/399", [](const httplib::Request&, httplib::Response& res) {
    res.status = 399;
    res.set_content("<p>Noch lesbar</p>", "text/html");
  });
  s.server.Get("/404", [](const httplib::Request&, httplib::Response& res) {
    res.status = 404;
    res.set_content("<p>Nicht gefunden</p>", "text/html");
  });
  s.server.Get("/500", [](const httplib::Request&, httplib::Response& res) {
    res.status = 500;
    res.set_content("<p>Fehler</p>", "text/html");
  });
  s.start();
  PageFetcher fetcher;
  EXPECT_EQ(fetcher.fetchText(s.url("/399")), "Noch lesbar");
  EXPECT_EQ(fetcher.fetchText(s.url("/404")), "");
  EXPECT_EQ(fetcher.fetchText(s.url("/500")), "");
}

TEST(PageFetcherText, ContentTypeDecidesWhetherThePageIsRead) {
  LoopbackServer s;
  s.server.Get("/none", [](const httplib::Request&, httplib::Response& res) {
    res.body = "<p>Ohne Typ</p>";  // no Content-Type header at all
  });
  s.server.Get("/pdf", [](const httplib::Request&, httplib::Response& res) {
    res.set_content("%PDF-1.4 <p>Text</p>", "application/pdf");
  });
  s.server.Get("/xhtml", [](const httplib::Request&, httplib::Response& res) {
    res.set_content("<p>Strenges HTML</p>", "application/xhtml+xml");
  });
  s.server.Get("/plain", [](const httplib::Request&, httplib::Response& res) {
    res.set_content("Nur Text\nZweite Zeile", "TEXT/PLAIN");
  });
  s.server.Get("/json", [](const httplib::Request&, httplib::Response& res) {
    res.set_content("{\"a\": 1}", "application/json");
  });
  s.start();
  PageFetcher fetcher;
  EXPECT_EQ(fetcher.fetchText(s.url("/none")), "Ohne Typ");
  EXPECT_EQ(fetcher.fetchText(s.url("/pdf")), "");
  EXPECT_EQ(fetcher.fetchText(s.url("/xhtml")), "Strenges HTML");
  EXPECT_EQ(fetcher.fetchText(s.url("/plain")), "Nur Text\nZweite Zeile");
  EXPECT_EQ(fetcher.fetchText(s.url("/json")), "");
}

TEST(PageFetcherText, Latin1WithAndWithoutCharset) {
  LoopbackServer s;
  const std::string latin1 =
      "<p>Gr\xFC"
      "ezi Caf\xE9 \xC4rger</p>";
  s.server.Get("/labelled", [&](const httplib::Request&, httplib::Response& res) {
    res.set_content(latin1, "text/html; charset=ISO-8859-1");
  });
  s.server.Get("/unlabelled", [&](const httplib::Request&, httplib::Response& res) {
    res.set_content(latin1, "text/html");
  });
  s.server.Get("/cp1252", [&](const httplib::Request&, httplib::Response& res) {
    res.set_content(latin1, "text/html; charset=windows-1252");
  });
  s.start();
  PageFetcher fetcher;
  EXPECT_EQ(fetcher.fetchText(s.url("/labelled")), "Grüezi Café Ärger");
  EXPECT_EQ(fetcher.fetchText(s.url("/unlabelled")), "Grüezi Café Ärger");
  EXPECT_EQ(fetcher.fetchText(s.url("/cp1252")), "Grüezi Café Ärger");
}

TEST(PageFetcherText, FollowsRedirectsOverHttpOnly) {
  LoopbackServer s;
  s.server.Get("/a",
               [](const httplib::Request&, httplib::Response& res) { res.set_redirect("/b"); });
  s.server.Get(
      "/b", [](const httplib::Request&, httplib::Response& res) { res.set_redirect("/c", 301); });
  s.server.Get("/c", [](const httplib::Request&, httplib::Response& res) {
    res.set_content(kPage, "text/html");
  });
  s.server.Get("/to-file", [](const httplib::Request&, httplib::Response& res) {
    res.set_redirect("file:///etc/hostname");
  });
  s.server.Get("/loop",
               [](const httplib::Request&, httplib::Response& res) { res.set_redirect("/loop"); });
  s.start();
  PageFetcher fetcher;
  EXPECT_EQ(fetcher.fetchText(s.url("/a")), kPageText);
  EXPECT_EQ(fetcher.fetchText(s.url("/to-file")), "");
  EXPECT_EQ(fetcher.fetchText(s.url("/loop")), "");
}

TEST(PageFetcherText, DecodesCompressedBodies) {
  LoopbackServer s;
  s.server.Get("/gz", [](const httplib::Request&, httplib::Response& res) {
    // A type the server would not compress by itself, so the body is gzip exactly once.
    res.set_header("Content-Encoding", "gzip");
    res.set_content(gzip(kPage), "application/xhtml+xml");
  });
  s.start();
  PageFetcher fetcher;
  EXPECT_EQ(fetcher.fetchText(s.url("/gz")), kPageText);
}

TEST(PageFetcherText, OtherSchemesAndNonsenseMakeNoRequest) {
  LoopbackServer s;
  s.server.Get("/x", [](const httplib::Request&, httplib::Response& res) {
    res.set_content("<p>x</p>", "text/html");
  });
  s.start();
  PageFetcher fetcher;
  std::string port = std::to_string(s.port());
  for (std::string bad :
       {"ftp://127.0.0.1:" + port + "/x", std::string("file:///etc/hostname"), std::string(""),
        std::string("keine Adresse"), std::string("http://"),
        std::string("127.0.0.1:") + port + "/x", std::string("javascript:alert(1)"),
        std::string("http://127.0.0.1:") + port + "/x\n"}) {
    EXPECT_EQ(fetcher.fetchText(bad), "") << bad;
  }
  EXPECT_TRUE(s.paths().empty());
}

TEST(PageFetcherText, SilenceAsLongAsTheRequestLimitGivesThePageUp) {
  LoopbackServer s;
  s.server.Get("/silent", [&](const httplib::Request&, httplib::Response& res) {
    s.holdUntilReleased(std::chrono::seconds(10));
    res.set_content(kPage, "text/html");
  });
  // Headers and the first bytes of the body, then nothing more. Bodies of a declared length, as
  // the server's compressor would hold back the bytes of a chunked one.
  s.server.Get("/stall", [&](const httplib::Request&, httplib::Response& res) {
    res.set_content_provider(kPage.size(), "text/html",
                             [&](size_t offset, size_t, httplib::DataSink& sink) {
                               if (offset == 0) {
                                 return sink.write(kPage.data(), 40);
                               }
                               s.holdUntilReleased(std::chrono::seconds(10));
                               return false;
                             });
  });
  // The whole page in pieces, each after a pause well below the request limit.
  s.server.Get("/slow", [](const httplib::Request&, httplib::Response& res) {
    res.set_content_provider(
        kPage.size(), "text/html", [](size_t offset, size_t length, httplib::DataSink& sink) {
          std::this_thread::sleep_for(std::chrono::milliseconds(150));
          return sink.write(kPage.data() + offset, std::min<size_t>(16, length));
        });
  });
  s.start();
  PageFetcher fetcher;
  fetcher.timeout = 0.75;
  fetcher.session.resourceTimeout = 30;
  const std::pair<std::string, std::string> cases[] = {
      {"/silent", ""}, {"/stall", ""}, {"/slow", kPageText}};
  for (const auto& [path, expected] : cases) {
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(fetcher.fetchText(s.url(path)), expected) << path;
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(took).count(), 3250) << path;
  }
}

TEST(PageFetcherText, TricklingServerIsGivenUpAtTheResourceLimit) {
  LoopbackServer s;
  // A declared length far beyond what arrives in time; a chunked body would sit in the server's
  // compressor instead of trickling.
  s.server.Get("/trickle", [&](const httplib::Request&, httplib::Response& res) {
    res.set_content_provider(1u << 20, "text/html", [&](size_t, size_t, httplib::DataSink& sink) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      return sink.write("<p>a</p>", 8);
    });
  });
  s.start();
  PageFetcher fetcher;
  fetcher.timeout = 5;
  fetcher.session.resourceTimeout = 1;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(fetcher.fetchText(s.url("/trickle")), "");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
}

TEST(PageFetcherText, OversizedBodyIsCutAndStillRead) {
  LoopbackServer s;
  std::string body = "<p>";
  for (int i = 0; i < 2000; ++i) {
    body += "ä";
  }
  s.server.Get("/big", [&](const httplib::Request&, httplib::Response& res) {
    res.set_content(body, "application/xhtml+xml");
  });
  s.start();
  PageFetcher fetcher;
  fetcher.session.maxBodyBytes = 1000;  // cuts inside the two bytes of an "ä"
  std::string text = fetcher.fetchText(s.url("/big"));
  std::string expected;
  for (int i = 0; i < 498; ++i) {
    expected += "ä";
  }
  EXPECT_EQ(text, expected);
  fetcher.limit = 10;
  EXPECT_EQ(fetcher.fetchText(s.url("/big")), expected.substr(0, 20));
}

TEST(PageFetcherText, CookiesAreNotKeptBetweenPages) {
  LoopbackServer s;
  s.server.Get("/login", [](const httplib::Request&, httplib::Response& res) {
    res.set_header("Set-Cookie", "session=abc; Path=/");
    res.set_redirect("/echo");
  });
  s.server.Get("/echo", [](const httplib::Request& req, httplib::Response& res) {
    std::string cookie = req.get_header_value("Cookie");
    res.set_content("<p>Keks " + (cookie.empty() ? std::string("keiner") : cookie) + "</p>",
                    "text/html");
  });
  s.start();
  PageFetcher fetcher;
  // Within one page's redirects the cookie is sent back, as a browser would.
  EXPECT_EQ(fetcher.fetchText(s.url("/login")), "Keks session=abc");
  EXPECT_EQ(fetcher.fetchText(s.url("/echo")), "Keks keiner");
}

TEST(PageFetcherAll, EmptyAndDuplicateAddresses) {
  LoopbackServer s;
  s.server.Get("/p", [](const httplib::Request&, httplib::Response& res) {
    res.set_content(kPage, "text/html");
  });
  s.start();
  PageFetcher fetcher;
  int calls = 0;
  EXPECT_TRUE(fetcher.fetchAll({}, [&](std::int64_t, std::int64_t) { ++calls; }).empty());
  EXPECT_EQ(calls, 0);
  std::vector<std::pair<std::int64_t, std::int64_t>> seen;
  auto result = fetcher.fetchAll({s.url("/p"), s.url("/p"), s.url("/p")},
                                 [&](std::int64_t d, std::int64_t t) { seen.emplace_back(d, t); });
  EXPECT_EQ(result, (std::map<std::string, std::string>{{s.url("/p"), kPageText}}));
  EXPECT_EQ(seen, (std::vector<std::pair<std::int64_t, std::int64_t>>{{1, 1}}));
  EXPECT_EQ(s.paths().size(), 1u);
}

TEST(PageFetcherAll, BoundedParallelismAndSerialProgress) {
  LoopbackServer s;
  std::atomic<int> open{0};
  std::atomic<int> most{0};
  s.server.Get(R"(/n/(\d+))", [&](const httplib::Request& req, httplib::Response& res) {
    int now = ++open;
    int prev = most.load();
    while (now > prev && !most.compare_exchange_weak(prev, now)) {
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(80));
    res.set_content("<p>Seite " + req.matches[1].str() + "</p>", "text/html");
    --open;
  });
  s.start();
  std::vector<std::string> urls;
  for (int i = 0; i < 20; ++i) {
    urls.push_back(s.url("/n/" + std::to_string(i)));
  }
  urls.push_back("ftp://example.invalid/x");  // finishes at once, still counted
  PageFetcher fetcher;
  std::vector<std::int64_t> done;
  std::thread::id caller = std::this_thread::get_id();
  bool otherThread = false;
  auto result = fetcher.fetchAll(urls, [&](std::int64_t d, std::int64_t total) {
    EXPECT_EQ(total, 21);
    otherThread |= std::this_thread::get_id() != caller;
    done.push_back(d);
  });
  EXPECT_LE(most.load(), 6);
  EXPECT_GE(most.load(), 2);
  EXPECT_FALSE(otherThread);
  ASSERT_EQ(done.size(), 21u);
  for (std::size_t i = 0; i < done.size(); ++i) {
    EXPECT_EQ(done[i], static_cast<std::int64_t>(i + 1));
  }
  ASSERT_EQ(result.size(), 21u);
  EXPECT_EQ(result[s.url("/n/7")], "Seite 7");
  EXPECT_EQ(result["ftp://example.invalid/x"], "");
}

TEST(PageFetcherAll, StartsRequestsInSortedOrder) {
  LoopbackServer s;
  s.server.Get(R"(/o/(\w+))", [](const httplib::Request&, httplib::Response& res) {
    res.set_content("<p>ok</p>", "text/html");
  });
  s.start();
  PageFetcher fetcher;
  fetcher.maxConcurrent = 1;
  fetcher.fetchAll({s.url("/o/c"), s.url("/o/a"), s.url("/o/b")});
  EXPECT_EQ(s.paths(), (std::vector<std::string>{"/o/a", "/o/b", "/o/c"}));
  fetcher.maxConcurrent = -3;  // nothing may start
  EXPECT_TRUE(fetcher.fetchAll({s.url("/o/d")}).empty());
  EXPECT_EQ(s.paths().size(), 3u);
}

TEST(PageFetcherAll, StopStartsNothingNewButKeepsRunningPages) {
  LoopbackServer s;
  s.server.Get(R"(/s/(\d+))", [](const httplib::Request&, httplib::Response& res) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    res.set_content("<p>ok</p>", "text/html");
  });
  s.start();
  std::vector<std::string> urls;
  for (int i = 0; i < 10; ++i) {
    urls.push_back(s.url("/s/" + std::to_string(i)));
  }
  PageFetcher fetcher;
  fetcher.maxConcurrent = 2;
  std::stop_source stop;
  auto result = fetcher.fetchAll(
      urls, [&](std::int64_t, std::int64_t) { stop.request_stop(); }, stop.get_token());
  EXPECT_EQ(result.size(), 2u);
  for (const auto& [url, text] : result) {
    EXPECT_EQ(text, "ok") << url;
  }
  EXPECT_EQ(s.paths().size(), 2u);
}

TEST(PageFetcherAll, StopFromAnotherThreadEndsPromptly) {
  LoopbackServer s;
  s.server.Get(R"(/w/(\d+))", [](const httplib::Request&, httplib::Response& res) {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    res.set_content("<p>ok</p>", "text/html");
  });
  s.start();
  std::vector<std::string> urls;
  for (int i = 0; i < 30; ++i) {
    urls.push_back(s.url("/w/" + std::to_string(i)));
  }
  std::stop_source stop;
  std::thread stopper([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    stop.request_stop();
  });
  auto start = std::chrono::steady_clock::now();
  auto result = PageFetcher{}.fetchAll(urls, nullptr, stop.get_token());
  stopper.join();
  EXPECT_EQ(result.size(), 6u);  // the first six were running and finished
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

}  // namespace
}  // namespace kestrova
