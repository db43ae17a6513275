#include "tools/abctl/Terminal.h"

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <optional>

namespace abctl {
namespace {

/// One character of UTF-8 text and how many bytes it took; none for bytes that are no UTF-8.
struct Character {
  char32_t code;
  size_t length;
};

std::optional<Character> decode(std::string_view text) {
  const auto byte = [&](size_t index) { return static_cast<unsigned char>(text[index]); };
  const unsigned char first = byte(0);
  if (first < 0x80) return Character{first, 1};
  const size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : first >= 0xC2 ? 2 : 0;
  if (length == 0 || first > 0xF4 || text.size() < length) return std::nullopt;
  char32_t code = first & (0xFFu >> (length + 1));
  for (size_t index = 1; index < length; ++index) {
    if ((byte(index) & 0xC0) != 0x80) return std::nullopt;
    code = code << 6 | (byte(index) & 0x3F);
  }
  constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
  if (code < kSmallest[length] || code > 0x10FFFF || surrogate) return std::nullopt;
  return Character{code, length};
}

bool isUnsafe(char32_t code) {
  return code < 0x20 || (code >= 0x7F && code <= 0x9F)               // control characters
         || code == 0x061C || code == 0x200E || code == 0x200F       // direction marks
         || (code >= 0x2028 && code <= 0x202E)                       // line separators, direction overrides
         || (code >= 0x2066 && code <= 0x2069)                       // direction isolates
         || code == 0xFEFF || (code >= 0xE0000 && code <= 0xE007F);  // invisible tags
}

size_t characterWidth(char32_t code) {
  const int width = ::wcwidth(static_cast<wchar_t>(code));
  return width < 0 ? 1 : static_cast<size_t>(width);
}

const char* escapeSequence(Style style) {
  switch (style) {
    case Style::plain:
      return "";
    case Style::heading:
      return "\x1b[1m";
    case Style::good:
      return "\x1b[32m";
    case Style::bad:
      return "\x1b[31m";
    case Style::faint:
      return "\x1b[2m";
  }
  return "";
}

}  // namespace

void setUpCharacters() {
  std::setlocale(LC_CTYPE, "");
  if (std::strcmp(nl_langinfo(CODESET), "UTF-8") != 0) std::setlocale(LC_CTYPE, "C.UTF-8");
}

std::string safeText(std::string_view text) {
  std::string safe;
  safe.reserve(text.size());
  char escape[16];
  while (!text.empty()) {
    const std::optional<Character> character = decode(text);
    const size_t length = character ? character->length : 1;
    if (!character) {
      std::snprintf(escape, sizeof escape, "\\x%02X", static_cast<unsigned char>(text[0]));
      safe += escape;
    } else if (character->code == '\n' || character->code == '\t' || character->code == '\r') {
      safe += character->code == '\n' ? "\\n" : character->code == '\t' ? "\\t" : "\\r";
    } else if (isUnsafe(character->code)) {
      std::snprintf(escape, sizeof escape, "\\u{%X}", static_cast<unsigned>(character->code));
      safe += escape;
    } else {
      safe += text.substr(0, length);
    }
    text.remove_prefix(length);
  }
  return safe;
}

size_t displayWidth(std::string_view text) {
  size_t width = 0;
  while (!text.empty()) {
    const std::optional<Character> character = decode(text);
    width += character ? characterWidth(character->code) : 1;
    text.remove_prefix(character ? character->length : 1);
  }
  return width;
}

namespace {

/// The bytes of `text` that its first characters take, at most `columns` columns of them.
size_t bytesWithin(std::string_view text, size_t columns) {
  size_t width = 0, end = 0;
  while (end < text.size()) {
    const std::optional<Character> character = decode(text.substr(end));
    width += character ? characterWidth(character->code) : 1;
    if (width > columns) break;
    end += character ? character->length : 1;
  }
  return end;
}

/// `text` cut to at most `columns` columns, with an ellipsis in place of what was cut: the end, or, of a
/// single word (identifiers and paths differ in their last parts), what is in the middle.
std::string cutToWidth(std::string_view text, size_t columns, bool isHeading) {
  size_t width = displayWidth(text);
  if (width <= columns) return std::string(text);
  const bool isWord = !isHeading && text.find(' ') == text.npos;
  const size_t kept = columns - 1, head = bytesWithin(text, isWord ? kept / 3 : kept);
  std::string_view tail = text.substr(head);
  const size_t left = isWord ? kept - displayWidth(text.substr(0, head)) : 0;
  for (width = displayWidth(tail); width > left;) {
    const Character next = decode(tail).value_or(Character{' ', 1});
    width -= characterWidth(next.code);
    tail.remove_prefix(next.length);
  }
  while (!tail.empty() && decode(tail) &&
         characterWidth(decode(tail)->code) == 0)  // it belongs to what is gone
    tail.remove_prefix(decode(tail)->length);
  return std::string(text.substr(0, head)) + "…" + std::string(tail);
}

}  // namespace

Screen::Screen() {
  if (::isatty(STDOUT_FILENO) == 0) return;
  const char* const noColour = std::getenv("NO_COLOR");
  const char* const terminal = std::getenv("TERM");
  colours_ =
      (noColour == nullptr || *noColour == '\0') && terminal != nullptr && std::strcmp(terminal, "dumb") != 0;
  struct winsize size {};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) columns_ = size.ws_col;
}

