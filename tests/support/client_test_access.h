#pragma once

#include <memory>
#include <string>
#include <vector>

#include "include/TolvarAPI.h"
#include "src/client_internals.h"

namespace tolvar {

/// The tests' one way into a client: its private members and operations by their own names.
class ClientTestAccess {
 public:
  explicit ClientTestAccess(TolvarAPI& client) : c(client) {}

  bool binarySearch(std::uint32_t ip, VALUE* value) { return c.binarySearch(ip, value); }
  bool simple() { return c.simple(); }
  void reportLog(const std::string& text) { c.reportLog(text); }
  std::string GetCodeInfoById(int type, std::uint64_t id) { return c.GetCodeInfoById(type, id); }
  void GetCodeInfoById(int type, std::uint64_t id, std::string* out) {
    c.GetCodeInfoById(type, id, out);
  }

  void InitializeShareMemory(key_t a, key_t b, key_t size) { c.InitializeShareMemory(a, b, size); }
  bool ReadShareMemorySize(std::size_t* size) { return c.ReadShareMemorySize(size); }
  void WriteShareMemorySize(std::size_t size) { c.WriteShareMemorySize(size); }
  void ReadMemoryHead(int i, MemoryHead* head) { c.ReadMemoryHead(i, head); }
  void WriteMemoryHead(int i, const MemoryHead& head) { c.WriteMemoryHead(i, head); }
  static std::size_t CalculateNextSize(std::size_t n) { return TolvarAPI::CalculateNextSize(n); }
  void ResizeShareMemory(int i, std::size_t size) { c.ResizeShareMemory(i, size); }
  void ResizeIpBuffer(int i, std::size_t count) { c.ResizeIpBuffer(i, count); }
  void ResizeCodeBuffer(int i, int k, std::size_t count) { c.ResizeCodeBuffer(i, k, count); }
  void CopyShareMemory(int from, int to) { c.CopyShareMemory(from, to); }

  bool checkChange() { return c.checkChange(); }
  bool totalDownloadRequest() { return c.totalDownloadRequest(); }
  bool checkCodeChangeRequest() { return c.checkCodeChangeRequest(); }
  void totalWriteData2Shm() { c.totalWriteData2Shm(); }
  std::string writeTable(int target, const ravel::vIPProperty& ranges) {
    return c.writeTable(target, ranges);
  }
  void CalculateMd5FromShareMemory() { c.CalculateMd5FromShareMemory(); }
  void run() { c.run(); }

  int& hasInitialized() { return c.m_has_initialized; }
  qel::ZU_ThreadMutex& hasInitializedMutex() { return c.m_has_initialized_mutex; }
  qel::ZU_ThreadCond& hasInitializedCond() { return c.m_has_initialized_cond; }
  ConfigDataWrapper<ClientConfWrapper>& clientConf() { return c.m_client_conf; }
  ClientReport& report() { return c.m_report; }
  std::atomic<std::int64_t>& simpleKey() { return c.m_simple_key; }
  TolvarAPIOptions& initOptions() { return c.m_init_options; }
  std::int64_t& proxyHashKey() { return c.m_proxy_hash_key; }
  ravel::TolvarPrx& tolvarPrx() { return c._pTolvarPrx; }
  ravel::FTolvarPrx& fTolvarPrx() { return c._pFTolvarPrx; }
  MemoryHead& memoryHead(int i) { return c.m_memory_head[i]; }
  IPVector& ipVector(int i) { return c.m_ip_vector_impl[i]; }
  IPVector*& vectorIP() { return c.m_vectorIP; }
  CodeVector& codeVector(int k, int i) { return c.m_code_vector_impl[k][i]; }
  CodeVector*& codeVectorInUse(int k) { return c.m_code_vector[k]; }
  ProlatePointer& ipRegion(int i) { return c.m_holder[i].ip_ptr; }
  ProlatePointer& codeRegion(int i, int k) { return c.m_holder[i].code_ptr[k]; }
  key_t& shmKey(int i) { return c.m_shm_key[i]; }
  qel::ZU_Shm& shm(int i) { return c.m_shm[i]; }
  std::atomic<bool>& logInitialized() { return c.m_log_initialized; }
  std::atomic<bool>& terminated() { return c.m_terminated; }
  bool& isCheckingCode() { return c.m_isCheckingCode; }
  bool& isTotalDownLoading() { return c.m_isTotalDownLoading; }
  bool& isIncrementDownloading() { return c.m_isIncrementDownloading; }
  std::int8_t& isReset() { return c.m_isReset; }
  std::uint64_t& currDownloadPos() { return c.m_currDownloadPos; }
  std::string& cltMd5() { return c.m_cltMd5; }
  std::time_t& lastCheckFileChanged() { return c.m_lastCheckFileChanged; }
  ravel::vIPProperty& gathered() { return c.m_vIPProperty; }
  qel::ZU_Mmap& posFile() { return c.m_posFile; }
  timeval& tBegin() { return c.m_tBegin; }
  timeval& tEnd() { return c.m_tEnd; }
  ravel::vIPProperty& ipQueryVec() { return c.m_ip_query_vec; }
  std::unordered_map<std::uint64_t, ravel::CodeInfo>& codeQueryMap(int k) {
    return c.m_code_query_map[k];
  }
  bool& destructorWait() { return c.m_destructor_wait; }
  ClientInternals& internals() { return *c.m_internals; }

  /// Makes these what lookups read, without an image: what a start does with what it found in one.
  void publishAll(const ravel::vIPProperty& ranges, const ClientInternals::CodeMaps& maps) {
    internals().buildAll(std::make_shared<const RangeIndex>(RangeIndex::build(ranges)),
                         std::make_shared<const CodeNames>(maps));
    internals().publishBuilt(ranges.size(), maps);
  }

 private:
  TolvarAPI& c;
};

}  // namespace tolvar

namespace tolvar_test {

/// A client on a clock of the test's.
class ClockedClient : public TolvarAPI {
 public:
  explicit ClockedClient(qel::Clock& clock) : TolvarAPI(clock) {}
  ~ClockedClient() override { stopUpdateThread(); }
};

}  // namespace tolvar_test
