// XML property lists, on top of pugixml. The library replaces references leniently and does not look at the
// encoding; we are strict: what is not well-formed is an error, never repaired. Its parser and its destructor
// do not recurse; our walk recurses once per container of the list, which is bounded. Most lists are simple
// (see Outline), and what we ask the library about each element is half of what reading costs: simple ones
// are asked less.

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <new>
#include <pugixml.hpp>
#include <utility>

#include "platform/propertylist/Readers.h"
#include "platform/value/UTF8.h"

namespace platform::detail {

namespace {

constexpr std::string_view kBlanks = " \t\n\r";

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

/// Appends the character that a reference's name ("amp", "#38", "#x26") stands for. False when there is none,
/// or none that XML can carry.
bool appendReferenced(std::string_view name, std::string& out) {
  if (!name.starts_with('#')) {
    constexpr std::pair<std::string_view, char> kNamed[] = {
        {"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}};
    for (const auto& [known, character] : kNamed) {
      if (name != known) continue;
      out += character;
      return true;
    }
    return false;
  }
  name.remove_prefix(1);
  const int base = name.starts_with('x') ? 16 : 10;
  if (base == 16) name.remove_prefix(1);
  uint32_t point = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), point, base);
  if (error != std::errc() || end != name.data() + name.size()) return false;
  const size_t before = out.size();
  return appendCodePoint(point, out) && isValidXMLText(std::string_view(out).substr(before));
}

/// Appends `text` with its references replaced. False when one is malformed.
bool appendWithoutReferences(std::string_view text, std::string& out) {
  for (size_t at = text.find('&'); at != std::string_view::npos; at = text.find('&')) {
    out.append(text, 0, at);
    const size_t end = text.find(';', at);
    if (end == std::string_view::npos || !appendReferenced(text.substr(at + 1, end - at - 1), out))
      return false;
    text.remove_prefix(end + 1);
  }
  out += text;
  return true;
}

/// "0x1F", "-12" or "+12"; the ranges of both 64-bit types together.
std::optional<Value> parseInteger(std::string_view text) {
  const bool isNegative = text.starts_with('-');
  if (isNegative || text.starts_with('+')) text.remove_prefix(1);
  const int base = text.starts_with("0x") || text.starts_with("0X") ? 16 : 10;
  if (base == 16) text.remove_prefix(2);
  uint64_t magnitude = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  if (!isNegative) return Value(magnitude);
  if (magnitude > static_cast<uint64_t>(INT64_MAX) + 1) return std::nullopt;
  return Value(static_cast<int64_t>(-magnitude));
}

std::optional<Value> parseReal(std::string_view text) {
  if (text.starts_with('+')) {
    text.remove_prefix(1);
    if (text.starts_with('-')) return std::nullopt;
  }
  double real = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), real);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return Value(real);
}

/// The six bits of each base64 digit; 64: blank; 65: padding; 66: anything else.
constexpr auto kBase64 = [] {
  std::array<uint8_t, 256> table{};
  table.fill(66);
  for (const char c : kBlanks) table[static_cast<uint8_t>(c)] = 64;
  table['='] = 65;
  for (uint8_t i = 0; i < 26; ++i) {
    table[static_cast<uint8_t>('A' + i)] = i;
    table[static_cast<uint8_t>('a' + i)] = static_cast<uint8_t>(26 + i);
  }
  for (uint8_t i = 0; i < 10; ++i) table[static_cast<uint8_t>('0' + i)] = static_cast<uint8_t>(52 + i);
  table['+'] = 62;
  table['/'] = 63;
  return table;
}();

std::optional<Value> parseData(std::string_view text, std::string& scratch) {
  scratch.clear();
  uint32_t bits = 0;
  unsigned digits = 0, padding = 0;
  for (const char c : text) {
    const uint8_t digit = kBase64[static_cast<uint8_t>(c)];
    if (digit == 64) continue;
    if (digit == 65) {
      ++padding;
      continue;
    }
    if (digit == 66 || padding > 0) return std::nullopt;
    bits = bits << 6 | digit;
    if (++digits % 4 != 0) continue;
    scratch += static_cast<char>(bits >> 16 & 0xFF);
    scratch += static_cast<char>(bits >> 8 & 0xFF);
    scratch += static_cast<char>(bits & 0xFF);
  }
  // A last group of two or three digits is padded to four.
  if ((digits + padding) % 4 != 0 || padding > 2 || digits % 4 == 1) return std::nullopt;
  if (digits % 4 >= 2) scratch += static_cast<char>(bits >> (digits % 4 == 2 ? 4 : 10) & 0xFF);
  if (digits % 4 == 3) scratch += static_cast<char>(bits >> 2 & 0xFF);
  return Value(Data(std::string_view(scratch)));
}

