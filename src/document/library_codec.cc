#include "library_codec.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <tuple>
#include <utility>
#include <vector>

#include <simdjson.h>

#include <kestrova/fmt.h>
#include <kestrova/unicode.h>

static_assert(kestrova::codec::kPadding >= simdjson::SIMDJSON_PADDING);

namespace kestrova::codec {
namespace {

// ---------------------------------------------------------------------------------------------
// The records' fields. Each record has one table of its keys, in sorted (byte) order, and both
// the writer and the reader work from it, so that a key cannot be written under one name and read
// under another, or written and never read.

template <typename>
struct MemberPointer;
template <typename R, typename V>
struct MemberPointer<V R::*> {
  using Record = R;
};

// One key of a record and the member that holds its value. The member's type picks how the value
// is written and read (the overloads of Writer::value and readValue).
template <auto Member>
struct Field {
  using Record = typename MemberPointer<decltype(Member)>::Record;

  std::string_view name;
  // Tolerant records only. A required key missing fails the record; otherwise a missing key
  // leaves the member's default value, or what `orElse` puts there once all keys are read.
  bool required = false;
  void (*orElse)(Record&, Date loadTime) = nullptr;

  static auto& of(Record& record) { return record.*Member; }
  static const auto& of(const Record& record) { return record.*Member; }
};

// Schema<Record>: the record's name in decoding errors, whether it is strict (every key required,
// null an error) or tolerant (null counts as missing), and its fields.
template <typename Record>
struct Schema;

template <typename Record>
concept HasSchema = requires {
  Schema<Record>::fields;
};

void domainOfUrl(SavedTab& tab, Date /*loadTime*/) {
  tab.domain = SavedTab::domainOf(tab.url);
}
void savedAtLoad(SavedTab& tab, Date loadTime) {
  tab.savedAt = loadTime;
}
void windowIdRandom(SavedTab& tab, Date /*loadTime*/) {
  tab.windowId = Uuid::random();
}

template <>
struct Schema<SavedTab> {
  static constexpr std::string_view name = "tab";
  static constexpr bool strict = false;
  static constexpr std::tuple fields{
      Field<&SavedTab::domain>{.name = "domain", .orElse = domainOfUrl},
      Field<&SavedTab::id>{.name = "id", .required = true},
      Field<&SavedTab::isDemo>{"isDemo"},
      Field<&SavedTab::note>{"note"},
      Field<&SavedTab::projectTags>{"projectTags"},
      Field<&SavedTab::readAt>{"readAt"},
      Field<&SavedTab::reminderAt>{"reminderAt"},
      Field<&SavedTab::savedAt>{.name = "savedAt", .orElse = savedAtLoad},
      Field<&SavedTab::summary>{"summary"},
      Field<&SavedTab::tabIndex>{"tabIndex"},
      Field<&SavedTab::tags>{"tags"},
      Field<&SavedTab::text>{"text"},
      Field<&SavedTab::title>{"title"},
      Field<&SavedTab::topicId>{"topicId"},
      Field<&SavedTab::url>{.name = "url", .required = true},
      Field<&SavedTab::windowId>{.name = "windowId", .orElse = windowIdRandom},
      Field<&SavedTab::windowIndex>{"windowIndex"},
  };
};

template <>
struct Schema<SavedWindow> {
  static constexpr std::string_view name = "window";
  static constexpr bool strict = true;
  static constexpr std::tuple fields{
      Field<&SavedWindow::id>{"id"},
      Field<&SavedWindow::savedAt>{"savedAt"},
      Field<&SavedWindow::tabIds>{"tabIds"},
      Field<&SavedWindow::title>{"title"},
  };
};

template <>
struct Schema<Topic> {
  static constexpr std::string_view name = "topic";
  static constexpr bool strict = true;
  static constexpr std::tuple fields{
      Field<&Topic::color>{"color"},           Field<&Topic::id>{"id"},
      Field<&Topic::isUnsorted>{"isUnsorted"}, Field<&Topic::name>{"name"},
      Field<&Topic::tabIds>{"tabIds"},
  };
};

template <>
struct Schema<UserContext> {
  static constexpr std::string_view name = "context";
  static constexpr bool strict = true;
  static constexpr std::tuple fields{
      Field<&UserContext::folderPaths>{"folderPaths"},
      Field<&UserContext::freeText>{"freeText"},
      Field<&UserContext::hintHour>{"hintHour"},
      Field<&UserContext::hintsPerDay>{"hintsPerDay"},
  };
};

template <>
struct Schema<Hint> {
  static constexpr std::string_view name = "hint";
  static constexpr bool strict = true;
  static constexpr std::tuple fields{
      Field<&Hint::createdAt>{"createdAt"},
      Field<&Hint::dismissed>{"dismissed"},
      Field<&Hint::id>{"id"},
      Field<&Hint::reason>{"reason"},
      Field<&Hint::tabId>{"tabId"},
  };
};

template <>
struct Schema<LibraryData> {
  static constexpr std::string_view name = "document";
  static constexpr bool strict = false;
  static constexpr std::tuple fields{
      Field<&LibraryData::context>{"context"},
      Field<&LibraryData::embedderKind>{"embedderKind"},
      Field<&LibraryData::embeddings>{"embeddings"},
      Field<&LibraryData::hints>{"hints"},
      Field<&LibraryData::lastHintDay>{"lastHintDay"},
      Field<&LibraryData::tabs>{"tabs"},
      Field<&LibraryData::topics>{"topics"},
      Field<&LibraryData::topicsByAI>{"topicsByAI"},
      Field<&LibraryData::version>{"version"},
      Field<&LibraryData::windows>{"windows"},
  };
};

// Decoding errors name a key with its record ("tab.url"); the document's own keys stand alone.
template <typename Record>
constexpr std::string_view keyPrefix = Schema<Record>::name;
template <>
constexpr std::string_view keyPrefix<LibraryData> = "";

template <typename Record>
constexpr std::size_t kFieldCount = std::tuple_size_v<decltype(Schema<Record>::fields)>;

// The order the writer walks the table in is the order of the keys in the document.
template <typename Record>
constexpr bool keysSorted() {
  return std::apply(
      [](const auto&... field) {
        const std::array<std::string_view, sizeof...(field)> names{field.name...};
        return std::ranges::adjacent_find(names, std::ranges::greater_equal()) == names.end();
      },
      Schema<Record>::fields);
}

// ---------------------------------------------------------------------------------------------
// Writing.

class Writer {
 public:
  // With a sink, the text is handed on in pieces of about kChunk bytes at element boundaries, so
  // a large document never sits in memory whole.
  Writer(std::string& out, const std::function<void(std::string_view)>* sink)
      : out_(out), sink_(sink) {}

