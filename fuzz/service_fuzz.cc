// The whole service: the daemon's server object with its dispatch, main service and diagnostics, on a device
// of its own, and several hosts that send what a script says over socket pairs. Each request of a host that
// does not end its stream gets exactly one reply, in order; only a malformed frame closes a connection, after
// the replies before it; when all have gone, nothing of them is left.
//
// A script has lines: the digit of a connection, a letter, operands.
//   0o1 0d0            connects to the main service, to diagnostics, as host 1, 0 (anew: closes the old one)
//   0r match flags=5   a request (Script.h); 0m is the same without a reply
//   0f... 0x...        the contents of a frame; any bytes
//   0w9                writes at most 9 bytes in a turn from now on (0: all)
//   0g9                reads, at most 9 bytes
//   0t9                9 turns of the loop, in each of which all connections write
//   0e 0c              ends its sending side, closes
//   0s2                the user's and the device's settings become the second (0: none)

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>

#include "Ambrel/ABDiagnostics.h"
#include "Ambrel/ABProtocol.h"
#include "abd/ABDQmxClient.h"
#include "abd/ABDServer.h"
#include "abd/plugin/ABDPlugIn.h"
#include "fuzz/Script.h"
#include "platform/launcher/ProcessAssertions.h"
#include "platform/log/Log.h"
#include "platform/qmx/Encoding.h"
#include "platform/qmx/Frame.h"
#include "platform/qmx/FrameReader.h"
#include "platform/qmx/Limits.h"
#include "platform/qmx/PeerConnection.h"
#include "platform/system/Preferences.h"
#include "tests/support/Child.h"
#include "tests/support/DeviceRoot.h"

namespace {

using namespace abd;
using namespace fuzzing;
using testsupport::Child;
using testsupport::DeviceRoot;
using testsupport::PlugInBundle;
namespace fs = std::filesystem;

constexpr size_t kConnections = 4;
constexpr size_t kHosts = 3;

void require(bool condition, int line = __builtin_LINE()) {
  if (condition) return;
  std::fprintf(stderr, "line %d does not hold\n", line);
  std::abort();
}

/// One turn of the loop that the server lives on.
void turn() {
  RunLoop::main().async([] { RunLoop::main().stop(); });
  RunLoop::main().run();
}

/// Turns until `isReached`.
template <typename F>
void turnUntil(F isReached) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(8);
  while (!isReached()) {
    turn();
    require(std::chrono::steady_clock::now() < end);
  }
}

// --- The device, its hosts and the server ---

class Device {
 public:
  Device();

  ABDServer& server() const { return *server_; }
  const std::shared_ptr<const qmx::PeerIdentity>& host(size_t number) const {
    return hosts_[number % kHosts];
  }
  /// What "@n" and "$n" stand for.
  Value uuid(size_t number) const { return number < plugIns_.size() ? plugIns_[number] : UUID(); }
  Value path(size_t number) const { return number < paths_.size() ? Value(paths_[number]) : Value("/none"); }
  void set(size_t settings);
  /// Undoes what scripts did.
  void restore();

 private:
  void install();
  void addHost(const std::string& application);
  ABDPlugInSet all() const { return server_->findPlugIns({}).value(); }

  DeviceRoot root_;
  std::array<std::string, kHosts> applications_;
  std::vector<std::string> paths_;
  std::vector<UUID> plugIns_;
  size_t settings_ = 0;
  std::vector<std::unique_ptr<Child>> processes_;
  std::vector<std::shared_ptr<const qmx::PeerIdentity>> hosts_;
  std::unique_ptr<BusyAssertion> busy_;
  std::shared_ptr<ABDServer> server_;
  // When restore() was called last.
  std::optional<Date> saved_;
  std::pair<size_t, size_t> registered_;
};

Device::Device() {
  for (const std::string& variable : root_.environment())
    if (const size_t equals = variable.find('='); !variable.starts_with("PATH="))
      setenv(variable.substr(0, equals).c_str(), variable.substr(equals + 1).c_str(), 1);
  std::signal(SIGPIPE, SIG_IGN);
  silenceLog();
  install();
  for (const std::string& application : applications_) addHost(application);
  busy_ = BusyAssertion::take("a.edit");
  server_ = ABDServer::initForService("fuzz", std::nullopt);
  require(server_ != nullptr && busy_ != nullptr);
  server_->setVerbose(ABDServer::kVerboseMessages);
  server_->setCacheLimit(8);
  restore();
  require(plugIns_.size() == 9);
}

