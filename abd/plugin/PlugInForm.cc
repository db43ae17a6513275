#include "abd/plugin/PlugInForm.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "Ambrel/ABInfoKeys.h"
#include "abd/plugin/ABDPlugIn.h"

namespace abd {

namespace {

constexpr const char* kEntryKeys[] = {formkey::annotations, formkey::extensions, formkey::overrider,
                                      formkey::overriding};
static_assert(std::size(kEntryKeys) == PlugInForm::entryCount);

}  // namespace

PlugInForm::PlugInForm(std::shared_ptr<const ABDPlugIn> plugIn, std::shared_ptr<const KeptPart> kept)
    : plugIn_(std::move(plugIn)), kept_(std::move(kept)) {
  entries_[annotations] = Dictionary();
}

Value PlugInForm::operator[](std::string_view key) const {
  for (size_t i = 0; i < entryCount; ++i)
    if (key == kEntryKeys[i]) return entries_[i];
  // What is asked of every form comes from the record without building a form.
  if (key == formkey::identifier) return plugIn_->identifier();
  if (key == formkey::version) return plugIn_->version();
  if (key == formkey::uuid) return plugIn_->uuid().string();
  if (key == formkey::systemResident) return plugIn_->onSystemVolume();
  if (key == formkey::lastModified) return plugIn_->lastModified();
  return plugIn_->exportForm()[key];
}

void PlugInForm::encodeInto(qmx::EncodedListBuilder& builder) const {
  const auto count = static_cast<size_t>(
      std::ranges::count_if(entries_, [](const Value& value) { return !value.isNone(); }));
  builder.beginMap(kept_->count + count);
  builder.kept(kept_->entries);
  for (size_t i = 0; i < entryCount; ++i)
    if (!entries_[i].isNone()) builder.entry(kEntryKeys[i], entries_[i]);
}

}  // namespace abd