  static constexpr std::size_t kChunk = 1 << 20;

  void boundary() {
    if (sink_ != nullptr && out_.size() >= kChunk) {
      (*sink_)(out_);
      out_.clear();
    }
  }
  void finish() {
    if (sink_ != nullptr) {
      (*sink_)(out_);
      out_.clear();
    }
  }

  void key(std::string_view name, bool first) {
    if (!first) {
      out_.push_back(',');
    }
    out_.push_back('"');
    out_ += name;  // field names are plain ASCII without characters to escape
    out_ += "\":";
  }

  void value(const std::string& text) { appendJsonString(out_, text); }
  void value(std::int64_t number) {
    char buffer[24];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, number);
    out_.append(buffer, result.ptr);
  }
  void value(bool flag) { out_ += flag ? "true" : "false"; }
  void value(Date date) {
    // A date the document cannot hold would make the whole file unreadable on the next load.
    if (date < kFirstDate || date >= kLastDate + std::chrono::seconds(1)) {
      throw EncodeError("ein Datum liegt ausserhalb der Jahre 1 bis 9999");
    }
    out_.push_back('"');
    out_ += Fmt::iso(date);
    out_.push_back('"');
  }
  void value(const Uuid& id) {
    out_.push_back('"');
    out_ += id.string();
    out_.push_back('"');
  }
  void value(const std::vector<std::string>& texts) { array(texts); }
  void value(const std::vector<Uuid>& ids) { array(ids); }
  void value(const std::map<std::string, std::vector<float>>& embeddings) {
    out_.push_back('{');
    bool first = true;
    for (const auto& [key, vector] : embeddings) {  // std::map: keys already sorted
      if (!first) {
        out_.push_back(',');
      }
      first = false;
      value(key);
      out_ += ":[";
      for (std::size_t i = 0; i < vector.size(); ++i) {
        if (i > 0) {
          out_.push_back(',');
        }
        floating(vector[i]);
      }
      out_.push_back(']');
      boundary();
    }
    out_.push_back('}');
  }
  template <HasSchema Record>
  void value(const std::vector<Record>& records) {
    out_.push_back('[');
    for (std::size_t i = 0; i < records.size(); ++i) {
      if (i > 0) {
        out_.push_back(',');
      }
      value(records[i]);
      boundary();
    }
    out_.push_back(']');
  }
  template <HasSchema Record>
  void value(const Record& record) {
    static_assert(keysSorted<Record>(), "the fields of a record must be in sorted key order");
    out_.push_back('{');
    bool first = true;
    std::apply(
        [&](const auto&... field) { (keyAndValue(field.name, field.of(record), first), ...); },
        Schema<Record>::fields);
    out_.push_back('}');
  }