void Device::restore() {
  set(0);
  if (server_->annotationCondition().saved != saved_ || plugIns_.empty()) {
    for (const auto& plugIn : all())
      if (!server_->annotationForPlugIn(*plugIn).isNone()) server_->setAnnotation(std::nullopt, *plugIn);
    saved_ = server_->annotationCondition().saved;
  }
  const auto statistics = server_->workspace().statistics();
  if (const std::pair now(statistics.bundles, statistics.plugIns); now != registered_) {
    for (const std::string& path : paths_)
      if (path.ends_with(".appex")) server_->addPlugIn(URL::file(path));
    server_->removePlugIn(URL::file(paths_.back()));
    std::map<std::string, UUID> byPath;
    for (const auto& plugIn : all()) byPath.emplace(plugIn->path(), plugIn->uuid());
    plugIns_.clear();
    for (const auto& [path, uuid] : byPath) plugIns_.push_back(uuid);
    const auto after = server_->workspace().statistics();
    registered_ = {after.bundles, after.plugIns};
  }
}

void Device::set(size_t settings) {
  if (std::exchange(settings_, settings % 8) == settings % 8) return;
  const auto write = [](bool isThere, const std::string& path, const Dictionary& contents) {
    if (isThere)
      testsupport::writePropertyList(path, contents);
    else
      fs::remove(path);
  };
  write((settings & 1) != 0,
        root_.configUser() + "/Preferences/ByHost/com.veltra.ambrel.userprefs." + hostIdentifier() + ".plist",
        {{"exclusions", Array{Dictionary{{"ZQExtensionIdentifier", "a.data"}}, 5}}});
  write((settings & 2) != 0, root_.configDevice() + "/Restrictions.plist", {{"maximumAppsRating", 100}});
  write((settings & 4) != 0, root_.configUser() + "/Consent.plist",
        {{"app.Two", Dictionary{{"kQSVServiceKeyboardNetwork", true}}}});
}

void Device::install() {
  testsupport::writePropertyList(
      root_.dataSystem() + "/SDKs/point.plist",
      Dictionary{{"ZQExtension", Dictionary{{"CleanTimeout", 5}, {"Shared", Array{"run"}}}}});
  const Dictionary rule = {{"veltra.image", 2}, {"text/plain", true}};
  const std::string one = root_.install(
      "box/One.app",
      {{.identifier = "a.share",
        .attributes = {{"ZQExtensionActivationRule", rule}, {"list", Array{"1.10", 2}}}},
       {.identifier = "a.edit",
        .plugIn = {{"ZQExtensionPointIdentifier", "point"}, {"ZQExtensionHostEntitlement", "needed"}},
        .entitlements = {{"com.veltra.developer.replace-plugin", "a.share"}}},
       {.identifier = "a.own", .plugIn = {{"Dedicated", true}}},
       {.identifier = "a.bad", .plugIn = {{"PrincipalClass", "None"}}}});
  testsupport::writePropertyList(fs::path(one).parent_path() / "ZintraMetadata.plist",
                                 Dictionary{{"rating", Dictionary{{"rank", 300}}}});
  const std::string two =
      root_.install("Two.app", {{.identifier = "a.share",
                                 .version = "2.0",
                                 .entitlements = {{"com.veltra.developer.auto-elect-plugin", true}}},
                                {.identifier = "a.data", .plugIn = {{"ZQExtensionProtocol", "#Data"}}}});
  const std::string three = root_.install("Three.app", {{.identifier = "a.share", .version = "2.0"}}, true);
  const Dictionary restriction = {{"ZQExtensionIdentifier", Array{"a.share", "a.own"}}};
  const std::pair<const char*, Dictionary> programs[kHosts] = {
      {"Manager", {{"com.veltra.private.ambrel.manager", true}}},
      {"Plain", {{"needed", "yes"}}},
      {"Limited", {{"com.veltra.developer.ambrel.allowedplugins", restriction}}}};
  for (size_t i = 0; i < kHosts; ++i) {
    const std::string name = programs[i].first;
    applications_[i] =
        root_.install(name + ".app", {{.identifier = "own." + name, .plugIn = {{"Dedicated", true}}}});
    testsupport::writePropertyList(applications_[i] + "/Entitlements.plist", programs[i].second);
    fs::copy_file("/bin/cat", applications_[i] + "/main");
  }
  const std::string loose = root_.path() + "/loose.appex";
  root_.writeBundle(loose, {.identifier = "a.loose"});
  paths_ = {one,
            two,
            three,
            applications_[0],
            root_.plugInPath(one, "a.share"),
            root_.plugInPath(one, "a.edit"),
            root_.plugInPath(two, "a.data"),
            root_.plugInPath(one, "a.bad"),
            loose};
}

