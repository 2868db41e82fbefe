#include "cf_object.h"

#include <cstdlib>

namespace {

kivplatform::CfObject& object_of(CFTypeRef reference) {
    if (reference == nullptr) std::abort();
    return *static_cast<kivplatform::CfObject*>(const_cast<void*>(reference));
}

}  // namespace

CFTypeRef CFRetain(CFTypeRef object) {
    object_of(object).retain();
    return object;
}

void CFRelease(CFTypeRef object) {
    object_of(object).release();
}
