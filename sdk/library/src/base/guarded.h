/// The one place where exceptions become a result code.
#ifndef KIV_GUARDED_H
#define KIV_GUARDED_H

#include <kiv/kiv_types.h>

namespace kiv {

/// Runs the body of an entry point. Whatever it throws is KIV_ERR_FAILED.
template <typename Body>
kiv_result_t guarded(Body body) noexcept {
    try {
        return body();
    } catch (...) {
        return KIV_ERR_FAILED;
    }
}

}  // namespace kiv

#endif
