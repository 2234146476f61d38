#include "log/logger_thread_group.h"

#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <new>
#include <utility>

#include "platform/abandon.h"
#include "platform/exception.h"

namespace qel {
namespace {

using Hold = std::lock_guard<ZU_ThreadMutex>;
using Channels = std::vector<std::shared_ptr<LogChannel>>;

bool drainAll(const Channels& channels) {
  bool written = true;
  for (const auto& channel : channels) written = channel->drain() && written;
  return written;
}

}  // namespace

/// What the writers, the channels and the group have in common.
struct ZU_LoggerThreadGroup::Shared final : LogSignal {
  explicit Shared(Clock& wallClock) : clock(wallClock) {}

  void notify() override {
    Hold hold(mutex);
    work = true;
    cond.signal();
  }

  Channels copyOfChannels() {
    Hold hold(mutex);
    return channels;
  }

  /// Waits for lines, or after a failure for the time to try again. Answers false at the end.
  bool awaitWork(bool failed) {
    Hold hold(mutex);
    const std::int64_t retryAt = clock.steadyMillis() + kRetryMillis;
    while (!stopping && (failed || !work)) {
      const std::int64_t left = retryAt - clock.steadyMillis();
      if (failed && left <= 0) break;
      if (failed) {
        clock.wait(cond, mutex, static_cast<int>(left));
      } else {
        cond.wait(mutex);
      }
    }
    work = false;
    return !stopping;
  }

  Clock& clock;
  const pid_t process = getpid();
  ZU_ThreadMutex mutex;
  ZU_ThreadCond cond;

  // Guarded by mutex.
  Channels channels;
  bool work = false;
  bool running = false;
  bool stopping = false;
};

class ZU_LoggerThreadGroup::Writer final : public ZU_Thread {
 public:
  explicit Writer(std::shared_ptr<Shared> shared) : _shared(std::move(shared)) {}

 private:
  void run() override {
    bool failed = false;
    while (_shared->awaitWork(failed)) {
      try {
        failed = !drainAll(_shared->copyOfChannels());
      } catch (const std::bad_alloc&) {
        failed = true;
      }
    }
  }

  const std::shared_ptr<Shared> _shared;
};

ZU_LoggerThreadGroup::ZU_LoggerThreadGroup(Clock& clock)
    : _shared(std::make_shared<Shared>(clock)) {}

ZU_LoggerThreadGroup::~ZU_LoggerThreadGroup() {
  stop();
  if (isForkedCopy()) abandon(_shared);
}

/// A forked child has no writers, and its copy of the locks may never be released.
bool ZU_LoggerThreadGroup::isForkedCopy() const { return getpid() != _shared->process; }

void ZU_LoggerThreadGroup::beginAnewAfterFork() {
  if (!isForkedCopy()) return;
  auto shared = std::make_shared<Shared>(_shared->clock);
  abandon(_shared);
  abandon(_writers);
  _shared = std::move(shared);
}

void ZU_LoggerThreadGroup::start(int threads) {
  beginAnewAfterFork();
  if (!_writers.empty() || threads < 1) return;
  {
    Hold hold(_shared->mutex);
    _shared->stopping = false;
  }
  // Room first: a writer that runs already must not be lost for want of it.
  _writers.reserve(static_cast<std::size_t>(threads));
  try {
    for (int i = 0; i < threads; ++i) {
      auto writer = std::make_unique<Writer>(_shared);
      writer->start();
      _writers.push_back(std::move(writer));
    }
  } catch (const ZU_Exception&) {
    if (_writers.empty()) throw;  // fewer threads than asked for do the same work
  }
  Hold hold(_shared->mutex);
  _shared->running = true;
  for (const auto& channel : _shared->channels) channel->attach(_shared);
}

void ZU_LoggerThreadGroup::add(std::shared_ptr<LogChannel> channel) {
  if (isForkedCopy()) return;
  Hold hold(_shared->mutex);
  Channels& channels = _shared->channels;
  std::erase_if(channels, [](const auto& other) { return other->isClosed(); });
  if (_shared->running) channel->attach(_shared);
  if (std::find(channels.begin(), channels.end(), channel) == channels.end())
    channels.push_back(std::move(channel));
  // Lines that could not be written so far are this group's now.
  _shared->work = true;
  _shared->cond.signal();
}

bool ZU_LoggerThreadGroup::flush() {
  if (isForkedCopy()) return true;
  return drainAll(_shared->copyOfChannels());
}

void ZU_LoggerThreadGroup::stop() {
  if (isForkedCopy()) return;
  {
    Hold hold(_shared->mutex);
    _shared->stopping = true;
    _shared->running = false;
    for (const auto& channel : _shared->channels) channel->attach(nullptr);
    _shared->cond.broadcast();
  }
  for (const auto& writer : _writers) writer->getThreadControl().join();
  _writers.clear();
  try {
    flush();
  } catch (const std::bad_alloc&) {
    // The loggers write what is left when they end.
  }
}

}  // namespace qel
