#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "src/index/code_names.h"

namespace tolvar {

/// The different names of one kind, numbered from 1 on in the order in which they are added; 0 is
/// the empty one. For kinds of few names: where there are too many, none has a number.
class NameNumbers {
 public:
  /// All names that are added lie inside `text`, and at most `most` get numbers, of no more than
  /// `most` * 16 bytes of text. A name is told by where it begins. Throws std::bad_alloc, as add().
  NameNumbers(CodeNames::Place text, std::uint16_t most)
      : _begin(text.offset), _most(most), _few(text.length <= std::size_t{most} * 16) {
    if (_few) _numbers.resize(text.length);
  }

  void add(CodeNames::Place name) {
    if (name.length == 0 || !_few) return;
    std::uint16_t& number = _numbers[name.offset - _begin];
    if (number != 0) return;
    if (_names.size() == _most) {
      _few = false;
      return;
    }
    _names.push_back(name);
    number = static_cast<std::uint16_t>(_names.size());
  }

  /// Whether all names have a number.
  bool few() const noexcept { return _few; }

  /// What of() answers is one more than the place in here. Only where few().
  const std::vector<CodeNames::Place>& names() const noexcept { return _names; }

  /// Number of an added name. Only where few().
  std::uint16_t of(CodeNames::Place name) const noexcept {
    return name.length == 0 ? std::uint16_t{0} : _numbers[name.offset - _begin];
  }

 private:
  std::uint32_t _begin;
  std::uint16_t _most;
  bool _few;
  std::vector<std::uint16_t> _numbers;  ///< by place in the text, 0 where no name begins
  std::vector<CodeNames::Place> _names;
};

}  // namespace tolvar