 private:
  template <typename T>
  void keyAndValue(std::string_view name, const T& member, bool& first) {
    key(name, first);
    first = false;
    value(member);
  }
  template <typename T>
  // An absent optional is left out, key and all.
  void keyAndValue(std::string_view name, const std::optional<T>& member, bool& first) {
    if (member) {
      keyAndValue(name, *member, first);
    }
  }
  template <typename T>
  void array(const std::vector<T>& items) {
    out_.push_back('[');
    for (std::size_t i = 0; i < items.size(); ++i) {
      if (i > 0) {
        out_.push_back(',');
      }
      value(items[i]);
    }
    out_.push_back(']');
  }
  void floating(float number) {
    if (!std::isfinite(number)) {
      throw EncodeError("ein Vektor enthält einen Wert, der keine endliche Zahl ist");
    }
    if (number == 0.0F && std::signbit(number)) {
      // "-0" would read back as the integer 0 and lose its sign; "-0.0" keeps every bit.
      out_ += "-0.0";
      return;
    }
    char buffer[32];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, number);
    out_.append(buffer, result.ptr);
  }

  std::string& out_;
  const std::function<void(std::string_view)>* sink_;
};

std::size_t estimateSize(const LibraryData& data) {
  std::size_t size = 256;
  for (const SavedTab& t : data.tabs) {
    size += 400 + t.url.size() + t.title.size() + t.text.size() + t.summary.size() + t.note.size();
  }
  for (const auto& [key, vector] : data.embeddings) {
    size += key.size() + 8 + vector.size() * 16;
  }
  return size;
}

// ---------------------------------------------------------------------------------------------
// Reading.

struct DecodeFailure {
  std::string reason;
};

[[noreturn]] void fail(std::string reason) {
  throw DecodeFailure{std::move(reason)};
}

// The place a decoding error names: "tab.url", a record alone ("tab") or a top-level key.
struct Where {
  std::string_view record;
  std::string_view key;
};

[[noreturn]] void fail(const Where& where, std::string_view problem) {
  std::string reason(where.record);
  if (!where.record.empty() && !where.key.empty()) {
    reason += '.';
  }
  reason += where.key;
  reason += ": ";
  reason += problem;
  fail(std::move(reason));
}

using Element = simdjson::dom::element;
using ElementType = simdjson::dom::element_type;

std::string_view asString(Element e, const Where& where) {
  std::string_view s;
  if (e.get_string().get(s) != simdjson::SUCCESS) {
    fail(where, "expected a string");
  }
  return s;
}

float asFloat(Element e, const Where& where) {
  double d = 0;
  switch (e.type()) {
    case ElementType::INT64:
      return static_cast<float>(e.get_int64().value_unsafe());
    case ElementType::UINT64:
      return static_cast<float>(e.get_uint64().value_unsafe());
    case ElementType::DOUBLE:
      d = e.get_double().value_unsafe();
      // Doubles below FLT_MAX plus half a unit in the last place still round to FLT_MAX.
      if (!(std::fabs(d) < 3.4028235677973366e+38)) {
        fail(where, "number does not fit in a 32-bit float");
      }
      return static_cast<float>(d);
    default:
      fail(where, "expected a number");
  }
}

