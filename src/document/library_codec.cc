#include "library_codec.h"

#include <array>
#include <charconv>
#include <cmath>
#include <functional>

#include <simdjson.h>

#include <kestrova/fmt.h>
#include <kestrova/unicode.h>

static_assert(kestrova::codec::kPadding >= simdjson::SIMDJSON_PADDING);

namespace kestrova::codec {
namespace {

// ---------------------------------------------------------------------------------------------
// Writing. Every object's keys are written in sorted (byte) order by hand; a test checks it.

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

  void raw(std::string_view text) { out_ += text; }
  void key(std::string_view name, bool first) {
    if (!first) {
      out_.push_back(',');
    }
    out_.push_back('"');
    out_ += name;  // field names are plain ASCII without characters to escape
    out_ += "\":";
  }
  void string(std::string_view text) { appendJsonString(out_, text); }
  void integer(std::int64_t value) {
    char buffer[24];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out_.append(buffer, result.ptr);
  }
  void boolean(bool value) { out_ += value ? "true" : "false"; }
  void date(Date value) {
    // A date the document cannot hold would make the whole file unreadable on the next load.
    if (value < kFirstDate || value >= kLastDate + std::chrono::seconds(1)) {
      throw EncodeError("ein Datum liegt ausserhalb der Jahre 1 bis 9999");
    }
    out_.push_back('"');
    out_ += Fmt::iso(value);
    out_.push_back('"');
  }
  void uuid(const Uuid& id) {
    out_.push_back('"');
    out_ += id.string();
    out_.push_back('"');
  }
  void floating(float value) {
    if (!std::isfinite(value)) {
      throw EncodeError("ein Vektor enthält einen Wert, der keine endliche Zahl ist");
    }
    if (value == 0.0F && std::signbit(value)) {
      // "-0" would read back as the integer 0 and lose its sign; "-0.0" keeps every bit.
      out_ += "-0.0";
      return;
    }
    char buffer[32];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out_.append(buffer, result.ptr);
  }
  void strings(const std::vector<std::string>& values) {
    out_.push_back('[');
    for (std::size_t i = 0; i < values.size(); ++i) {
      if (i > 0) {
        out_.push_back(',');
      }
      string(values[i]);
    }
    out_.push_back(']');
  }
  void uuids(const std::vector<Uuid>& values) {
    out_.push_back('[');
    for (std::size_t i = 0; i < values.size(); ++i) {
      if (i > 0) {
        out_.push_back(',');
      }
      uuid(values[i]);
    }
    out_.push_back(']');
  }

 private:
  std::string& out_;
  const std::function<void(std::string_view)>* sink_;
};

void writeTab(Writer& w, const SavedTab& t) {
  w.raw("{");
  w.key("domain", true);
  w.string(t.domain);
  w.key("id", false);
  w.uuid(t.id);
  w.key("isDemo", false);
  w.boolean(t.isDemo);
  w.key("note", false);
  w.string(t.note);
  w.key("projectTags", false);
  w.strings(t.projectTags);
  if (t.readAt) {
    w.key("readAt", false);
    w.date(*t.readAt);
  }
  if (t.reminderAt) {
    w.key("reminderAt", false);
    w.date(*t.reminderAt);
  }
  w.key("savedAt", false);
  w.date(t.savedAt);
  w.key("summary", false);
  w.string(t.summary);
  w.key("tabIndex", false);
  w.integer(t.tabIndex);
  w.key("tags", false);
  w.strings(t.tags);
  w.key("text", false);
  w.string(t.text);
  w.key("title", false);
  w.string(t.title);
  if (t.topicId) {
    w.key("topicId", false);
    w.uuid(*t.topicId);
  }
  w.key("url", false);
  w.string(t.url);
  w.key("windowId", false);
  w.uuid(t.windowId);
  w.key("windowIndex", false);
  w.integer(t.windowIndex);
  w.raw("}");
}

void writeWindow(Writer& w, const SavedWindow& win) {
  w.raw("{");
  w.key("id", true);
  w.uuid(win.id);
  w.key("savedAt", false);
  w.date(win.savedAt);
  w.key("tabIds", false);
  w.uuids(win.tabIds);
  w.key("title", false);
  w.string(win.title);
  w.raw("}");
}

void writeTopic(Writer& w, const Topic& t) {
  w.raw("{");
  w.key("color", true);
  w.string(t.color);
  w.key("id", false);
  w.uuid(t.id);
  w.key("isUnsorted", false);
  w.boolean(t.isUnsorted);
  w.key("name", false);
  w.string(t.name);
  w.key("tabIds", false);
  w.uuids(t.tabIds);
  w.raw("}");
}

void writeContext(Writer& w, const UserContext& c) {
  w.raw("{");
  w.key("folderPaths", true);
  w.strings(c.folderPaths);
  w.key("freeText", false);
  w.string(c.freeText);
  w.key("hintHour", false);
  w.integer(c.hintHour);
  w.key("hintsPerDay", false);
  w.integer(c.hintsPerDay);
  w.raw("}");
}

void writeHint(Writer& w, const Hint& h) {
  w.raw("{");
  w.key("createdAt", true);
  w.date(h.createdAt);
  w.key("dismissed", false);
  w.boolean(h.dismissed);
  w.key("id", false);
  w.uuid(h.id);
  w.key("reason", false);
  w.string(h.reason);
  w.key("tabId", false);
  w.uuid(h.tabId);
  w.raw("}");
}

template <typename T, typename F>
void writeList(Writer& w, const std::vector<T>& items, F&& writeOne) {
  w.raw("[");
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (i > 0) {
      w.raw(",");
    }
    writeOne(w, items[i]);
    w.boundary();
  }
  w.raw("]");
}

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

