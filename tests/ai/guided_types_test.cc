#include <gtest/gtest.h>

#include <kestrova/guided_types.h>

namespace kestrova {
namespace {

TEST(GuidedTypesSchema, TabSummaryFieldsInOrderWithGuides) {
  const Json& schema = TabSummary::guidedType().schema;
  EXPECT_EQ(TabSummary::guidedType().name, "TabSummary");
  EXPECT_EQ(schema.dump(),
            R"({"title":"TabSummary","type":"object","properties":{"summary":{"type":"string",)"
            R"("description":"Genau ein deutscher Satz, höchstens 160 Zeichen: worum es auf der )"
            R"(Seite geht."},"tags":{"type":"array","description":"Höchstens drei kurze )"
            R"(Stichwörter zur Seite, je ein bis zwei Wörter.","items":{"type":"string"},)"
            R"("maxItems":3}},"required":["summary","tags"],"additionalProperties":false})");
}

TEST(GuidedTypesSchema, ChatReplyNestsChatPick) {
  const Json& schema = ChatReply::guidedType().schema;
  EXPECT_EQ(schema["properties"]["intro"]["description"],
            "Ein einleitender deutscher Satz als Antwort auf die Frage.");
  const Json& picks = schema["properties"]["picks"];
  EXPECT_EQ(picks["description"], "Die bis zu drei passendsten Treffer.");
  EXPECT_EQ(picks["maxItems"], 3);
  const Json& pick = picks["items"];
  EXPECT_EQ(pick["title"], "ChatPick");
  EXPECT_EQ(pick["properties"]["number"]["type"], "integer");
  EXPECT_EQ(pick["properties"]["number"]["description"],
            "Nummer des Treffers aus der Liste (1 bis 8).");
  EXPECT_EQ(pick["properties"]["reason"]["description"],
            "Ein kurzer deutscher Satz, warum dieser Tab zur Frage passt.");
  EXPECT_EQ(pick["required"], (Json{"number", "reason"}));
  EXPECT_EQ(schema["required"], (Json{"intro", "picks"}));
  EXPECT_EQ(schema.begin().key(), "title");
  EXPECT_EQ(schema["properties"].begin().key(), "intro");
}

TEST(GuidedTypesSchema, TopicNameHasItsGuide) {
  EXPECT_EQ(TopicName::guidedType().schema["properties"]["name"]["description"],
            "Ein kurzer deutscher Themenname aus zwei bis vier Wörtern, ohne Anführungszeichen.");
}

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
  Json many = Json::parse(R"({"intro":"","picks":[]})");
  for (int i = 0; i < 5; ++i) {
    many["picks"].push_back(Json{{"number", i}, {"reason", "x"}});
  }
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
