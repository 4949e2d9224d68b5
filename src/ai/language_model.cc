#include <mutex>
#include <utility>

#include <kestrova/language_model.h>

namespace kestrova {
namespace {

std::mutex& modelMutex() {
  static std::mutex mutex;
  return mutex;
}

// The platform's system model. There is no on-device model on this system, so it is the backend
// that reports itself unavailable.
std::shared_ptr<LanguageModel> platformModel() {
  static const std::shared_ptr<LanguageModel> model = std::make_shared<UnavailableLanguageModel>();
  return model;
}

std::shared_ptr<LanguageModel>& currentModel() {
  static std::shared_ptr<LanguageModel> model = platformModel();
  return model;
}

}  // namespace

std::optional<Json> UnavailableLanguageModel::respond(const ModelRequest& /*request*/,
                                                      std::stop_token /*stop*/) {
  return std::nullopt;
}

std::shared_ptr<LanguageModel> systemLanguageModel() {
  std::lock_guard lock(modelMutex());
  return currentModel();
}

void setSystemLanguageModel(std::shared_ptr<LanguageModel> model) {
  std::lock_guard lock(modelMutex());
  currentModel() = model ? std::move(model) : platformModel();
}

}  // namespace kestrova
