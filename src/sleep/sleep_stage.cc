#include <nlohmann/json.hpp>

#include <kestrova/fmt.h>
#include <kestrova/sleep_pipeline.h>

namespace kestrova {

std::string SleepStats::sentence() const {
  const std::string tabsPart = tabs == 1 ? "1 Tab schläft" : Fmt::number(tabs) + " Tabs schlafen";
  const std::string groupsPart = groups == 1 ? "1 Gruppe" : Fmt::number(groups) + " Gruppen";
  const std::string topicsPart = topics == 1 ? "1 Thema" : Fmt::number(topics) + " Themen";
  return tabsPart + ", " + groupsPart + ", " + topicsPart;
}

SleepStage SleepStage::fetching(std::int64_t done, std::int64_t total) {
  SleepStage stage(Kind::fetching);
  stage.done_ = done;
  stage.total_ = total;
  return stage;
}

SleepStage SleepStage::summarizing(std::int64_t done, std::int64_t total) {
  SleepStage stage(Kind::summarizing);
  stage.done_ = done;
  stage.total_ = total;
  return stage;
}

SleepStage SleepStage::finished(SleepStats stats) {
  SleepStage stage(Kind::done);
  stage.stats_ = stats;
  return stage;
}

SleepStage SleepStage::failed(std::string message) {
  SleepStage stage(Kind::failed);
  stage.message_ = std::move(message);
  return stage;
}

std::string SleepStage::label() const {
  switch (kind_) {
    case Kind::idle:
      return "";
    case Kind::reading:
      return "Lese die offenen Tabs aus Safari \u2026";
    case Kind::fetching:
      return "Speichere Seiteninhalte: " + Fmt::number(done_) + " von " + Fmt::number(total_);
    case Kind::summarizing:
      return "Fasse zusammen: " + Fmt::number(done_) + " von " + Fmt::number(total_);
    case Kind::grouping:
      return "Sortiere nach Thema \u2026";
    case Kind::closing:
      return "Schliesse die Tabs in Safari \u2026";
    case Kind::done:
      return stats_.sentence();
    case Kind::failed:
      return message_;
  }
  return "";
}

std::optional<double> SleepStage::fraction() const {
  const auto share = [&] { return static_cast<double>(done_) / static_cast<double>(total_); };
  switch (kind_) {
    case Kind::fetching:
      return total_ < 1 ? std::nullopt : std::optional<double>(0.05 + 0.45 * share());
    case Kind::summarizing:
      return total_ < 1 ? std::nullopt : std::optional<double>(0.5 + 0.35 * share());
    case Kind::grouping:
      return 0.88;
    case Kind::closing:
      return 0.95;
    case Kind::done:
      return 1.0;
    default:
      return std::nullopt;
  }
}

bool SleepStage::isRunning() const {
  return kind_ != Kind::idle && kind_ != Kind::done && kind_ != Kind::failed;
}

std::string SleepOptions::toJson() const {
  const nlohmann::json json = {{"groupByWindow", groupByWindow},
                               {"sortByTopic", sortByTopic},
                               {"saveContent", saveContent},
                               {"keepPinned", keepPinned},
                               {"pinnedDomains", pinnedDomains}};
  return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::optional<SleepOptions> SleepOptions::fromJson(std::string_view text) {
  const nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
  if (!json.is_object()) {
    return std::nullopt;
  }
  SleepOptions options;
  const auto flag = [&](const char* key, bool& out) {
    auto it = json.find(key);
    if (it == json.end() || !it->is_boolean()) {
      return false;
    }
    out = it->get<bool>();
    return true;
  };
  if (!flag("groupByWindow", options.groupByWindow) || !flag("sortByTopic", options.sortByTopic) ||
      !flag("saveContent", options.saveContent) || !flag("keepPinned", options.keepPinned)) {
    return std::nullopt;
  }
  auto domains = json.find("pinnedDomains");
  if (domains == json.end() || !domains->is_array()) {
    return std::nullopt;
  }
  for (const auto& item : *domains) {
    if (!item.is_string()) {
      return std::nullopt;
    }
    options.pinnedDomains.push_back(item.get<std::string>());
  }
  return options;
}

}  // namespace kestrova
