#include <new>
#include <string_view>

#include "src/client_internals.h"

namespace {

/// Index of each code table.
enum CodeTable { kCountry, kProvince, kCity, kDistrict, kExtend, kOper, kNettype, kApn };

/// A name for which there is no memory is an empty one.
void assign(std::string_view name, std::string* out) noexcept {
  try {
    out->assign(name);
  } catch (const std::bad_alloc&) {
    out->clear();
  }
}

}  // namespace

void TolvarAPI::GetCodeInfoById(int type, std::uint64_t id, std::string* out) {
  const auto tables = m_internals->tables.read();
  assign(tables->codes->find(type, id), out);
}

std::string TolvarAPI::GetCodeInfoById(int type, std::uint64_t id) {
  std::string name;
  GetCodeInfoById(type, id, &name);
  return name;
}

void TolvarAPI::reportStatistic(ravel::ReportType type, const std::string& name) {
  if (m_client_conf.getQueryData()->conf.statisOpen) m_report.report(type, name);
}

std::string TolvarAPI::getCountryByID(std::uint32_t id) {
  std::string name = GetCodeInfoById(kCountry, id);
  reportStatistic(ravel::ECountry, name);
  return name;
}

std::string TolvarAPI::getProvinceByID(std::uint32_t id) {
  std::string name = GetCodeInfoById(kProvince, id);
  reportStatistic(ravel::EProvince, name);
  return name;
}

std::string TolvarAPI::getCityByID(std::uint32_t id) {
  std::string name = GetCodeInfoById(kCity, id);
  reportStatistic(ravel::ECity, name);
  return name;
}

std::string TolvarAPI::getOperByID(std::uint32_t id) {
  std::string name = GetCodeInfoById(kOper, id);
  reportStatistic(ravel::EOperator, name);
  return name;
}

std::string TolvarAPI::getDistrictByID(std::uint64_t id) { return GetCodeInfoById(kDistrict, id); }
std::string TolvarAPI::getExtendByID(std::uint32_t id) { return GetCodeInfoById(kExtend, id); }
std::string TolvarAPI::getNettypeByID(std::uint32_t id) { return GetCodeInfoById(kNettype, id); }
std::string TolvarAPI::getApnByID(std::uint32_t id) { return GetCodeInfoById(kApn, id); }
std::string TolvarAPI::getFlableByID(std::uint32_t id) {
  std::string name;
  getFlableByID(id, &name);
  return name;
}

void TolvarAPI::getCountryByID(std::uint32_t id, std::string* out) {
  GetCodeInfoById(kCountry, id, out);
}
void TolvarAPI::getProvinceByID(std::uint32_t id, std::string* out) {
  GetCodeInfoById(kProvince, id, out);
}
void TolvarAPI::getCityByID(std::uint32_t id, std::string* out) { GetCodeInfoById(kCity, id, out); }
void TolvarAPI::getDistrictByID(std::uint64_t id, std::string* out) {
  GetCodeInfoById(kDistrict, id, out);
}
void TolvarAPI::getExtendByID(std::uint32_t id, std::string* out) {
  GetCodeInfoById(kExtend, id, out);
}
void TolvarAPI::getOperByID(std::uint32_t id, std::string* out) { GetCodeInfoById(kOper, id, out); }
void TolvarAPI::getNettypeByID(std::uint32_t id, std::string* out) {
  GetCodeInfoById(kNettype, id, out);
}
void TolvarAPI::getApnByID(std::uint32_t id, std::string* out) { GetCodeInfoById(kApn, id, out); }
void TolvarAPI::getFlableByID(std::uint32_t id, std::string* out) {
  assign(tolvar::labelName(id), out);
}
