#include "src/image_reader.h"

#include <algorithm>
#include <utility>

#include "src/side_task.h"

namespace tolvar {

/// Each piece begins as soon as what it needs is there, on threads of its own where it can: which
/// of them takes longest depends on the image and on the processors.
ImageContent readImage(const IPVector& ranges, const std::array<const CodeVector*, 8>& codes) {
  ImageContent image;
  std::vector<ravel::CodeInfo> lists[8];
  SideTask names([&] {
    for (std::size_t k = 0; k < codes.size(); ++k) lists[k] = decodeCodes(*codes[k]);
    image.names = std::make_shared<const CodeNames>(lists);
  });
  image.ranges = decodeTable(ranges);
  if (!std::is_sorted(image.ranges.begin(), image.ranges.end())) {
    // The digest is that of the nodes as they stand, the index wants them in order.
    image.digest = contentDigest(image.ranges);
    std::sort(image.ranges.begin(), image.ranges.end());
  }
  SideTask digest([&] {
    if (image.digest.empty()) image.digest = contentDigest(image.ranges);
  });
  image.index = std::make_shared<const RangeIndex>(RangeIndex::build(image.ranges));
  names.finish();
  for (std::size_t k = 0; k < codes.size(); ++k) image.codes[k] = codeMapOf(std::move(lists[k]));
  digest.finish();
  return image;
}

}  // namespace tolvar
