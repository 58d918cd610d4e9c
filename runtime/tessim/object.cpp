#include "runtime/tessim/object.h"

namespace Tessim {

void ObjectImpl::DecRef() const noexcept {
    if (references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete this;
    }
}

}  // namespace Tessim
