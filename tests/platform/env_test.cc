#include <memory>
#include <vector>

#include <gtest/gtest.h>
#include <stdlib.h>

#include <kestrova/env.h>

namespace kestrova {
namespace {

// Notes every service asked of it, and answers with the real system's.
struct NotingEnv final : Env {
  std::vector<std::string> asked;
  Env& at(const char* service) {
    asked.emplace_back(service);
    return Env::real();
  }
  FileSystem& fileSystem() override { return at("files").fileSystem(); }
  ProcessLauncher& processLauncher() override { return at("launcher").processLauncher(); }
  ScriptRunner& scriptRunner() override { return at("runner").scriptRunner(); }
  std::shared_ptr<LanguageModel> languageModel() override { return at("model").languageModel(); }
  SemanticPlatform& semanticPlatform() override { return at("semantic").semanticPlatform(); }
  NotificationCenter* notificationCenter() override { return at("center").notificationCenter(); }
  Date now() override { return at("now").now(); }
  std::optional<std::string> variable(std::string_view v) override { return at("var").variable(v); }
  std::optional<std::filesystem::path> executablePath() override {
    return at("exe").executablePath();
  }
};

TEST(EnvWrapper, ForwardsEveryServiceToItsTarget) {
  NotingEnv target;
  EnvWrapper wrapper(target);
  (void)wrapper.fileSystem(), (void)wrapper.processLauncher(), (void)wrapper.scriptRunner();
  (void)wrapper.languageModel(), (void)wrapper.semanticPlatform(), wrapper.notificationCenter();
  (void)wrapper.now(), (void)wrapper.variable("HOME"), (void)wrapper.executablePath();
  EXPECT_EQ(target.asked, (std::vector<std::string>{"files", "launcher", "runner", "model",
                                                    "semantic", "center", "now", "var", "exe"}));
}

TEST(RealEnv, TellsAnAbsentVariableFromAnEmptyOneAndNamesThisProgram) {
  ::setenv("KESTROVA_ENV_TEST", "", 1);
  EXPECT_EQ(Env::real().variable("KESTROVA_ENV_TEST"), "");
  ::unsetenv("KESTROVA_ENV_TEST");
  EXPECT_EQ(Env::real().variable("KESTROVA_ENV_TEST"), std::nullopt);
#ifndef KESTROVA_PORTABLE_POSIX  // a portable build need not know its executable
  EXPECT_EQ(Env::real().executablePath().value_or("").filename(), "platform_test");
#endif
}

// An Env whose only variable is HOME, with `home` (no value: absent).
struct HomeEnv final : EnvWrapper {
  explicit HomeEnv(std::optional<std::string> value)
      : EnvWrapper(Env::real()), home(std::move(value)) {}
  std::optional<std::string> variable(std::string_view name) override {
    return name == "HOME" ? home : std::nullopt;
  }
  std::optional<std::string> home;
};

TEST(HomeFolder, TildesExpandToTheUsersHomeAndAnythingElseStays) {
  const std::string own = homeFolder(*std::make_unique<HomeEnv>(std::nullopt)).value_or("?");
  const struct {
    std::optional<std::string> home;
    const char* path;
    std::string expected;
  } rows[] = {
      {"/h", "~", "/h"},
      {"/h", "~/a/b", "/h/a/b"},
      {"/h/", "~/a", "/h/a"},
      {"/", "~/a", "/a"},
      {"/h", "a/~", "a/~"},
      {"/h", "", ""},
      {"", "~/x", own + "/x"},
      {std::nullopt, "~", own},
      {"/h", "~root/x", "/root/x"},
      {"/h", "~kestrova-niemand/x", "~kestrova-niemand/x"},
  };
  for (const auto& row : rows) {
    HomeEnv env(row.home);
    EXPECT_EQ(expandTilde(row.path, env), row.expected)
        << row.path << " with " << row.home.value_or("-");
  }
}

TEST(RealProcessLauncher, WaitsForTheExitStatusUpToItsLimit) {
  using namespace std::chrono_literals;
  ProcessLauncher& launcher = Env::real().processLauncher();
  const std::pair<std::vector<std::string>, std::optional<int>> rows[] = {
      {{"sh", "-c", "exit 3"}, 3},
      {{"sh", "-c", "sleep 0.3; exit 4"}, 4},      // still running at the first look
      {{"sh", "-c", "sleep 5"}, 0},                // past the wait: left running, counted as 0
      {{"sh", "-c", "kill -9 $$"}, std::nullopt},  // killed by a signal
      {{"kestrova-kein-programm"}, std::nullopt}};
  for (const auto& [argv, status] : rows) {
    EXPECT_EQ(launcher.run(argv, 2s), status) << argv.back();
  }
}

}  // namespace
}  // namespace kestrova
