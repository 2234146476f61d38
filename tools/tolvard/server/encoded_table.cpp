#include "tools/tolvard/server/encoded_table.h"

#include <grpcpp/impl/codegen/proto_utils.h>

#include <algorithm>
#include <span>
#include <stdexcept>

#include "tolvar.pb.h"

namespace tolvar {
namespace {

template <class Message>
grpc::ByteBuffer serialize(const Message& message) {
  grpc::ByteBuffer bytes;
  bool owned = false;
  const grpc::Status status =
      grpc::SerializationTraits<Message>::Serialize(message, &bytes, &owned);
  if (!status.ok()) throw std::runtime_error("cannot serialize: " + status.error_message());
  return bytes;
}

std::size_t pagesOf(const service::TableVersion& version) {
  return (version.ranges().size() + service::kMaxPageSize - 1) / service::kMaxPageSize;
}

}  // namespace

EncodedTable::EncodedTable(std::shared_ptr<const service::TableVersion> version)
    : _version(std::move(version)), _pages(pagesOf(*_version)) {}

EncodedTable::PageAnswer EncodedTable::page(const wire::PageQuery& query) const {
  const service::PageSlice slice = _version->slice(query.high, query.low, query.size);
  const bool last = slice.first + slice.count == _version->ranges().size();
  if (isStandard(slice)) return {standardPage(slice.first / service::kMaxPageSize), true, last};
  return {encode(slice), false, last};
}

std::size_t EncodedTable::privateRecords(const wire::PageQuery& query) const {
  const service::PageSlice slice = _version->slice(query.high, query.low, query.size);
  return isStandard(slice) ? 0 : slice.count;
}

grpc::ByteBuffer EncodedTable::codes() const {
  std::call_once(_codes.once, [this] {
    v1::Codes message;
    wire::encodeCodes(_version->codes(), message);
    const std::size_t size = message.ByteSizeLong();
    if (size > static_cast<std::size_t>(wire::MAX_RECV_BUFFER))
      throw wire::WireError("the code tables take " + std::to_string(size) +
                            " bytes, clients accept " + std::to_string(wire::MAX_RECV_BUFFER));
    _codes.bytes = serialize(message);
  });
  return _codes.bytes;
}

bool EncodedTable::encodeAll(const std::stop_token& stop) const {
  for (std::size_t i = 0; i < _pages.size(); ++i) {
    if (stop.stop_requested()) return false;
    standardPage(i);
  }
  if (stop.stop_requested()) return false;
  codes();
  return true;
}

bool EncodedTable::isStandard(const service::PageSlice& slice) const noexcept {
  const std::size_t rest = _version->ranges().size() - slice.first;
  return slice.count != 0 && slice.first % service::kMaxPageSize == 0 &&
         slice.count == std::min<std::size_t>(service::kMaxPageSize, rest) &&
         slice.isReset == (slice.first == 0) && slice.endIndex == _version->endIndex();
}

const grpc::ByteBuffer& EncodedTable::standardPage(std::size_t index) const {
  Part& part = _pages[index];
  std::call_once(part.once, [&] {
    const std::size_t first = index * service::kMaxPageSize;
    const std::size_t rest = _version->ranges().size() - first;
    part.bytes = encode({first, std::min<std::size_t>(service::kMaxPageSize, rest), index == 0,
                         _version->endIndex()});
  });
  return part.bytes;
}

grpc::ByteBuffer EncodedTable::encode(const service::PageSlice& slice) const {
  v1::Page message;
  wire::encodePage({slice.endIndex, static_cast<std::int8_t>(slice.isReset ? 1 : 0)},
                   std::span(_version->ranges()).subspan(slice.first, slice.count), message);
  return serialize(message);
}

std::shared_ptr<const EncodedTable> EncodedTableCache::of(
    const std::shared_ptr<const service::TableVersion>& version) {
  const std::lock_guard lock(_mutex);
  if (_table && _table->version() == version) return _table;
  if (_next && _next->version() == version) return _table = std::move(_next);
  const auto table = std::make_shared<const EncodedTable>(version);
  // A call that began before the last publication must not push the newer version out.
  if (!_table || _table->version()->timesTamp() < version->timesTamp()) _table = table;
  return table;
}

void EncodedTableCache::prepare(const std::shared_ptr<const service::TableVersion>& version,
                                const std::stop_token& stop) {
  const auto table = std::make_shared<const EncodedTable>(version);
  if (!table->encodeAll(stop)) return;
  const std::lock_guard lock(_mutex);
  _next = table;
}

}  // namespace tolvar