/// Whether `name` is `literal`, letter by letter in place; there are many names and they are short.
template <size_t size>
bool is(const char* name, const char (&literal)[size]) {
  return [&]<size_t... i>(std::index_sequence<i...>) {
    return (... && (name[i] == literal[i]));
  }
  (std::make_index_sequence<size>());
}

/// Text that is only blanks.
bool isBlank(const char* text) {
  return *text == 0 || text[std::strspn(text, kBlanks.data())] == 0;
}

// Storage that walks of this thread use one after the other, up to a size.
constexpr size_t kMostSpare = 1024;
thread_local std::vector<Value> spareValues;
thread_local std::vector<Dictionary::Entry> spareEntries;

class Walk {
 public:
  /// `isSimple`: see Outline.
  explicit Walk(bool isSimple) : isSimple_(isSimple) {
    values_.swap(spareValues);
    entries_.swap(spareEntries);
  }
  ~Walk() {
    values_.clear();
    entries_.clear();
    if (values_.capacity() <= kMostSpare) values_.swap(spareValues);
    if (entries_.capacity() <= kMostSpare) entries_.swap(spareEntries);
  }
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;

  /// Why the walk failed, and at which offset.
  const char* why() const { return why_; }
  ptrdiff_t where() const { return where_; }

  /// Elements met so far.
  size_t elements() const { return elements_; }

  /// Reads the one value in the root.
  bool readRoot(const pugi::xml_node& root, Value& value) {
    elements_ = 1;
    if (!isBlank(root.value())) return fail("text between elements");
    pugi::xml_node child = root.first_child();
    const char* name = nextElement(child);
    if (name == nullptr) return false;
    if (*name == 0) return fail("no value");
    if (!read(child, name, value, kMaximumFileNesting)) return false;
    child = child.next_sibling();
    name = nextElement(child);
    if (name == nullptr) return false;
    return *name == 0 || fail("more than one value");
  }

 private:
  /// Reads the element, whose name is `name`. Most are strings.
  bool read(const pugi::xml_node& element, const char* name, Value& value, int nesting) {
    if (!is(name, "string")) return readOther(element, name, value, nesting);
    std::string_view text;
    if (!contents(element, text)) return failedAt(element);
    // Short ones are words that many files have ("en", "1.0").
    constexpr size_t kShort = 32;
    value = Value(text.size() <= kShort ? String::interned(text) : String(text));
    return true;
  }

  bool readOther(const pugi::xml_node& element, const char* name, Value& value, int nesting) {
    if (is(name, "dict")) return nesting > 0 ? readDictionary(element, value, nesting - 1) : tooDeep();
    if (is(name, "array")) return nesting > 0 ? readArray(element, value, nesting - 1) : tooDeep();
    return readScalar(element, name, value) || failedAt(element);
  }

  bool fail(const char* why) {
    why_ = why;
    return false;
  }
  /// Notes the innermost place.
  [[gnu::cold]] bool failedAt(const pugi::xml_node& node) {
    if (where_ < 0) where_ = node.offset_debug();
    return false;
  }
  bool tooDeep() { return fail("containers are nested too deeply"); }

  /// The text of `element`, valid until the next call: parts of text and CDATA sections one after the other.
  bool contents(const pugi::xml_node& element, std::string_view& text) {
    text = element.value();
    if (isSimple_) return true;
    joined_.clear();
    if (!appendWithoutReferences(text, joined_)) return fail("a malformed reference");
    if (!appendParts(element)) return false;
    text = joined_;
    return true;
  }

  bool appendParts(const pugi::xml_node& element) {
    for (pugi::xml_node part = element.first_child(); part; part = part.next_sibling()) {
      if (part.type() == pugi::node_cdata) {
        joined_ += part.value();
      } else if (part.type() != pugi::node_pcdata) {
        return fail("an element inside a scalar");
      } else if (!appendWithoutReferences(part.value(), joined_)) {
        return fail("a malformed reference");
      }
    }
    return true;
  }