/// The process connects, and then runs the application's program as long as the connection lasts.
void Device::addHost(const std::string& application) {
  const std::string path = root_.path() + "/meeting";
  const FileDescriptor listening = testsupport::listeningSocket(path),
                       socket(::socket(AF_UNIX, SOCK_STREAM, 0));
  processes_.push_back(std::make_unique<Child>([&] {
    const sockaddr_un address = testsupport::socketAddress(path);
    if (connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return false;
    dup2(socket.get(), STDIN_FILENO);
    execl((application + "/main").c_str(), "main", nullptr);
    return false;
  }));
  const int accepted = accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC);  // open until the end
  hosts_.push_back(qmx::PeerIdentity::ofSocket(accepted));
  require(hosts_.back()->executablePath() == application + "/main");
}

// --- A connection of a host ---

class Client {
 public:
  Client(Device& device, const std::shared_ptr<const qmx::PeerIdentity>& host, ABDQmxClient::Service service);

  void send(std::string_view bytes) { unsent_ += bytes; }
  void sendFrame(std::string_view contents);
  void sendMessage(std::string_view text, bool wantsReply, const ValueReader::Named& named);
  /// Of what is unsent, as much as one turn may.
  void write();
  void read(size_t most);
  void endSending();
  void limitPieces(size_t size) { piece_ = size; }
  /// Nothing more is to come.
  bool isSettled() const;
  /// The token of the hold that was granted last.
  const Value& token() const { return token_; }

 private:
  void noteSent(std::string_view bytes);
  void take(const qmx::Frame& frame);

  FileDescriptor socket_;
  std::string unsent_;
  size_t piece_ = 0;
  uint64_t lastId_ = 0;
  Value token_;
  // What the server has to make of what it was sent.
  qmx::FrameReader sent_{qmx::kMaximumRequestFrame, 0};
  std::deque<uint64_t> expected_;  // replies
  bool isMalformed_ = false;
  // What has come.
  qmx::FrameReader received_{UINT32_MAX, 0};
  bool isSendingOver_ = false, isOver_ = false;
};

Client::Client(Device& device, const std::shared_ptr<const qmx::PeerIdentity>& host,
               ABDQmxClient::Service service) {
  int ends[2];
  require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0);
  socket_ = FileDescriptor(ends[0]);
  const int small = 1;  // what is not read soon waits in the server
  setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  const auto connection =
      std::make_shared<qmx::PeerConnection>(RunLoop::main(), FileDescriptor(ends[1]), host, nullptr);
  device.server().qmxQueue().async([connection, service, &server = device.server()] {
    ABDQmxClient::initWithConnection(connection, server, service);
  });
}

void Client::sendFrame(std::string_view contents) {
  std::string field(qmx::kLengthField, 0);
  qmx::setFrameLength(field.data(), static_cast<uint32_t>(contents.size()));
  send(field + std::string(contents));
}

void Client::sendMessage(std::string_view text, bool wantsReply, const ValueReader::Named& named) {
  ValueReader reader(text, named);
  Dictionary body;
  if (const std::string_view name = reader.word(); !name.empty()) body.set(key::request, name);
  body.set(key::version, kProtocolVersion);
  for (const auto& [key, value] : reader.entries()) body.set(key, value);
  std::string contents = "\x83";
  qmx::encode(wantsReply ? 1 : 0, contents);
  qmx::encode(wantsReply ? ++lastId_ : 0, contents);
  qmx::encode(body, contents);
  sendFrame(contents);
}

void Client::write() {
  const size_t size = piece_ == 0 ? unsent_.size() : std::min(piece_, unsent_.size());
  if (size == 0) return;
  const ssize_t count = ::send(socket_.get(), unsent_.data(), size, MSG_NOSIGNAL);
  if (count > 0) {
    noteSent(std::string_view(unsent_).substr(0, static_cast<size_t>(count)));
    unsent_.erase(0, static_cast<size_t>(count));
  } else if (errno != EAGAIN) {
    require(isMalformed_ || isSendingOver_);
    unsent_.clear();
  }
}

void Client::noteSent(std::string_view bytes) {
  while (!bytes.empty() && !isMalformed_) {
    const std::span<uint8_t> space = sent_.space();
    const std::string_view part = bytes.substr(0, space.size());
    std::ranges::copy(part, space.begin());
    sent_.received(part.size());
    bytes.remove_prefix(part.size());
    for (; sent_.count() > 0 && !isMalformed_; sent_.pop()) {
      const std::optional<qmx::Frame> frame = qmx::decodeFrame(sent_.front());
      isMalformed_ = !frame || frame->kind == qmx::FrameKind::reply;
      if (!isMalformed_ && frame->kind == qmx::FrameKind::request && frame->body.isDictionary())
        expected_.push_back(frame->id);
    }
    isMalformed_ = isMalformed_ || sent_.isOversized();
  }
}

