// ScriptValue, and reading results and errors in the form `osascript -ss` prints them.

#include <charconv>
#include <cmath>
#include <limits>
#include <string>

#include <kestrova/script_runner.h>
#include <kestrova/unicode.h>

namespace kestrova {

ScriptValue ScriptValue::makeString(std::string s) {
  ScriptValue v;
  v.kind = Kind::string;
  v.text = std::move(s);
  return v;
}

ScriptValue ScriptValue::makeInteger(std::int64_t i) {
  ScriptValue v;
  v.kind = Kind::integer;
  v.integer = i;
  return v;
}

ScriptValue ScriptValue::makeList(std::vector<ScriptValue> items) {
  ScriptValue v;
  v.kind = Kind::list;
  v.items = std::move(items);
  return v;
}

ScriptValue ScriptValue::makeMissing() {
  ScriptValue v;
  v.kind = Kind::missingValue;
  return v;
}

std::size_t ScriptValue::itemCount() const {
  switch (kind) {
    case Kind::list:
      return items.size();
    case Kind::record:
      return fields.size();
    default:
      return 0;
  }
}

const ScriptValue* ScriptValue::item(std::size_t position) const {
  if (position == 0 || position > itemCount()) {
    return nullptr;
  }
  return kind == Kind::list ? &items[position - 1] : &fields[position - 1].second;
}

namespace {

std::string realToText(double value) {
  char buffer[64];
  auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
  return ec == std::errc() ? std::string(buffer, end) : std::string();
}

}  // namespace

std::optional<std::string> ScriptValue::stringValue() const {
  switch (kind) {
    case Kind::string:
      return text;
    case Kind::integer:
      return std::to_string(integer);
    case Kind::real:
      return realToText(real);
    case Kind::boolean:
      return std::string(boolean ? "true" : "false");
    default:
      return std::nullopt;
  }
}

std::int32_t ScriptValue::int32Value() const {
  constexpr auto lo = std::numeric_limits<std::int32_t>::min();
  constexpr auto hi = std::numeric_limits<std::int32_t>::max();
  switch (kind) {
    case Kind::integer:
      return integer >= lo && integer <= hi ? static_cast<std::int32_t>(integer) : 0;
    case Kind::real:
      if (std::isfinite(real) && real >= lo && real <= hi) {
        return static_cast<std::int32_t>(real);
      }
      return 0;
    case Kind::string: {
      std::int32_t out = 0;
      const char* first = text.data();
      const char* last = text.data() + text.size();
      auto [end, ec] = std::from_chars(first, last, out);
      return ec == std::errc() && end == last ? out : 0;
    }
    default:
      return 0;
  }
}

namespace {

constexpr int kMaxDepth = 256;

bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

class ResultReader {
 public:
  explicit ResultReader(std::string_view text) : s_(text) {}

  std::variant<ScriptValue, ScriptParseError> readAll() {
    skipBlanks();
    if (pos_ == s_.size()) {
      return ScriptValue{};
    }
    ScriptValue value;
    if (!readValue(value, 0)) {
      return error_;
    }
    skipBlanks();
    if (pos_ != s_.size()) {
      fail("Unerwarteter Text nach dem Ergebnis");
      return error_;
    }
    return value;
  }

 private:
  bool fail(const char* message) {
    if (error_.message.empty()) {
      error_ = ScriptParseError{pos_, message};
    }
    return false;
  }

  void skipBlanks() {
    while (pos_ < s_.size() && isBlank(s_[pos_])) {
      ++pos_;
    }
  }

  bool readValue(ScriptValue& out, int depth) {
    skipBlanks();
    if (pos_ >= s_.size()) {
      return fail("Wert erwartet, Ende gefunden");
    }
    char c = s_[pos_];
    if (c == '{') {
      return readBraces(out, depth + 1);
    }
    if (c == '"') {
      out.kind = ScriptValue::Kind::string;
      return readString(out.text);
    }
    if (c == '}' || c == ',' || c == ':') {
      return fail("Wert erwartet");
    }
    return readWord(out, depth);
  }

  // A quoted string; `pos_` is at the opening quote.
  bool readString(std::string& out) {
    std::size_t start = pos_;
    ++pos_;
    while (pos_ < s_.size()) {
      char c = s_[pos_++];
      if (c == '"') {
        return true;
      }
      if (c != '\\') {
        out.push_back(c);
        continue;
      }
      if (pos_ >= s_.size()) {
        break;
      }
      char e = s_[pos_++];
      switch (e) {
        case 'n':
          out.push_back('\n');
          break;
        case 'r':
          out.push_back('\r');
          break;
        case 't':
          out.push_back('\t');
          break;
        case '"':
        case '\\':
          out.push_back(e);
          break;
        default:  // not an escape AppleScript knows: keep it as written
          out.push_back('\\');
          out.push_back(e);
      }
    }
    pos_ = start;
    return fail("Zeichenkette ohne schliessendes Anführungszeichen");
  }

