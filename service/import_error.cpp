#include "service/import_error.h"

#include <utility>

namespace tolvar::service {
namespace {

std::string joined(const std::vector<ImportNote>& notes) {
  std::string text;
  for (const ImportNote& note : notes) {
    if (!text.empty()) text += '\n';
    text += note.text();
  }
  return text;
}

}  // namespace

std::string ImportNote::text() const {
  if (line == 0) return file + ": " + message;
  return file + ":" + std::to_string(line) + ":" + std::to_string(column) + ": " + message;
}

ImportError::ImportError(std::vector<ImportNote> faults)
    : std::runtime_error(joined(faults)), _faults(std::move(faults)) {}

}  // namespace tolvar::service
