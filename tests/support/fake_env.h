// FakeEnv: the real Env, except for the services a test hands it (files and the executable's path
// are always the real ones). Each double left unset (null, or no value) forwards to Env::real(); a
// variable listed in `variables` hides the process's: with a value it is present, with std::nullopt
// absent. The doubles are not owned.
//
//   FakeEnv env{{.runner = &runner, .variables = {{"KESTROVA_NO_AI", ""}}}};
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

// In the order of Env's functions, so that designated initialisers can name any of them; each
// has an initialiser, so that naming only some draws no warning.
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
