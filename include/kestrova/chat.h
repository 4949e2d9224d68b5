// Chat: answers a free-text question about the saved tabs. It searches the library, and when the
// language model may be used it shows the model the best hits as a numbered list and lets it pick
// up to three, each with a one-sentence reason. Without the model, or when the model gives no
// usable answer, it shows the best three hits with their summaries as reasons. Every answer is a
// German lead sentence plus up to three cards.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include <kestrova/embedder.h>
#include <kestrova/env.h>
#include <kestrova/models.h>
#include <kestrova/search_index.h>

namespace kestrova {

// One tab of an answer and why it fits. Identified by its tab's id.
struct ChatCard {
  SavedTab tab;
  std::string reason;

  const Uuid& id() const { return tab.id; }
  friend bool operator==(const ChatCard&, const ChatCard&) = default;
};

struct ChatAnswer {
  std::string text;            // the answer's lead sentence
  std::vector<SavedTab> tabs;  // the cards' tabs, in card order
  std::vector<ChatCard> cards;
  bool byAI = false;  // true when the model chose the cards

  friend bool operator==(const ChatAnswer&, const ChatAnswer&) = default;
};

// A value around a SearchIndex. answer() only reads the library snapshot it is given and may be
// called from several threads at once; model requests are serialised through AIEngine::gate().
class Chat {
 public:
  // Ends every answer that was not chosen by the model.
  static constexpr std::string_view fallbackNote =
      "Apple Intelligence ist ausgeschaltet, darum zeige ich die besten Treffer ohne Begründung.";
  // The time a model request may take once the gate is held.
  static constexpr double defaultTimeLimitSeconds = 45;
  // How many search hits the model is shown.
  static constexpr std::int64_t hitLimit = 8;

  // Searches with `embedder` (shared with the caller); a null embedder is replaced by one of
  // Kestrova's own over `env` with semantic vectors allowed. Asks env's language model; `env` must
  // outlive the chat.
  explicit Chat(std::shared_ptr<Embedder> embedder,
                double timeLimitSeconds = defaultTimeLimitSeconds, Env& env = Env::real());

  const SearchIndex& index() const { return index_; }

  // Never fails. No hits give "Dazu habe ich in deinen gespeicherten Tabs nichts gefunden." and
  // no cards. Otherwise, when AIStatus::isAvailable(env), the model picks the cards; a late,
  // failing or malformed reply, a switched-off or unavailable model, or a stop request through
  // `stop` give the keyword answer: the best three hits with their summaries (or titles) and
  // fallbackNote.
  ChatAnswer answer(std::string_view question, const LibraryData& data,
                    std::stop_token stop = {}) const;

  // The prompt for `hits`: the question, then one numbered line per hit with its title, domain,
  // the day it was saved, ", nie gelesen" when it was never opened again, its summary and note.
  static std::string prompt(std::string_view question, const std::vector<SavedTab>& hits);

  // The answer without the model for non-empty `hits`.
  static ChatAnswer keywordAnswer(const std::vector<SavedTab>& hits);

 private:
  std::optional<ChatAnswer> answerWithModel(std::string_view question,
                                            const std::vector<SavedTab>& hits,
                                            std::stop_token stop) const;

  SearchIndex index_;
  double timeLimitSeconds_;
  Env* env_;
};

}  // namespace kestrova
