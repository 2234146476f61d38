#pragma once

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

}  // namespace tolvar::wire
