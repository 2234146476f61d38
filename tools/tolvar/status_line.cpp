#include "tools/tolvar/status_line.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <tuple>

#include "tools/shared/field_line.h"

namespace tolvar::tools {
namespace {

constexpr const char* kNone = "none";

auto shownParts(const TolvarStatus& status) {
  return std::tie(status.ipReady, status.codesReady, status.digest, status.ranges,
                  status.codeEntries, status.lastPublished, status.lastCheck, status.failing,
                  status.lastError);
}

bool isReady(const TolvarStatus& status) { return status.ipReady && status.codesReady; }

/// A client without a table has the digest "0".
bool hasDigest(const TolvarStatus& status) { return status.digest != "0"; }

/// Seconds since this process took the table over; a clock that was set back makes none of them
/// negative.
std::int64_t ageSeconds(const TolvarStatus& status, timeval now) {
  return std::max<std::int64_t>(0, now.tv_sec - status.lastPublished);
}

}  // namespace

bool showsChange(const TolvarStatus& before, const TolvarStatus& now) {
  return shownParts(before) != shownParts(now);
}

bool answersFrom(const TolvarStatus& status, const std::string& digest) {
  return isReady(status) && hasDigest(status) && status.digest.starts_with(digest);
}

std::string statusLine(const TolvarStatus& status, timeval now) {
  std::string line;
  appendField(line, "time", utcText(now));
  appendField(line, "ready", isReady(status) ? "yes" : "no");
  appendField(line, "digest", hasDigest(status) ? status.digest : kNone);
  appendField(line, "ranges", std::to_string(status.ranges));
  appendField(line, "names", std::to_string(status.codeEntries));
  appendField(line, "age",
              status.lastPublished == 0 ? kNone : std::to_string(ageSeconds(status, now)) + "s");
  appendField(line, "last_check", status.lastCheck == 0 ? kNone : utcText(status.lastCheck));
  appendField(line, "failing", status.failing ? "yes" : "no");
  appendField(line, "last_error", status.lastError.empty() ? kNone : status.lastError);
  appendField(line, "last_error_at", status.lastErrorAt == 0 ? kNone : utcText(status.lastErrorAt));
  return line;
}

std::string statusJson(const TolvarStatus& status, timeval now) {
  using Json = nlohmann::ordered_json;
  Json json;
  json["time"] = utcText(now);
  json["ready"] = isReady(status);
  json["digest"] = hasDigest(status) ? Json(status.digest) : Json();
  json["ranges"] = status.ranges;
  json["names"] = status.codeEntries;
  json["age_seconds"] = status.lastPublished == 0 ? Json() : Json(ageSeconds(status, now));
  json["last_check"] = status.lastCheck == 0 ? Json() : Json(utcText(status.lastCheck));
  json["failing"] = status.failing;
  json["last_error"] = status.lastError.empty() ? Json() : Json(status.lastError);
  json["last_error_at"] = status.lastErrorAt == 0 ? Json() : Json(utcText(status.lastErrorAt));
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace tolvar::tools
