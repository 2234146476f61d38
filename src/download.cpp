#include <algorithm>
#include <cerrno>
#include <new>

#include "src/client_internals.h"
#include "src/client_log.h"
#include "src/selected_server.h"

namespace {

constexpr std::uint32_t kPageRanges = 50000;

/// One range for every /24 there is: a table with more is no table, and memory must stay bounded.
constexpr std::size_t kMaxTableRanges = std::size_t{1} << 24;

constexpr std::uint64_t cursorOf(std::uint32_t high, std::uint32_t low) {
  return static_cast<std::uint64_t>(high) << 32 | low;
}

/// The range without its place in the service's sequence, which only paging needs.
ravel::IPProperty withoutCursor(ravel::IPProperty range) {
  range.timesTamp = 0;
  range.sequence = 0;
  return range;
}

}  // namespace

bool TolvarAPI::totalDownloadRequest() {
  if (!m_isTotalDownLoading) return false;
  try {
    const auto high = static_cast<std::uint32_t>(m_currDownloadPos >> 32);
    const auto low = static_cast<std::uint32_t>(m_currDownloadPos);
    TOLVAR_LOG(kLogDebug, 862, "begin small download, high_pos=" << high << ", low_pos=" << low);
    ravel::downloadInfo page;
    if (m_cltMd5 == "0") {
      const ravel::FTolvarPrx proxy = tolvar::selectedServer(*_pFTolvarPrx, m_proxy_hash_key);
      TOLVAR_LOG(kLogDebug, 868,
                 "This is the first totalDownloadRequest,the m_cltMd5 is: "
                     << m_cltMd5 << ", proxy=" << static_cast<const void*>(proxy.get()));
      proxy->FirstTotalDownloadIPInfo(high, low, kPageRanges, page);
    } else {
      const ravel::TolvarPrx proxy = tolvar::selectedServer(*_pTolvarPrx, m_proxy_hash_key);
      TOLVAR_LOG(kLogDebug, 876,
                 "This is the non_first totalDownloadRequest,the m_cltMd5 is: "
                     << m_cltMd5 << ", proxy=" << static_cast<const void*>(proxy.get()));
      proxy->totalDownloadIPInfo(high, low, kPageRanges, page);
    }
    TOLVAR_LOG(kLogDebug, 885,
               "small download done, high_pos="
                   << high << ", low_pos=" << low << ", content_size=" << page.IPContent.size()
                   << ", high_index=" << page.highMaxIndex << ", low_index=" << page.lowMaxIndex);
    if (gatherPage(page, cursorOf(page.highMaxIndex, page.lowMaxIndex))) finishDownload();
  } catch (const qel::ZU_Exception& error) {
    TOLVAR_LOG(kLogError, 957, "catch qel exception: " << error.what());
    retryLater(m_internals->downloadRetry, tolvar::Step::Download, error.what());
  } catch (const std::exception& error) {
    TOLVAR_LOG(kLogError, 962, "catch  std exception:" << error.what());
    retryLater(m_internals->downloadRetry, tolvar::Step::Download, error.what());
  } catch (...) {
    TOLVAR_LOG(kLogError, 967, "UNKOWN EX:");
    retryLater(m_internals->downloadRetry, tolvar::Step::Download, "unknown failure");
  }
  return true;
}

/// Makes room for `ranges` more ranges, and for all that the service has left to send: positions
/// mostly count ranges, so there are `left` of them. A vector that grew by and by would leave its
/// earlier places behind, about as much memory as the table itself.
void TolvarAPI::makeRoom(std::size_t ranges, std::uint64_t left) {
  const std::size_t needed = m_vIPProperty.size() + ranges;
  if (needed <= m_vIPProperty.capacity()) return;
  const std::size_t expected = left <= kMaxTableRanges ? needed + static_cast<std::size_t>(left)
                                                       : std::max(needed, m_ip_query_vec.size());
  // An expectation that has already proved too low must not be followed page by page.
  const std::size_t grown = m_vIPProperty.capacity() + m_vIPProperty.capacity() / 2;
  try {
    m_vIPProperty.reserve(std::min(std::max(expected, grown), kMaxTableRanges));
  } catch (const std::bad_alloc&) {
    // The service may be wrong about what is left; what there is room for comes in all the same.
  }
}

