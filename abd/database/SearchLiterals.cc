#include "abd/database/SearchLiterals.h"

#include <locale.h>
#include <wctype.h>

#include <string_view>

namespace abd {

using namespace platform;

namespace {

/// The character at the front of `text`; 0 when there is none.
wint_t frontCharacter(std::string_view text) {
  if (text.empty()) return 0;
  const auto byte = [text](size_t i) { return static_cast<wint_t>(static_cast<unsigned char>(text[i])); };
  const wint_t first = byte(0);
  if (first < 0x80) return first;
  const size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC0 || text.size() < length) return 0;
  wint_t character = first & (0x7Fu >> length);
  for (size_t i = 1; i < length; ++i) character = character << 6 | (byte(i) & 0x3F);
  return character;
}

/// Whether `character` is a letter or a digit of any script, whatever the process's locale is.
bool isAlphanumeric(wint_t character) {
  static const locale_t unicode = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  if (character < 0x80 || unicode == nullptr) {
    const wint_t letter = character | 0x20;
    return (character >= '0' && character <= '9') || (letter >= 'a' && letter <= 'z');
  }
  return iswalnum_l(character, unicode) != 0;
}

}  // namespace

std::optional<std::string> literalOfPattern(const Value& pattern) {
  const auto text = pattern.string();
  if (!text) return std::nullopt;
  if (text->starts_with('=')) return std::string(text->substr(1));
  if (isAlphanumeric(frontCharacter(*text))) return std::string(*text);
  return std::nullopt;
}

std::optional<std::vector<std::string>> literalList(const Value& value) {
  std::vector<std::string> literals;
  const Array* patterns = value.array();
  for (const Value& pattern : patterns != nullptr ? *patterns : Array{value}) {
    auto literal = literalOfPattern(pattern);
    if (!literal) return std::nullopt;
    literals.push_back(*std::move(literal));
  }
  return literals;
}

}  // namespace abd
