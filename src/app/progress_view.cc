#include "progress_view.h"

#include <algorithm>
#include <cmath>

namespace kestrova::app {

namespace {
constexpr int kBarWidth = 24;
}  // namespace

ProgressView::ProgressView(std::ostream& out, bool terminal, std::string browser)
    : out_(out), terminal_(terminal), browser_(std::move(browser)) {}

std::string ProgressView::text(const SleepStage& stage, const std::string& browser) {
  std::string label = stage.label();
  const bool namesBrowser =
      stage.kind() == SleepStage::Kind::reading || stage.kind() == SleepStage::Kind::closing;
  if (const std::size_t at = label.find("Safari"); namesBrowser && at != std::string::npos) {
    label.replace(at, 6, browser);
  }
  return label;
}

std::string ProgressView::bar(double fraction) {
  const double clamped = std::clamp(fraction, 0.0, 1.0);
  const int filled = static_cast<int>(std::lround(clamped * kBarWidth));
  const int percent = static_cast<int>(std::lround(clamped * 100));
  std::string out = "[" + std::string(static_cast<std::size_t>(filled), '#') +
                    std::string(static_cast<std::size_t>(kBarWidth - filled), '-') + "] ";
  const std::string number = std::to_string(percent);
  return out + std::string(3 - std::min<std::size_t>(3, number.size()), ' ') + number + " %";
}

void ProgressView::show(const SleepStage& stage) {
  if (stage.kind() == SleepStage::Kind::done || stage.kind() == SleepStage::Kind::failed) {
    finish();  // the end is the caller's to say
    return;
  }
  const std::string label = text(stage, browser_);
  if (terminal_) {
    // Back to the start of the line, clear it, draw again.
    out_ << "\r\033[K" << (stage.fraction() ? bar(*stage.fraction()) + "  " : std::string())
         << label << std::flush;
    lineOpen_ = true;
    return;
  }
  const long tenth = stage.total() > 0 ? static_cast<long>(10 * stage.done() / stage.total()) : -1;
  if (stage.kind() == lastKind_ && tenth == lastTenth_) {
    return;
  }
  lastKind_ = stage.kind();
  lastTenth_ = tenth;
  out_ << label << "\n" << std::flush;
}

void ProgressView::finish() {
  if (lineOpen_) {
    out_ << "\r\033[K" << std::flush;
    lineOpen_ = false;
  }
}

}  // namespace kestrova::app