/// True when the table is complete.
bool TolvarAPI::gatherPage(ravel::downloadInfo& page, std::uint64_t maxIndex) {
  const std::uint64_t sent = m_currDownloadPos;
  const bool afresh = page.isdownloadReset == 1;
  if (afresh) m_vIPProperty.clear();
  if (page.IPContent.empty() || sent >= maxIndex) return true;

  // Whatever is asked for a position more than once is gathered once, the last answer.
  if (afresh || m_internals->pagePosition != sent) {
    m_internals->pagePosition = sent;
    m_internals->pageBegin = m_vIPProperty.size();
  }
  m_vIPProperty.resize(m_internals->pageBegin);
  const std::uint64_t reached =
      cursorOf(page.IPContent.back().timesTamp, page.IPContent.back().sequence);
  takeRanges(page.IPContent, maxIndex - std::min(reached, maxIndex));
  advanceTo(reached, maxIndex, afresh);
  return reached >= maxIndex;
}

/// Moves `ranges` behind those gathered; the service has `left` more to send.
void TolvarAPI::takeRanges(ravel::vIPProperty& ranges, std::uint64_t left) {
  if (m_vIPProperty.size() + ranges.size() > kMaxTableRanges) {
    m_isTotalDownLoading = false;
    ravel::vIPProperty().swap(m_vIPProperty);
    throw qel::ZU_Exception("the service's table has more than " + std::to_string(kMaxTableRanges) +
                            " ranges; the download is given up until the next change check");
  }
  makeRoom(ranges.size(), left);
  for (const ravel::IPProperty& range : ranges) m_vIPProperty.push_back(withoutCursor(range));
  ravel::vIPProperty().swap(ranges);  // the table may be published before the page goes
}

/// Goes on behind a page that ends at `reached`, and waits a while when that leads nowhere.
void TolvarAPI::advanceTo(std::uint64_t reached, std::uint64_t maxIndex, bool afresh) {
  const std::uint64_t sent = m_currDownloadPos;
  const bool advances = reached > sent || (afresh && reached != 0 && reached != sent);
  if (advances) m_currDownloadPos = reached;
  // A service that began its table anew may well be behind what was reached before. One that does
  // it for ever never gets beyond that.
  if (reached > std::max(m_internals->furthest, sent)) {
    m_internals->furthest = reached;
    m_internals->downloadRetry.succeeded();
  } else if (reached < maxIndex && reached <= sent) {
    retryLater(
        m_internals->downloadRetry, tolvar::Step::Download,
        advances ? "the service began its table anew" : "a page did not advance the position");
  }
}

void TolvarAPI::finishDownload() {
  // The names first, if they are still to come: a process that ends between the two then leaves an
  // image whose digest says that it is not the service's, and the next one downloads both. Names
  // that cannot be had do not keep the ranges from being published.
  if (m_isCheckingCode) checkCodeChangeRequest();
  m_isTotalDownLoading = false;
  const std::int64_t gathered = m_internals->clock.steadyMillis();
  try {
    totalWriteData2Shm();
  } catch (...) {
    // A table that was gathered but could not be published is published on a later pass: the next
    // page asked for at the final position is empty and leads here again.
    m_isTotalDownLoading = !m_internals->tableTakenOver;
    throw;
  }
  m_internals->downloadRetry.succeeded();
  if (m_posFile.getPointer() != nullptr &&
      !m_posFile.write(0, &m_currDownloadPos, sizeof m_currDownloadPos)) {
    const int error = errno;
    TOLVAR_LOG(kLogWarn, __LINE__, "cannot write downloadPos.dat, errno " << error);
  }
  m_tEnd = m_internals->clock.timeOfDay();
  std::lock_guard<std::mutex> hold(m_internals->statusMutex);
  m_internals->status.downloadMillis = gathered - m_internals->downloadArmedSteady;
  m_internals->status.publishMillis = m_internals->clock.steadyMillis() - gathered;
  ++m_internals->status.publications;
  m_internals->errors.succeeded(tolvar::Step::Download);
}