using Element = simdjson::dom::element;
using ElementType = simdjson::dom::element_type;

std::string_view asString(Element e, std::string_view what) {
  std::string_view s;
  if (e.get_string().get(s) != simdjson::SUCCESS) {
    fail(std::string(what) + ": expected a string");
  }
  return s;
}

std::int64_t asInt(Element e, std::string_view what) {
  if (e.type() == ElementType::INT64) {
    return e.get_int64().value_unsafe();
  }
  fail(std::string(what) + ": expected an integer in range");
}

bool asBool(Element e, std::string_view what) {
  bool b = false;
  if (e.get_bool().get(b) != simdjson::SUCCESS) {
    fail(std::string(what) + ": expected a boolean");
  }
  return b;
}

float asFloat(Element e, std::string_view what) {
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
        fail(std::string(what) + ": number does not fit in a 32-bit float");
      }
      return static_cast<float>(d);
    default:
      fail(std::string(what) + ": expected a number");
  }
}

Uuid asUuid(Element e, std::string_view what) {
  auto id = Uuid::parse(asString(e, what));
  if (!id) {
    fail(std::string(what) + ": not a UUID");
  }
  return *id;
}

Date asDate(Element e, std::string_view what) {
  auto date = Fmt::parseInternetDateTime(asString(e, what));
  if (!date) {
    fail(std::string(what) + ": not an ISO 8601 date-time with a zone and whole seconds");
  }
  return *date;
}

simdjson::dom::object asObject(Element e, std::string_view what) {
  simdjson::dom::object o;
  if (e.get_object().get(o) != simdjson::SUCCESS) {
    fail(std::string(what) + ": expected an object");
  }
  return o;
}

simdjson::dom::array asArray(Element e, std::string_view what) {
  simdjson::dom::array a;
  if (e.get_array().get(a) != simdjson::SUCCESS) {
    fail(std::string(what) + ": expected an array");
  }
  return a;
}

std::vector<std::string> asStrings(Element e, std::string_view what) {
  std::vector<std::string> out;
  for (Element item : asArray(e, what)) {
    out.emplace_back(asString(item, what));
  }
  return out;
}

std::vector<Uuid> asUuids(Element e, std::string_view what) {
  std::vector<Uuid> out;
  for (Element item : asArray(e, what)) {
    out.push_back(asUuid(item, what));
  }
  return out;
}

// Strict records track which keys they saw; every one is required.
class Required {
 public:
  Required(std::string_view record, std::initializer_list<std::string_view> names)
      : record_(record), names_(names) {}
  void saw(std::size_t index) { seen_ |= 1u << index; }
  void check() const {
    for (std::size_t i = 0; i < names_.size(); ++i) {
      if ((seen_ & (1u << i)) == 0) {
        fail(std::string(record_) + ": missing key " + std::string(names_[i]));
      }
    }
  }

 private:
  std::string_view record_;
  std::vector<std::string_view> names_;
  unsigned seen_ = 0;
};

