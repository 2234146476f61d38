#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "include/code_gap.h"
#include "src/client_internals.h"
#include "src/client_log.h"
#include "src/image_codec.h"
#include "src/segment_layout.h"
#include "src/side_task.h"

using tolvar::kCodeTables;

namespace {

/// A log line shows this much of a name; the service may send megabytes.
constexpr std::size_t kShownNameBytes = 256;
/// One download is worth so many lines about single entries; the rest is counted.
constexpr std::size_t kShownEntries = 1000;

bool knownType(const ravel::CodeInfo& code) {
  return code.codeType > 0 && code.codeType <= kCodeTables;
}

std::array<std::size_t, kCodeTables> countByType(const std::vector<ravel::CodeInfo>& codes) {
  std::array<std::size_t, kCodeTables> counts{};
  for (const ravel::CodeInfo& code : codes)
    if (knownType(code)) ++counts[static_cast<std::size_t>(code.codeType - 1)];
  return counts;
}

std::string shown(const std::string& name) {
  return name.size() <= kShownNameBytes ? name : name.substr(0, kShownNameBytes) + "...";
}

}  // namespace

bool TolvarAPI::checkCodeChangeRequest() {
  const bool owed = std::exchange(m_internals->codesOwed, false);
  if (!m_isCheckingCode && !owed) return false;
  try {
    TOLVAR_LOG(kLogDebug, __LINE__,
               "begin check code change request. this="
                   << static_cast<const void*>(this) << ", m_isCheckingCode=" << m_isCheckingCode);
    std::vector<ravel::CodeInfo> codes;
    _pTolvarPrx->totalDownloadCode(codes);
    std::sort(codes.begin(), codes.end());

    const tolvar::Retirement retirement(*m_internals);
    const tolvar::ImageHold hold(m_internals->imageLock);
    bool shared = lockImage();
    const int other = m_code_vector[0] == &m_code_vector_impl[0][0] ? 0 : 1;
    const int target = 1 - other;
    if (shared) {
      const auto begin = [&] {
        beginPublication(target, &MemoryHead::code_usable);
        makeRoomForCodes(target, codes);
      };
      // Names in use stay until newer ones can be shared: the image would not get them later, once
      // it has the ranges that came with them.
      if ((readiness() & 2) != 0) {
        begin();
      } else {
        shared = hasRoom(m_internals->codeRetry, begin);
      }
    }
    if (shared) {
      setHalf(target, &MemoryHead::code_usable, kMemoryStatusPending);
      writeCodes(target, codes);
      setHalf(target, &MemoryHead::code_usable, kMemoryStatusReady);
    }
    takeOverCodes(shared ? target : other, codes);
    if (shared) {
      setPending(other);
      mirrorImage(target, other);
    }
    m_internals->codeRetry.succeeded();
    noteSuccess(tolvar::Step::CodeTables);
    m_isCheckingCode = false;
  } catch (const qel::ZU_Exception& error) {
    TOLVAR_LOG(kLogError, __LINE__, "catch qel exception: " << error.what());
    retryLater(m_internals->codeRetry, tolvar::Step::CodeTables, error.what());
  } catch (const std::exception& error) {
    TOLVAR_LOG(kLogError, __LINE__, "catch std exception:" << error.what());
    retryLater(m_internals->codeRetry, tolvar::Step::CodeTables, error.what());
  } catch (...) {
    TOLVAR_LOG(kLogError, __LINE__, "UNKOWN EX:");
    retryLater(m_internals->codeRetry, tolvar::Step::CodeTables, "unknown failure");
  }
  return true;
}

/// Leaves empty vectors of a segment that have room for `codes`.
void TolvarAPI::makeRoomForCodes(int target, const std::vector<ravel::CodeInfo>& codes) {
  const std::array<std::size_t, kCodeTables> counts = countByType(codes);
  for (int i = 0; i < kCodeTables; ++i)
    ResizeCodeBuffer(target, i, counts[static_cast<std::size_t>(i)]);
  for (int i = 0; i < kCodeTables; ++i) m_code_vector_impl[i][target].clear();
}

void TolvarAPI::writeCodes(int target, const std::vector<ravel::CodeInfo>& codes) {
  std::size_t skipped = 0;
  for (const ravel::CodeInfo& code : codes) {
    if (!knownType(code)) {
      if (++skipped <= kShownEntries)
        TOLVAR_LOG(kLogError, __LINE__, "invalid code type. code_type = " << code.codeType);
      continue;
    }
    try {
      tolvar::appendNode(code, &m_code_vector_impl[code.codeType - 1][target]);
    } catch (const memVectorException& error) {
      if (++skipped > kShownEntries) continue;
      TOLVAR_LOG(kLogError, __LINE__,
                 "checkCodeChangeResponse catch exception. "
                     << error.what() << ", code_type = " << code.codeType
                     << ", code_id = " << code.ID << ", content = " << shown(code.content));
    }
  }
  if (skipped > kShownEntries) {
    TOLVAR_LOG(kLogError, __LINE__,
               skipped - kShownEntries << " more entries of the code tables were skipped");
  }
}

void TolvarAPI::takeOverCodes(int target, const std::vector<ravel::CodeInfo>& codes) {
  // Filled aside, so that a want of memory leaves the names in use whole.
  const std::array<std::size_t, kCodeTables> counts = countByType(codes);
  std::vector<ravel::CodeInfo> lists[kCodeTables];
  for (std::size_t i = 0; i < kCodeTables; ++i) lists[i].reserve(counts[i]);
  for (const ravel::CodeInfo& code : codes)
    if (knownType(code)) lists[code.codeType - 1].push_back(code);
  const auto names = std::make_shared<const tolvar::CodeNames>(lists);
  tolvar::SideTask rows([&] { m_internals->buildCodes(names); });
  tolvar::CodeMap maps[kCodeTables];
  for (int i = 0; i < kCodeTables; ++i) maps[i] = tolvar::codeMapOf(std::move(lists[i]));
  rows.finish();
  Lock hold(*this);
  for (int i = 0; i < kCodeTables; ++i) m_code_query_map[i].swap(maps[i]);
  m_internals->publishCodes(m_code_query_map);
  for (int i = 0; i < kCodeTables; ++i) m_code_vector[i] = &m_code_vector_impl[i][target];
  announceReady(2);
}
