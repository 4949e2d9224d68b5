#include <kestrova/process_launcher.h>

#include "child_process.h"
#include "real_services.h"

namespace kestrova {
namespace {

class SystemLauncher final : public ProcessLauncher {
 public:
  std::optional<int> run(const std::vector<std::string>& argv,
                         std::chrono::milliseconds wait) override {
    if (argv.empty()) {
      return std::nullopt;
    }
    std::optional<std::string> executable = process::findExecutable(argv.front());
    if (!executable) {
      return std::nullopt;
    }
    return process::launch(*executable, argv, wait);
  }
};

}  // namespace

ProcessLauncher& platform::realProcessLauncher() {
  static SystemLauncher launcher;
  return launcher;
}

}  // namespace kestrova