Uuid asUuid(Element e, const Where& where) {
  auto id = Uuid::parse(asString(e, where));
  if (!id) {
    fail(where, "not a UUID");
  }
  return *id;
}

simdjson::dom::object asObject(Element e, const Where& where) {
  simdjson::dom::object o;
  if (e.get_object().get(o) != simdjson::SUCCESS) {
    fail(where, "expected an object");
  }
  return o;
}

simdjson::dom::array asArray(Element e, const Where& where) {
  simdjson::dom::array a;
  if (e.get_array().get(a) != simdjson::SUCCESS) {
    fail(where, "expected an array");
  }
  return a;
}

// readValue(element, where, member, loadTime) reads a member of the type at hand; `where` names
// it in errors. A value read replaces what the member held: of a repeated key, the last one wins.

void readValue(Element e, const Where& where, std::string& out, Date /*loadTime*/) {
  out = asString(e, where);
}

void readValue(Element e, const Where& where, std::int64_t& out, Date /*loadTime*/) {
  if (e.type() != ElementType::INT64) {
    fail(where, "expected an integer in range");
  }
  out = e.get_int64().value_unsafe();
}

void readValue(Element e, const Where& where, bool& out, Date /*loadTime*/) {
  if (e.get_bool().get(out) != simdjson::SUCCESS) {
    fail(where, "expected a boolean");
  }
}

void readValue(Element e, const Where& where, Uuid& out, Date /*loadTime*/) {
  out = asUuid(e, where);
}

void readValue(Element e, const Where& where, Date& out, Date /*loadTime*/) {
  auto date = Fmt::parseInternetDateTime(asString(e, where));
  if (!date) {
    fail(where, "not an ISO 8601 date-time with a zone and whole seconds");
  }
  out = *date;
}

void readValue(Element e, const Where& where, std::vector<std::string>& out, Date /*loadTime*/) {
  simdjson::dom::array array = asArray(e, where);
  out.clear();
  out.reserve(array.size());
  for (Element item : array) {
    out.emplace_back(asString(item, where));
  }
}

void readValue(Element e, const Where& where, std::vector<Uuid>& out, Date /*loadTime*/) {
  simdjson::dom::array array = asArray(e, where);
  out.clear();
  out.reserve(array.size());
  for (Element item : array) {
    out.push_back(asUuid(item, where));
  }
}

void readValue(Element e, const Where& where, std::map<std::string, std::vector<float>>& out,
               Date /*loadTime*/) {
  out.clear();
  for (auto entry : asObject(e, where)) {
    simdjson::dom::array values = asArray(entry.value, where);
    std::vector<float> vector;
    vector.reserve(values.size());
    for (Element x : values) {
      vector.push_back(asFloat(x, where));
    }
    out.insert_or_assign(std::string(entry.key), std::move(vector));
  }
}

template <typename T>
void readValue(Element e, const Where& where, std::optional<T>& out, Date loadTime) {
  readValue(e, where, out.emplace(), loadTime);
}

template <HasSchema Record>
Record readRecord(Element e, Date loadTime);

template <HasSchema Record>
void readValue(Element e, const Where& /*where*/, Record& out, Date loadTime) {
  out = readRecord<Record>(e, loadTime);
}

template <HasSchema Record>
void readValue(Element e, const Where& where, std::vector<Record>& out, Date loadTime) {
  simdjson::dom::array array = asArray(e, where);
  out.clear();
  out.reserve(array.size());
  for (Element item : array) {
    out.push_back(readRecord<Record>(item, loadTime));
  }
}

// Reads `value` into the field named `key`, if the record has one; returns the field's bit.
template <typename Record, std::size_t... I>
std::uint32_t readField(Record& record, std::string_view key, Element value, Date loadTime,
                        std::index_sequence<I...> /*fields*/) {
  std::uint32_t bit = 0;
  // Tried in table order until one matches, like a chain of ifs.
  (void)(... || [&](const auto& field) {
    if (key != field.name) {
      return false;
    }
    readValue(value, Where{keyPrefix<Record>, field.name}, field.of(record), loadTime);
    bit = std::uint32_t{1} << I;
    return true;
  }(std::get<I>(Schema<Record>::fields)));
  return bit;
}

