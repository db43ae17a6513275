#include "Ambrel/ABDaemonClient.h"

#include <utility>

#include "platform/log/Failure.h"
#include "platform/log/Log.h"
#include "platform/qmx/Encoding.h"

namespace ambrel {

namespace {

std::string eventText(const qmx::Event& event) {
  if (const auto* error = std::get_if<qmx::ConnectionError>(&event)) return qmx::description(*error);
  if (const auto* message = std::get_if<qmx::Message>(&event)) return message->description();
  return std::get<qmx::UnexpectedObject>(event).object.description();
}

}  // namespace

// The queue belongs to the connection, too (through its context): whoever else holds the connection keeps it
// usable.
ABDaemonClient::ABDaemonClient(const char* serviceName)
    : replyQueue_(std::make_shared<SerialQueue>("abd_client", RunLoop::background())),
      abd_(qmx::Connection::connect(serviceName != nullptr ? serviceName : kDefaultServiceName,
                                    *replyQueue_)) {
  abd_->setContext(replyQueue_);
  abd_->setEventHandler([](qmx::Event&& event) { systemLog("Communications error: %@", eventText(event)); });
  abd_->resume();
}

Dictionary ABDaemonClient::request(const char* name) const {
  return {{key::request, name}, {key::version, protocolVersion()}};
}

Dictionary ABDaemonClient::request(const char* name, const std::vector<std::string>& paths) const {
  Dictionary message = request(name);
  message.set(key::paths, Array(std::vector<Value>(paths.begin(), paths.end())));
  return message;
}

void ABDaemonClient::set(Dictionary& message, const std::vector<UUID>& uuids) {
  message.set(key::uuids, Array(std::vector<Value>(uuids.begin(), uuids.end())));
}

void ABDaemonClient::send(Dictionary message, ReplyHandler reply) {
  abd_->sendWithReply(std::move(message), std::move(reply));
}

std::optional<Error> ABDaemonClient::errorInReply(const Reply& reply) {
  if (const auto* error = std::get_if<qmx::ConnectionError>(&reply))
    return ABError(kABErrorRequest, qmx::description(*error));
  const auto& message = std::get<qmx::Message>(reply);
  const auto code = static_cast<int64_t>(message.unsignedValue(key::errorCode));
  const String* text = message.string(key::error);
  if (code == 0) {
    if (text != nullptr) raiseInternalInconsistency("abd reported error without a code: %s", text->view());
    return std::nullopt;
  }
  if (text == nullptr) return ABError(code, "unknown error returned by Ambrel subsystem");
  return ABError(code, std::string(text->view()));
}

Value ABDaemonClient::convertToQMX(const Value& value, uint64_t version) {
  if (version != static_cast<uint64_t>(kProtocolVersion)) return Value();
  if (value.encoded() != nullptr) return value;
  return qmx::encodePropertyList(value);
}

Value ABDaemonClient::convertFromQMX(const Value& value) const {
  const EncodedPropertyList* list = value.encoded();
  if (protocolVersion() != kProtocolVersion || list == nullptr) return Value();
  return qmx::decodePropertyList(*list);
}

void ABDaemonClient::addPlugIns(const std::vector<std::string>& paths, ReplyHandler reply) {
  send(request(request::add, paths), std::move(reply));
}

void ABDaemonClient::removePlugIns(const std::vector<std::string>& paths, ReplyHandler reply) {
  send(request(request::remove, paths), std::move(reply));
}

void ABDaemonClient::bulkPlugins(uint64_t flags, ReplyHandler reply) {
  Dictionary message = request(request::bulk);
  message.set(key::flags, flags);
  send(std::move(message), std::move(reply));
}

void ABDaemonClient::readyPlugIns(const std::vector<UUID>& uuids, uint64_t flags, ReplyHandler reply) {
  Dictionary message = request(request::ready);
  message.set(key::flags, flags);
  set(message, uuids);
  send(std::move(message), std::move(reply));
}

void ABDaemonClient::accessPlugIns(const std::vector<UUID>& uuids, uint64_t flags, ReplyHandler reply) {
  Dictionary message = request(request::access);
  message.set(key::flags, flags);
  set(message, uuids);
  send(std::move(message), std::move(reply));
}

void ABDaemonClient::matchPlugIns(const std::optional<Dictionary>& rules, uint64_t flags,
                                  ReplyHandler reply) {
  Dictionary message = request(request::match);
  message.set(key::rules, rules);
  message.set(key::flags, flags);
  send(std::move(message), std::move(reply));
}

void ABDaemonClient::setPluginAnnotations(const std::vector<UUID>& uuids, const Dictionary& annotations,
                                          ReplyHandler reply) {
  Dictionary message = request(request::annotate);
  set(message, uuids);
  message.set(key::annotations, annotations);
  send(std::move(message), std::move(reply));
}

void ABDaemonClient::holdPlugins(const std::vector<std::string>& paths, uint64_t flags, ReplyHandler reply) {
  Dictionary message = request(request::lock, paths);
  message.set(key::flags, flags);
  send(std::move(message), std::move(reply));
}

void ABDaemonClient::releaseHold(const UUID& token, ReplyHandler reply) {
  Dictionary message = request(request::lock);
  set(message, {token});
  send(std::move(message), std::move(reply));
}

}  // namespace ambrel
