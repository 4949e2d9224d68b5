#include <atomic>

#include <kestrova/ai.h>

namespace kestrova {
namespace {

std::atomic<bool>& forceOffFlag() {
  static std::atomic<bool> flag{AIStatus::forceOffFromEnvironment()};
  return flag;
}

// Limits beyond about thirty years are taken as "no limit"; their time points would overflow.
constexpr double kLongestLimitSeconds = 1e9;

}  // namespace

namespace AIStatus {

bool forceOffFromEnvironment(Env& env) {
  return env.variable("KESTROVA_NO_AI").has_value();
}

bool forceOff() {
  return forceOffFlag().load();
}

void setForceOff(bool value) {
  forceOffFlag().store(value);
}

bool isAvailable(Env& env) {
  if (forceOff()) {
    return false;
  }
  return env.languageModel()->availability() == ModelAvailability::available;
}

std::string description(Env& env) {
  const bool forcedOff = forceOff();
  // A switched-off model is not even asked.
  const ModelAvailability availability =
      forcedOff ? ModelAvailability::other : env.languageModel()->availability();
  return describe(forcedOff, availability);
}

std::string describe(bool forcedOff, ModelAvailability availability) {
  if (forcedOff) {
    return "Apple Intelligence: für diesen Lauf ausgeschaltet";
  }
  switch (availability) {
    case ModelAvailability::available:
      return "Apple Intelligence: eingeschaltet, Themen und Chat laufen auf deinem Mac";
    case ModelAvailability::deviceNotEligible:
      return "Apple Intelligence: dieser Mac unterstützt es nicht. Kestrova nutzt Stichwörter "
             "statt KI.";
    case ModelAvailability::appleIntelligenceNotEnabled:
      return "Apple Intelligence ist ausgeschaltet. Einschalten: Systemeinstellungen → Apple "
             "Intelligence & Siri.";
    case ModelAvailability::modelNotReady:
      return "Apple Intelligence lädt noch das Sprachmodell. Bis dahin nutzt Kestrova "
             "Stichwörter.";
    case ModelAvailability::other:
      break;
  }
  return "Apple Intelligence ist gerade nicht verfügbar. Kestrova nutzt Stichwörter.";
}

}  // namespace AIStatus

namespace AIEngine {

SerialGate& gate() {
  static SerialGate processGate;
  return processGate;
}

std::optional<Json> respond(const std::string& prompt, const GuidedType& type, double seconds,
                            std::stop_token stop, Env& env) {
  // Everything the request needs is captured by value: at the limit it is left running on its
  // own and may outlive this call.
  ModelRequest request{std::string(instructions), prompt, type, true};
  return gate().run([&] {
    std::shared_ptr<LanguageModel> model = env.languageModel();
    return withTimeout<Json>(
        seconds,
        [model, request = std::move(request)](std::stop_token token) -> Json {
          if (token.stop_requested()) {
            throw TimeoutError();
          }
          std::optional<Json> content = model->respond(request, token);
          if (!content) {
            throw TimeoutError();
          }
          return std::move(*content);
        },
        stop);
  });
}

}  // namespace AIEngine

namespace detail {

std::optional<std::chrono::steady_clock::time_point> deadlineAfter(double seconds) {
  if (std::isnan(seconds) || seconds < 0) {
    seconds = 0;
  }
  if (seconds > kLongestLimitSeconds) {
    return std::nullopt;
  }
  const auto limit = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double>(seconds));
  return std::chrono::steady_clock::now() + limit;
}

}  // namespace detail
}  // namespace kestrova
