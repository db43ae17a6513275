#pragma once

// Text in which a person, a mutator or a dictionary writes messages: every text means something, and a small
// change of it is a small change of what it means.
//
//   {key=value other="with blanks"}  [a b]   a dictionary, an array
//   true 5 -5 1.5 word "text" ~              scalars; ~ is null
//   :bytes  'seconds  &value                 data, a date, an encoded property list
//   @3  #  $3                                 names that the reader knows: a UUID, a token, a path

#include <functional>
#include <string_view>

#include "platform/value/Value.h"

namespace fuzzing {

using namespace platform;

class ValueReader {
 public:
  /// `named` answers what a sign, one of "@#$", with a number means.
  using Named = std::function<Value(char sign, size_t number)>;

  ValueReader(std::string_view text, const Named& named) : text_(text), named_(named) {}

  /// What stands up to the next blank or bracket.
  std::string_view word();
  /// "key=value ..." up to the closing brace or the end.
  Dictionary entries();

 private:
  Value value();
  Array elements();
  Value plain(std::string_view word) const;
  void skipBlanks();
  bool take(char expected);

  std::string_view text_;
  const Named& named_;
  int nesting_ = 0;
};

}  // namespace fuzzing
