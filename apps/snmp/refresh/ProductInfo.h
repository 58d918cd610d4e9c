// Name, version and build of the hypervisor. Used on the agent's one request thread.
#pragma once

#include <array>
#include <cstdint>

// Empty texts and zeros until they are fetched. Texts are truncated to fit.
extern char prodName[256];
extern char prodVersion[16];
extern char prodBuild[16];
extern std::array<std::int32_t, 3> prodVersion2;  // major, minor, revision

// Fetches the product information from the daemon unless it is known. A version that is not
// major.minor.revision, and content that the client does not keep (OrdaneClient.h), count as unknown, so that
// the next call fetches it again. Failures are logged.
void SNMPSystemGetProdInfo();