  // Skips a «...» chevron group; `pos_` is at its first byte.
  bool skipChevrons() {
    std::size_t start = pos_;
    pos_ += 2;  // "«" is two bytes in UTF-8
    std::size_t close = s_.find("\xC2\xBB", pos_);
    if (close == std::string_view::npos) {
      pos_ = start;
      return fail("«» ohne schliessendes Zeichen");
    }
    pos_ = close + 2;
    return true;
  }

  bool atChevron() const { return s_.substr(pos_, 2) == "\xC2\xAB"; }

  // A list `{a, b}` or record `{key:value, ...}`; `pos_` is at "{".
  bool readBraces(ScriptValue& out, int depth) {
    if (depth > kMaxDepth) {
      return fail("Ergebnis zu tief verschachtelt");
    }
    ++pos_;
    skipBlanks();
    if (pos_ < s_.size() && s_[pos_] == '}') {
      ++pos_;
      out.kind = ScriptValue::Kind::list;
      return true;
    }
    bool isRecord = recordKeyAhead();
    out.kind = isRecord ? ScriptValue::Kind::record : ScriptValue::Kind::list;
    for (;;) {
      if (isRecord) {
        std::string key;
        if (!readKey(key)) {
          return false;
        }
        ScriptValue value;
        if (!readValue(value, depth)) {
          return false;
        }
        out.fields.emplace_back(std::move(key), std::move(value));
      } else {
        ScriptValue value;
        if (!readValue(value, depth)) {
          return false;
        }
        out.items.push_back(std::move(value));
      }
      skipBlanks();
      if (pos_ >= s_.size()) {
        return fail("Schliessende Klammer } fehlt");
      }
      if (s_[pos_] == ',') {
        ++pos_;
        continue;
      }
      if (s_[pos_] == '}') {
        ++pos_;
        return true;
      }
      return fail("Komma oder } erwartet");
    }
  }

  // True when the element at `pos_` is a record key: a name, |bars| or «chevrons» up to a colon.
  bool recordKeyAhead() const {
    std::size_t p = pos_;
    if (p < s_.size() && s_[p] == '|') {
      std::size_t close = s_.find('|', p + 1);
      p = close == std::string_view::npos ? s_.size() : close + 1;
    } else if (s_.substr(p, 2) == "\xC2\xAB") {
      std::size_t close = s_.find("\xC2\xBB", p);
      p = close == std::string_view::npos ? s_.size() : close + 2;
    } else {
      while (p < s_.size() && s_[p] != ':' && s_[p] != ',' && s_[p] != '}' && s_[p] != '{' &&
             s_[p] != '"' && s_[p] != '|') {
        ++p;
      }
    }
    while (p < s_.size() && isBlank(s_[p])) {
      ++p;
    }
    return p < s_.size() && s_[p] == ':';
  }

  bool readKey(std::string& key) {
    skipBlanks();
    std::size_t start = pos_;
    if (pos_ < s_.size() && s_[pos_] == '|') {
      std::size_t close = s_.find('|', pos_ + 1);
      if (close == std::string_view::npos) {
        return fail("Feldname ohne schliessendes |");
      }
      key.assign(s_.substr(pos_ + 1, close - pos_ - 1));
      pos_ = close + 1;
    } else if (atChevron()) {
      if (!skipChevrons()) {
        return false;
      }
      key.assign(s_.substr(start, pos_ - start));
    } else {
      while (pos_ < s_.size() && s_[pos_] != ':' && s_[pos_] != ',' && s_[pos_] != '}' &&
             s_[pos_] != '{' && s_[pos_] != '"' && s_[pos_] != '|') {
        ++pos_;
      }
      key.assign(s_.substr(start, pos_ - start));
      while (!key.empty() && isBlank(key.back())) {
        key.pop_back();
      }
    }
    skipBlanks();
    if (key.empty() || pos_ >= s_.size() || s_[pos_] != ':') {
      return fail("Feldname mit : erwartet");
    }
    ++pos_;
    return true;
  }

