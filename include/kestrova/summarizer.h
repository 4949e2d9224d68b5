// Summarizer: turns one fetched web page (title and plain text) into a one-sentence German summary
// and at most three short tags. It asks the language model when the model may be used, and
// otherwise, or when the model gives no usable answer in time, derives both from the text with the
// keyword tools. The caller always gets a result; byAI tells which path produced it.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include <kestrova/env.h>

namespace kestrova {

struct SummaryResult {
  std::string summary;
  std::vector<std::string> tags;
  bool byAI = false;  // true only when the language model produced this result

  friend bool operator==(const SummaryResult&, const SummaryResult&) = default;
};

// A plain value without state of its own; copies may be used from any number of threads at once.
// Model requests are serialised process-wide through AIEngine::gate().
class Summarizer {
 public:
  // The time a model request may take once the gate is held.
  static constexpr double defaultTimeLimitSeconds = 40;

  // Asks env's language model; `env` must outlive the summarizer.
  explicit Summarizer(double timeLimitSeconds = defaultTimeLimitSeconds, Env& env = Env::real())
      : timeLimitSeconds_(timeLimitSeconds), env_(&env) {}

  // Never fails. Asks the model when AIStatus::isAvailable(env) and the page has a title or a text;
  // a model that is off, unavailable, late, failing or answers with an empty summary leads
  // silently to fallback(). A stop request through `stop` abandons the model request (the
  // fallback is still returned).
  SummaryResult summarize(std::string_view title, std::string_view text,
                          std::stop_token stop = {}) const;

  // The keyword path, pure and deterministic: the first usable sentence of the text (at most 160
  // characters), else the title (truncated to 160), else "Ohne Inhalt gespeichert."; and up to two
  // keywords of at least four characters, the title's words counting twice.
  static SummaryResult fallback(std::string_view title, std::string_view text);

  // The prompt the model gets for a page: its title and at most the first 2,500 characters of its
  // text.
  static std::string prompt(std::string_view title, std::string_view text);

  // The model path alone: no value when the model gives no usable answer in time. Does not check
  // availability itself; the sleep pipeline, which has its own keyword path, calls it directly.
  std::optional<SummaryResult> summarizeWithModel(std::string_view title, std::string_view text,
                                                  std::stop_token stop = {}) const;

 private:
  double timeLimitSeconds_;
  Env* env_;
};

}  // namespace kestrova

template <>
struct std::hash<kestrova::SummaryResult> {
  std::size_t operator()(const kestrova::SummaryResult& result) const noexcept {
    std::size_t seed = std::hash<std::string>()(result.summary);
    for (const std::string& tag : result.tags) {
      seed = seed * 31 + std::hash<std::string>()(tag);
    }
    return seed * 2 + (result.byAI ? 1 : 0);
  }
};
