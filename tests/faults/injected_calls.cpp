#include "tests/faults/injected_calls.h"

#include <atomic>
#include <cerrno>
#include <stdexcept>
#include <type_traits>

#include "platform/system_calls.h"

namespace tolvar_test {
namespace {

using qel::SystemCalls;

std::atomic<int> usesLeft{0};
std::atomic<bool> faultLasts{false};
std::atomic<bool> faultFired{false};
std::atomic<bool> healed{false};
int faultError = 0;

bool failsNow() {
  if (healed) return false;
  const int left = --usesLeft;
  if (left > 0 || (left < 0 && !faultLasts)) return false;
  faultFired = true;
  return true;
}

/// What a failed call of this kind answers.
enum class Answer { kErrno, kError };
/// What a failed call of this kind does.
enum class Effect { kNone, kDone };

template <auto Member, Answer answer, Effect effect>
struct Entry;

template <class Result, class... Arguments, Result (*SystemCalls::*Member)(Arguments...),
          Answer answer, Effect effect>
struct Entry<Member, answer, effect> {
  static Result call(Arguments... arguments) {
    static const SystemCalls real = qel::realSystemCalls();
    if (!failsNow()) return (real.*Member)(arguments...);
    if constexpr (effect == Effect::kDone) (real.*Member)(arguments...);
    if constexpr (answer == Answer::kError) {
      return faultError;
    } else {
      errno = faultError;
      if constexpr (std::is_pointer_v<Result>) {
        return reinterpret_cast<Result>(-1);
      } else {
        return -1;
      }
    }
  }
  static void install(SystemCalls& calls) { calls.*Member = &call; }
};

struct Named {
  const char* name;
  void (*install)(SystemCalls&);
};

template <auto Member, Effect effect = Effect::kNone, Answer answer = Answer::kErrno>
constexpr auto entry = &Entry<Member, answer, effect>::install;

constexpr Named kEntries[] = {
    {"shmget", entry<&SystemCalls::shmget>},
    {"shmat", entry<&SystemCalls::shmat>},
    {"shmdt", entry<&SystemCalls::shmdt, Effect::kDone>},
    {"shmctl", entry<&SystemCalls::shmctl>},
    {"semget", entry<&SystemCalls::semget>},
    {"semtimedop", entry<&SystemCalls::semtimedop>},
    {"semctl", entry<&SystemCalls::semctl>},
    {"open", entry<&SystemCalls::open>},
    {"close", entry<&SystemCalls::close, Effect::kDone>},
    {"write", entry<&SystemCalls::write>},
    {"pwrite", entry<&SystemCalls::pwrite>},
    {"posixFallocate", entry<&SystemCalls::posixFallocate, Effect::kNone, Answer::kError>},
    {"ftruncate", entry<&SystemCalls::ftruncate>},
    {"flock", entry<&SystemCalls::flock>},
    {"rename", entry<&SystemCalls::rename>},
    {"remove", entry<&SystemCalls::remove>},
    {"mkdir", entry<&SystemCalls::mkdir>},
    {"mmap", entry<&SystemCalls::mmap>},
    {"munmap", entry<&SystemCalls::munmap, Effect::kDone>},
    {"pthreadCreate", entry<&SystemCalls::pthreadCreate, Effect::kNone, Answer::kError>},
    {"membarrier", entry<&SystemCalls::membarrier>},
};

static_assert(std::size(kEntries) * sizeof(void*) == sizeof(SystemCalls),
              "every entry of the table can be made to fail");

}  // namespace

InjectedCalls::InjectedCalls(const Fault& fault) {
  usesLeft = fault.first;
  faultLasts = fault.lasting;
  faultError = fault.error;
  faultFired = false;
  healed = false;
  for (const Named& named : kEntries) {
    if (named.name != fault.call) continue;
    named.install(qel::systemCalls());
    return;
  }
  throw std::invalid_argument("no such system call: " + fault.call);
}

InjectedCalls::~InjectedCalls() { qel::systemCalls() = qel::realSystemCalls(); }

bool InjectedCalls::fired() { return faultFired; }

void InjectedCalls::heal() { healed = true; }

std::vector<std::string> InjectedCalls::names() {
  std::vector<std::string> all;
  for (const Named& named : kEntries) all.emplace_back(named.name);
  return all;
}

}  // namespace tolvar_test
