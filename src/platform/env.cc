#include <cstdlib>
#include <memory>
#include <system_error>

#include <kestrova/env.h>
#include <kestrova/language_model.h>
#include <kestrova/notification_center.h>
#include <kestrova/semantic_model.h>

#include "real_services.h"

#if defined(__APPLE__)
#include <cstdint>
#include <vector>

#include <mach-o/dyld.h>
#endif

namespace kestrova {
namespace {

// A build without a system embedding framework has no models, exactly as a Mac without the
// language assets.
class NoSemanticPlatform final : public SemanticPlatform {
 public:
  std::unique_ptr<SemanticModel> contextualModel(std::string_view /*language*/) override {
    return nullptr;
  }
  std::unique_ptr<SemanticModel> sentenceModel(std::string_view /*language*/) override {
    return nullptr;
  }
};

class RealEnv final : public Env {
 public:
  FileSystem& fileSystem() override { return platform::realFileSystem(); }
  ProcessLauncher& processLauncher() override { return platform::realProcessLauncher(); }
  ScriptRunner& scriptRunner() override { return runner_; }
  std::shared_ptr<LanguageModel> languageModel() override { return model_; }
  SemanticPlatform& semanticPlatform() override { return semantic_; }
  // No notification service that a process of this build could reach.
  NotificationCenter* notificationCenter() override { return nullptr; }
  Date now() override { return kestrova::now(); }

  std::optional<std::string> variable(std::string_view name) override {
    const std::string key(name);
    if (const char* value = std::getenv(key.c_str()); value != nullptr) {
      return std::string(value);
    }
    return std::nullopt;
  }

  std::optional<std::filesystem::path> executablePath() override;

 private:
  OsascriptRunner runner_;
  NoSemanticPlatform semantic_;
  const std::shared_ptr<LanguageModel> model_ = std::make_shared<UnavailableLanguageModel>();
};

std::optional<std::filesystem::path> RealEnv::executablePath() {
#if defined(__APPLE__)
  std::uint32_t size = 0;
  ::_NSGetExecutablePath(nullptr, &size);  // only tells the size needed
  std::vector<char> buffer(size + 1, '\0');
  if (::_NSGetExecutablePath(buffer.data(), &size) != 0) {
    return std::nullopt;
  }
  // The path the program was started by may lead through symbolic links or be relative.
  const std::filesystem::path started(buffer.data());
  std::error_code ec;
  std::filesystem::path resolved = std::filesystem::canonical(started, ec);
  return ec ? started : resolved;
#elif defined(__linux__) && !defined(KESTROVA_PORTABLE_POSIX)
  std::error_code ec;
  std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) {
    return std::nullopt;
  }
  return executable;
#else
  return std::nullopt;
#endif
}

}  // namespace

Env& Env::real() {
  // Never deleted: static destructors that run while the process ends may still need it.
  static Env* const env = new RealEnv();
  return *env;
}

FileSystem& EnvWrapper::fileSystem() {
  return target_->fileSystem();
}

ProcessLauncher& EnvWrapper::processLauncher() {
  return target_->processLauncher();
}

ScriptRunner& EnvWrapper::scriptRunner() {
  return target_->scriptRunner();
}

std::shared_ptr<LanguageModel> EnvWrapper::languageModel() {
  return target_->languageModel();
}

SemanticPlatform& EnvWrapper::semanticPlatform() {
  return target_->semanticPlatform();
}

NotificationCenter* EnvWrapper::notificationCenter() {
  return target_->notificationCenter();
}

Date EnvWrapper::now() {
  return target_->now();
}

std::optional<std::string> EnvWrapper::variable(std::string_view name) {
  return target_->variable(name);
}

std::optional<std::filesystem::path> EnvWrapper::executablePath() {
  return target_->executablePath();
}

}  // namespace kestrova
