#include <algorithm>
#include <utility>

#include <kestrova/ai.h>
#include <kestrova/chat.h>
#include <kestrova/fmt.h>
#include <kestrova/guided_types.h>

namespace kestrova {
namespace {

constexpr std::size_t kCards = 3;

std::shared_ptr<Embedder> orOwnEmbedder(std::shared_ptr<Embedder> embedder, Env& env) {
  return embedder ? std::move(embedder) : std::make_shared<Embedder>(/*allowSemantic=*/true, env);
}

}  // namespace

Chat::Chat(std::shared_ptr<Embedder> embedder, double timeLimitSeconds, Env& env)
    : index_(orOwnEmbedder(std::move(embedder), env)),
      timeLimitSeconds_(timeLimitSeconds),
      env_(&env) {}

ChatAnswer Chat::answer(std::string_view question, const LibraryData& data,
                        std::stop_token stop) const {
  const std::vector<SavedTab> hits = index_.search(question, data, hitLimit);
  if (hits.empty()) {
    return ChatAnswer{"Dazu habe ich in deinen gespeicherten Tabs nichts gefunden.", {}, {}, false};
  }
  if (AIStatus::isAvailable(*env_)) {
    if (auto answer = answerWithModel(question, hits, stop)) {
      return std::move(*answer);
    }
  }
  return keywordAnswer(hits);
}

std::string Chat::prompt(std::string_view question, const std::vector<SavedTab>& hits) {
  std::string prompt = "Frage: ";
  prompt += question;
  prompt += "\nTreffer aus den gespeicherten Tabs:\n";
  for (std::size_t i = 0; i < hits.size(); ++i) {
    const SavedTab& tab = hits[i];
    if (i > 0) {
      prompt += "\n";
    }
    prompt += std::to_string(i + 1) + ". " + tab.title + " (" + tab.domain + ", gespeichert " +
              Fmt::dayMonth(tab.savedAt);
    if (!tab.readAt) {
      prompt += ", nie gelesen";
    }
    prompt += "): " + tab.summary;
    if (!tab.note.empty()) {
      prompt += " Notiz: " + tab.note;
    }
  }
  prompt += "\nWähle die bis zu drei passendsten Treffer und sag je in einem Satz, warum.";
  return prompt;
}

std::optional<ChatAnswer> Chat::answerWithModel(std::string_view question,
                                                const std::vector<SavedTab>& hits,
                                                std::stop_token stop) const {
  const std::optional<Json> content = AIEngine::respond(
      prompt(question, hits), ChatReply::guidedType(), timeLimitSeconds_, stop, *env_);
  if (!content) {
    return std::nullopt;
  }
  std::optional<ChatReply> reply = ChatReply::fromGenerated(*content);
  if (!reply) {
    return std::nullopt;
  }
  ChatAnswer answer{std::move(reply->intro), {}, {}, true};
  const auto count = static_cast<std::int64_t>(hits.size());
  for (ChatPick& pick : reply->picks) {
    if (pick.number < 1 || pick.number > count) {
      continue;
    }
    const SavedTab& tab = hits[static_cast<std::size_t>(pick.number - 1)];
    const bool repeated = std::any_of(answer.cards.begin(), answer.cards.end(),
                                      [&tab](const ChatCard& card) { return card.id() == tab.id; });
    if (!repeated) {
      answer.cards.push_back(ChatCard{tab, std::move(pick.reason)});
    }
  }
  if (answer.cards.empty()) {
    // The model answered but chose nothing usable: its intro stays, the best hits stand in.
    for (std::size_t i = 0; i < hits.size() && i < kCards; ++i) {
      answer.cards.push_back(ChatCard{hits[i], hits[i].summary});
    }
  }
  for (const ChatCard& card : answer.cards) {
    answer.tabs.push_back(card.tab);
  }
  return answer;
}

ChatAnswer Chat::keywordAnswer(const std::vector<SavedTab>& hits) {
  ChatAnswer answer;
  for (std::size_t i = 0; i < hits.size() && i < kCards; ++i) {
    const SavedTab& tab = hits[i];
    answer.cards.push_back(ChatCard{tab, tab.summary.empty() ? tab.title : tab.summary});
    answer.tabs.push_back(tab);
  }
  answer.text = answer.cards.size() == 1 ? std::string("Ein Tab passt")
                                         : std::to_string(answer.cards.size()) + " Tabs passen";
  answer.text += " am besten zu deiner Frage. ";
  answer.text += fallbackNote;
  return answer;
}

}  // namespace kestrova
