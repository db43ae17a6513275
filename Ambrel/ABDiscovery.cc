// The search and its threads. Notifications arrive on the loop of the client's reply queue, answers on the
// queue itself; between them there is at most one request under way, or one timer. What is under way does not
// keep the search alive; what has begun does, and finds it ended when its owner has gone.

#include "Ambrel/ABDiscovery.h"

#include <chrono>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <variant>

#include "platform/system/Notifications.h"

namespace ambrel {

namespace {

using Clock = std::chrono::steady_clock;
/// From one search to the next: what is told meanwhile is answered by the same one.
constexpr std::chrono::milliseconds kJoined{50};

}  // namespace

class PlugInDiscovery::Search : public std::enable_shared_from_this<Search> {
 public:
  Search(ABDaemonClient& client, std::optional<Dictionary> rules, uint64_t flags, Handler handler)
      : client_(client), rules_(std::move(rules)), flags_(flags), handler_(std::move(handler)) {}

  SerialQueue& queue() const { return client_.replyQueue(); }
  /// The next answer may be another one. Any thread.
  void changed();
  /// Nothing begins after this.
  void end();
  /// On the reply queue.
  void tell(const Result<PlugInChanges>& news);

 private:
  enum class Phase : uint8_t { idle, waiting, asking };

  // With the mutex held.
  void begin();
  void ask();

  // On the reply queue.
  void answered(const ABDaemonClient::Reply& reply);
  void take(Result<std::vector<Dictionary>>&& forms);
  PlugInChanges update(std::vector<Dictionary>&& forms);

  ABDaemonClient& client_;  // only while not ended
  const std::optional<Dictionary> rules_;
  const uint64_t flags_;
  const Handler handler_;

  std::mutex mutex_;
  // Guarded by mutex_.
  bool isEnded_ = false;
  Phase phase_ = Phase::idle;
  bool isOutdated_ = false;  // the answer that is under way may be
  Clock::time_point begun_{};

  // Only on the reply queue.
  struct Known {
    Dictionary form;  // without tokens
    PlugIn plugIn;
  };
  std::unordered_map<UUID, Known> known_;
  bool isToldNext_ = true;  // whatever the answer is
  std::optional<Error> error_;
  bool wasInterrupted_ = false;
};

/// Both are destroyed on the loop that they are called on.
struct PlugInDiscovery::Observers {
  Observers(RunLoop& loop, const std::shared_ptr<Search>& search)
      : plugIns(kPlugInsChangeNotification, loop, telling(search)),
        annotations(kAnnotationChangeNotification, loop, telling(search)) {}

  static std::function<void(uint64_t)> telling(const std::weak_ptr<Search>& search) {
    return [search](uint64_t) {
      if (const auto alive = search.lock()) alive->changed();
    };
  }

