// "annotate" records a client's choices about plug-ins; and the annotations that forms carry.

#include "Ambrel/ABCollections.h"
#include "Ambrel/ABInfoKeys.h"
#include "Ambrel/ABProtocol.h"
#include "abd/ABDQmxClient.h"
#include "abd/ABDServer.h"
#include "abd/plugin/ABDPlugIn.h"
#include "abd/requests/Walks.h"
#include "platform/log/Log.h"
#include "platform/propertylist/PropertyList.h"

namespace abd {

namespace {

/// Containers of the annotation file around an annotation's value: the file's dictionary, its table, the
/// record.
constexpr int kContainersAroundValue = 3;

constexpr const char* kBadExtension = "invalid request format (annotation extension)";

bool canBeStored(const Value& value) {
  return canBeWritten(value, kMaximumFileNesting - kContainersAroundValue);
}

}  // namespace

Course Transaction::annotatePlugIns() {
  const std::optional<Dictionary> request = qmx_dictionary_get_dictionary(request_.body, key::annotations);
  if (!request) co_return fail(kABErrorRequest, "invalid request format (bad annotations dictionary)");
  Dictionary annotation;
  if (const Value& election = (*request)[annotation::election]; !election.isNone()) {
    // A number that is not finite would keep the annotation file from ever being written again.
    if (!election.isNumber() || !canBeStored(election))
      co_return fail(kABErrorRequest, "invalid request format (annotation election)");
    annotation.set(annotation::election, election);
  }
  size_t size = 0;  // of an annotation with an extension
  if (const Value& given = (*request)[annotation::extension]; !given.isNone()) {
    const Value extension = withWholeSeconds(given);
    annotation.set(annotation::extension, extension);
    size = ABDAnnotationStore::writtenSize(annotation);
    if (!extension.isDictionary() || !canBeStored(extension) || size > ABDAnnotationStore::kMaximumRecord)
      co_return fail(kABErrorRequest, kBadExtension);
  }
  if (annotation.empty()) co_return done();

  PlugInWalk plugIns(*this);
  while (const auto plugIn = plugIns.next()) {
    if (size != 0 && !server().hasRoomForAnnotation(size, *plugIn))
      co_return fail(kABErrorRequest, kBadExtension);
    systemLog("client %d plug-in %@ election := %@", client_->pid(), plugIn->identifier(),
              annotation[annotation::election]);
    server().setAnnotation(annotation, *plugIn);
    co_await giveWay();
  }
  if (!plugIns.hasFailed()) done();
}

void Transaction::addAnnotationForPlugIn(ABDServer& server, const ABDPlugIn& plugIn, PlugInForm& form) {
  // A form has empty annotations until it is given others.
  Value stored = server.annotationForPlugIn(plugIn);
  if (!stored.isNone()) form.set(PlugInForm::annotations, std::move(stored));
}

}  // namespace abd
