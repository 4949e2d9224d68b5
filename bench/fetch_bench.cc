// fetchAll of 60 pages from a loopback server that answers each page after 200 ms, with six
// requests in flight: the ideal wall time is 60 / 6 x 200 ms = 2 s. Prints the measured median of
// three runs against the ideal; the target is within 1.3x.

#include <chrono>
#include <cstdio>
#include <thread>

#include <httplib.h>

#include <kestrova/page_fetcher.h>

#include "bench_timer.h"

namespace {
constexpr int kPages = 60;
constexpr int kDelayMs = 200;
}  // namespace

int main() {
  httplib::Server server;
  server.new_task_queue = [] { return new httplib::ThreadPool(16); };
  // Without this the server waits for delayed ACKs between header and body writes (Nagle),
  // which would add some 40 ms per page that no real site adds.
  server.set_tcp_nodelay(true);
  server.Get(R"(/page/(\d+))", [](const httplib::Request& req, httplib::Response& res) {
    std::this_thread::sleep_for(std::chrono::milliseconds(kDelayMs));
    std::string body =
        "<html><head><title>Seite " + req.matches[1].str() + "</title></head><body><article>";
    for (int i = 0; i < 40; ++i) {
      body += "<p>Ein Absatz mit etwas Text über Zürich, Bern und Basel, Nummer " +
              std::to_string(i) + ".</p>";
    }
    body += "</article></body></html>";
    res.set_content(body, "text/html; charset=utf-8");
  });
  int port = server.bind_to_any_port("127.0.0.1");
  if (port <= 0) {
    std::fprintf(stderr, "no loopback port\n");
    return 1;
  }
  std::thread listener([&] { server.listen_after_bind(); });
  while (!server.is_running()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }

  std::vector<std::string> urls;
  for (int i = 0; i < kPages; ++i) {
    urls.push_back("http://127.0.0.1:" + std::to_string(port) + "/page/" + std::to_string(i));
  }
  kestrova::PageFetcher fetcher;
  std::size_t pagesWithText = 0;
  double ms = kestrova::bench::medianMs(3, [&] {
    auto texts = fetcher.fetchAll(urls);
    pagesWithText = 0;
    for (const auto& [url, text] : texts) {
      pagesWithText += text.empty() ? 0 : 1;
    }
  });
  server.stop();
  listener.join();

  double ideal =
      static_cast<double>(kPages) / static_cast<double>(fetcher.maxConcurrent) * kDelayMs;
  std::printf("fetchAll: %d pages, %lld in flight, %d ms each\n", kPages,
              static_cast<long long>(fetcher.maxConcurrent), kDelayMs);
  std::printf("  pages with text : %zu\n", pagesWithText);
  std::printf("  median wall time: %.0f ms (ideal %.0f ms)\n", ms, ideal);
  std::printf("  ratio           : %.3fx (target <= 1.3x)\n", ms / ideal);
  const bool complete = pagesWithText == static_cast<std::size_t>(kPages);
  kestrova::bench::report(
      {"fetchAll (loopback, 200 ms each)", "60 pages", kestrova::bench::format("%.0f ms", ms),
       kestrova::bench::format("%.0f ms ideal", ideal), kestrova::bench::ratioText(ms, ideal),
       "<= 1.3x", kestrova::bench::metText(complete && ms <= 1.3 * ideal)});
  return complete ? 0 : 1;
}
