// FakeEnv: the real Env except for the (unowned) doubles a test sets; a listed variable hides the
// process's, std::nullopt making it absent.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <kestrova/env.h>

namespace kestrova::testing {

// Every member has an initialiser, so that designated initialisers may name only some.
struct EnvDoubles {
  ProcessLauncher* launcher = nullptr;
  ScriptRunner* runner = nullptr;
  std::shared_ptr<LanguageModel> model{};
  SemanticPlatform* semantic = nullptr;
  std::optional<NotificationCenter*> center{};
  std::optional<Date> clock{};
  std::map<std::string, std::optional<std::string>, std::less<>> variables{};
};

class FakeEnv : public EnvWrapper, public EnvDoubles {
 public:
  explicit FakeEnv(EnvDoubles doubles = {})
      : EnvWrapper(Env::real()), EnvDoubles(std::move(doubles)) {}

  ProcessLauncher& processLauncher() override {
    return launcher ? *launcher : target().processLauncher();
  }
  ScriptRunner& scriptRunner() override { return runner ? *runner : target().scriptRunner(); }
  std::shared_ptr<LanguageModel> languageModel() override {
    return model ? model : target().languageModel();
  }
  SemanticPlatform& semanticPlatform() override {
    return semantic ? *semantic : target().semanticPlatform();
  }
  NotificationCenter* notificationCenter() override {
    return center ? *center : target().notificationCenter();
  }
  Date now() override { return clock ? *clock : target().now(); }
  std::optional<std::string> variable(std::string_view name) override {
    const auto found = variables.find(name);
    return found != variables.end() ? found->second : target().variable(name);
  }
};

}  // namespace kestrova::testing
