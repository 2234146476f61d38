#pragma once

#include <optional>

#include "records/records.h"
#include "transport/grpc/page_bytes.h"
#include "transport/grpc/page_codec.h"

namespace tolvar::wire {

/// Decodes a page straight from its bytes, for the form that services of this project send: every
/// column in one packed run, fields at most once. Makes the same checks as the decoder of parsed
/// messages. False, with `info` unspecified, when the page has another form or fails a check; the
/// caller then lets that decoder judge, which knows every form and says what is wrong.
///
/// Memory is taken for at most as many records as the page has bytes of cursors.
bool decodePlainPage(const PageBytes& page, const PageQuery& query, ravel::downloadInfo& info);

/// What a download asks for after this answer to `query`, found without decoding the records:
/// nothing when the page is the last one, is empty, or has another form. Checks no more than the
/// head; the page may still turn out not to be right.
std::optional<PageQuery> queryBehind(const PageBytes& page, const PageQuery& query);

}  // namespace tolvar::wire
