#include <array>

#include <pwd.h>
#include <unistd.h>

#include <kestrova/env.h>

namespace kestrova {

std::optional<std::string> homeFolder(Env& env, std::string_view user) {
  if (user.empty()) {
    if (std::optional<std::string> home = env.variable("HOME"); home && !home->empty()) {
      return home;
    }
  }
  std::array<char, 4096> buffer{};
  struct passwd entry {};
  struct passwd* found = nullptr;
  const int rc =
      user.empty()
          ? ::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found)
          : ::getpwnam_r(std::string(user).c_str(), &entry, buffer.data(), buffer.size(), &found);
  if (rc != 0 || found == nullptr || found->pw_dir == nullptr) {
    return std::nullopt;
  }
  return std::string(found->pw_dir);
}

std::string expandTilde(std::string_view path, Env& env) {
  if (path.empty() || path.front() != '~') {
    return std::string(path);
  }
  const std::size_t slash = path.find('/');
  const std::string_view user =
      path.substr(1, slash == std::string_view::npos ? std::string_view::npos : slash - 1);
  std::optional<std::string> home = homeFolder(env, user);
  if (!home) {
    return std::string(path);
  }
  if (slash == std::string_view::npos) {
    return *home;
  }
  while (home->size() > 1 && home->back() == '/') {
    home->pop_back();
  }
  const std::string rest(path.substr(slash));
  return *home == "/" ? rest : *home + rest;
}

}  // namespace kestrova
