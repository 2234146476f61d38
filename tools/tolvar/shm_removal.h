#pragma once

#include <string>

#include "tools/tolvar/key_list.h"

namespace tolvar::tools {

/// What came of a removal.
struct Removal {
  bool done = false;
  std::string text;  ///< what was removed, or why nothing was; whole lines
};

/// Removes the image behind `keys`: both data segments, the size record and the lock. Nothing is
/// touched when any of the segments is not ours, or, unless `force`, when a process has one
/// attached or holds the lock. The lock is held meanwhile, so that no start comes in between.
/// Throws qel::ZU_Exception when there is no image, or the system refuses.
Removal removeImage(const ImageKeys& keys, bool force);

}  // namespace tolvar::tools
