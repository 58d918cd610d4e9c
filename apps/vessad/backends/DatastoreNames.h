// The places of a host description that name a datastore.
#pragma once

#include "apps/vessad/backends/YamlCursor.h"

namespace Vessad {

// Tolerates each place in the VMs of `host`, a description, that names a datastore which does not exist: the
// id of a file's datastore that none of the host's datastores has, and the name in the brackets of a
// datastore path ("[name] path") that neither one of them has nor the VM's datastoreUrl. A file may have any
// name in its brackets where its datastore exists and has none. Skips what is of the wrong kind.
void CheckDatastoreNames(const Yaml::Cursor& host);

}  // namespace Vessad
