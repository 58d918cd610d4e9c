// Turns a domain's XML into the API's configuration.
#pragma once

#include <string>

#include "apps/vessad/backends/libvirt/DomainDescription.h"

namespace Vessad::Libvirt {

// Returns the description of the domain that `xml` defines. Throws std::runtime_error when `xml` is no
// domain's XML, and what the context's functions throw.
DomainDescription DescribeDomain(const std::string& xml, const DescribeContext& context);

}  // namespace Vessad::Libvirt