  // Anything that is not a list, record or string: a keyword, a number or an object's source
  // text, which runs to the next comma or closing brace outside quotes, chevrons and braces.
  bool readWord(ScriptValue& out, int depth) {
    std::size_t start = pos_;
    int braces = 0;
    while (pos_ < s_.size()) {
      char c = s_[pos_];
      if (braces == 0 && (c == ',' || c == '}')) {
        break;
      }
      if (c == '"') {
        std::string ignored;
        if (!readString(ignored)) {
          return false;
        }
        continue;
      }
      if (atChevron()) {
        if (!skipChevrons()) {
          return false;
        }
        continue;
      }
      if (c == '|') {  // an identifier between bars may hold any character
        std::size_t close = s_.find('|', pos_ + 1);
        if (close == std::string_view::npos) {
          return fail("Name ohne schliessendes |");
        }
        pos_ = close + 1;
        continue;
      }
      if (c == '{') {
        if (depth + braces + 1 > kMaxDepth) {
          return fail("Ergebnis zu tief verschachtelt");
        }
        ++braces;
      } else if (c == '}') {
        --braces;
      }
      ++pos_;
    }
    if (braces != 0) {
      return fail("Schliessende Klammer } fehlt");
    }
    std::string_view word = s_.substr(start, pos_ - start);
    while (!word.empty() && isBlank(word.back())) {
      word.remove_suffix(1);
    }
    classifyWord(word, out);
    return true;
  }

  static bool looksNumeric(std::string_view w) {
    std::size_t i = 0;
    if (i < w.size() && w[i] == '-') {
      ++i;
    }
    std::size_t digits = 0;
    while (i < w.size() && w[i] >= '0' && w[i] <= '9') {
      ++i;
      ++digits;
    }
    if (i < w.size() && w[i] == '.') {
      ++i;
      while (i < w.size() && w[i] >= '0' && w[i] <= '9') {
        ++i;
        ++digits;
      }
    }
    if (digits == 0) {
      return false;
    }
    if (i < w.size() && (w[i] == 'E' || w[i] == 'e')) {
      ++i;
      if (i < w.size() && (w[i] == '+' || w[i] == '-')) {
        ++i;
      }
      std::size_t expDigits = 0;
      while (i < w.size() && w[i] >= '0' && w[i] <= '9') {
        ++i;
        ++expDigits;
      }
      if (expDigits == 0) {
        return false;
      }
    }
    return i == w.size();
  }

  static void classifyWord(std::string_view word, ScriptValue& out) {
    if (word == "missing value") {
      out.kind = ScriptValue::Kind::missingValue;
      return;
    }
    if (word == "true" || word == "false") {
      out.kind = ScriptValue::Kind::boolean;
      out.boolean = word == "true";
      return;
    }
    if (looksNumeric(word)) {
      std::int64_t i = 0;
      auto [end, ec] = std::from_chars(word.data(), word.data() + word.size(), i);
      if (ec == std::errc() && end == word.data() + word.size()) {
        out.kind = ScriptValue::Kind::integer;
        out.integer = i;
        return;
      }
      // from_chars for double rejects a leading "+" in the exponent only on some libraries;
      // strtod reads every form looksNumeric lets through.
      std::string copy(word);
      out.kind = ScriptValue::Kind::real;
      out.real = std::strtod(copy.c_str(), nullptr);
      return;
    }
    out.kind = ScriptValue::Kind::other;
    out.text.assign(word);
  }

  std::string_view s_;
  std::size_t pos_ = 0;
  ScriptParseError error_;
};

}  // namespace

std::variant<ScriptValue, ScriptParseError> parseScriptResult(std::string_view text) {
  if (!unicode::isValidUtf8(text)) {
    std::string repaired = unicode::repairUtf8(text);
    return ResultReader(repaired).readAll();
  }
  return ResultReader(text).readAll();
}

ScriptError parseScriptError(std::string_view errorOutput) {
  std::string_view text = errorOutput;
  while (!text.empty() && isBlank(text.back())) {
    text.remove_suffix(1);
  }
  while (!text.empty() && isBlank(text.front())) {
    text.remove_prefix(1);
  }
  ScriptError error;
  if (text.empty()) {
    return error;
  }
  std::size_t marker = std::string_view::npos;
  std::size_t markerLength = 0;
  for (std::string_view m :
       {std::string_view(": execution error: "), std::string_view(": syntax error: ")}) {
    std::size_t at = text.find(m);
    if (at != std::string_view::npos && at < marker) {
      marker = at;
      markerLength = m.size();
    }
  }
  std::string_view message =
      marker == std::string_view::npos ? text : text.substr(marker + markerLength);
  if (marker != std::string_view::npos) {
    // The number in parentheses at the very end, e.g. "(-1743)".
    if (!message.empty() && message.back() == ')') {
      std::size_t open = message.rfind('(');
      if (open != std::string_view::npos) {
        std::string_view digits = message.substr(open + 1, message.size() - open - 2);
        std::int64_t number = 0;
        auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
        if (!digits.empty() && ec == std::errc() && end == digits.data() + digits.size()) {
          error.number = number;
          message = message.substr(0, open);
          while (!message.empty() && isBlank(message.back())) {
            message.remove_suffix(1);
          }
        }
      }
    }
  }
  if (!message.empty()) {
    error.message = unicode::repairUtf8(message);
  }
  return error;
}

}  // namespace kestrova