  /// Moves `node` to the first element at or after it and answers its name; empty at the end of the list.
  /// Null: there is text on the way.
  const char* nextElement(pugi::xml_node& node) {
    while (true) {
      const char* const name = node.name();
      if (*name != 0) {
        ++elements_;
        return name;
      }
      if (!node) return name;
      if (node.type() != pugi::node_pcdata || !isBlank(node.value())) {
        fail("text between elements");
        failedAt(node);
        return nullptr;
      }
      node = node.next_sibling();
    }
  }

  bool readArray(const pugi::xml_node& element, Value& value, int nesting) {
    if (!isBlank(element.value())) return fail("text between elements");
    const size_t base = values_.size();
    for (pugi::xml_node child = element.first_child();; child = child.next_sibling()) {
      const char* const name = nextElement(child);
      if (name == nullptr) return false;
      if (*name == 0) break;
      Value read;
      if (!this->read(child, name, read, nesting)) return false;
      values_.push_back(std::move(read));
    }
    value = Array::taking(std::span(values_).subspan(base));
    values_.resize(base);
    return true;
  }

  bool readDictionary(const pugi::xml_node& element, Value& value, int nesting) {
    if (!isBlank(element.value())) return fail("text between elements");
    const size_t base = entries_.size();
    for (pugi::xml_node child = element.first_child();; child = child.next_sibling()) {
      const char* name = nextElement(child);
      if (name == nullptr) return false;
      if (*name == 0) break;
      if (!is(name, "key")) return fail("a dictionary entry without a key") || failedAt(child);
      std::string_view key;
      if (!contents(child, key)) return failedAt(child);
      Dictionary::Entry entry{String::interned(key), {}};
      const pugi::xml_node keyElement = child;
      child = child.next_sibling();
      name = nextElement(child);
      if (name == nullptr) return false;
      if (*name == 0) return fail("a key without a value") || failedAt(keyElement);
      if (!read(child, name, entry.value, nesting)) return false;
      entries_.push_back(std::move(entry));
    }
    value = Dictionary::takingLast(std::span(entries_).subspan(base));
    entries_.resize(base);
    return true;
  }

  bool readScalar(const pugi::xml_node& element, std::string_view name, Value& value) {
    std::string_view text;
    if (!contents(element, text)) return false;
    if (name == "data") {
      std::string bytes;
      return take(parseData(text, bytes), "malformed data", value);
    }
    text = trimmed(text);
    if (name == "integer") return take(parseInteger(text), "a malformed integer", value);
    if (name == "real") return take(parseReal(text), "a malformed real", value);
    if (name == "date") return take(Value(parseDate(text)), "a malformed date", value);
    if ((name == "true" || name == "false") && text.empty()) {
      value = Value(name == "true");
      return true;
    }
    return fail("an unknown element");
  }

  bool take(std::optional<Value> parsed, const char* why, Value& value) {
    if (!parsed || parsed->isNone()) return fail(why);
    value = std::move(*parsed);
    return true;
  }

  const bool isSimple_;
  size_t elements_ = 0;
  const char* why_ = "";
  ptrdiff_t where_ = -1;
  std::string joined_;
  // What the containers that are being read hold so far, the inner ones' last.
  std::vector<Value> values_;
  std::vector<Dictionary::Entry> entries_;
};

std::string_view withoutByteOrderMark(std::string_view text) {
  constexpr std::string_view kMark = "\xEF\xBB\xBF";
  return text.starts_with(kMark) ? text.substr(kMark.size()) : text;
}

/// UTF-16 (with a byte order mark) becomes UTF-8. False when it is malformed.
bool toUTF8(std::string& text) {
  const bool isBigEndian = text.starts_with("\xFE\xFF");
  if (!isBigEndian && !text.starts_with("\xFF\xFE")) return true;
  if (text.size() % 2 != 0) return false;
  if (!isBigEndian) {
    for (size_t i = 0; i < text.size(); i += 2) std::swap(text[i], text[i + 1]);
  }
  std::string converted;
  converted.reserve(text.size() / 2);
  if (!appendUTF16({reinterpret_cast<const uint8_t*>(text.data()) + 2, text.size() - 2}, converted))
    return false;
  text = std::move(converted);
  return true;
}

