// The names of users and groups. A database that does not reply costs half a second in all.
#pragma once

#include <sys/types.h>

#include <string>

namespace KelvStatus {

// Return the number where there is no name, or none in time. Not thread-safe.
std::string UserName(uid_t user);
std::string GroupName(gid_t group);

}  // namespace KelvStatus
