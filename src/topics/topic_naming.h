// Naming of one topic from its tabs, by the language model or from keywords and domains. The
// clusterer names topics from the library's own tabs, so these work on pointers into it instead of
// copies of the tabs (whose page texts can be long). Pure apart from the model request.
#pragma once

#include <optional>
#include <span>
#include <stop_token>
#include <string>
#include <string_view>

#include <kestrova/env.h>
#include <kestrova/models.h>

namespace kestrova::topics {

// "Diese gespeicherten Tabs gehören zu einem Thema. ..." followed by one line
// "- <title> (<domain>): <summary>" for each of the first 12 tabs.
std::string namePrompt(std::span<const SavedTab* const> tabs);

// A model's answer with spaces, double quotes, guillemets, line feeds and full stops trimmed from
// both ends; no value when nothing is left or more than 40 characters are.
std::optional<std::string> cleanModelName(std::string_view answer);

// See TopicClusterer::nameWithModel and TopicClusterer::fallbackName.
std::optional<std::string> nameWithModel(std::span<const SavedTab* const> tabs,
                                         std::stop_token stop, double seconds, Env& env);
std::string fallbackName(std::span<const SavedTab* const> tabs);

}  // namespace kestrova::topics
