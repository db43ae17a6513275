#pragma once

// One plug-in's form on its way into a reply: the kept encoding of the record's unchanging entries and the
// few entries that belong to this request. Reading by key answers what the whole form would. A value of one
// request; copies share the kept part.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "platform/qmx/Encoding.h"
#include "platform/value/Value.h"

namespace abd {

using namespace platform;

class ABDPlugIn;

class PlugInForm {
 public:
  /// The encoding of some entries of a form, without a map head, and what the others are made from.
  struct KeptPart {
    Data entries;
    size_t count = 0;
    Value shared;  // the resources whose tokens belong to each form
  };

  /// The entries that belong to a request.
  enum Entry : uint8_t { annotations, extensions, overrider, overriding, entryCount };

  PlugInForm(std::shared_ptr<const ABDPlugIn> plugIn, std::shared_ptr<const KeptPart> kept);

  /// The value under `key`, or a none value.
  Value operator[](std::string_view key) const;
  void set(Entry entry, Value value) { entries_[entry] = std::move(value); }
  const std::shared_ptr<const ABDPlugIn>& plugIn() const { return plugIn_; }
  const KeptPart& kept() const { return *kept_; }

  /// Appends the whole form as the next element of `builder`'s list.
  void encodeInto(qmx::EncodedListBuilder& builder) const;

 private:
  std::shared_ptr<const ABDPlugIn> plugIn_;
  std::shared_ptr<const KeptPart> kept_;
  std::array<Value, entryCount> entries_;  // no table: most forms have some
};

}  // namespace abd