  NotificationObserver plugIns, annotations;
};

void PlugInDiscovery::Search::changed() {
  const std::lock_guard lock(mutex_);
  isOutdated_ = true;
  if (!isEnded_ && phase_ == Phase::idle) begin();
}

void PlugInDiscovery::Search::end() {
  const std::lock_guard lock(mutex_);
  isEnded_ = true;
}

void PlugInDiscovery::Search::begin() {
  const auto early = begun_ + kJoined - Clock::now();
  if (early <= Clock::duration::zero()) {
    ask();
    return;
  }
  phase_ = Phase::waiting;
  queue().loop().after(early, [search = weak_from_this()] {
    const auto alive = search.lock();
    if (alive == nullptr) return;
    const std::lock_guard lock(alive->mutex_);
    if (!alive->isEnded_) alive->ask();
  });
}

void PlugInDiscovery::Search::ask() {
  phase_ = Phase::asking;
  isOutdated_ = false;
  begun_ = Clock::now();
  client_.matchPlugIns(rules_, flags_, [search = weak_from_this()](ABDaemonClient::Reply&& reply) {
    if (const auto alive = search.lock()) alive->answered(reply);
  });
}

void PlugInDiscovery::Search::answered(const ABDaemonClient::Reply& reply) {
  const auto* broken = std::get_if<qmx::ConnectionError>(&reply);
  const bool isInterrupted = broken != nullptr && *broken == qmx::ConnectionError::interrupted;
  // Nothing tells that a connection broke under the request and the daemon is there: it is asked again.
  const bool isRepeated = isInterrupted && !std::exchange(wasInterrupted_, true);
  if (!isRepeated) {
    {
      const std::lock_guard lock(mutex_);
      if (isEnded_) return;
    }
    wasInterrupted_ = isInterrupted;
    take(formsInReply(client_, reply));
  }
  const std::lock_guard lock(mutex_);
  if (isEnded_) return;
  phase_ = Phase::idle;
  if (isOutdated_ || isRepeated) begin();
}

void PlugInDiscovery::Search::take(Result<std::vector<Dictionary>>&& forms) {
  if (Error* error = std::get_if<Error>(&forms)) {
    if (error_ == *error) return;
    error_ = *error;
    isToldNext_ = true;
    tell(std::move(*error));
    return;
  }
  error_.reset();
  PlugInChanges changes = update(std::get<std::vector<Dictionary>>(std::move(forms)));
  const bool isNews = !changes.added.empty() || !changes.removed.empty() || !changes.changed.empty();
  if (std::exchange(isToldNext_, false) || isNews) tell(std::move(changes));
}

PlugInChanges PlugInDiscovery::Search::update(std::vector<Dictionary>&& forms) {
  PlugInChanges changes;
  std::unordered_map<UUID, Known> now;
  for (Dictionary& form : forms) {
    form.remove(formkey::extensions);  // tokens are fresh in every answer
    const auto uuid = UUID::fromString(form[formkey::uuid].string().value_or(""));
    if (!uuid) continue;
    const auto earlier = known_.find(*uuid);
    const bool isKnown = earlier != known_.end();
    const bool isSame = isKnown && earlier->second.form == form;
    PlugIn plugIn = isSame ? earlier->second.plugIn : ABPlugInCore::initWithForm(form);
    if (plugIn == nullptr) continue;
    if (!isKnown)
      changes.added.push_back(plugIn);
    else if (!isSame)
      changes.changed.push_back({earlier->second.plugIn, plugIn});
    changes.plugIns.push_back(plugIn);
    now.emplace(*uuid, Known{std::move(form), std::move(plugIn)});
  }
  for (const auto& [uuid, entry] : known_)
    if (!now.contains(uuid)) changes.removed.push_back(entry.plugIn);
  known_ = std::move(now);
  return changes;
}

/// Whoever ends the search on another thread waits for the queue's turn after this test.
void PlugInDiscovery::Search::tell(const Result<PlugInChanges>& news) {
  {
    const std::lock_guard lock(mutex_);
    if (isEnded_) return;
  }
  handler_(news);
}

PlugInDiscovery::PlugInDiscovery(ABDaemonClient& client, std::optional<Dictionary> rules, uint64_t flags,
                                 Handler handler)
    : search_(std::make_shared<Search>(client, std::move(rules), flags, std::move(handler))),
      observers_(std::make_unique<Observers>(client.replyQueue().loop(), search_)) {
  search_->changed();
  if (observers_->plugIns.isWatching() && observers_->annotations.isWatching()) return;
  search_->queue().async([search = std::weak_ptr(search_)] {
    if (const auto alive = search.lock())
      alive->tell(ABError(kABErrorRequest, "change notifications cannot be watched"));
  });
}

PlugInDiscovery::~PlugInDiscovery() {
  search_->end();
  SerialQueue& queue = search_->queue();
  queue.loop().async([observers = std::move(observers_)] {});
  if (!queue.isCurrent()) queue.sync([] {});
}

}  // namespace ambrel
