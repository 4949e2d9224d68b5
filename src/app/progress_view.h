// How a sleep run shows its progress: on a terminal one line that is redrawn, with a bar and the
// stage's text; into a file or pipe one plain line per stage (and per tenth of a counted stage),
// so that a log stays readable.
#pragma once

#include <ostream>
#include <string>

#include <kestrova/sleep_pipeline.h>

namespace kestrova::app {

class ProgressView {
 public:
  // `browser` names the browser in the texts that would otherwise name Safari.
  ProgressView(std::ostream& out, bool terminal, std::string browser);

  void show(const SleepStage& stage);
  // Ends the redrawn line, if any.
  void finish();

  // The stage's text with `browser` in place of Safari.
  static std::string text(const SleepStage& stage, const std::string& browser);
  // "[##########----------]  50 %" for `fraction`.
  static std::string bar(double fraction);

 private:
  std::ostream& out_;
  bool terminal_;
  std::string browser_;
  bool lineOpen_ = false;
  SleepStage::Kind lastKind_ = SleepStage::Kind::idle;
  long lastTenth_ = -1;
};

}  // namespace kestrova::app
