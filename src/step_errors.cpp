#include "src/step_errors.h"

#include <algorithm>
#include <new>
#include <tuple>

namespace tolvar {
namespace {

const char* nameOf(Step step) noexcept {
  switch (step) {
    case Step::Initialize: return "initialize";
    case Step::Configuration: return "configuration";
    case Step::ShareMemory: return "share memory";
    case Step::ChangeCheck: return "change check";
    case Step::Download: return "download";
    case Step::CodeTables: return "code tables";
  }
  return "";
}

}  // namespace

void StepErrors::failed(Step step, const char* what, std::time_t now) noexcept {
  Failure& failure = _last[static_cast<std::size_t>(step)];
  failure.at = now;
  failure.number = ++_failures;
  failure.goesOn = true;
  try {
    failure.text.assign(nameOf(step)).append(": ").append(what);
  } catch (const std::bad_alloc&) {
    failure.text.assign("no memory");  // short enough for the string object itself
  }
}

void StepErrors::succeeded(Step step) noexcept {
  _last[static_cast<std::size_t>(step)].goesOn = false;
}

void StepErrors::show(TolvarStatus* status) const {
  const Failure& shown =
      *std::max_element(_last.begin(), _last.end(), [](const Failure& a, const Failure& b) {
        return std::tie(a.goesOn, a.number) < std::tie(b.goesOn, b.number);
      });
  status->lastError = shown.text;
  status->lastErrorAt = shown.at;
  status->failing = shown.goesOn;
}

}  // namespace tolvar
