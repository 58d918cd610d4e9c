#include "apps/vessad/PrivateFile.h"

#include <unistd.h>

#include <stdexcept>

#include "apps/vessad/ErrnoException.h"

namespace Vessad {

struct stat CheckPrivate(int descriptor, const std::string& name) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) {
        throw ErrnoException("cannot stat " + name);
    }
    if (status.st_uid != ::geteuid()) {
        throw std::runtime_error(name + " belongs to another user");
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        throw std::runtime_error(name + " is writable by others");
    }
    return status;
}

}  // namespace Vessad
