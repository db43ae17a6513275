#pragma once

// What is printed for people: text made safe for a terminal, measured in columns, laid out in tables, and
// coloured only where that is wanted. Main thread.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace abctl {

/// Makes wide and accented characters measurable: takes the user's character set, or plain UTF-8 when the
/// locale has none. Once, at start.
void setUpCharacters();

/// `text` as it may be shown anywhere: control characters, direction overrides and line separators written as
/// escapes, bytes that are no UTF-8 as \xHH.
std::string safeText(std::string_view text);

/// Columns that `text` takes. REQUIRES: a result of safeText().
size_t displayWidth(std::string_view text);

enum class Style { plain, heading, good, bad, faint };

/// Standard output as the tables see it.
class Screen {
 public:
  /// Colours: standard output is a terminal that is not "dumb", and NO_COLOR is unset or empty.
  Screen();
  bool hasColours() const { return colours_; }
  /// Columns of the terminal; 0 when standard output is none, and nothing is cut.
  size_t columns() const { return columns_; }
  std::string styled(Style style, std::string_view text) const;

 private:
  bool colours_ = false;
  size_t columns_ = 0;
};

/// A table with a heading line; cells are made safe here.
class Table {
 public:
  explicit Table(std::vector<std::string> heading);
  struct Cell {
    std::string text;
    Style style = Style::plain;
    Cell(std::string contents, Style look = Style::plain)  // NOLINT: plain text converts freely
        : text(std::move(contents)), style(look) {}
    Cell(const char* contents) : text(contents) {}  // NOLINT
  };
  /// REQUIRES: as many cells as the heading has.
  void add(std::vector<Cell> row);
  /// The lines, each ended. The widest columns are cut, and then the last ones left out, until a row fits the
  /// screen; then one more line says what is missing.
  std::string lines(const Screen& screen) const;

 private:
  /// Of those columns that fit.
  std::vector<size_t> columnWidths(size_t columns) const;
  std::vector<std::vector<Cell>> rows_;  // the heading is the first
};

}  // namespace abctl
