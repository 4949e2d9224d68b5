// LanguageModel: the seam to the system's on-device language model. A request asks for one small
// record (described by a GuidedType, a JSON schema) in a fresh session, so no request sees the
// history of another. Callers get the model from their Env (Env::languageModel, env.h); tests hand
// in an Env whose model is a scripted double.
//
// On this platform there is no on-device model: the real Env's model is the unavailable backend,
// whose availability is ModelAvailability::other and which never answers, so every caller takes its
// keyword path.
#pragma once

#include <optional>
#include <stop_token>
#include <string>

#include <nlohmann/json.hpp>

namespace kestrova {

// JSON values of the seam keep their keys in insertion order: a schema lists its properties in the
// order the model is to generate them.
using Json = nlohmann::ordered_json;

// Whether the system model can answer, and if not, why.
enum class ModelAvailability {
  available,
  deviceNotEligible,            // the hardware does not support the model
  appleIntelligenceNotEnabled,  // the user has switched the model off in the settings
  modelNotReady,                // the model is still being downloaded or prepared
  other,                        // any other reason, including "no model on this system"
};

// The description of a record to generate: its name and a JSON schema (an object schema whose
// properties carry the field descriptions and guides such as "maxItems").
struct GuidedType {
  std::string name;
  Json schema;
};

// One guided request.
struct ModelRequest {
  std::string instructions;  // the session's system instructions
  std::string prompt;
  GuidedType type;
  bool includeSchemaInPrompt = true;
};

// A language model backend. Implementations must be safe to call from several threads at once;
// the callers serialise requests through AIEngine::gate() anyway.
class LanguageModel {
 public:
  virtual ~LanguageModel() = default;

  // Asked afresh before every request; never cached by the callers.
  virtual ModelAvailability availability() const = 0;

  // Answers `request` in a fresh session with default generation options. Returns the generated
  // record (a JSON object meant to follow request.type.schema), or no value when the model failed,
  // refused or was asked to stop through `stop`. May also throw; callers treat a throw as no value.
  // Should return promptly once `stop` is requested.
  virtual std::optional<Json> respond(const ModelRequest& request, std::stop_token stop) = 0;
};

// The platform's system model on a system without an on-device model: availability() is
// ModelAvailability::other and respond() gives no value. Stateless and thread-safe.
class UnavailableLanguageModel final : public LanguageModel {
 public:
  ModelAvailability availability() const override { return ModelAvailability::other; }
  std::optional<Json> respond(const ModelRequest& /*request*/, std::stop_token /*stop*/) override {
    return std::nullopt;
  }
};

}  // namespace kestrova
