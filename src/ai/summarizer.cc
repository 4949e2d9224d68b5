#include <utility>

#include <kestrova/ai.h>
#include <kestrova/guided_types.h>
#include <kestrova/summarizer.h>
#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

#include "text_trim.h"

namespace kestrova {
namespace {

// Page text beyond these lengths adds nothing to a one-sentence summary but time.
constexpr std::size_t kModelTextLength = 2500;
constexpr std::size_t kKeywordTextLength = 3000;
constexpr int kSummaryLength = 160;
constexpr std::size_t kModelTags = 3;

}  // namespace

SummaryResult Summarizer::summarize(std::string_view title, std::string_view text,
                                    std::stop_token stop) const {
  if (AIStatus::isAvailable(*env_) && (!title.empty() || !text.empty())) {
    if (auto result = summarizeWithModel(title, text, stop)) {
      return std::move(*result);
    }
  }
  return fallback(title, text);
}

std::string Summarizer::prompt(std::string_view title, std::string_view text) {
  const std::string_view shortened = unicode::graphemePrefix(text, kModelTextLength);
  std::string prompt = "Fasse diese Webseite zusammen.\nTitel: ";
  prompt += title;
  prompt += "\nText: ";
  prompt += shortened.empty() ? std::string_view("(kein Text, nur der Titel)") : shortened;
  return prompt;
}

std::optional<SummaryResult> Summarizer::summarizeWithModel(std::string_view title,
                                                            std::string_view text,
                                                            std::stop_token stop) const {
  const std::optional<Json> content = AIEngine::respond(
      prompt(title, text), TabSummary::guidedType(), timeLimitSeconds_, stop, *env_);
  if (!content) {
    return std::nullopt;
  }
  const std::optional<TabSummary> generated = TabSummary::fromGenerated(*content);
  if (!generated) {
    return std::nullopt;
  }
  std::string summary = trimWhitespaceAndNewlines(generated->summary);
  if (summary.empty()) {
    return std::nullopt;  // an empty summary is no answer
  }
  SummaryResult result{TextTools::truncate(summary, kSummaryLength), {}, true};
  // The first three as the model gave them; cleaning may leave fewer.
  for (std::size_t i = 0; i < generated->tags.size() && i < kModelTags; ++i) {
    std::string tag = trimWhitespace(generated->tags[i]);
    if (!tag.empty()) {
      result.tags.push_back(std::move(tag));
    }
  }
  return result;
}

SummaryResult Summarizer::fallback(std::string_view title, std::string_view text) {
  SummaryResult result;
  if (auto sentence = TextTools::firstSentence(text, kSummaryLength)) {
    result.summary = std::move(*sentence);
  } else if (!title.empty()) {
    result.summary = TextTools::truncate(title, kSummaryLength);
  } else {
    result.summary = "Ohne Inhalt gespeichert.";
  }
  // The title twice, so that its words weigh double against the page text.
  const std::vector<std::string> texts = {
      std::string(title), std::string(title),
      std::string(unicode::graphemePrefix(text, kKeywordTextLength))};
  result.tags = TextTools::topKeywords(texts, 2, 4);
  return result;
}

}  // namespace kestrova
