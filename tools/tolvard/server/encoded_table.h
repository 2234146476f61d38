#pragma once

#include <grpcpp/support/byte_buffer.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <stop_token>
#include <vector>

#include "service/table_version.h"
#include "transport/grpc/page_codec.h"

namespace tolvar {

/// A table version in its wire form: pages of the standard size and the code tables, each encoded
/// when first asked for and then shared by all calls. All operations may be called from any thread.
class EncodedTable {
 public:
  explicit EncodedTable(std::shared_ptr<const service::TableVersion> version);

  const std::shared_ptr<const service::TableVersion>& version() const noexcept { return _version; }

  /// An answer to a page request.
  struct PageAnswer {
    grpc::ByteBuffer bytes;
    bool shared = false;  ///< the bytes belong to the table; else to this call alone
    bool last = false;    ///< the page reaches the end of the table
  };

  /// Throws std::invalid_argument as TableVersion::slice does.
  PageAnswer page(const wire::PageQuery& query) const;

  /// How many records `page` would encode for one call alone; 0 when the answer is shared. Throws
  /// as `page`.
  std::size_t privateRecords(const wire::PageQuery& query) const;

  /// All code tables. Throws WireError when they cannot be told on the wire.
  grpc::ByteBuffer codes() const;

  /// Encodes everything now, so that no call waits for it. False when `stop` was requested before
  /// the end: what is missing is encoded when asked for. Throws as `codes`.
  bool encodeAll(const std::stop_token& stop = {}) const;

 private:
  struct Part {
    std::once_flag once;
    grpc::ByteBuffer bytes;
  };

  bool isStandard(const service::PageSlice& slice) const noexcept;
  const grpc::ByteBuffer& standardPage(std::size_t index) const;
  grpc::ByteBuffer encode(const service::PageSlice& slice) const;

  const std::shared_ptr<const service::TableVersion> _version;
  mutable std::vector<Part> _pages;
  mutable Part _codes;
};

/// Hands out the wire form of the version that a service serves now. Keeps that one, and one that
/// is prepared to follow it; calls under way keep theirs. All operations may be called from any
/// thread.
class EncodedTableCache {
 public:
  /// `version` is not null.
  std::shared_ptr<const EncodedTable> of(
      const std::shared_ptr<const service::TableVersion>& version);

  /// Encodes a version that will be served soon, so that no call waits for it then; gives up when
  /// `stop` is requested. Throws as EncodedTable::encodeAll.
  void prepare(const std::shared_ptr<const service::TableVersion>& version,
               const std::stop_token& stop = {});

 private:
  std::mutex _mutex;
  std::shared_ptr<const EncodedTable> _table;  ///< guarded by _mutex
  std::shared_ptr<const EncodedTable> _next;   ///< guarded by _mutex; prepared, not yet asked for
};

}  // namespace tolvar
