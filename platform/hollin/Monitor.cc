// Events only mark what to look at: an entry of an "Applications" directory, a bundle registered by path, the
// SDKs, or everything. What is marked is looked at when no event came for the quiet period, all that is due
// at once, so that a thousand installs are one batch. Watches of an entry are renewed by the scan that looks
// at it, each directory before it is listed, so that nothing happens unseen between listing and watching.

#include "platform/hollin/Monitor.h"

#include <fcntl.h>
#include <fts.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "platform/hollin/PlatformThread.h"
#include "platform/log/Failure.h"
#include "platform/log/Log.h"
#include "platform/qmx/BundleNames.h"
#include "platform/qmx/SDKRegistry.h"

namespace platform::hollin {

namespace {

/// A tree with more files than this is not asked for its activity to the end.
constexpr int kMostFilesAsked = 20000;
/// Slack between the times of files, which come from a coarser clock, and events.
constexpr int64_t kBusyNanoseconds = std::chrono::nanoseconds(kQuietPeriod).count() * 5 / 6;

int64_t nanoseconds(const timespec& time) {
  return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

int64_t wallClock() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return nanoseconds(now);
}

/// Whether something in the tree at `path` changed just now. Directories deep in an application are not
/// watched; this is how copying into them is noticed.
bool isActive(const std::string& path) {
  std::string root = path;
  char* const roots[] = {root.data(), nullptr};
  const std::unique_ptr<FTS, int (*)(FTS*)> tree(
      fts_open(roots, FTS_PHYSICAL | FTS_NOCHDIR | FTS_XDEV, nullptr), &fts_close);
  if (tree == nullptr) return false;
  const int64_t now = wallClock();
  for (int i = 0; i < kMostFilesAsked; i++) {
    const FTSENT* file = fts_read(tree.get());
    if (file == nullptr) return false;
    if (file->fts_info == FTS_NS || file->fts_info == FTS_DP || file->fts_info == FTS_ERR) continue;
    const int64_t age = now - nanoseconds(file->fts_statp->st_ctim);
    if (age >= 0 && age < kBusyNanoseconds) return true;
  }
  return false;
}

}  // namespace

Monitor::~Monitor() {
  isStopping_ = true;
  if (wake_) eventfd_write(wake_.get(), 1);
  if (thread_.joinable()) thread_.join();
}

void Monitor::start(std::vector<std::shared_ptr<const PlugInProxy>> registered) {
  registeredAtStart_ = std::move(registered);
  wake_ = FileDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  mounts_ = FileDescriptor(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
  if (!wake_) raiseInternalInconsistency("cannot make an event descriptor: %s", strerror(errno));
  thread_ = startPlatformThread("hollin-watch", [this] { run(); });
}

void Monitor::registrationsChanged() {
  haveRegistrationsChanged_ = true;
  eventfd_write(wake_.get(), 1);
}

void Monitor::run() {
  schedule(everythingDue_, Clock::duration::zero());
  work();
  makeDataContainers(std::exchange(registeredAtStart_, {}));
  while (!isStopping_) {
    wait();
    readEvents();
    work();
  }
}

void Monitor::wait() {
  int timeout = -1;
  if (const auto due = nextDue()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*due - Clock::now()).count();
    timeout = static_cast<int>(std::max<int64_t>(left, 0));
  }
  pollfd descriptors[] = {
      {wake_.get(), POLLIN, 0}, {watches_.descriptor(), POLLIN, 0}, {mounts_.get(), POLLPRI, 0}};
  if (poll(descriptors, 3, timeout) <= 0) return;
  eventfd_t ignored;
  if (descriptors[0].revents != 0) eventfd_read(wake_.get(), &ignored);
  if (descriptors[2].revents == 0) return;
  endVigils();
  schedule(everythingDue_, kQuietPeriod);
}

void Monitor::readEvents() {
  const bool isComplete = watches_.read([this](Subject& subject, std::string_view name, bool isOnTheWay) {
    handle(subject, name, isOnTheWay);
  });
  if (isComplete) return;
  systemLog("events of the file system were lost: looking at all applications again");
  endVigils();
  schedule(everythingDue_, kQuietPeriod);
}

void Monitor::handle(Subject& subject, std::string_view name, bool isOnTheWay) {
  switch (subject.kind) {
    case Subject::Kind::applications:
      if (isOnTheWay || name.empty()) {
        endVigils();
        schedule(everythingDue_, kShortPeriod);
      } else {
        const std::string entry = subject.path + "/" + std::string(name);
        endVigil(entry);
        mark(pendingEntries_, entry);
      }
      return;
    case Subject::Kind::entry:
      subject.vigil->end();
      mark(pendingEntries_, subject.path);
      return;
    case Subject::Kind::registered:
      subject.vigil->end();
      mark(pendingRegistered_, subject.path);
      return;
    case Subject::Kind::sdks:
      if (isOnTheWay || name.empty()) {
        schedule(everythingDue_, kShortPeriod);
      } else {
        markSDKs();
      }
      return;
  }
}

/// Each event puts off the look, but not for ever.
void Monitor::mark(PendingPaths& pending, const std::string& path) {
  const auto now = Clock::now();
  Pending& entry = pending.try_emplace(path, Pending{now, now}).first->second;
  entry.due = std::min(now + kQuietPeriod, entry.since + kLongestWait);
}

void Monitor::markSDKs() {
  const auto now = Clock::now();
  if (!pendingSDKs_) pendingSDKs_ = Pending{now, now};
  pendingSDKs_->due = std::min(now + kShortPeriod, pendingSDKs_->since + kLongestWaitForSDKs);
}

void Monitor::schedule(std::optional<Clock::time_point>& due, Clock::duration delay) {
  const auto time = Clock::now() + delay;
  if (!due || time < *due) due = time;
}

std::optional<Monitor::Clock::time_point> Monitor::nextDue() const {
  std::optional<Clock::time_point> next;
  const auto consider = [&next](Clock::time_point due) {
    if (!next || due < *next) next = due;
  };
  if (everythingDue_) consider(*everythingDue_);
  if (pendingSDKs_) consider(pendingSDKs_->due);
  for (const auto* pending : {&pendingEntries_, &pendingRegistered_})
    for (const auto& [path, entry] : *pending) consider(entry.due);
  return next;
}

std::vector<std::string> Monitor::takeDue(PendingPaths& pending) {
  std::vector<std::string> due;
  const auto now = Clock::now();
  for (auto entry = pending.begin(); entry != pending.end();) {
    if (entry->second.due > now) {
      ++entry;
      continue;
    }
    due.push_back(entry->first);
    busySince_.try_emplace(entry->first, entry->second.since);
    entry = pending.erase(entry);
  }
  return due;
}

void Monitor::work() {
  const auto now = Clock::now();
  if (haveRegistrationsChanged_.exchange(false)) collectRegistered();
  if (everythingDue_ && *everythingDue_ <= now) lookAtEverything();
  if (pendingSDKs_ && pendingSDKs_->due <= now) refreshSDKs();
  if (const auto entries = takeDue(pendingEntries_); !entries.empty()) scanEntries(entries);
  if (const auto paths = takeDue(pendingRegistered_); !paths.empty()) lookAtRegistered(paths);
  judgeExhaustion();
}

Subject& Monitor::subjectOf(Subject::Kind kind, const std::string& path) {
  auto& subjects = kind == Subject::Kind::entry        ? entries_
                   : kind == Subject::Kind::registered ? registered_
                                                       : places_;
  auto& subject = subjects[path];
  if (subject == nullptr) {
    subject = std::make_unique<Subject>(Subject{kind, path});
    if (&subjects != &places_) subject->vigil = catalog_.vigilOf(path);
  }
  return *subject;
}

/// What the subject was watched for is not watched any more.
void Monitor::drop(Subject& subject) {
  watches_.drop(subject);
  subject.vigil->end();
  subject.vigil.reset();
  catalog_.sweepVigil(subject.path);
}

void Monitor::beginVigil(const Subject& subject) {
  if (subject.isWhole)
    subject.vigil->begin();
  else
    subject.vigil->end();
}

void Monitor::endVigil(const std::string& entry) {
  if (const auto known = entries_.find(entry); known != entries_.end()) known->second->vigil->end();
}

void Monitor::endVigils() {
  for (const auto* subjects : {&entries_, &registered_})
    for (const auto& [path, subject] : *subjects) subject->vigil->end();
}

/// A whole round, as at start: every watch is renewed, and what it is for is looked at after that.
void Monitor::lookAtEverything() {
  everythingDue_.reset();
  watches_.resetExhaustion();
  watchPlaces();
  refreshSDKs();
  watchRegistered();
  scanEverything();
  for (const auto& [path, subject] : registered_) beginVigil(*subject);
}

void Monitor::refreshSDKs() {
  pendingSDKs_.reset();
  registrar_.refreshSDKs();
}

/// Watches "Applications" and "SDKs" of all roots.
void Monitor::watchPlaces() {
  const auto watchPlace = [this](Subject::Kind kind, const std::string& configured) {
    // The directory and the ways to it, whether it exists or not.
    Subject& subject = subjectOf(kind, configured);
    watches_.begin(subject);
    watches_.addWay(subject, configured);
    watches_.add(subject, configured);
    if (std::string path = canonicalPath(configured); !path.empty()) subject.path = std::move(path);
    watches_.end(subject);
  };
  for (const std::string& root : directories_.dataRoots()) {
    watchPlace(Subject::Kind::applications, root + "/Applications");
    watchPlace(Subject::Kind::sdks, root + "/SDKs");
  }
  if (const auto tests = qmx::testSDKDirectory()) watchPlace(Subject::Kind::sdks, *tests);
  catalog_.setLocations(Locations::current(directories_));
}

void Monitor::watchRegistered() {
  collectRegistered();
  for (const auto& [path, subject] : registered_) watchBundle(*subject);
}

/// Watches a bundle that is registered by path, the way to it, and the application around it.
void Monitor::watchBundle(Subject& subject) {
  watches_.begin(subject);
  watches_.addWay(subject, subject.path + "/Info.plist", true);
  if (const auto application = Locations::applicationOf(subject.path); !application.empty())
    watchNamed(subject, std::string(application));
  watchNamed(subject, subject.path);
  watches_.end(subject);
}

/// Watches the directory of something that has a name, and its words for this user.
void Monitor::watchNamed(Subject& subject, const std::string& bundle) {
  watches_.add(subject, bundle);
  if (qmx::hasLanguage()) watches_.addIfThere(subject, bundle + "/Localizations");
}

/// Bundles registered by path; they may be gone. A new one is watched when it is looked at.
void Monitor::collectRegistered() {
  std::unordered_map<std::string, std::unique_ptr<Subject>> before;
  before.swap(registered_);
  for (const String& path : catalog_.registeredByPath()) {
    const std::string key(path.view());
    if (auto known = before.extract(key)) {
      registered_.insert(std::move(known));
      continue;
    }
    subjectOf(Subject::Kind::registered, key);
    mark(pendingRegistered_, key);
  }
  for (const auto& [path, subject] : before) drop(*subject);
}

void Monitor::visit(Scanner::Way way, const std::string& path, const std::string& entry, Visited& visited) {
  Subject*& subject = visited[entry];
  if (subject == nullptr) {
    subject = &subjectOf(Subject::Kind::entry, entry);
    watches_.begin(*subject);
  }
  if (way != Scanner::Way::directory) {
    watches_.addWay(*subject, path, way == Scanner::Way::linkToAFile);
  } else if (lastComponentOf(path) == "PlugIns") {
    watches_.add(*subject, path);
  } else {
    watchNamed(*subject, path);
  }
}

void Monitor::scanEverything() {
  const uint64_t since = catalog_.clock();
  Visited visited;
  Scanner scanner([this, &visited](Scanner::Way way, const std::string& path, const std::string& entry) {
    visit(way, path, entry, visited);
  });
  const auto locations = catalog_.locations();
  for (const Locations::Root& root : locations->roots())
    if (!root.applications.empty()) scanner.scanApplications(root.applications);
  for (const auto& [entry, subject] : visited) watches_.end(*subject);
  std::erase_if(entries_, [this, &visited](const auto& entry) {
    if (visited.contains(entry.first)) return false;
    drop(*entry.second);
    return true;
  });
  takeReport(
      registrar_.applyScan(scanner.take(), true, since, [this](const std::string& p) { return isBusy(p); }));
  for (const auto& [entry, subject] : visited) beginVigil(*subject);
}

void Monitor::scanEntries(const std::vector<std::string>& entries) {
  const uint64_t since = catalog_.clock();
  Visited visited;
  Scanner scanner([this, &visited](Scanner::Way way, const std::string& path, const std::string& entry) {
    visit(way, path, entry, visited);
  });
  for (const std::string& entry : entries) scanner.scanEntry(entry);
  for (const auto& [entry, subject] : visited) watches_.end(*subject);
  for (const std::string& entry : entries) {
    const auto known = entries_.find(entry);
    if (known == entries_.end() || visited.contains(entry)) continue;
    drop(*known->second);
    entries_.erase(known);
  }
  takeReport(
      registrar_.applyScan(scanner.take(), false, since, [this](const std::string& p) { return isBusy(p); }));
  for (const auto& [entry, subject] : visited) beginVigil(*subject);
}

void Monitor::lookAtRegistered(const std::vector<std::string>& paths) {
  // The directory may be another one now.
  for (const std::string& path : paths)
    if (const auto subject = registered_.find(path); subject != registered_.end())
      watchBundle(*subject->second);
  takeReport(registrar_.lookAt(paths, [this](const std::string& p) { return isBusy(p); }));
  for (const std::string& path : paths)
    if (const auto subject = registered_.find(path); subject != registered_.end())
      beginVigil(*subject->second);
}

void Monitor::count(HLRegistryStatistics& statistics) const {
  statistics.watches = watches_.count();
  statistics.isPolling = isPeriodic_;
  if (const Date last = lastScan_; last != Date()) statistics.lastScan = last;
}

void Monitor::takeReport(Registrar::Report report) {
  lastScan_ = Date::now();
  for (const auto* paths : {&report.postponed, &report.again})
    for (const std::string& path : *paths) {
      PendingPaths& pending = registered_.contains(path) ? pendingRegistered_ : pendingEntries_;
      const auto known = busySince_.find(path);
      const auto now = Clock::now();
      const auto since = known == busySince_.end() ? now : known->second;
      pending.try_emplace(path, Pending{since, now + kQuietPeriod});
    }
  // What was taken may be waited for anew the next time.
  std::erase_if(busySince_, [this](const auto& entry) {
    return !pendingEntries_.contains(entry.first) && !pendingRegistered_.contains(entry.first);
  });
  if (report.isEverythingToBeScanned) schedule(everythingDue_, Clock::duration::zero());
  makeDataContainers(report.registered);
}

bool Monitor::isBusy(const std::string& path) {
  const auto since = busySince_.try_emplace(path, Clock::now()).first->second;
  if (Clock::now() - since >= kLongestWait) return false;
  return isActive(path);
}

void Monitor::judgeExhaustion() {
  if (watches_.isExhausted()) {
    if (!isPeriodic_)
      systemLog("cannot watch all applications (%s): looking at them every %d seconds",
                strerror(watches_.exhaustion()), static_cast<int>(kRescanInterval.count()));
    isPeriodic_ = true;
    schedule(everythingDue_, kRescanInterval);
  } else if (isPeriodic_) {
    isPeriodic_ = false;
    systemLog("watching all applications again");
  }
}

}  // namespace platform::hollin
