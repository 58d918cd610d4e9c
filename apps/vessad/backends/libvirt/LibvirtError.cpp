#include "apps/vessad/backends/libvirt/LibvirtError.h"

#include <libvirt/libvirt.h>
#include <libvirt/virterror.h>

namespace Vessad::Libvirt {
namespace {

// Errors of opening a connection that a retry cannot cure. A driver that is not there may only not be active
// yet.
bool IsPermanentCode(const virError& error) {
    switch (error.code) {
        case VIR_ERR_INVALID_ARG:
        case VIR_ERR_NO_SUPPORT:
        case VIR_ERR_XML_ERROR:
        case VIR_ERR_XML_DETAIL:
        case VIR_ERR_CONF_SYNTAX:
        case VIR_ERR_CONFIG_UNSUPPORTED:
            return true;
        case VIR_ERR_INTERNAL_ERROR:
            return error.domain == VIR_FROM_URI || error.domain == VIR_FROM_TEST;
        default:
            return false;
    }
}

}  // namespace

ApiError LastError() {
    const virError* error = virGetLastError();
    if (error == nullptr) {
        return {"libvirt failed without a reason", ApiError::Kind::Temporary};
    }
    const char* text = error->message != nullptr ? error->message : "unknown error";
    if (error->code == VIR_ERR_NO_DOMAIN) {
        return {text, ApiError::Kind::Gone};
    }
    return {text, IsPermanentCode(*error) ? ApiError::Kind::Permanent : ApiError::Kind::Temporary};
}

void Check(bool done) {
    if (!done) {
        throw LastError();
    }
}

bool HasCode(int code) {
    const virError* error = virGetLastError();
    return error != nullptr && error->code == code;
}

bool IsUnsupported() {
    return HasCode(VIR_ERR_NO_SUPPORT);
}

}  // namespace Vessad::Libvirt
