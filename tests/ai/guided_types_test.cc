#include <gtest/gtest.h>

#include <kestrova/guided_types.h>

namespace kestrova {
namespace {

TEST(GuidedTypesReading, WellFormedRecords) {
  auto summary = TabSummary::fromGenerated(Json::parse(R"({"summary":"S.","tags":["a","b"]})"));
  ASSERT_TRUE(summary.has_value());
  EXPECT_EQ(summary->summary, "S.");
  EXPECT_EQ(summary->tags, (std::vector<std::string>{"a", "b"}));

  auto reply = ChatReply::fromGenerated(Json::parse(
      R"({"intro":"Hier.","picks":[{"number":2,"reason":"r"},{"number":3.0,"reason":""}]})"));
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->intro, "Hier.");
  ASSERT_EQ(reply->picks.size(), 2u);
  EXPECT_EQ(reply->picks[0].number, 2);
  EXPECT_EQ(reply->picks[1].number, 3);

  // Picks are not capped while reading; that is the caller's business.
  const Json pick = Json::parse(R"({"number":1,"reason":"x"})");
  const Json many{{"intro", ""}, {"picks", Json::array({pick, pick, pick, pick, pick})}};
  EXPECT_EQ(ChatReply::fromGenerated(many)->picks.size(), 5u);

  auto huge =
      ChatPick::fromGenerated(Json::parse(R"({"number":18446744073709551615,"reason":""})"));
  ASSERT_TRUE(huge.has_value());
  EXPECT_GT(huge->number, 8);
}

TEST(GuidedTypesReading, MalformedRecordsGiveNoValue) {
  for (const char* text :
       {R"([])", R"("x")", R"({})", R"({"summary":3,"tags":[]})", R"({"summary":"s"})",
        R"({"summary":"s","tags":[1]})", R"({"summary":"s","tags":"a"})"}) {
    EXPECT_FALSE(TabSummary::fromGenerated(Json::parse(text)).has_value()) << text;
  }
  for (const char* text :
       {R"({"intro":"i"})", R"({"intro":"i","picks":[{"number":"1","reason":"r"}]})",
        R"({"intro":"i","picks":[{"number":1.5,"reason":"r"}]})",
        R"({"intro":"i","picks":[{"number":1}]})", R"({"intro":1,"picks":[]})"}) {
    EXPECT_FALSE(ChatReply::fromGenerated(Json::parse(text)).has_value()) << text;
  }
  EXPECT_FALSE(TopicName::fromGenerated(Json::parse(R"({"name":null})")).has_value());
  EXPECT_EQ(TopicName::fromGenerated(Json::parse(R"({"name":"Reisen","x":1})"))->name, "Reisen");
}

}  // namespace
}  // namespace kestrova
