#include "abd/plugin/PlugInForm.h"

#include <utility>

#include "abd/plugin/ABDPlugIn.h"

namespace abd {

PlugInForm::PlugInForm(std::shared_ptr<const ABDPlugIn> plugIn, std::shared_ptr<const KeptPart> kept,
                       Dictionary late)
    : plugIn_(std::move(plugIn)), kept_(std::move(kept)), late_(std::move(late)) {}

Value PlugInForm::operator[](std::string_view key) const {
  if (const Value& value = late_[key]; !value.isNone()) return value;
  // What is asked of every form comes from the record without building a form.
  if (key == formkey::identifier) return plugIn_->identifier();
  if (key == formkey::version) return plugIn_->version();
  if (key == formkey::uuid) return plugIn_->uuid().string();
  if (key == formkey::systemResident) return plugIn_->onSystemVolume();
  if (key == formkey::lastModified) return plugIn_->lastModified();
  return plugIn_->exportForm()[key];
}

void PlugInForm::encodeInto(qmx::EncodedListBuilder& builder) const {
  const bool hasAnnotations = late_.contains(formkey::annotations);
  builder.beginMap(kept_->count + late_.size() + (hasAnnotations ? 0 : 1));
  builder.kept(kept_->entries);
  for (const auto& [key, value] : late_) builder.entry(key, value);
  if (!hasAnnotations) builder.entry(formkey::annotations, Dictionary());
}

}  // namespace abd
