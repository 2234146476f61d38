#pragma once

#include <sys/types.h>

#include <string>

namespace tolvar_test {

/// What a process of a soak does besides looking up without pause.
enum class SoakRole {
  follower,  ///< follows the service and publishes every version it sees
  reader,    ///< keeps the table that its start found or, without an image, downloaded
  starter,   ///< starts a client, asks it for a while, ends it, and begins again
};

SoakRole soakRoleOf(const std::string& name);
const char* nameOf(SoakRole role);

struct SoakWorkerOptions {
  SoakRole role = SoakRole::reader;
  int line = 0;            ///< of the control file
  key_t firstKey = 0;      ///< data segments and size record have this key and the two after it
  int checkMillis = 1000;  ///< how often a follower asks the service
  std::string controlFile;
};

/// The body of a worker process: answers its exit status. Ends when the control file says so or
/// when an answer was wrong.
int runSoakWorker(const SoakWorkerOptions& options);

}  // namespace tolvar_test