/// What can be told about a text before it is parsed.
struct Outline {
  /// From the root element on there are no comments, processing instructions and CDATA, and no references but
  /// to the five named characters. Then a scalar has one part of text, which the library can finish itself,
  /// blanks between elements need no nodes, and every element has the one "<" that is counted.
  bool isSimple = false;
  size_t elements = 0;
};

/// Whether every reference in `text` is to one of the five characters that have names.
bool hasOnlyNamedReferences(std::string_view text) {
  for (size_t at = text.find('&'); at != std::string_view::npos; at = text.find('&', at + 1)) {
    const std::string_view rest = text.substr(at);
    if (!rest.starts_with("&amp;") && !rest.starts_with("&lt;") && !rest.starts_with("&gt;") &&
        !rest.starts_with("&quot;") && !rest.starts_with("&apos;")) {
      return false;
    }
  }
  return true;
}

bool hasMarkupBegunBy(char second, std::string_view text) {
  for (size_t at = text.find(second); at != std::string_view::npos; at = text.find(second, at + 1)) {
    if (at > 0 && text[at - 1] == '<') return true;
  }
  return false;
}

Outline outlineOf(std::string_view text) {
  Outline outline;
  const size_t root = text.find("<plist");
  // In a comment or a declaration within a document type that would not be the root.
  const std::string_view prologue = text.substr(0, root);
  if (root == std::string_view::npos || prologue.find("<!--") != std::string_view::npos ||
      prologue.find('[') != std::string_view::npos) {
    return outline;
  }
  text.remove_prefix(root);
  outline.isSimple =
      !hasMarkupBegunBy('!', text) && !hasMarkupBegunBy('?', text) && hasOnlyNamedReferences(text);
  if (!outline.isSimple) return outline;
  // Sixteen bytes at once, each compared with "<" and the one behind it with "/".
  using Lane = int8_t __attribute__((vector_size(16)));
  const char* const from = text.data();
  const size_t end = text.size() - sizeof(Lane);
  size_t at = 0;
  while (text.size() > sizeof(Lane) && at < end) {
    // No count may leave its byte.
    Lane counts{};
    for (int i = 0; i < INT8_MAX && at < end; ++i, at += sizeof(Lane)) {
      Lane bytes, next;
      std::memcpy(&bytes, from + at, sizeof bytes);
      std::memcpy(&next, from + at + 1, sizeof next);
      counts -= (bytes == '<') & (next != '/');
    }
    for (size_t i = 0; i < sizeof(Lane); ++i) outline.elements += static_cast<size_t>(counts[i]);
  }
  for (; at + 1 < text.size(); ++at) outline.elements += text[at] == '<' && text[at + 1] != '/' ? 1 : 0;
  return outline;
}

}  // namespace

Result<Value> parseXMLPropertyList(std::string& text, size_t* where) {
  if (text.starts_with("\xFE\xFF") || text.starts_with("\xFF\xFE")) where = nullptr;
  if (!toUTF8(text) || !isValidXMLText(text)) return corrupt("malformed text encoding");
  // The library skips text beside the root element.
  const std::string_view inked = trimmed(withoutByteOrderMark(text));
  if (!inked.starts_with('<') || !inked.ends_with('>')) return corrupt("neither XML nor binary");
  const Outline outline = outlineOf(text);
  const unsigned options = pugi::parse_eol | pugi::parse_embed_pcdata |
                           (outline.isSimple ? pugi::parse_escapes | pugi::parse_ws_pcdata_single
                                             : pugi::parse_cdata | pugi::parse_ws_pcdata);
  pugi::xml_document document;
  const pugi::xml_parse_result parsed =
      document.load_buffer_inplace(text.data(), text.size(), options, pugi::encoding_utf8);
  if (parsed.status == pugi::status_out_of_memory) throw std::bad_alloc();
  if (!parsed) {
    if (where != nullptr) *where = static_cast<size_t>(parsed.offset);
    return corrupt(parsed.description());
  }

  const pugi::xml_node root = document.first_child();
  if (!is(root.name(), "plist") || root.next_sibling()) return corrupt("no plist element");
  Walk walk(outline.isSimple);
  Value list;
  if (!walk.readRoot(root, list)) {
    if (where != nullptr && walk.where() >= 0) *where = static_cast<size_t>(walk.where());
    return corrupt(walk.why());
  }
  // Scalars of simple lists were not asked for children.
  if (outline.isSimple && walk.elements() != outline.elements) return corrupt("an element inside a scalar");
  return list;
}

}  // namespace platform::detail
