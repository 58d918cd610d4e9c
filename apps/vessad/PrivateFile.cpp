#include "apps/vessad/PrivateFile.h"

#include <unistd.h>

#include <stdexcept>

#include "apps/vessad/RequireCall.h"

namespace Vessad {

struct stat CheckPrivate(int descriptor, const std::string& name) {
    struct stat status {};
    RequireCall(::fstat(descriptor, &status) == 0, "cannot stat " + name);
    if (status.st_uid != ::geteuid()) {
        throw std::runtime_error(name + " belongs to another user");
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        throw std::runtime_error(name + " is writable by others");
    }
    return status;
}

}  // namespace Vessad