void Client::read(size_t most) {
  while (most > 0 && !isOver_) {
    const std::span<uint8_t> space = received_.space();
    const ssize_t count = ::recv(socket_.get(), space.data(), std::min(space.size(), most), 0);
    if (count < 0 && errno == EAGAIN) return;
    isOver_ = count <= 0;
    // A peer that closes with bytes unread resets the stream.
    require(!isOver_ || isMalformed_ || isSendingOver_);
    if (isOver_) return;
    received_.received(static_cast<size_t>(count));
    most -= static_cast<size_t>(count);
    for (; received_.count() > 0; received_.pop()) {
      const std::optional<qmx::Frame> frame = qmx::decodeFrame(received_.front());
      require(frame && frame->kind == qmx::FrameKind::reply && frame->body.isDictionary());
      take(*frame);
    }
  }
}

void Client::take(const qmx::Frame& frame) {
  // Requests before the end of a stream may be dropped.
  while (isSendingOver_ && !expected_.empty() && expected_.front() != frame.id) expected_.pop_front();
  require(!expected_.empty() && expected_.front() == frame.id);
  expected_.pop_front();
  const Dictionary& reply = *frame.body.dictionary();
  require(reply.contains(key::errorCode) == reply.contains(key::error));
  require(!reply.contains(key::errorCode) || reply[key::errorCode].unsignedValue() != 0);
  for (const char* key : {key::matches, explainkey::explanations})
    if (const EncodedPropertyList* list = reply[key].encoded())
      require(qmx::decodePropertyList(*list).value_or(Value()).array() != nullptr);
  if (reply[key::uuids].uuid()) token_ = reply[key::uuids];
}

void Client::endSending() {
  write();
  unsent_.clear();
  isSendingOver_ = true;
  shutdown(socket_.get(), SHUT_WR);
}

bool Client::isSettled() const {
  return isOver_ || (unsent_.empty() && expected_.empty() && !isMalformed_ && !isSendingOver_);
}

// --- A script ---

class Play {
 public:
  explicit Play(Device& device) : device_(device) {}

  void line(std::string_view line);
  void end();

 private:
  void step();

  Device& device_;
  std::array<std::unique_ptr<Client>, kConnections> clients_;
};

void Play::step() {
  for (const auto& client : clients_)
    if (client != nullptr) client->write();
  turn();
}

void Play::line(std::string_view line) {
  if (line.size() < 2) return;
  std::unique_ptr<Client>& client = clients_[static_cast<uint8_t>(line[0]) % kConnections];
  const char action = line[1];
  const std::string_view operands = line.substr(2);
  const size_t number = static_cast<size_t>(std::atoi(std::string(operands.substr(0, 4)).c_str()));
  if (action == 'o' || action == 'd') {
    client = nullptr;
    client = std::make_unique<Client>(
        device_, device_.host(number),
        action == 'o' ? ABDQmxClient::Service::main : ABDQmxClient::Service::diagnostics);
  }
  if (action == 's') device_.set(number);
  if (action == 't')
    for (size_t i = 0; i < std::clamp<size_t>(number, 1, 9); ++i) step();
  if (client == nullptr) return;
  const ValueReader::Named named = [&](char sign, size_t which) {
    return sign == '@' ? device_.uuid(which) : sign == '$' ? device_.path(which) : client->token();
  };
  if (action == 'r' || action == 'm') client->sendMessage(operands, action == 'r', named);
  if (action == 'f') client->sendFrame(operands);
  if (action == 'x') client->send(operands);
  if (action == 'w') client->limitPieces(number);
  if (action == 'g') client->read(number == 0 ? SIZE_MAX : number);
  if (action == 'e') client->endSending();
  if (action == 'c') client = nullptr;
}

void Play::end() {
  for (auto& client : clients_)
    if (client != nullptr) client->limitPieces(0);
  turnUntil([this] {
    for (auto& client : clients_) {
      if (client == nullptr) continue;
      client->write();
      client->read(SIZE_MAX);
    }
    return std::ranges::all_of(clients_,
                               [](const auto& each) { return each == nullptr || each->isSettled(); });
  });
  clients_ = {};
  ABDServer& server = device_.server();
  turnUntil([&server] { return server.clients().empty() && server.holds().empty(); });
}

}  // namespace

/// The device is in memory where programs may be run there.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  struct statvfs memory {};
  if (statvfs("/dev/shm", &memory) == 0 && (memory.f_flag & ST_NOEXEC) == 0) setenv("TMPDIR", "/dev/shm", 0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Device& device = *new Device;  // to the end of the process, as its server
  std::string_view text(reinterpret_cast<const char*>(data), size);
  Play play(device);
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), line.size() + 1));
    play.line(line);
  }
  play.end();
  device.restore();
  return 0;
}
