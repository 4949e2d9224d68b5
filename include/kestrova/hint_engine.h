// HintEngine: finds saved tabs that fit the user's current projects and turns the best of them
// into Hint records that suggest looking at a tab again. Projects come from ContextReader
// (context_reader.h); similarity is the cosine of Embedder vectors (embedder.h).
//
// Only tabs that were never opened again (no readAt) and that no earlier hint named, dismissed
// or not, are suggested. The projects take turns, each contributing at most its next-best tab per
// round, and a tab is suggested at most once per run. How often to run the engine and how many
// hints to ask for (UserContext::hintsPerDay, hintHour, LibraryData::lastHintDay) is the caller's
// decision.
//
// A HintEngine is a small value that refers to an Embedder it does not own; the embedder must
// outlive it. It is as thread-safe as that embedder; the LibraryData it changes belongs to the
// caller.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <kestrova/context_reader.h>
#include <kestrova/embedder.h>
#include <kestrova/models.h>

namespace kestrova {

class HintEngine {
 public:
  // `leastScore` becomes `threshold`: the least cosine similarity between a project and a tab for
  // the tab to be suggested; a score equal to it counts.
  explicit HintEngine(Embedder& embedder, float leastScore = 0.1f)
      : threshold(leastScore), embedder_(&embedder) {}

  // Appends up to `max` new hints to data.hints and returns them, in the order they were chosen.
  // Fills in missing tab vectors in data.embeddings on the way (through
  // Embedder::ensureEmbeddings). With `max` below 1 or no projects nothing is changed and the
  // result is empty; an empty result is also normal when no tab is similar enough. Never fails.
  std::vector<Hint> generateHints(LibraryData& data, const std::vector<ProjectText>& projects,
                                  std::int64_t max) const;

  // The text a project is compared by: its name, its 40 strongest keywords (at least four
  // characters long) and the first 800 characters of its text, separated by single spaces. Its
  // size is bounded whatever the size of the project's files.
  static std::string query(const ProjectText& project);

  // "passt zu deinem Projekt <name>: <summary>", or the title when the tab has no summary.
  static std::string reason(const ProjectText& project, const SavedTab& tab);

  Embedder& embedder() const { return *embedder_; }

  // The least score of a suggested tab; may be changed between runs.
  float threshold;

 private:
  Embedder* embedder_;
};

}  // namespace kestrova
