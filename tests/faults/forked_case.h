#pragma once

#include <functional>
#include <string>

namespace tolvar_test {

/// Runs `body` in a fork of this process, which must have one thread only, with standard output and
/// standard error in the file "output" of `directory`, which is also its working directory. Answers
/// what the body answers, or how the fork ended instead: by a signal, an exit, or not within
/// `seconds`, after which it is killed. Then the end of its output is part of the answer.
std::string runForked(const std::string& directory, int seconds,
                      const std::function<std::string()>& body);

}  // namespace tolvar_test
