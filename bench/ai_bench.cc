// ai_bench: what the language-model layer itself costs, next to what it wraps.
//   time limit: one withTimeout call (a worker thread per request) against calling the work
//   directly; gate: an uncontended acquire/release, and hand-overs between four threads; request:
//   AIEngine::respond with a model that answers at once (gate + limit + copying); summary fallback:
//   pages of growing size (the keyword text is capped at 3,000 characters); chat: a keyword answer
//   on generated libraries against the search it runs (its floor).
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <kestrova/ai.h>
#include <kestrova/chat.h>
#include <kestrova/embedder.h>
#include <kestrova/guided_types.h>
#include <kestrova/search_index.h>
#include <kestrova/summarizer.h>

#include "bench_timer.h"
#include "library_generator.h"

namespace {

using namespace kestrova;

// Answers every request at once with the same small record.
class InstantModel : public LanguageModel {
 public:
  ModelAvailability availability() const override { return ModelAvailability::available; }
  std::optional<Json> respond(const ModelRequest&, std::stop_token) override {
    return Json{{"name", "Reisen"}};
  }
};

// The real system with the instant model.
class InstantEnv : public EnvWrapper {
 public:
  InstantEnv() : EnvWrapper(Env::real()) {}
  std::shared_ptr<LanguageModel> languageModel() override { return model_; }

 private:
  std::shared_ptr<LanguageModel> model_ = std::make_shared<InstantModel>();
};

void timeLimit() {
  constexpr int kCalls = 2000;
  std::atomic<int> sink = 0;
  const double direct = bench::medianMs(5, [&] {
    for (int i = 0; i < kCalls; ++i) {
      sink += i;
    }
  });
  const double limited = bench::medianMs(5, [&] {
    for (int i = 0; i < kCalls; ++i) {
      sink += *withTimeout<int>(40, [i](std::stop_token) { return i; });
    }
  });
  std::printf("time limit        %8.2f us per call (direct %6.3f us)\n", limited * 1000 / kCalls,
              direct * 1000 / kCalls);
}

void gate() {
  constexpr int kRounds = 200000;
  SerialGate serial;
  const double uncontended = bench::medianMs(5, [&] {
    for (int i = 0; i < kRounds; ++i) {
      serial.acquire();
      serial.release();
    }
  });
  constexpr int kThreads = 4;
  constexpr int kPerThread = 5000;
  const double contended = bench::medianMs(3, [&] {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&] {
        for (int i = 0; i < kPerThread; ++i) {
          serial.run([] {});
        }
      });
    }
    for (auto& thread : threads) {
      thread.join();
    }
  });
  std::printf("gate              %8.3f us uncontended, %6.2f us per pass with 4 threads\n",
              uncontended * 1000 / kRounds, contended * 1000 / (kThreads * kPerThread));
}

void request() {
  InstantEnv env;
  constexpr int kCalls = 2000;
  const double ms = bench::medianMs(5, [&] {
    for (int i = 0; i < kCalls; ++i) {
      if (!AIEngine::respond("Wie heisst das Thema?", TopicName::guidedType(), 30, {}, env)) {
        std::abort();
      }
    }
  });
  std::printf("model request     %8.2f us per request with an instant model\n", ms * 1000 / kCalls);
}

void summaryFallback() {
  const std::string sentence =
      "Die Gemeinde plant eine neue Velobrücke über die Aare, die bis 2028 fertig sein soll. ";
  for (std::size_t size : {2000u, 20000u, 200000u, 2000000u}) {
    std::string page;
    while (page.size() < size) {
      page += sentence;
    }
    const double ms =
        bench::medianMs(7, [&] { (void)Summarizer::fallback("Velobrücke über die Aare", page); });
    std::printf("summary fallback  %8.3f ms for a page of %7zu bytes\n", ms, page.size());
  }
}

void chat() {
  AIStatus::setForceOff(true);
  auto embedder = std::make_shared<Embedder>(false);
  const Chat library(embedder);
  const SearchIndex index(embedder);
  for (std::size_t tabs : {1000u, 10000u}) {
    const LibraryData data = bench::generateLibrary(tabs);
    const std::string question = "Welche Tabs habe ich zu Rezepten mit Kartoffeln gespeichert?";
    const int runs = tabs >= 10000 ? 5 : 11;
    const double floor = bench::medianMs(runs, [&] { (void)index.search(question, data, 8); });
    const double answer = bench::medianMs(runs, [&] { (void)library.answer(question, data); });
    std::printf("chat keyword      %8.2f ms on %5zu tabs, search floor %8.2f ms, ratio %4.2fx\n",
                answer, tabs, floor, answer / floor);
  }
}

}  // namespace

int main() {
  timeLimit();
  gate();
  request();
  summaryFallback();
  chat();
  return 0;
}
