#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include <unicode/brkiter.h>
#include <unicode/uchar.h>
#include <unicode/ustring.h>
#include <unicode/utext.h>

#include <kestrova/unicode.h>

namespace kestrova::unicode {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

// Break iterators are costly to create, so each thread keeps a few for reuse.
class IteratorPool {
 public:
  std::unique_ptr<icu::BreakIterator> take() {
    if (!free_.empty()) {
      auto it = std::move(free_.back());
      free_.pop_back();
      return it;
    }
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::BreakIterator> it(
        icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    if (U_FAILURE(status)) {
      return nullptr;
    }
    return it;
  }
  void give(std::unique_ptr<icu::BreakIterator> it) {
    if (it && free_.size() < 4) {
      free_.push_back(std::move(it));
    }
  }

 private:
  std::vector<std::unique_ptr<icu::BreakIterator>> free_;
};

IteratorPool& pool() {
  thread_local IteratorPool p;
  return p;
}

std::u16string toUtf16(std::string_view text) {
  std::u16string out;
  out.resize(text.size() + 1);
  int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strFromUTF8WithSub(out.data(), static_cast<int32_t>(out.size()), &length, text.data(),
                       static_cast<int32_t>(text.size()), kReplacement, nullptr, &status);
  if (U_FAILURE(status)) {
    return {};
  }
  out.resize(static_cast<std::size_t>(length));
  return out;
}

std::string toUtf8(const std::u16string& text) {
  std::string out;
  out.resize(text.size() * 3 + 1);
  int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strToUTF8WithSub(out.data(), static_cast<int32_t>(out.size()), &length, text.data(),
                     static_cast<int32_t>(text.size()), kReplacement, nullptr, &status);
  if (U_FAILURE(status)) {
    return {};
  }
  out.resize(static_cast<std::size_t>(length));
  return out;
}

}  // namespace

std::size_t asciiPrefix(std::string_view text, std::size_t pos) {
  // Eight bytes at a time while none has the high bit set.
  while (pos + 8 <= text.size()) {
    std::uint64_t block;
    std::memcpy(&block, text.data() + pos, sizeof block);
    if ((block & 0x8080808080808080ull) != 0) {
      break;
    }
    pos += 8;
  }
  while (pos < text.size() && static_cast<unsigned char>(text[pos]) < 0x80) {
    ++pos;
  }
  return pos;
}

bool isAscii(std::string_view text) {
  return asciiPrefix(text, 0) == text.size();
}

char32_t decodeAt(std::string_view text, std::size_t& pos) {
  const auto* s = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t n = text.size();
  unsigned char c = s[pos];
  if (c < 0x80) {
    ++pos;
    return c;
  }
  int extra = 0;
  char32_t cp = 0;
  char32_t min = 0;
  if (c >= 0xC2 && c <= 0xDF) {
    extra = 1;
    cp = c & 0x1F;
    min = 0x80;
  } else if (c >= 0xE0 && c <= 0xEF) {
    extra = 2;
    cp = c & 0x0F;
    min = 0x800;
  } else if (c >= 0xF0 && c <= 0xF4) {
    extra = 3;
    cp = c & 0x07;
    min = 0x10000;
  } else {
    ++pos;
    return kReplacement;
  }
  if (pos + static_cast<std::size_t>(extra) >= n) {
    ++pos;
    return kReplacement;
  }
  for (int i = 1; i <= extra; ++i) {
    unsigned char cc = s[pos + i];
    if ((cc & 0xC0) != 0x80) {
      ++pos;
      return kReplacement;
    }
    cp = (cp << 6) | (cc & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
    ++pos;
    return kReplacement;
  }
  pos += static_cast<std::size_t>(extra) + 1;
  return cp;
}

char32_t decodeBefore(std::string_view text, std::size_t& pos) {
  if (pos == 0) {
    return kReplacement;
  }
  const auto* s = reinterpret_cast<const unsigned char*>(text.data());
  if (s[pos - 1] < 0x80) {
    --pos;
    return s[pos];
  }
  std::size_t start = pos - 1;
  while (start > 0 && pos - start < 4 && (s[start] & 0xC0) == 0x80) {
    --start;
  }
  std::size_t probe = start;
  const char32_t cp = decodeAt(text, probe);
  if (probe == pos && (cp != kReplacement || pos - start == 3)) {
    pos = start;
    return cp;
  }
  --pos;
  return kReplacement;
}

void appendUtf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

bool isValidUtf8(std::string_view text) {
  std::size_t pos = 0;
  while (pos < text.size()) {
    if (static_cast<unsigned char>(text[pos]) < 0x80) {
      pos = asciiPrefix(text, pos);
      continue;
    }
    std::size_t before = pos;
    char32_t cp = decodeAt(text, pos);
    if (cp == kReplacement && pos - before != 3) {
      return false;
    }
    if (cp == kReplacement && text.substr(before, 3) != "\xEF\xBF\xBD") {
      return false;
    }
  }
  return true;
}

std::string repairUtf8(std::string_view text) {
  if (isValidUtf8(text)) {
    return std::string(text);
  }
  std::string out;
  out.reserve(text.size() + 16);
  std::size_t pos = 0;
  while (pos < text.size()) {
    appendUtf8(out, decodeAt(text, pos));
  }
  return out;
}

std::string_view trim(std::string_view text) {
  std::size_t begin = 0;
  while (begin < text.size()) {
    std::size_t next = begin;
    if (!isWhitespace(decodeAt(text, next))) {
      break;
    }
    begin = next;
  }
  std::size_t end = text.size();
  while (end > begin) {
    std::size_t previous = end;
    if (!isWhitespace(decodeBefore(text, previous))) {
      break;
    }
    end = previous;
  }
  return text.substr(begin, end - begin);
}

std::string toLower(std::string_view text) {
  if (isAscii(text)) {
    std::string out(text);
    for (char& c : out) {
      if (c >= 'A' && c <= 'Z') {
        c = static_cast<char>(c + ('a' - 'A'));
      }
    }
    return out;
  }
  std::u16string src = toUtf16(text);
  std::u16string dst(src.size() + 16, u'\0');
  UErrorCode status = U_ZERO_ERROR;
  int32_t length = u_strToLower(dst.data(), static_cast<int32_t>(dst.size()), src.data(),
                                static_cast<int32_t>(src.size()), "", &status);
  if (status == U_BUFFER_OVERFLOW_ERROR) {
    dst.assign(static_cast<std::size_t>(length), u'\0');
    status = U_ZERO_ERROR;
    length = u_strToLower(dst.data(), static_cast<int32_t>(dst.size()), src.data(),
                          static_cast<int32_t>(src.size()), "", &status);
  }
  if (U_FAILURE(status)) {
    return repairUtf8(text);
  }
  dst.resize(static_cast<std::size_t>(length));
  return toUtf8(dst);
}

int lowerCodePoint(char32_t cp, char32_t out[3]) {
  if (cp < 0x80) {
    out[0] = (cp >= 'A' && cp <= 'Z') ? cp + ('a' - 'A') : cp;
    return 1;
  }
  if (cp == 0x130) {
    // The only unconditional lower-case mapping that is longer than one code point.
    out[0] = 'i';
    out[1] = 0x307;
    return 2;
  }
  out[0] = static_cast<char32_t>(u_tolower(static_cast<UChar32>(cp)));
  return 1;
}

namespace {

// How ICU decides a final sigma: skip case-ignorable code points in one direction and report
// whether a cased one follows.
bool casedLetterAround(std::string_view text, std::size_t pos, bool forward) {
  while (forward ? pos < text.size() : pos > 0) {
    const char32_t cp = forward ? decodeAt(text, pos) : decodeBefore(text, pos);
    const auto c = static_cast<UChar32>(cp);
    if (cp == 0x307 || u_hasBinaryProperty(c, UCHAR_CASE_IGNORABLE)) {
      continue;
    }
    return u_hasBinaryProperty(c, UCHAR_CASED);
  }
  return false;
}

}  // namespace

void appendLower(std::string& out, std::string_view text, std::size_t begin, std::size_t end) {
  std::size_t pos = begin;
  while (pos < end) {
    const auto c = static_cast<unsigned char>(text[pos]);
    if (c < 0x80) {
      out.push_back(static_cast<char>((c >= 'A' && c <= 'Z') ? c + ('a' - 'A') : c));
      ++pos;
      continue;
    }
    const std::size_t start = pos;
    const char32_t cp = decodeAt(text, pos);
    if (cp == 0x3A3) {
      const bool final =
          casedLetterAround(text, start, false) && !casedLetterAround(text, pos, true);
      appendUtf8(out, final ? 0x3C2 : 0x3C3);
      continue;
    }
    char32_t mapped[3];
    const int count = lowerCodePoint(cp, mapped);
    for (int i = 0; i < count; ++i) {
      appendUtf8(out, mapped[i]);
    }
  }
}

bool isLetter(char32_t cp) {
  if (cp < 0x80) {
    return (cp >= 'a' && cp <= 'z') || (cp >= 'A' && cp <= 'Z');
  }
  return u_hasBinaryProperty(static_cast<UChar32>(cp), UCHAR_ALPHABETIC);
}

bool isNumber(char32_t cp) {
  if (cp < 0x80) {
    return cp >= '0' && cp <= '9';
  }
  return u_getIntPropertyValue(static_cast<UChar32>(cp), UCHAR_NUMERIC_TYPE) != U_NT_NONE;
}

bool isUppercase(char32_t cp) {
  return u_hasBinaryProperty(static_cast<UChar32>(cp), UCHAR_UPPERCASE);
}

bool isWhitespace(char32_t cp) {
  if (cp < 0x80) {
    return cp == ' ' || (cp >= 0x09 && cp <= 0x0D);
  }
  return u_hasBinaryProperty(static_cast<UChar32>(cp), UCHAR_WHITE_SPACE);
}

namespace {

// True when a cluster boundary lies between the code points `a` and `b` for certain, whatever
// precedes `a` (which starts a cluster). That holds when `b` is an ordinary character or a
// control and `a` is not a prepended mark: the remaining rules (marks, joiners, Hangul, flags,
// emoji sequences) all need something other than an ordinary character at `b`.
bool breaksBetween(char32_t a, char32_t b) {
  if (b < 0x300 && a < 0x300) {
    return !(a == '\r' && b == '\n');
  }
  const auto gcbB = u_getIntPropertyValue(static_cast<UChar32>(b), UCHAR_GRAPHEME_CLUSTER_BREAK);
  if (gcbB == U_GCB_CONTROL || gcbB == U_GCB_CR || gcbB == U_GCB_LF) {
    return !(a == '\r' && b == '\n');
  }
  if (gcbB != U_GCB_OTHER) {
    return false;
  }
  if (a < 0x300) {
    return true;
  }
  const auto gcbA = u_getIntPropertyValue(static_cast<UChar32>(a), UCHAR_GRAPHEME_CLUSTER_BREAK);
  return gcbA != U_GCB_PREPEND && gcbA != U_GCB_ZWJ;
}

}  // namespace

struct GraphemeWalker::Icu {
  std::unique_ptr<icu::BreakIterator> it;
  UText* ut = nullptr;
};

GraphemeWalker::GraphemeWalker(std::string_view text) : text_(text) {}

GraphemeWalker::~GraphemeWalker() {
  if (icu_ != nullptr) {
    pool().give(std::move(icu_->it));
    utext_close(icu_->ut);
    delete icu_;
  }
}

std::size_t GraphemeWalker::nonAsciiBoundary(std::size_t from) {
  if (icu_ == nullptr) {
    icu_ = new Icu;
    icu_->it = pool().take();
    UErrorCode status = U_ZERO_ERROR;
    icu_->ut = utext_openUTF8(nullptr, text_.data(), static_cast<int64_t>(text_.size()), &status);
    if (icu_->it == nullptr || U_FAILURE(status)) {
      icu_->it.reset();
    } else {
      icu_->it->setText(icu_->ut, status);
      if (U_FAILURE(status)) {
        icu_->it.reset();
      }
    }
  }
  if (!icu_->it) {
    // Without a break iterator each code point is its own character.
    std::size_t pos = from;
    decodeAt(text_, pos);
    return pos;
  }
  int32_t next = icu_->it->following(static_cast<int32_t>(from));
  if (next == icu::BreakIterator::DONE || static_cast<std::size_t>(next) <= from) {
    return text_.size();
  }
  return static_cast<std::size_t>(next);
}

bool GraphemeWalker::next() {
  begin_ = end_;
  const std::size_t n = text_.size();
  if (begin_ >= n) {
    return false;
  }
  const auto c = static_cast<unsigned char>(text_[begin_]);
  if (c < 0x80) {
    const bool lastByte = begin_ + 1 == n;
    const auto following = lastByte ? 0 : static_cast<unsigned char>(text_[begin_ + 1]);
    if (lastByte || following < 0x80) {
      first_ = c;
      end_ = (c == '\r' && following == '\n') ? begin_ + 2 : begin_ + 1;
      return true;
    }
  }
  std::size_t pos = begin_;
  first_ = decodeAt(text_, pos);
  if (pos >= n) {
    end_ = n;
    return true;
  }
  std::size_t after = pos;
  if (breaksBetween(first_, decodeAt(text_, after))) {
    end_ = pos;
    return true;
  }
  end_ = nonAsciiBoundary(begin_);
  if (end_ < pos) {
    end_ = pos;
  }
  return true;
}

std::size_t graphemeCount(std::string_view text) {
  GraphemeWalker walker(text);
  std::size_t count = 0;
  while (walker.next()) {
    ++count;
  }
  return count;
}

std::string_view graphemePrefix(std::string_view text, std::size_t n) {
  if (text.size() <= n) {
    // A cluster holds at least one byte, so the text has at most n clusters.
    return text;
  }
  GraphemeWalker walker(text);
  std::size_t count = 0;
  while (count < n && walker.next()) {
    ++count;
  }
  return count < n ? text : text.substr(0, walker.end());
}

}  // namespace kestrova::unicode