// Calls visit(field, index) for each field of the record's table, in order.
template <typename Record, typename Visit>
constexpr void forEachField(Visit&& visit) {
  std::apply(
      [&](const auto&... field) {
        std::size_t index = 0;
        (visit(field, index++), ...);
      },
      Schema<Record>::fields);
}

template <typename Record>
constexpr std::uint32_t kRequiredKeys = [] {
  std::uint32_t bits = 0;
  forEachField<Record>([&](const auto& field, std::size_t index) {
    if (Schema<Record>::strict || field.required) {
      bits |= std::uint32_t{1} << index;
    }
  });
  return bits;
}();

bool saw(std::uint32_t seen, std::size_t index) {
  return ((seen >> index) & 1U) != 0;
}

template <typename Record>
[[noreturn]] void failMissing(const Record& record, std::uint32_t seen) {
  if constexpr (Schema<Record>::strict) {
    // Named is the first missing key in the order the record declares its members, the order
    // these messages have always followed.
    std::string_view first;
    const void* firstAddress = nullptr;
    forEachField<Record>([&](const auto& field, std::size_t index) {
      const void* address = &field.of(record);
      if (!saw(seen, index) &&
          (firstAddress == nullptr || std::less<const void*>()(address, firstAddress))) {
        first = field.name;
        firstAddress = address;
      }
    });
    fail(std::string(Schema<Record>::name) + ": missing key " + std::string(first));
  } else {
    std::string names;
    forEachField<Record>([&](const auto& field, std::size_t /*index*/) {
      if (field.required) {
        names += names.empty() ? "" : " and ";
        names += field.name;
      }
    });
    fail(std::string(Schema<Record>::name) + ": " + names + " are required");
  }
}

template <HasSchema Record>
Record readRecord(Element e, Date loadTime) {
  using S = Schema<Record>;
  constexpr std::size_t count = kFieldCount<Record>;
  static_assert(count <= 32, "the keys seen are kept in 32 bits");

  Record record;
  std::uint32_t seen = 0;
  for (auto [key, value] : asObject(e, Where{S::name, {}})) {
    if constexpr (!S::strict) {
      if (value.is_null()) {
        continue;  // an explicit null counts as missing
      }
    }
    seen |= readField(record, key, value, loadTime, std::make_index_sequence<count>());
  }
  if ((seen & kRequiredKeys<Record>) != kRequiredKeys<Record>) {
    failMissing(record, seen);
  }
  if constexpr (!S::strict) {
    forEachField<Record>([&](const auto& field, std::size_t index) {
      if (field.orElse != nullptr && !saw(seen, index)) {
        field.orElse(record, loadTime);
      }
    });
  }
  return record;
}

// Reading the vectors apart. A parse tree of the whole document holds every vector value twice
// over (its place in the structure and its 64-bit number), which at tens of thousands of tabs is
// most of a load's peak memory. When the document is ours to change, the value of the top-level
// key "embeddings" is parsed and read on its own first, then overwritten with an empty object of
// the same length, and the rest is parsed as usual. Whatever looks unusual (an escaped key, the key
// twice, a value that is no object or does not parse alone) leaves the document untouched for the
// one parse of everything, so decisions and error texts are always those of that parse.

constexpr std::size_t kNone = std::string_view::npos;

std::size_t skipSpace(std::string_view t, std::size_t i) {
  while (i < t.size() && (t[i] == ' ' || t[i] == '\n' || t[i] == '\r' || t[i] == '\t')) {
    ++i;
  }
  return i;
}

// The index after the string whose opening quote is at `i`; kNone when it does not end.
std::size_t skipString(std::string_view t, std::size_t i) {
  for (std::size_t from = i + 1;;) {
    const std::size_t quote = t.find('"', from);
    if (quote == kNone) {
      return kNone;
    }
    std::size_t backslashes = 0;
    while (quote - backslashes - 1 > i && t[quote - backslashes - 1] == '\\') {
      ++backslashes;
    }
    if (backslashes % 2 == 0) {
      return quote + 1;
    }
    from = quote + 1;
  }
}

