#pragma once

#include <cstdint>
#include <string>

#include "include/TolvarAPI.h"

namespace tolvar_test {

/// Asks a client in every way that it can be asked, and holds each answer against what
/// self-checking tables say: the fields of a range belong to one version, all answers of one reader
/// or batch to the same, names to the version of their range or to none, and no answer is older
/// than one before. Used by one thread.
class AnswerCheck {
 public:
  /// The tables have `rows` rows at least.
  AnswerCheck(TolvarAPI& client, std::size_t rows) : _client(client), _rows(rows) {}

  /// One round of questions. False when an answer was wrong; `problem` says why.
  bool round();

  std::uint64_t lookups() const { return _lookups; }
  /// Of the answer taken last, which is the newest.
  std::uint32_t version() const { return _version; }
  const std::string& problem() const { return _problem; }

 private:
  std::uint32_t nextStart();
  bool single();
  bool batch();
  bool reader();
  bool names();
  bool take(std::uint32_t start, bool found, const ravel::IPInfo& info, std::uint32_t* version);
  bool takeName(const char* what, std::string_view name, const std::string& expected);
  bool wrong(const std::string& what);

  TolvarAPI& _client;
  const std::size_t _rows;
  std::uint64_t _sequence = 0;
  std::uint64_t _lookups = 0;
  std::uint32_t _version = 0;
  std::string _problem;
};

}  // namespace tolvar_test
