/// What goes wrong with driver calls of a virtual card, as a sentence:
/// fault(wire::kReadPci64).nth(6).status(kIOReturnBusy)
#ifndef KIV_TEST_DRIVER_FAULT_H
#define KIV_TEST_DRIVER_FAULT_H

#include "card/CardSettings.h"
#include "driver/wire.h"

namespace wire = kiv::wire;

class fault {
  public:
    /// Of every call of the selector, unless nth() says which.
    explicit fault(uint32_t selector) { fault_.selector = selector; }

    /// The nth call to the card, from 1.
    fault& nth(uint32_t number) { return fault_.nth = number, *this; }
    fault& status(int32_t status) { return fault_.status = status, *this; }
    fault& delay_ms(uint32_t delay) { return fault_.delay_ms = delay, *this; }
    fault& reply_size(uint32_t size) { return fault_.reply_size = size, *this; }

    operator kivsim::DriverFault() const { return fault_; }  // NOLINT(google-explicit-constructor)

  private:
    kivsim::DriverFault fault_;
};

/// What makes each answer of a card's server at this path, or below it, late.
inline kivsim::HttpFault late_answer(const std::string& path, uint32_t delay_ms) {
    kivsim::HttpFault fault;
    fault.path = path;
    fault.delay_ms = delay_ms;
    return fault;
}

#endif