// The index after the value starting at `i` in the NUL-terminated `t`, found by brackets and
// strings alone (the parse checks the rest); kNone when it does not end.
std::size_t skipValue(std::string_view t, std::size_t i) {
  std::size_t depth = 0;
  while (i < t.size()) {
    if (depth > 0) {
      // Inside brackets only these matter; strcspn skips the numbers between them fast.
      i += std::strcspn(t.data() + i, "\"{}[]");
      if (i >= t.size()) {
        break;
      }
    }
    const char c = t[i];
    if (c == '"') {
      i = skipString(t, i);
      if (i == kNone || depth == 0) {
        return i;
      }
      continue;
    }
    if (c == '{' || c == '[') {
      ++depth;
    } else if (c == '}' || c == ']') {
      if (depth == 0) {
        return i;  // a scalar's end
      }
      if (--depth == 0) {
        return i + 1;
      }
    } else if (depth == 0 && (c == ',' || c == ' ' || c == '\n' || c == '\r' || c == '\t')) {
      return i;
    } else if (c == '\0' && depth > 0) {
      ++i;  // a NUL inside: strcspn stopped there, the scan goes on
      continue;
    }
    ++i;
  }
  return depth == 0 ? i : kNone;
}

struct Span {
  std::size_t begin;
  std::size_t end;
};

// The value of the one top-level key "embeddings" when it is an object; see above.
std::optional<Span> embeddingsSpan(const std::string& text) {
  const std::string_view t = text;
  std::size_t i = skipSpace(t, 0);
  if (i >= t.size() || t[i] != '{') {
    return std::nullopt;
  }
  std::optional<Span> found;
  for (i = skipSpace(t, i + 1); i < t.size() && t[i] == '"';) {
    const std::size_t keyEnd = skipString(t, i);
    if (keyEnd == kNone) {
      return std::nullopt;
    }
    const std::string_view key = t.substr(i + 1, keyEnd - i - 2);
    i = skipSpace(t, keyEnd);
    if (key.find('\\') != kNone || i >= t.size() || t[i] != ':') {
      return std::nullopt;
    }
    i = skipSpace(t, i + 1);
    const std::size_t end = i < t.size() ? skipValue(t, i) : kNone;
    if (end == kNone) {
      return std::nullopt;
    }
    if (key == "embeddings") {
      if (found || t[i] != '{') {
        return std::nullopt;
      }
      found = Span{i, end};
    }
    i = skipSpace(t, end);
    if (i < t.size() && t[i] == '}') {
      return found;
    }
    if (i >= t.size() || t[i] != ',') {
      return std::nullopt;
    }
    i = skipSpace(t, i + 1);
  }
  return std::nullopt;
}

// The vectors of `text` read on their own, their place in `text` then blanked; no value (and
// `text` unchanged) when anything is unusual.
std::optional<std::map<std::string, std::vector<float>>> readEmbeddingsApart(std::string& text,
                                                                             Date loadTime) {
  const std::optional<Span> span = embeddingsSpan(text);
  if (!span) {
    return std::nullopt;
  }
  std::map<std::string, std::vector<float>> out;
  {
    simdjson::dom::parser parser;
    Element value;
    // The bytes after the span are readable, as the parser needs; it does not take them as JSON.
    if (parser.parse(text.data() + span->begin, span->end - span->begin, false).get(value) !=
            simdjson::SUCCESS ||
        !value.is_object()) {
      return std::nullopt;
    }
    try {
      readValue(value, Where{"", "embeddings"}, out, loadTime);
    } catch (const DecodeFailure&) {
      return std::nullopt;
    }
  }
  text.replace(span->begin, span->end - span->begin, span->end - span->begin, ' ');
  text[span->begin] = '{';
  text[span->begin + 1] = '}';
  return out;
}