SavedTab readTab(Element e, Date loadTime) {
  SavedTab t;
  bool haveId = false;
  bool haveUrl = false;
  bool haveDomain = false;
  bool haveSavedAt = false;
  bool haveWindowId = false;
  for (auto field : asObject(e, "tab")) {
    const std::string_view k = field.key;
    const Element v = field.value;
    if (v.is_null()) {
      continue;  // an explicit null counts as missing
    }
    if (k == "id") {
      t.id = asUuid(v, "tab.id");
      haveId = true;
    } else if (k == "url") {
      t.url = asString(v, "tab.url");
      haveUrl = true;
    } else if (k == "title") {
      t.title = asString(v, "tab.title");
    } else if (k == "domain") {
      t.domain = asString(v, "tab.domain");
      haveDomain = true;
    } else if (k == "savedAt") {
      t.savedAt = asDate(v, "tab.savedAt");
      haveSavedAt = true;
    } else if (k == "windowId") {
      t.windowId = asUuid(v, "tab.windowId");
      haveWindowId = true;
    } else if (k == "windowIndex") {
      t.windowIndex = asInt(v, "tab.windowIndex");
    } else if (k == "tabIndex") {
      t.tabIndex = asInt(v, "tab.tabIndex");
    } else if (k == "text") {
      t.text = asString(v, "tab.text");
    } else if (k == "summary") {
      t.summary = asString(v, "tab.summary");
    } else if (k == "topicId") {
      t.topicId = asUuid(v, "tab.topicId");
    } else if (k == "note") {
      t.note = asString(v, "tab.note");
    } else if (k == "reminderAt") {
      t.reminderAt = asDate(v, "tab.reminderAt");
    } else if (k == "projectTags") {
      t.projectTags = asStrings(v, "tab.projectTags");
    } else if (k == "tags") {
      t.tags = asStrings(v, "tab.tags");
    } else if (k == "readAt") {
      t.readAt = asDate(v, "tab.readAt");
    } else if (k == "isDemo") {
      t.isDemo = asBool(v, "tab.isDemo");
    }
  }
  if (!haveId || !haveUrl) {
    fail("tab: id and url are required");
  }
  if (!haveDomain) {
    t.domain = SavedTab::domainOf(t.url);
  }
  if (!haveSavedAt) {
    t.savedAt = loadTime;
  }
  if (!haveWindowId) {
    t.windowId = Uuid::random();
  }
  return t;
}

SavedWindow readWindow(Element e) {
  SavedWindow w;
  Required required("window", {"id", "savedAt", "title", "tabIds"});
  for (auto field : asObject(e, "window")) {
    const std::string_view k = field.key;
    if (k == "id") {
      w.id = asUuid(field.value, "window.id");
      required.saw(0);
    } else if (k == "savedAt") {
      w.savedAt = asDate(field.value, "window.savedAt");
      required.saw(1);
    } else if (k == "title") {
      w.title = asString(field.value, "window.title");
      required.saw(2);
    } else if (k == "tabIds") {
      w.tabIds = asUuids(field.value, "window.tabIds");
      required.saw(3);
    }
  }
  required.check();
  return w;
}

Topic readTopic(Element e) {
  Topic t;
  Required required("topic", {"id", "name", "color", "tabIds", "isUnsorted"});
  for (auto field : asObject(e, "topic")) {
    const std::string_view k = field.key;
    if (k == "id") {
      t.id = asUuid(field.value, "topic.id");
      required.saw(0);
    } else if (k == "name") {
      t.name = asString(field.value, "topic.name");
      required.saw(1);
    } else if (k == "color") {
      t.color = asString(field.value, "topic.color");
      required.saw(2);
    } else if (k == "tabIds") {
      t.tabIds = asUuids(field.value, "topic.tabIds");
      required.saw(3);
    } else if (k == "isUnsorted") {
      t.isUnsorted = asBool(field.value, "topic.isUnsorted");
      required.saw(4);
    }
  }
  required.check();
  return t;
}

UserContext readContext(Element e) {
  UserContext c;
  Required required("context", {"folderPaths", "freeText", "hintsPerDay", "hintHour"});
  for (auto field : asObject(e, "context")) {
    const std::string_view k = field.key;
    if (k == "folderPaths") {
      c.folderPaths = asStrings(field.value, "context.folderPaths");
      required.saw(0);
    } else if (k == "freeText") {
      c.freeText = asString(field.value, "context.freeText");
      required.saw(1);
    } else if (k == "hintsPerDay") {
      c.hintsPerDay = asInt(field.value, "context.hintsPerDay");
      required.saw(2);
    } else if (k == "hintHour") {
      c.hintHour = asInt(field.value, "context.hintHour");
      required.saw(3);
    }
  }
  required.check();
  return c;
}

