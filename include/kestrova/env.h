// Env: everything Kestrova asks of the operating system, behind one interface: files, child
// processes, the browser's script engine, the on-device language model, semantic sentence
// vectors, notifications, the clock, environment variables and the path of the running program.
//
// Every part of the core that reaches the system takes an `Env& env = Env::real()` as its last
// parameter and asks that Env, never the system itself; so a test or an embedding program hands in
// its own Env and decides what the core sees. EnvWrapper forwards every call to another Env, so a
// double overrides only the service it fakes or breaks and gets the real one for the rest.
//
// Ownership: an Env is never owned by the objects it is given to; it must outlive them, and so must
// the services it hands out by reference or pointer (the language model, shared, excepted).
//
// Thread-safety: implementations must allow calls from any thread at once. Env::real() does; so do
// the services it hands out, as their own headers describe.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <kestrova/file_system.h>
#include <kestrova/models.h>
#include <kestrova/process_launcher.h>
#include <kestrova/script_runner.h>

namespace kestrova {

// Declared in language_model.h, semantic_model.h and notification_center.h; a caller that uses
// one of these services includes its header.
class LanguageModel;
class SemanticPlatform;
class NotificationCenter;

class Env {
 public:
  Env() = default;
  Env(const Env&) = delete;
  Env& operator=(const Env&) = delete;
  virtual ~Env() = default;

  // The operating system's. Made on first use and never deleted, so that it serves to the end of
  // the process (static destructors included); thread-safe.
  static Env& real();

  // The file system. The real one is described at FileSystem (file_system.h): atomic replacement,
  // and removal of its temporary files at SIGTERM and SIGINT.
  virtual FileSystem& fileSystem() = 0;

  // Starts helper programs (the platform's "open" commands); the real one looks them up on PATH.
  virtual ProcessLauncher& processLauncher() = 0;

  // Runs the browser's scripts. The real one is an OsascriptRunner with its default settings;
  // where there is no `osascript`, Safari counts as not running.
  virtual ScriptRunner& scriptRunner() = 0;

  // The on-device language model. Never null. Asked again for every request, and the request keeps
  // the model it got, so a model replaced meanwhile does not change a request under way. The real
  // one is UnavailableLanguageModel: no build of Kestrova carries a bridge to a system model yet.
  virtual std::shared_ptr<LanguageModel> languageModel() = 0;

  // Where semantic sentence-vector models come from. The real one offers none in this build, so
  // every embedder uses the hashed bag of words alone.
  virtual SemanticPlatform& semanticPlatform() = 0;

  // The process's notification center, or null where the platform offers it none. The real one is
  // always null: a command-line tool has no center, and neither has any process on Linux.
  virtual NotificationCenter* notificationCenter() = 0;

  // The current time, to the microsecond (see Date).
  virtual Date now() = 0;

  // The value of the environment variable `name`: an empty string when it is set but empty, no
  // value when it is absent. Kestrova's switches (KESTROVA_NO_AI and the like) count by presence,
  // whatever their value. The real one reads the process environment; like every reader of it, it
  // must not run while the program changes that environment (setenv) on another thread.
  virtual std::optional<std::string> variable(std::string_view name) = 0;

  // The path of the running program's executable file, or no value where the platform cannot
  // tell (or it cannot be read). On macOS the path the program was started by, resolved; on Linux
  // the target of /proc/self/exe.
  virtual std::optional<std::filesystem::path> executablePath() = 0;
};

// An Env that hands every call to `target`. A double derives from it and overrides what it fakes.
// `target` is not owned and must outlive the wrapper. To wrap another EnvWrapper, pass it as an
// `Env&`: given as itself it would pick the (deleted) copy constructor.
class EnvWrapper : public Env {
 public:
  explicit EnvWrapper(Env& target) : target_(&target) {}

  Env& target() const { return *target_; }

  FileSystem& fileSystem() override;
  ProcessLauncher& processLauncher() override;
  ScriptRunner& scriptRunner() override;
  std::shared_ptr<LanguageModel> languageModel() override;
  SemanticPlatform& semanticPlatform() override;
  NotificationCenter* notificationCenter() override;
  Date now() override;
  std::optional<std::string> variable(std::string_view name) override;
  std::optional<std::filesystem::path> executablePath() override;

 private:
  Env* target_;
};

// The home folder of `user`, or of this process's user when `user` is empty: for this user
// $HOME (read from `env`) when it is set and not empty, else the entry of the password database;
// no value when neither knows it.
std::optional<std::string> homeFolder(Env& env, std::string_view user = {});

// `path` with a leading "~" or "~user" replaced by that home folder (see homeFolder); unchanged
// when it starts otherwise or the home folder is unknown. "~/x" with the home "/" gives "/x".
std::string expandTilde(std::string_view path, Env& env);

}  // namespace kestrova
