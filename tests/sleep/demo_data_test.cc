#include <gtest/gtest.h>

#include <kestrova/demo_data.h>
#include <kestrova/sleep_pipeline.h>

#include "support/test_folder.h"

namespace kestrova {
namespace {

// Without a browser the run sleeps the demo tabs and closes nothing.
TEST(DemoData, RunWithoutBrowserSavesTheDemoInStageOrder) {
  testing::TestFolder folder;
  const LibraryStore store(folder / "library.json");
  SleepPipeline pipeline(std::make_shared<Embedder>(false));
  std::vector<SleepStage::Kind> kinds;
  const SleepStage last =
      runSleep(pipeline, nullptr, store, SleepOptions(), [&](const SleepStage& stage) {
        if (kinds.empty() || kinds.back() != stage.kind())
          kinds.push_back(stage.kind());
      });
  using Kind = SleepStage::Kind;
  ASSERT_EQ(last.kind(), Kind::done) << last.label();
  EXPECT_EQ(kinds,
            (std::vector<Kind>{Kind::reading, Kind::summarizing, Kind::grouping, Kind::done}));
  const LibraryData saved = store.load();
  EXPECT_EQ(saved.tabs.size(), 52u);
  EXPECT_EQ(saved.tabs[3].text, DemoData::text(saved.tabs[3].url));
  EXPECT_EQ(last.stats().tabs, 52);
  EXPECT_EQ(last.stats().groups, 3);
  EXPECT_EQ(last.stats().topics, static_cast<std::int64_t>(saved.topics.size()));
  EXPECT_EQ(last.stats().closed, 0);
}

}  // namespace
}  // namespace kestrova