// `release`, when given, holds `bytes` and is emptied right after parsing: the parse tree keeps
// copies of all strings, so the text is not needed while the records are built.
std::optional<LibraryData> decode(const char* bytes, std::size_t length, bool padded, Date loadTime,
                                  std::string* error, std::string* release = nullptr) {
  std::optional<std::map<std::string, std::vector<float>>> vectors;
  if (release != nullptr && padded) {
    vectors = readEmbeddingsApart(*release, loadTime);
  }
  // A parser of its own for each load: its buffers are about twice the document's size, and a
  // long-running process that keeps the document (the MCP server) must not keep them as well.
  simdjson::dom::parser parser;
  Element root;
  if (auto status = parser.parse(bytes, length, !padded).get(root); status != simdjson::SUCCESS) {
    if (error != nullptr) {
      *error = simdjson::error_message(status);
    }
    return std::nullopt;
  }
  if (release != nullptr) {
    std::string().swap(*release);
  }
  try {
    LibraryData data = readRecord<LibraryData>(root, loadTime);
    if (vectors) {
      data.embeddings = std::move(*vectors);
    }
    return data;
  } catch (const DecodeFailure& failure) {
    if (error != nullptr) {
      *error = failure.reason;
    }
    return std::nullopt;
  }
}

}  // namespace

namespace {

// Bytes the document escapes: controls, the quote, the backslash and "/".
constexpr std::array<bool, 256> kEscaped = [] {
  std::array<bool, 256> table{};
  for (int c = 0; c < 0x20; ++c) {
    table[static_cast<std::size_t>(c)] = true;
  }
  table['"'] = table['\\'] = table['/'] = true;
  return table;
}();

void appendEscape(std::string& out, unsigned char c) {
  static constexpr char kHex[] = "0123456789abcdef";
  switch (c) {
    case '"':
      out += "\\\"";
      break;
    case '\\':
      out += "\\\\";
      break;
    case '/':
      out += "\\/";
      break;
    case '\b':
      out += "\\b";
      break;
    case '\f':
      out += "\\f";
      break;
    case '\n':
      out += "\\n";
      break;
    case '\r':
      out += "\\r";
      break;
    case '\t':
      out += "\\t";
      break;
    default:
      out += "\\u00";
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 0x0F]);
  }
}

// Escapes text already known to be valid UTF-8: only ASCII bytes ever need escaping.
void appendValid(std::string& out, std::string_view text) {
  const auto* s = reinterpret_cast<const unsigned char*>(text.data());
  std::size_t run = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (kEscaped[s[i]]) {
      out.append(text.data() + run, i - run);
      appendEscape(out, s[i]);
      run = i + 1;
    }
  }
  out.append(text.data() + run, text.size() - run);
}

}  // namespace

void appendJsonString(std::string& out, std::string_view text) {
  out.push_back('"');
  if (simdjson::validate_utf8(text.data(), text.size())) {
    appendValid(out, text);
  } else {
    appendValid(out, unicode::repairUtf8(text));
  }
  out.push_back('"');
}

namespace {

void encode(const LibraryData& data, std::string& out,
            const std::function<void(std::string_view)>* sink) {
  Writer w(out, sink);
  w.value(data);
  w.finish();
}

}  // namespace

std::string encodeLibrary(const LibraryData& data) {
  std::string out;
  out.reserve(estimateSize(data));
  encode(data, out, nullptr);
  return out;
}

void encodeLibrary(const LibraryData& data, const std::function<void(std::string_view)>& sink) {
  std::string buffer;
  buffer.reserve(Writer::kChunk + (Writer::kChunk >> 2));
  encode(data, buffer, &sink);
}

std::optional<LibraryData> decodeLibrary(std::string_view json, Date loadTime, std::string* error) {
  return decode(json.data(), json.size(), false, loadTime, error);
}

std::optional<LibraryData> decodeLibrary(const std::string& json, Date loadTime,
                                         std::string* error) {
  const bool padded = json.capacity() - json.size() >= kPadding;
  return decode(json.data(), json.size(), padded, loadTime, error);
}

std::optional<LibraryData> decodeLibrary(std::string&& json, Date loadTime, std::string* error) {
  const bool padded = json.capacity() - json.size() >= kPadding;
  return decode(json.data(), json.size(), padded, loadTime, error, &json);
}

}  // namespace kestrova::codec
