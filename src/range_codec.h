#pragma once

#include "include/memVector.h"
#include "records/records.h"

/// The records of the shared image straight to and from the bytes of a node, without a stream in
/// between: a table has hundreds of thousands of them. The bytes are those of the records' own
/// `writeTo`, and what is not laid out as that writes it is left to the records' `readFrom`.
namespace tolvar {

/// Makes `node` what `node->CopyFrom` would make it of the range. Every range fits.
void encodeRange(const ravel::IPProperty& range, MemNode* node) noexcept;

/// Reads a node whose length word is at most MemNode::kRoom into `*record`, as `node.ParseTo`
/// would. Throws what that throws. The cursor of an IPProperty stays as it is.
void decodeNode(const MemNode& node, ravel::IPProperty* record);
void decodeNode(const MemNode& node, ravel::IPAttribute* record);
void decodeNode(const MemNode& node, ravel::CodeInfo* record);

}  // namespace tolvar