Hint readHint(Element e) {
  Hint h;
  Required required("hint", {"id", "tabId", "reason", "createdAt", "dismissed"});
  for (auto field : asObject(e, "hint")) {
    const std::string_view k = field.key;
    if (k == "id") {
      h.id = asUuid(field.value, "hint.id");
      required.saw(0);
    } else if (k == "tabId") {
      h.tabId = asUuid(field.value, "hint.tabId");
      required.saw(1);
    } else if (k == "reason") {
      h.reason = asString(field.value, "hint.reason");
      required.saw(2);
    } else if (k == "createdAt") {
      h.createdAt = asDate(field.value, "hint.createdAt");
      required.saw(3);
    } else if (k == "dismissed") {
      h.dismissed = asBool(field.value, "hint.dismissed");
      required.saw(4);
    }
  }
  required.check();
  return h;
}

template <typename T, typename F>
std::vector<T> readList(Element e, std::string_view what, F&& readOne) {
  simdjson::dom::array array = asArray(e, what);
  std::vector<T> out;
  out.reserve(array.size());
  for (Element item : array) {
    out.push_back(readOne(item));
  }
  return out;
}

LibraryData readLibrary(Element root, Date loadTime) {
  LibraryData data;
  for (auto field : asObject(root, "document")) {
    const std::string_view k = field.key;
    const Element v = field.value;
    if (v.is_null()) {
      continue;
    }
    if (k == "version") {
      data.version = asInt(v, "version");
    } else if (k == "tabs") {
      data.tabs = readList<SavedTab>(v, "tabs", [&](Element x) { return readTab(x, loadTime); });
    } else if (k == "windows") {
      data.windows = readList<SavedWindow>(v, "windows", readWindow);
    } else if (k == "topics") {
      data.topics = readList<Topic>(v, "topics", readTopic);
    } else if (k == "context") {
      data.context = readContext(v);
    } else if (k == "hints") {
      data.hints = readList<Hint>(v, "hints", readHint);
    } else if (k == "embeddings") {
      data.embeddings.clear();
      for (auto entry : asObject(v, "embeddings")) {
        simdjson::dom::array values = asArray(entry.value, "embeddings");
        std::vector<float> vector;
        vector.reserve(values.size());
        for (Element x : values) {
          vector.push_back(asFloat(x, "embeddings"));
        }
        data.embeddings.insert_or_assign(std::string(entry.key), std::move(vector));
      }
    } else if (k == "embedderKind") {
      data.embedderKind = asString(v, "embedderKind");
    } else if (k == "topicsByAI") {
      data.topicsByAI = asBool(v, "topicsByAI");
    } else if (k == "lastHintDay") {
      data.lastHintDay = std::string(asString(v, "lastHintDay"));
    }
  }
  return data;
}

// `release`, when given, holds `bytes` and is emptied right after parsing: the parse tree keeps
// copies of all strings, so the text is not needed while the records are built.
std::optional<LibraryData> decode(const char* bytes, std::size_t length, bool padded, Date loadTime,
                                  std::string* error, std::string* release = nullptr) {
  // One parser per thread keeps its buffers between loads (the MCP server loads on every call).
  thread_local simdjson::dom::parser parser;
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
    return readLibrary(root, loadTime);
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
  w.raw("{");
  w.key("context", true);
  writeContext(w, data.context);
  w.key("embedderKind", false);
  w.string(data.embedderKind);
  w.key("embeddings", false);
  w.raw("{");
  bool first = true;
  for (const auto& [key, vector] : data.embeddings) {  // std::map: keys already sorted
    if (!first) {
      w.raw(",");
    }
    first = false;
    w.string(key);
    w.raw(":[");
    for (std::size_t i = 0; i < vector.size(); ++i) {
      if (i > 0) {
        out.push_back(',');
      }
      w.floating(vector[i]);
    }
    w.raw("]");
    w.boundary();
  }
  w.raw("}");
  w.key("hints", false);
  writeList(w, data.hints, writeHint);
  if (data.lastHintDay) {
    w.key("lastHintDay", false);
    w.string(*data.lastHintDay);
  }
  w.key("tabs", false);
  writeList(w, data.tabs, writeTab);
  w.key("topics", false);
  writeList(w, data.topics, writeTopic);
  w.key("topicsByAI", false);
  w.boolean(data.topicsByAI);
  w.key("version", false);
  w.integer(data.version);
  w.key("windows", false);
  writeList(w, data.windows, writeWindow);
  w.raw("}");
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