std::string Screen::styled(Style style, std::string_view text) const {
  if (!colours_ || style == Style::plain || text.empty()) return std::string(text);
  return escapeSequence(style) + std::string(text) + "\x1b[0m";
}

Table::Table(std::vector<std::string> heading) {
  std::vector<Cell> cells;
  for (std::string& text : heading) cells.emplace_back(std::move(text), Style::heading);
  rows_.push_back(std::move(cells));
}

void Table::add(std::vector<Cell> row) {
  for (Cell& cell : row) cell.text = safeText(cell.text);
  rows_.push_back(std::move(row));
}

std::vector<size_t> Table::columnWidths(size_t columns) const {
  std::vector<size_t> widths(rows_.front().size(), 0);
  for (const std::vector<Cell>& row : rows_) {
    for (size_t index = 0; index < row.size(); ++index)
      widths[index] = std::max(widths[index], displayWidth(row[index].text));
  }
  constexpr size_t kGap = 2, kNarrowest = 8;
  size_t total = kGap * (widths.size() - 1);
  for (const size_t width : widths) total += width;
  // The first column names the row and keeps twice as much as the others.
  const auto weighed = [&widths](size_t index) { return index == 0 ? widths[0] / 2 : widths[index]; };
  while (columns != 0 && total > columns) {
    size_t widest = 0;
    for (size_t index = 1; index < widths.size(); ++index)
      if (weighed(index) >= weighed(widest) && widths[index] > kNarrowest) widest = index;
    if (widths[widest] > kNarrowest || (widths.size() == 1 && widths[0] > 1)) {
      --widths[widest];
      --total;
    } else if (widths.size() > 1) {
      total -= kGap + widths.back();
      widths.pop_back();
    } else {
      break;
    }
  }
  return widths;
}

std::string Table::lines(const Screen& screen) const {
  const std::vector<size_t> widths = columnWidths(screen.columns());
  const size_t lost = rows_.front().size() - widths.size();
  size_t cut = 0;
  std::string result;
  for (const std::vector<Cell>& row : rows_) {
    const bool isHeading = &row == &rows_.front();
    std::string line;
    for (size_t index = 0; index < widths.size(); ++index) {
      const std::string text = cutToWidth(row[index].text, widths[index], isHeading);
      if (!isHeading && text != row[index].text) ++cut;
      line += screen.styled(row[index].style, text);
      if (index + 1 < widths.size()) line.append(widths[index] - displayWidth(text) + 2, ' ');
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    result += line + '\n';
  }
  if (cut + lost == 0) return result;
  const auto counted = [](size_t count, const char* what) {
    return count == 0 ? "" : std::to_string(count) + " " + what + (count == 1 ? "" : "s");
  };
  const std::string both = cut != 0 && lost != 0 ? " and " : "";
  const std::string note =
      "(" + counted(cut, "cell") + both + counted(lost, "column") + " cut; --json shows all)";
  return result + screen.styled(Style::faint, note) + '\n';
}

}  // namespace abctl
