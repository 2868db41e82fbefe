/// Reference-counted objects behind the CoreFoundation references.
#ifndef KIVPLATFORM_CF_OBJECT_H
#define KIVPLATFORM_CF_OBJECT_H

#include <CoreFoundation/CoreFoundation.h>

#include <atomic>
#include <string>

namespace kivplatform {

/// Starts with one reference. A release too many or an object never released shows in the memory checkers.
class CfObject {
  public:
    virtual ~CfObject() = default;
    void retain() { references_.fetch_add(1, std::memory_order_relaxed); }
    void release() {
        if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

  private:
    std::atomic<long> references_{1};
};

}  // namespace kivplatform

/// A text that is compared by its address.
struct __CFString final : kivplatform::CfObject {};

/// A matching dictionary: the one key "IONameMatch".
struct __CFDictionary final : kivplatform::CfObject {
    explicit __CFDictionary(const char* name_match) : name(name_match) {}
    const std::string name;
};

#endif
